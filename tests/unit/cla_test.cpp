// SPDX-License-Identifier: Apache-2.0
// The filter of command lines, and the parsers of numbers, slots, pics, ports and packed arguments.
#include "utils/cla.h"

#include <map>
#include <memory>

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

// Notes each call as "name=text" and accepts what the name says: d, texts that begin with a digit,
// e, everything, n, nothing.
std::string calls;
template <char name>
int judge(const char *text, void *) {
    (calls += name) += "=" + std::string(text) + " ";
    return name == 'e' || (name == 'd' && isdigit(text[0])) ? 0 : 1;
}

TEST(ClaFltr, TakesWhatHandlersAcceptAtEachRecordInTurn) {
    claFltrEntry table[] = {
        {'s', "switch", judge<'d'>, nullptr}, {'a', nullptr, judge<'n'>, nullptr},
        {'\0', "", judge<'e'>, nullptr},      {'b', "sw", judge<'e'>, nullptr},
        {'a', "a", judge<'d'>, nullptr},      {'x', "x", nullptr, nullptr}};
    const struct {
        Words before, after;
        std::string calls;
    } cases[] = {{{"/bin/t", "-s", "2", "x", "-s3", "y/z"}, {"t", "x", "y/z"}, "d=2 d=3 "},
                 {{"t", "--switch", "7", "--a", "8", "--switch"}, {"t", "--switch"}, "d=7 d=8 "},
                 {{"t", "--swit", "1", "switch", "1", "-x1"},
                  {"t", "--swit", "1", "switch", "1", "-x1"},
                  ""},
                 {{"t", "-s", "x", "-b", "x"}, {"t", "-s", "x"}, "d=x e=x "},
                 {{"t", "-sb1", "-ab-"}, {"t"}, "d=b1 e=1 n=b- e=- "},  // a refusal moves the place
                 {{"t", "-a", "9"}, {"t", "-a", "9"}, "n=9 "},
                 {{"t", "-sa", "9"}, {"t", "-sa", "9"}, "d=a n=9 "},
                 {{"t", "-aa", "9"}, {"t"}, "n=a d=9 "},
                 {{"t", "--", "x", "y"}, {"t", "y"}, "e=x "},
                 {{"t", "-s-", "x"}, {"t"}, "d=- e=x "},
                 {{"t", "-", "x", ""}, {"t", "-", "x", ""}, ""},
                 {{"t", "--sw", "-b", "-b"}, {"t", "-b"}, "e=-b "},
                 {{}, {}, ""}};
    for (const auto &c : cases) {
        Args args(c.before);
        calls = "";
        EXPECT_EQ(claFltr(table, &args.argc, args.argv.data()), 0);
        EXPECT_EQ(args.words(), c.after);
        EXPECT_EQ(calls, c.calls) << testing::PrintToString(c.before);
    }
    int argc = 0;
    char *argv[] = {nullptr};
    EXPECT_EQ(claFltr(nullptr, &argc, argv), -7);
    EXPECT_EQ(claFltr(table + 5, &argc, argv), -7);
    EXPECT_EQ(claFltr(table, nullptr, argv), -7);
    EXPECT_EQ(claFltr(table, &argc, nullptr), -7);
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
            EXPECT_EQ(number, value) << text;
            EXPECT_EQ(small, static_cast<int16_t>(value)) << text;
        }
    }
    char number[] = "12";
    for (auto parse : {clafGetInt, clafGetShort}) {
        EXPECT_EQ(parse(nullptr, nullptr), 1);
        EXPECT_EQ(parse(number, nullptr), 0);
    }
}

TEST(Claf, ArgPresentIgnoresCaseAndLooksAtEveryWord) {
    Args args(Words{"Tool", "-X", "fast"});
    for (auto [argc, word, found] :
         {std::tuple(3, "tOOL", 1), {3, "FAST", 1}, {2, "fast", 0}, {3, "fas", 0}, {0, "fast", -7}})
        EXPECT_EQ(clafArgPresent(argc, args.argv.data(), word), found) << argc;
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
        EXPECT_EQ(found[0], slot) << testing::PrintToString(before);
        EXPECT_EQ(found[1], pic) << testing::PrintToString(before);
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
