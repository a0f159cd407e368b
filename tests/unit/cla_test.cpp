#include "utils/cla.h"

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "support/support.h"

namespace {

using Words = std::vector<std::string>;

// The words of "a|b|c"; no word at all of null.
Words split(const char *text) {
    Words words;
    for (const char *end; text != nullptr; text = *end != '\0' ? end + 1 : nullptr) {
        end = text + strcspn(text, "|");
        words.emplace_back(text, end);
    }
    return words;
}

// An argument vector whose texts are heap blocks of their exact size, so that a read past one
// shows.
class Args {
  public:
    explicit Args(const Words &words) : argc(static_cast<int>(words.size())) {
        for (const std::string &word : words) {
            owned_.emplace_back(strdup(word.c_str()), free);
            argv.push_back(owned_.back().get());
        }
        argv.push_back(nullptr);
    }
    // The vector up to its null; a wrong argc shows as a difference.
    Words words() const {
        Words result;
        for (char *const *word = argv.data(); *word != nullptr; ++word)
            result.emplace_back(*word);
        EXPECT_EQ(argc, static_cast<int>(result.size()));
        return result;
    }

    int argc;
    std::vector<char *> argv;

  private:
    std::vector<std::unique_ptr<char, void (*)(void *)>> owned_;
};

// Handlers of the randomized run note every call and accept by their argument's rule.
struct Rule {
    int id;
    char accepts;  // 'n': nothing, 'd': texts that begin with a digit, 'e': everything
};
std::vector<std::pair<int, std::string>> calls;

int judge(const Rule &rule, const std::string &text) {
    return rule.accepts == 'e' || (rule.accepts == 'd' && isdigit(text[0])) ? 0 : 1;
}
int note_and_judge(const char *text, void *arg) {
    auto *rule = static_cast<const Rule *>(arg);
    calls.emplace_back(rule->id, text);
    return judge(*rule, text);
}

// The walk over one argument, on plain strings: how many words it takes.
size_t model_takes(const std::vector<claFltrEntry> &table, const Words &words, size_t at) {
    std::string rest = words[at].substr(1);
    for (const claFltrEntry &entry : table) {
        if (entry.handler == nullptr)
            break;
        const Rule &rule = *static_cast<Rule *>(entry.arg);
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
        calls.emplace_back(rule.id, value);
        if (judge(rule, value) == 0)
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
        Rule rules[4];
        std::vector<claFltrEntry> table;
        for (size_t n = 0, count = 1 + pick(4); n < count; ++n) {
            rules[n] = {static_cast<int>(n), "nde"[pick(3)]};
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
    Args args(split("/bin/tool|-s|2|x|-s3|--pic|65537|-s|abc|--swit|1|-|-p"));
    EXPECT_EQ(claFltr(table, &args.argc, args.argv.data()), 0);
    EXPECT_EQ(args.words(), split("tool|x|-s|abc|--swit|1|-|-p"));
    EXPECT_EQ(number, 3);
    EXPECT_EQ(small, 1);
    EXPECT_EQ(claFltr(nullptr, &args.argc, args.argv.data()), -7);
    EXPECT_EQ(claFltr(table + 2, &args.argc, args.argv.data()), -7);
    EXPECT_EQ(claFltr(table, nullptr, args.argv.data()), -7);
    EXPECT_EQ(claFltr(table, &args.argc, nullptr), -7);
}

TEST(Claf, NumbersBeginWithADigitAndEndAtASeparator) {
    auto expect = [](const char *text, bool good) {
        SCOPED_TRACE(text != nullptr ? text : "(null)");
        std::unique_ptr<char, void (*)(void *)> exact(text ? strdup(text) : nullptr, free);
        int32_t number = -5;
        int16_t small = -5;
        long long value = good ? std::min(strtoll(text, nullptr, 0), 0x7fffffffLL) : -5;
        EXPECT_EQ(clafGetInt(exact.get(), &number), good ? 0 : 1);
        EXPECT_EQ(number, value);
        EXPECT_EQ(clafGetShort(exact.get(), &small), good ? 0 : 1);
        EXPECT_EQ(small, static_cast<int16_t>(value));
    };
    for (const char *good : {"0", "31", "0x1F", "017", "1 2", "1\tx", "1\n", "1\r", "1,2", "65537",
                             "2147483647", "99999999999999999999"})
        expect(good, true);
    for (const char *bad : {"08", "0x", "0b1", "1;", "", " 1", "-1", "+1", "x", "12/3"})
        expect(bad, false);
    expect(nullptr, false);
}

TEST(Claf, ArgPresentIgnoresCaseAndLooksAtEveryWord) {
    Args args(split("Tool|-X|fast"));
    EXPECT_EQ(clafArgPresent(3, args.argv.data(), "tOOL"), 1);
    EXPECT_EQ(clafArgPresent(3, args.argv.data(), "FAST"), 1);
    EXPECT_EQ(clafArgPresent(2, args.argv.data(), "fast"), 0);
    EXPECT_EQ(clafArgPresent(3, args.argv.data(), "fas"), 0);
    EXPECT_EQ(clafArgPresent(0, args.argv.data(), "fast"), -7);
}

constexpr int kUnset = -99;

TEST(Claf, SlotSlashPortTakesTheFirstMatch) {
    struct {
        const char *before, *after;
        int slot;
    } cases[] = {{"t|1/12", "t|12", 1},     {"1/|x/2|/2", "1/|x/2|/2", kUnset},
                 {"0/007", "7", 0},         {"000/5", "5", 0},
                 {"010/00", "0", 10},       {"2/3,x|4/5", "3,x|4/5", 2},
                 {"2/3x|4/5", "2/3x|5", 4}, {"0x2/1|0", "0x2/1|0", kUnset},
                 {"3/0x1f", "0x1f", 3},     {"3/b/5|12", "3/b/5|12", kUnset}};
    for (const auto &c : cases) {
        Args args(split(c.before));
        int slot = kUnset;
        EXPECT_EQ(clafSlotSlashPort(args.argc, args.argv.data(), &slot), 0);
        EXPECT_EQ(args.words(), split(c.after));
        EXPECT_EQ(slot, c.slot) << c.before;
        EXPECT_EQ(clafSlotSlashPort(0, args.argv.data(), &slot), -7);
    }
}

TEST(Claf, SlotSlashPicSlashPortLetsTheFirstSlashDecide) {
    struct {
        const char *before, *after;
        int slot, pic, result;
    } cases[] = {{"t|3/b/05", "t|5", 3, 2, 0},
                 {"3/00x", "0x", 3, kUnset, 0},
                 {"A/5|1/2", "5|1/2", kUnset, 1, 0},
                 {"00/a/0", "0", 0, 1, 0},
                 {"3//5", "5", 3, kUnset, 0},
                 {"3/b/", "", 3, 2, 0},
                 {"portname|1/2|a/b/c", "portname|2|a/b/c", 1, kUnset, 0},
                 {"plain", nullptr, kUnset, kUnset, 0},
                 {"PORTNAME|1|a/b/c", nullptr, kUnset, kUnset, 0},
                 {"3/", nullptr, kUnset, kUnset, -8}};
    auto expect = [](const char *before, const char *after, int slot, int pic, int result) {
        SCOPED_TRACE(before);
        Args args(split(before));
        int found_slot = kUnset, found_pic = kUnset;
        EXPECT_EQ(clafSlotSlashPicSlashPort(args.argc, args.argv.data(), &found_slot, &found_pic),
                  result);
        EXPECT_EQ(args.words(), split(after != nullptr ? after : before));
        EXPECT_EQ(found_slot, slot);
        EXPECT_EQ(found_pic, pic);
        EXPECT_EQ(clafSlotSlashPicSlashPort(0, args.argv.data(), &found_slot, &found_pic), -7);
    };
    for (const auto &c : cases)
        expect(c.before, c.after, c.slot, c.pic, c.result);
    for (const char *bad : {"3/bc/5", "3x/5", "AB/5", "1/b/2/3", "t|/tmp/x|1/2"})
        expect(bad, nullptr, kUnset, kUnset, -7);
}

TEST(ClaReparse, SplitsInPlaceAndAlwaysEndsTheVector) {
    struct {
        const char *before;
        int capacity;
        const char *separators, *after;
        int result;
    } cases[] = {{"a,b x", 3, nullptr, "a|b|x", 3},  {"a,b x", 2, ",", "a|b x", 2},
                 {"a,b x", 1, nullptr, "a", -33},    {",, ||\t", 1, nullptr, nullptr, 0},
                 {" a,|b", 2, nullptr, "a|b", 2},    {"a", 0, nullptr, nullptr, -33},
                 {nullptr, 2, nullptr, nullptr, -22}};
    for (const auto &c : cases) {
        Args args(split(c.before));
        std::unique_ptr<char *[]> out(new char *[static_cast<size_t>(c.capacity) + 1]);
        EXPECT_EQ(claReparse(args.argc, args.argv.data(), out.get(), c.capacity, c.separators),
                  c.result);
        Words tokens;
        for (char **token = out.get(); *token != nullptr; ++token)
            tokens.emplace_back(*token);
        EXPECT_EQ(tokens, split(c.after));
    }
}

}  // namespace
