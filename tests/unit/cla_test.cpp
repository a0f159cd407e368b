// SPDX-License-Identifier: Apache-2.0
#include "utils/cla.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "support/support.h"

namespace {

using Words = std::vector<std::string>;

// An argument vector whose texts are heap blocks of their exact size, so that a read past one
// shows.
struct Args {
    explicit Args(const Words &words) : argc(static_cast<int>(words.size())) {
        for (const std::string &word : words)
            argv.push_back(owned.emplace_back(strdup(word.c_str()), free).get());
        argv.push_back(nullptr);
    }
    // The vector up to its null; a wrong argc shows as a difference.
    Words words() const {
        Words result(argv.data(), std::find(argv.data(), argv.data() + argv.size(), nullptr));
        EXPECT_EQ(argc, static_cast<int>(result.size()));
        return result;
    }

    int argc;
    std::vector<char *> argv;
    std::vector<std::unique_ptr<char, void (*)(void *)>> owned{};
};

// Handlers of the randomized run note every call and accept what their argument says: 'n': nothing,
// 'd': texts that begin with a digit, 'e': everything.
std::vector<std::pair<void *, std::string>> calls;

int note_and_judge(const char *text, void *arg) {
    calls.emplace_back(arg, text);
    char accepts = *static_cast<char *>(arg);
    return accepts == 'e' || (accepts == 'd' && isdigit(text[0])) ? 0 : 1;
}

// The walk over one argument, on plain strings: how many words it takes.
size_t model_takes(const std::vector<claFltrEntry> &table, const Words &words, size_t at) {
    std::string rest = words[at].substr(1);
    for (const claFltrEntry &entry : table) {
        if (entry.handler == nullptr)
            break;
        bool is_long = rest.rfind('-', 0) == 0;
        if (is_long ? entry.name == nullptr || rest.substr(1) != entry.name
                    : rest.empty() || rest[0] != entry.letter)
            continue;
        if (!is_long)
            rest.erase(0, 1);
        bool attached = !is_long && !rest.empty();
        if (!attached && at + 1 == words.size())
            continue;
        const std::string &value = attached ? rest : words[at + 1];
        if (note_and_judge(value.c_str(), entry.arg) == 0)
            return attached ? 1 : 2;
    }
    return 0;
}

TEST(ClaFltr, AgreesWithAPlainWalkOverRandomTablesAndArguments) {
    std::mt19937 random(3);
    auto pick = [&](size_t below) { return random() % below; };
    auto text = [&](const char *letters, size_t longest) {
        std::string result;
        for (size_t n = pick(longest + 1); n > 0; --n)
            result += letters[pick(strlen(letters))];
        return result;
    };
    size_t taken_in_all = 0;
    const size_t rounds = support::emulated() ? 5000 : 50000;
    for (size_t round = 0; round < rounds; ++round) {
        const char *names[] = {"a", "s", "sw", "-s", "", nullptr};
        char rules[4];
        std::vector<claFltrEntry> table;
        for (size_t n = 0, count = 1 + pick(4); n < count; ++n) {
            rules[n] = "nde"[pick(3)];
            table.push_back({"as-\0"[pick(4)], names[pick(6)], note_and_judge, &rules[n]});
        }
        table.push_back({'s', "s", nullptr, nullptr});
        Words words = {text("a/", 4)};
        for (size_t n = pick(6); n > 0; --n)
            words.push_back((pick(4) != 0 ? "-" : "") + text("-as1w", 4));
        Args args(words);
        calls.clear();
        ASSERT_EQ(claFltr(table.data(), &args.argc, args.argv.data()), 0);
        auto seen = std::exchange(calls, {});
        words[0] = words[0].substr(words[0].find_last_of('/') + 1);
        for (size_t at = 1; at < words.size();) {
            size_t taken = words[at][0] == '-' ? model_takes(table, words, at) : 0;
            auto first = words.begin() + static_cast<long>(at);
            words.erase(first, first + static_cast<long>(taken));
            at += taken == 0;
            taken_in_all += taken;
        }
        ASSERT_EQ(args.words(), words);
        ASSERT_EQ(seen, calls);
    }
    EXPECT_GT(taken_in_all, rounds / 10);
}

TEST(ClaFltr, TakesOptionsWithTheReadyMadeHandlersAndRefusesBadTables) {
    int32_t number = -1;
    int16_t small = -1;
    claFltrEntry table[] = {{'s', "switch", clafGetInt, &number},
                            {'p', "pic", clafGetShort, &small},
                            {0, nullptr, nullptr, nullptr}};
    Args args(Words{"/bin/tool", "-s", "2", "x", "-s3", "--pic", "65537", "-s", "abc", "--swit",
                    "1", "-", "-p"});
    char **argv = args.argv.data();
    EXPECT_EQ((std::vector{claFltr(table, &args.argc, argv), claFltr(nullptr, &args.argc, argv),
                           claFltr(table + 2, &args.argc, argv), claFltr(table, nullptr, argv),
                           claFltr(table, &args.argc, nullptr)}),
              (std::vector{0, -7, -7, -7, -7}));
    EXPECT_EQ(args.words(), (Words{"tool", "x", "-s", "abc", "--swit", "1", "-", "-p"}));
    EXPECT_TRUE(number == 3 && small == 1);
}

TEST(Claf, NumbersBeginWithADigitAndEndAtASeparator) {
    const std::map<int, Words> cases = {
        {31, {"31", "0x1F"}},
        {15, {"017"}},
        {1, {"1 2", "1\tx", "1\n", "1\r", "1,2"}},
        {65537, {"65537"}},
        {INT32_MAX, {"3000000000"}},
        {-5, {"08", "0x", "0b1", "1;", "", " 1", "-1"}}};  // refused
    for (const auto &[value, words] : cases) {
        Args args(words);
        for (int at = 0; at < args.argc; ++at) {
            char *text = args.argv[static_cast<size_t>(at)];
            int32_t number = -5;
            int16_t small = -5;
            EXPECT_EQ(clafGetInt(text, &number), value == -5 ? 1 : 0) << text;
            EXPECT_EQ(clafGetShort(text, &small), value == -5 ? 1 : 0) << text;
            EXPECT_TRUE(number == value && small == static_cast<int16_t>(value)) << text;
        }
    }
    EXPECT_EQ(clafGetInt(nullptr, nullptr), 1);
}

TEST(Claf, ArgPresentIgnoresCaseAndLooksAtEveryWord) {
    Args args(Words{"Tool", "-X", "fast"});
    char **argv = args.argv.data();
    EXPECT_EQ((std::vector{clafArgPresent(3, argv, "tOOL"), clafArgPresent(3, argv, "FAST"),
                           clafArgPresent(2, argv, "fast"), clafArgPresent(3, argv, "fas"),
                           clafArgPresent(0, argv, "fast")}),
              (std::vector{1, 1, 0, 0, -7}));
}

constexpr int kNo = -99;

// Slot and port take the first match; with a pic, the first slash decides.
TEST(Claf, SlotsPicsAndPortsAreSplit) {
    const std::tuple<bool, Words, Words, int, int, int> cases[] = {
        {false, {"t", "1/12"}, {"t", "12"}, 1, kNo, 0},
        {false, {"1/", "x/2", "/2"}, {"1/", "x/2", "/2"}, kNo, kNo, 0},
        {false, {"0/007"}, {"7"}, 0, kNo, 0},
        {false, {"000/0x1f"}, {"0x1f"}, 0, kNo, 0},
        {false, {"010/00"}, {"0"}, 10, kNo, 0},
        {false, {"2/3,x", "4/5"}, {"3,x", "4/5"}, 2, kNo, 0},
        {false, {"2/3x", "4/5"}, {"2/3x", "5"}, 4, kNo, 0},
        {false, {"0x2/1"}, {"0x2/1"}, kNo, kNo, 0},
        {false, {"3/b/5"}, {"3/b/5"}, kNo, kNo, 0},
        {false, {}, {}, kNo, kNo, -7},
        {true, {"t", "3/b/05"}, {"t", "5"}, 3, 2, 0},
        {true, {"3/00x"}, {"0x"}, 3, kNo, 0},
        {true, {"A/5", "1/2"}, {"5", "1/2"}, kNo, 1, 0},
        {true, {"00/a/0"}, {"0"}, 0, 1, 0},
        {true, {"3//5"}, {"5"}, 3, kNo, 0},
        {true, {"portname", "1/2", "a/b/c"}, {"portname", "2", "a/b/c"}, 1, kNo, 0},
        {true, {"PORTNAME", "1", "a/b/c"}, {"PORTNAME", "1", "a/b/c"}, kNo, kNo, 0},
        {true, {"3/"}, {"3/"}, kNo, kNo, -8},
        {true, {"3/bc/5"}, {"3/bc/5"}, kNo, kNo, -7},
        {true, {"3x/5"}, {"3x/5"}, kNo, kNo, -7},
        {true, {"1/b/2/03"}, {"3"}, 1, 2, 0},
        {true, {"a//x/"}, {""}, kNo, 1, 0},
        {true, {"1/bc/2/3"}, {"1/bc/2/3"}, kNo, kNo, -7},
        {true, {}, {}, kNo, kNo, -7}};
    for (const auto &[with_pic, before, after, slot, pic, expected] : cases) {
        Args args(before);
        char **argv = args.argv.data();
        int found[] = {kNo, kNo};
        int result = with_pic ? clafSlotSlashPicSlashPort(args.argc, argv, &found[0], &found[1])
                              : clafSlotSlashPort(args.argc, argv, &found[0]);
        EXPECT_EQ(result, expected);
        EXPECT_EQ(args.words(), after);
        EXPECT_TRUE(found[0] == slot && found[1] == pic) << testing::PrintToString(before);
    }
}

TEST(ClaReparse, SplitsInPlaceAndAlwaysEndsTheVector) {
    const std::tuple<Words, int, const char *, Words, int> cases[] = {
        {{"a,b x"}, 3, nullptr, {"a", "b", "x"}, 3}, {{"a,b x"}, 2, ",", {"a", "b x"}, 2},
        {{"a,b x"}, 1, nullptr, {"a"}, -33},         {{",, ", "", "\t"}, 1, nullptr, {}, 0},
        {{" a,", "b"}, 2, nullptr, {"a", "b"}, 2},   {{}, 2, nullptr, {}, -22}};
    for (const auto &[before, capacity, separators, after, result] : cases) {
        Args args(before);
        std::vector<char *> out(static_cast<size_t>(capacity) + 1, args.argv[0]);
        EXPECT_EQ(claReparse(args.argc, args.argv.data(), out.data(), capacity, separators),
                  result);
        EXPECT_EQ(Words(out.begin(), std::find(out.begin(), out.end(), nullptr)), after);
    }
}

}  // namespace
