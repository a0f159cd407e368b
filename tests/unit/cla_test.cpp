#include "utils/cla.h"

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "support/support.h"

namespace {

using Words = std::vector<std::string>;

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
    for (int round = 0; round < (support::emulated() ? 5000 : 50000); ++round) {
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
    EXPECT_GT(taken_in_all, 2000U);
}

TEST(ClaFltr, TakesOptionsWithTheReadyMadeHandlersAndRefusesBadTables) {
    int32_t number = -1;
    int16_t small = -1;
    claFltrEntry table[] = {{'s', "switch", clafGetInt, &number},
                            {'p', "pic", clafGetShort, &small},
                            {0, nullptr, nullptr, nullptr}};
    Args args({"/bin/tool", "-s", "2", "x", "-s3", "--pic", "65537", "-s", "abc", "--swit", "1",
               "-", "-p"});
    EXPECT_EQ(claFltr(table, &args.argc, args.argv.data()), 0);
    EXPECT_EQ(args.words(), (Words{"tool", "x", "-s", "abc", "--swit", "1", "-", "-p"}));
    EXPECT_EQ(number, 3);
    EXPECT_EQ(small, 1);
    EXPECT_EQ(claFltr(nullptr, &args.argc, args.argv.data()), -7);
    EXPECT_EQ(claFltr(table + 2, &args.argc, args.argv.data()), -7);
    EXPECT_EQ(claFltr(table, nullptr, args.argv.data()), -7);
    EXPECT_EQ(claFltr(table, &args.argc, nullptr), -7);
}

TEST(Claf, NumbersBeginWithADigitAndEndAtASeparator) {
    struct {
        const char *text;
        int result, value;
    } cases[] = {{"0", 0, 0},
                 {"31", 0, 31},
                 {"0x1F", 0, 31},
                 {"017", 0, 15},
                 {"08", 1, 0},
                 {"0x", 1, 0},
                 {"0b1", 1, 0},
                 {"1 2", 0, 1},
                 {"1\tx", 0, 1},
                 {"1\n", 0, 1},
                 {"1\r", 0, 1},
                 {"1,2", 0, 1},
                 {"1;", 1, 0},
                 {"", 1, 0},
                 {" 1", 1, 0},
                 {"-1", 1, 0},
                 {"+1", 1, 0},
                 {"x", 1, 0},
                 {"12/3", 1, 0},
                 {nullptr, 1, 0},
                 {"2147483647", 0, INT32_MAX},
                 {"99999999999999999999", 0, INT32_MAX}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text != nullptr ? c.text : "(null)");
        std::unique_ptr<char, void (*)(void *)> exact(c.text ? strdup(c.text) : nullptr, free);
        int32_t number = -5;
        int16_t small = -5;
        EXPECT_EQ(clafGetInt(exact.get(), &number), c.result);
        EXPECT_EQ(number, c.result == 0 ? c.value : -5);
        EXPECT_EQ(clafGetShort(exact.get(), &small), c.result);
        EXPECT_EQ(small, c.result == 0 ? static_cast<int16_t>(c.value) : -5);
    }
}

TEST(Claf, ArgPresentIgnoresCaseAndLooksAtEveryWord) {
    Args args({"Tool", "-X", "fast"});
    EXPECT_EQ(clafArgPresent(3, args.argv.data(), "tOOL"), 1);
    EXPECT_EQ(clafArgPresent(3, args.argv.data(), "FAST"), 1);
    EXPECT_EQ(clafArgPresent(2, args.argv.data(), "fast"), 0);
    EXPECT_EQ(clafArgPresent(3, args.argv.data(), "fas"), 0);
    EXPECT_EQ(clafArgPresent(0, args.argv.data(), "fast"), -7);
}

constexpr int kUnset = -99;

TEST(Claf, SlotSlashPortTakesTheFirstMatch) {
    struct {
        Words before, after;
        int slot;
    } cases[] = {{{"t", "1/12"}, {"t", "12"}, 1},
                 {{"1/", "x/2", "/2"}, {"1/", "x/2", "/2"}, kUnset},
                 {{"0/007"}, {"7"}, 0},
                 {{"000/5"}, {"5"}, 0},
                 {{"010/00"}, {"0"}, 10},
                 {{"2/3,x", "4/5"}, {"3,x", "4/5"}, 2},
                 {{"2/3x", "4/5"}, {"2/3x", "5"}, 4},
                 {{"0x2/1", "0"}, {"0x2/1", "0"}, kUnset},
                 {{"3/0x1f"}, {"0x1f"}, 3},
                 {{"3/b/5", "12"}, {"3/b/5", "12"}, kUnset}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.before.front());
        Args args(c.before);
        int slot = kUnset;
        EXPECT_EQ(clafSlotSlashPort(args.argc, args.argv.data(), &slot), 0);
        EXPECT_EQ(args.words(), c.after);
        EXPECT_EQ(slot, c.slot);
        EXPECT_EQ(clafSlotSlashPort(0, args.argv.data(), &slot), -7);
    }
}

TEST(Claf, SlotSlashPicSlashPortLetsTheFirstSlashDecide) {
    struct {
        Words before;
        int result;
        Words after;
        int slot, pic;
    } cases[] = {{{"t", "3/b/05"}, 0, {"t", "5"}, 3, 2},
                 {{"3/bc/5"}, -7, {"3/bc/5"}, kUnset, kUnset},
                 {{"3/"}, -8, {"3/"}, kUnset, kUnset},
                 {{"3/00x"}, 0, {"0x"}, 3, kUnset},
                 {{"A/5", "1/2"}, 0, {"5", "1/2"}, kUnset, 1},
                 {{"00/a/0"}, 0, {"0"}, 0, 1},
                 {{"3x/5"}, -7, {"3x/5"}, kUnset, kUnset},
                 {{"3//5"}, 0, {"5"}, 3, kUnset},
                 {{"3/b/"}, 0, {""}, 3, 2},
                 {{"AB/5"}, -7, {"AB/5"}, kUnset, kUnset},
                 {{"1/b/2/3"}, -7, {"1/b/2/3"}, kUnset, kUnset},
                 {{"plain"}, 0, {"plain"}, kUnset, kUnset},
                 {{"PORTNAME", "1", "a/b/c"}, 0, {"PORTNAME", "1", "a/b/c"}, kUnset, kUnset},
                 {{"portname", "1/2", "a/b/c"}, 0, {"portname", "2", "a/b/c"}, 1, kUnset}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.before.back());
        Args args(c.before);
        int slot = kUnset, pic = kUnset;
        EXPECT_EQ(clafSlotSlashPicSlashPort(args.argc, args.argv.data(), &slot, &pic), c.result);
        EXPECT_EQ(args.words(), c.after);
        EXPECT_EQ(slot, c.slot);
        EXPECT_EQ(pic, c.pic);
        EXPECT_EQ(clafSlotSlashPicSlashPort(0, args.argv.data(), &slot, &pic), -7);
    }
}

TEST(ClaReparse, SplitsInPlaceAndAlwaysEndsTheVector) {
    struct {
        Words before;
        int capacity;
        const char *separators;
        int result;
        Words after;
    } cases[] = {{{"a,b x"}, 3, nullptr, 3, {"a", "b", "x"}},
                 {{"a,b x"}, 2, ",", 2, {"a", "b x"}},
                 {{"a,b x"}, 1, nullptr, -33, {"a"}},
                 {{",, ", "", "\t"}, 1, nullptr, 0, {}},
                 {{" a,", "b"}, 2, nullptr, 2, {"a", "b"}},
                 {{"a"}, 0, nullptr, -33, {}},
                 {{}, 2, nullptr, -22, {}}};
    for (const auto &c : cases) {
        Args args(c.before);
        std::unique_ptr<char *[]> out(new char *[static_cast<size_t>(c.capacity) + 1]);
        EXPECT_EQ(claReparse(args.argc, args.argv.data(), out.get(), c.capacity, c.separators),
                  c.result);
        Words tokens;
        for (char **token = out.get(); *token != nullptr; ++token)
            tokens.emplace_back(*token);
        EXPECT_EQ(tokens, c.after);
    }
}

}  // namespace
