// SPDX-License-Identifier: Apache-2.0
// The typed value prompt: its dialogue for every type, at the end of the input and on a terminal.
#include "utils/getval.h"

#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>

#include "support/support.h"

namespace {

#ifdef __powerpc__
// The emulator has no old-style terminal requests: they are served from the terminal attributes.
int old_style(int fd, unsigned long request, void *record) {
    if (request != 0x40067408 && request != 0x80067409)
        return ioctl(fd, request, record);
    auto *erase = static_cast<unsigned char *>(record) + 2;
    termios terminal{};
    if (tcgetattr(fd, &terminal) != 0)
        return -1;
    if (request == 0x40067408) {
        *erase = terminal.c_cc[VERASE];
        return 0;
    }
    terminal.c_cc[VERASE] = *erase;
    return tcsetattr(fd, TCSANOW, &terminal);
}
[[maybe_unused]] const bool faked = (support::replace_call("ioctl", old_style), true);
#endif

// Answers prompts from `input`; gives what was printed and the call's result.
std::string printed_by(getvalDesc desc, const std::string &input, int *result) {
    support::write_file("/tmp/input", input);
    EXPECT_NE(freopen("/tmp/input", "r", stdin), nullptr);
    return support::captured(1, [&] { *result = getval("L", &desc); });
}

// A line of `length` equal characters; out of line, where the compiler does not misjudge the sizes.
__attribute__((noinline)) std::string line_of(size_t length, char c) {
    std::string line(length, c);
    return line.append("\n");
}

// What is asked for, and the texts that show it.
struct Question {
    int type, min, max, multiple, current;
    const char *prompt, *range = "", *not_multiple = "";
};

// The prompt and, for each letter of `refusals`, that message and the prompt again.
std::string dialogue(const Question &question, const std::string &refusals) {
    std::string all = question.prompt;
    for (char refusal : refusals) {
        all += refusal == 'r'   ? question.range
               : refusal == 'm' ? question.not_multiple
                                : "Input not acceptable, please re-enter\n";
        all += question.prompt;
    }
    return all;
}

struct Case {
    std::string input;
    const char *refusals;  // a: not acceptable, r: out of range, m: not a multiple
    int32_t value;
};

const std::pair<Question, std::vector<Case>> kNumbers[] = {
    {{1, -10, 100, 1, 7, "L: (-10..100) [7] ",
      "integer must be between -10 and 100 - please re-enter\n"},
     {{"42\n", "", 42},
      {"+5\n5-\n 5\n-\n0x5\nx\n-5\n", "aaaaaa", -5},
      {"101\n-11\n99999999999999999999\n4294967297\n100\n", "rrrr", 100},
      {line_of(400, '1') + "6\n", "rr", 6},
      {{"1\0\n\0\n6\n", 7}, "aa", 6},
      {"7\n", "", 7},
      {"\n", "", 7},
      {"x\n", "a", 7},
      {"123", "", 12}}},  // the end of the input costs the last character
    {{1, -10, 100, 5, 7, "L: (-10..100) [7] ", "",
      "integer must be a multiple of 5 - please re-enter\n"},
     {{"12\n-7\n-5\n", "mm", -5}}},
    {{1, INT32_MIN, INT32_MAX, 0, 7, "L: (-2147483648..2147483647) [7] "}, {{"12\n", "", 12}}},
    {{1, INT32_MIN, INT32_MAX, -1, 7, "L: (-2147483648..2147483647) [7] "},
     {{"-2147483648\n", "", INT32_MIN}}},
    {{2, 0, 255, 1, 31, "L: (0x0..0xff) [0x1f] ",
      "integer must be between 0x0 and 0xff - please re-enter\n"},
     {{"0x2a\n", "", 42},
      {"0X2A\n", "", 42},
      {"010\n", "", 8},
      {"a\n2a\n-1\n0x2g\nx1\n256\n0xffffffff\n0xfffffffff00000001\n3\n", "aaaaarrr", 3}}},
    {{2, -32, 255, 16, 0, "L: (0xffffffe0..0xff) [0x0] ",
      "integer must be between 0xffffffe0 and 0xff - please re-enter\n",
      "integer must be a multiple of 0x10 - please re-enter\n"},
     {{"0x11\n0xffffffd0\n0xfffffff0\n", "mr", -16}}},
    {{7, 0, 0xffffff, 256, 0x10200, "L: (0x0..0xffffff) [10200] 0x",
      "port ID must be between 0x0 and 0xffffff - please re-enter\n",
      "integer must be a multiple of 256 - please re-enter\n"},
     {{"0x10100\n", "", 0x10100}, {"a\n0xg1\n1000000\n1g\ng1\n10101\n0a00\n", "aaraam", 0xa00}}},
    {{16, 1, 200, 5, 40, "L: (1..200) [40] ",
      "integer must be between 1 and 200 - please re-enter\n",
      "Invalid key length [64]. Must be 40, 56, or 128.\n"},
     {{"64\n201\n0\nx\n56\n", "mrra", 56}, {"128\n", "", 128}, {"40\n", "", 40}}},
    {{3, 0, 0, 1, 1, "L (true, t, false, f): [true] "},
     {{"yes\nTRUE\n", "a", 1}, {"f\n", "", 0}, {"False\n", "", 0}}},
    {{3, 0, 0, 1, 2, "L (true, t, false, f): [false] "}, {{"T\n", "", 1}}},
    {{4, 0, 0, 1, 0, "L (yes, y, no, n): [no] "}, {{"ye\ny \nY\n", "aa", 1}, {"yes\n", "", 1}}},
    {{4, 0, 0, 1, 1, "L (yes, y, no, n): [yes] "}, {{"n\n", "", 0}, {"No\n", "", 0}}},
    {{5, 0, 0, 1, 0, "L (on, off): [off] "}, {{"o\nt\nOn\n", "aa", 1}}},
    {{5, 0, 0, 1, 1, "L (on, off): [on] "}, {{"oFF\n", "", 0}}},
};

TEST(GetVal, NumbersAreAskedForUntilTheyAreAcceptable) {
    for (const auto &[q, cases] : kNumbers) {
        for (const Case &c : cases) {
            int32_t value = q.current;
            int result = -9;
            EXPECT_EQ(printed_by({q.type, &value, q.min, q.max, q.multiple}, c.input, &result),
                      dialogue(q, c.refusals))
                << c.input;
            EXPECT_EQ(result, c.value != q.current ? 1 : 0);
            EXPECT_EQ(value, c.value);
        }
    }
}

TEST(GetVal, TextsAreAskedForUntilTheyAreAcceptable) {
    const Question text{
        6, 2, 6, 1, 0, "L: [old] ", "string size must be between 2 and 6 - please re-enter\n"};
    const std::tuple<int, std::string, const char *, const char *> cases[] = {
        {6, "  a b \n", "", "  a b "},
        {6, "a\n1234567\nab\tc\na\x7f\nabcdef\n", "rraa", "abcdef"},
        {6, "old\n", "", "old"},
        {6, "abc", "r", "old"},
        {6, line_of(298, 'x') + "new\n", "r", "new"},
        {6, line_of(299, 'x') + "new\n", "r", "new"},
        {6, {"a\0b\nnew\n", 8}, "a", "new"},
        {11, " \t a b\n", "", "a b"},
        {23, "   a\n\t \nnew\n", "rr", "new"},
        {22, "a b\na b c d e\n  word\n", "ar", "word"},
        {12, "10.0.0.0\n10.0.0.255\n1.2.3.4x\n1.2.3\n255.1.1.1\n9.9.9.9\n", "aaaaa", "9.9.9.9"},
        {12, "0.1.1.1\n1.256.1.1\n1.1.-1.1\n1.1.1.1 \n10.0.0.254\n", "aaaa", "10.0.0.254"},
        {13, "4294967297.1.1.1\n1.256.1.1\n1.1.256.1\n1.1.1.0\n1.1.1.1.1\n1.1.1.1\n", "aaaaa",
         "1.1.1.1"},
        {13, {"1.1.1.1\0.1\n0.0.0.0\n", 19}, "a", "0.0.0.0"},
        {15, "255.1.1.1\n1.1.1.256\n10.0.0.255\n", "aa", "10.0.0.255"},
        {15, "10.0.0.0\n", "", "10.0.0.0"},
        {12, "001.002.003. 004\n", "", "001.002.003. 004"}};
    for (const auto &[type, input, refusals, expected] : cases) {
        char value[GETVAL_IP_ROOM] = "old";
        int result = -9;
        EXPECT_EQ(printed_by({type, value, 2, 6, 1}, input, &result), dialogue(text, refusals));
        EXPECT_EQ(result, strcmp(expected, "old") != 0 ? 1 : 0) << type << input;
        EXPECT_STREQ(value, expected);
    }
}

TEST(GetVal, WorldWideNamesAreStoredByteByByteEvenWhenEqual) {
    const Question name_question{21, 0, 0xab, 1, 0, "L (in hex): [10:00:00:60:69:80:00:ab] "};
    const std::tuple<const char *, const char *, int, unsigned char> cases[] = {
        {"10:00:00:60:69:80:00:ab\n", "", 1, 0xab},
        {"10:0:00:60:69:80:00:A1:77zz\n", "", 1, 0xa1},
        {"10:00:00:60:69:80:00\n10-0\n10:0:0:60:69:80:0:ac\n10:0:0:60:69:80:0:-5\n", "aaaa", 0,
         0xab}};
    for (const auto &[input, refusals, expected, last] : cases) {
        unsigned char name[] = {0x10, 0, 0, 0x60, 0x69, 0x80, 0, 0xab};
        int result = -9;
        EXPECT_EQ(printed_by({GETVAL_WWN, name, 0, 0xab, 1}, input, &result),
                  dialogue(name_question, refusals));
        EXPECT_EQ(result, expected) << input;
        EXPECT_THAT(name, testing::ElementsAre(0x10, 0, 0, 0x60, 0x69, 0x80, 0, last)) << input;
    }
}

TEST(GetVal, BadArgumentsReservedTypesAndTheEndOfTheInputAskNothing) {
    int32_t value = 3;
    int result = 0;
    getvalDesc desc{GETVAL_INT, &value, 0, 9, 1};
    for (getvalDesc bad : {getvalDesc{1, nullptr, 0, 9, 1}, getvalDesc{1, &value, 1, 0, 1}}) {
        EXPECT_EQ(printed_by(bad, "4\n", &result), "");
        EXPECT_EQ(result, -1);
    }
    EXPECT_EQ(getval(nullptr, &desc), -1);
    EXPECT_EQ(getval("L", nullptr), -1);
    for (int type : {-1, 0, 8, 9, 10, 14, 17, 18, 19, 20, 24}) {
        EXPECT_EQ(printed_by({type, &value, 0, 9, 1}, "4\n", &result), "");
        EXPECT_EQ(result, 0);
    }
    printed_by(desc, "", &result);
    ASSERT_TRUE(feof(stdin));
    EXPECT_EQ(support::captured(1, [&] { EXPECT_EQ(getval("L", &desc), 0); }), "");
    EXPECT_EQ(value, 3);
}

TEST(GetVal, TalksToATerminalAndMakesBackspaceItsEraseCharacter) {
    // Without echo, so that all output is the call's.
    termios terminal{};
    terminal.c_cflag = CS8 | CREAD;
    terminal.c_lflag = ICANON;
    terminal.c_cc[VERASE] = 0x7f;
    terminal.c_cc[VEOF] = 4;
    int master = -1, status = -1;
    ASSERT_NE(freopen("/dev/null", "r", stdin), nullptr);
    pid_t child = forkpty(&master, nullptr, &terminal, nullptr);
    if (child == 0) {
        int32_t number = 7;
        char text[7] = "old";
        getvalDesc port{GETVAL_INT, &number, 0, 100, 1}, name{GETVAL_STRING, text, 1, 6, 1};
        for (getvalDesc *ask : {&port, &port, &name, &port}) {
            int result = getval(ask == &name ? "name" : "port", ask);
            printf("=%d %d %s\n", result, number, text);
        }
        fflush(stdout);
        _exit(getval("port", &port));
    }
    terminal.c_cc[VERASE] = 0x08;
    // What is typed, and what it makes the call show.
    const std::pair<std::string, std::string> dialogue[] = {
        {"", "port: (0..100) [7] "},
        {"1234\n", "integer must be between 0 and 100 - please re-enter\nport: (0..100) [7] "},
        // The Enter of the next prompt is typed ahead.
        {"9x\b\b12\n\n", "=1 12 old\nport: (0..100) [12] =0 12 old\nname: [old] "},
        {line_of(500, 'x'), "string size must be between 1 and 6 - please re-enter\nname: [old] "},
        {"new\n", "=1 12 new\nport: (0..100) [12] "},
        {"\4", "=0 12 new\n"}};  // the end of the input, which stays
    for (const auto &[keys, shown] : dialogue) {
        EXPECT_EQ(write(master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
        std::string seen;
        for (char c = 0; seen.size() < shown.size() && read(master, &c, 1) == 1;)
            seen += c;
        EXPECT_EQ(seen, shown);
        termios now{};
        EXPECT_EQ(tcgetattr(master, &now), 0);
        EXPECT_EQ(memcmp(terminal.c_cc, now.c_cc, sizeof now.c_cc), 0);
        EXPECT_EQ(terminal.c_lflag, now.c_lflag);
    }
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    close(master);
}

}  // namespace
