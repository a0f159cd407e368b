#include "utils/paging.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "support/support.h"
#include "utils/task.h"

namespace {
std::vector<int> delays;
uid_t effective_user;
}  // namespace

int taskDelay(int ticks) {
    delays.push_back(ticks);
    return 0;
}
uid_t geteuid() noexcept {
    return effective_user;
}

namespace {

__attribute__((format(printf, 1, 2))) std::string text(const char *format, ...) {
    char line[300];
    va_list values;
    va_start(values, format);
    vsnprintf(line, sizeof line, format, values);
    va_end(values);
    return line;
}

// The word of `size` bytes at `from`, as this machine has it.
unsigned long word(const void *from, size_t size) {
    uint16_t half = 0;
    uint32_t whole = 0;
    size == 2 ? memcpy(&half, from, 2) : memcpy(&whole, from, 4);
    return size == 2 ? half : whole;
}

TEST(Paging, MoreAsksUnlessItIsOff) {
    struct {
        std::string input;
        int result;
    } cases[] = {{"\n", 1},
                 {"q\n", 0},
                 {"Quit\n", 0},
                 {"x\n", 1},
                 {" q\n", 1},
                 {"", 0},
                 {std::string(79, 'q'), 0}};
    for (const auto &c : cases) {
        support::write_file("/tmp/input", c.input);
        ASSERT_NE(freopen("/tmp/input", "r", stdin), nullptr);
        EXPECT_EQ(support::captured(1, [&] { EXPECT_EQ(more(), c.result); }),
                  "\nType <CR> to continue, Q<CR> to stop: ");
    }
    EXPECT_TRUE(delays.empty());
    support::write_file("/tmp/input", "q" + std::string(78, '.') + "q\n");
    ASSERT_NE(freopen("/tmp/input", "r", stdin), nullptr);
    moreDisable();
    EXPECT_EQ(support::captured(1, [&] { EXPECT_EQ(more(), 1); }), "");
    EXPECT_EQ(delays, std::vector<int>{15});
    moreEnable();
    support::captured(1, [&] {
        EXPECT_EQ(more(), 0) << "nothing was read while it was off";
        EXPECT_EQ(more(), 0)
            << "an answer has 79 characters at most; the rest answers the next call";
        EXPECT_EQ(more(), 0) << "end of the input";
    });
}

TEST(Paging, KbhitTellsInputFromATimeOut) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    int kept = dup(0);
    dup2(ends[0], 0);
    EXPECT_EQ(kbhit(0), 0);
    EXPECT_EQ(kbhit(-1), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(kbhit(3600), 1);
    close(0);
    EXPECT_EQ(kbhit(0), 0);
    dup2(kept, 0);
    for (int fd : {kept, ends[0], ends[1]})
        close(fd);
}

// A dump of `count` units of `width` bytes as the layout says, from the outside in.
std::string dump_model(const unsigned char *bytes, int count, int width) {
    std::string all;
    for (int line = 0; line * 16 < count * width; ++line) {
        std::string column;
        all += text("%08lx: ", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(bytes)) +
                                   16UL * static_cast<unsigned long>(line));
        for (int at = line * 16; at < line * 16 + 16; ++at) {
            if (at % width == 0 && at >= count * width)
                all += std::string(static_cast<size_t>(2 * width) + 1, ' ');
            else if (at % width == 0 && width == 1)
                all += text("%02x ", bytes[at]);
            else if (at % width == 0)
                all += width > 4 ? text("%0*d ", 2 * width, 0)
                                 : text("%0*lx ", 2 * width,
                                        word(bytes + at, static_cast<size_t>(width)));
            column += bytes[at] >= 0x20 && bytes[at] < 0x7f ? static_cast<char>(bytes[at]) : '.';
        }
        all += "*" + column + "*\n";
    }
    return all;
}

TEST(Paging, MemDumpPrintsWholeLinesOfSixteenBytes) {
    std::mt19937 random(5);
    struct {
        int count, width, units, unit;  // what count and width stand for
    } cases[] = {{20, 1, 20, 1},  {16, 1, 16, 1}, {1, 2, 1, 2},   {9, 2, 9, 2},
                 {5, 4, 5, 4},    {3, 8, 3, 8},   {2, 16, 2, 16}, {0, 1, 256, 1},
                 {-3, 4, 256, 4}, {7, 0, 7, 1},   {7, -2, 7, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.count) + " of " + std::to_string(c.width));
        size_t padded = static_cast<size_t>(c.units * c.unit + 15) / 16 * 16;
        std::unique_ptr<unsigned char[]> bytes(new unsigned char[padded]);
        for (size_t at = 0; at < padded; ++at)
            bytes[at] = static_cast<unsigned char>(random());
        auto dump = [&](auto *function) {
            return support::captured(1, [&] { function(bytes.get(), c.count, c.width); });
        };
        std::string expected = dump_model(bytes.get(), c.units, c.unit);
        EXPECT_EQ(dump(memDump), expected);
        bool shown = c.count >= 0 && (c.width <= 2 || c.width == 4 || c.width == 8);
        EXPECT_EQ(dump(display_mem), shown ? expected : "");
    }
    alignas(16) unsigned char golden[32] = "ABC\n~\x7f 1234567890abcdefg";
    unsigned long at = reinterpret_cast<uintptr_t>(golden);
    EXPECT_EQ(support::captured(1, [&] { memDump(golden, 17, 1); }),
              text("%08lx: 41 42 43 0a 7e 7f 20 31 32 33 34 35 36 37 38 39 *ABC.~. 123456789*\n"
                   "%08lx: 30                                              *0abcdefg........*\n",
                   at, at + 16));
    // A unit that does not divide a line is shown where it begins, and no byte behind the last line
    // is read.
    EXPECT_EQ(support::captured(1, [&] { memDump(golden, 6, 3); }),
              text("%08lx: 000000 000000 000000 000000 000000 000000 *ABC.~. 123456789*\n"
                   "%08lx:                                    *0abcdefg........*\n",
                   at, at + 16));
    EXPECT_EQ(support::captured(1,
                                [] {
                                    memDump(nullptr, 1, 1);
                                    display_mem(nullptr, 1, 1);
                                }),
              "");
}

TEST(Paging, PrintMemShowsWordsAndCharacters) {
    const char bytes[] = "ABCDEFGHIJKLMNOP\x1f ~\x7f....";
    std::unique_ptr<char[]> exact(new char[24]);
    memcpy(exact.get(), bytes, 24);
    unsigned long w[6];
    for (size_t n = 0; n < 6; ++n)
        w[n] = word(bytes + 4 * n, 4);
    std::string whole =
        text("%08lx %08lx %08lx %08lx   *ABCDEFGHIJKLMNOP*\n", w[0], w[1], w[2], w[3]);
    std::string gap9 = "         ";
    struct {
        int len;
        std::string printed;
    } cases[] = {
        {16, whole},
        {20, whole + text("%08lx ", w[4]) + gap9 + gap9 + gap9 + "  *. ~.            *\n"},
        {21, whole + text("%08lx %08lx ", w[4], w[5]) + gap9 + gap9 + "  *. ~.....        *\n"},
        {24, whole + text("%08lx %08lx ", w[4], w[5]) + gap9 + gap9 + "  *. ~.....        *\n"},
        {1, text("%08lx ", w[0]) + gap9 + gap9 + gap9 + "  *ABCD            *\n"},
        {0, ""},
        {-4, ""}};
    for (const auto &c : cases)
        EXPECT_EQ(support::captured(1, [&] { printMem(exact.get(), c.len); }), c.printed) << c.len;
    EXPECT_EQ(support::captured(1, [] { printMem(nullptr, 4); }), "");
}

#ifdef __SIZEOF_INT128__
__extension__ using Wide = unsigned __int128;
#else
using Wide = uint64_t;
#endif

TEST(Paging, Sprint64AgreesWithWideArithmetic) {
    std::mt19937_64 random(7);
    for (int round = 0; round < 20000; ++round) {
        uint64_t number = random() >> random() % 64;
        auto base = static_cast<int>(random() % (round % 2 == 0 ? 40 : 100000)) - 2;
        auto high = static_cast<unsigned>(number >> 32), low = static_cast<unsigned>(number);
        std::string expected;
        auto divisor = static_cast<Wide>(base > 1 ? base : 10);
        if (base == 16 || (high == 0 && base == 8))
            expected =
                text(base == 16 ? "0x%llx" : "%llo", static_cast<unsigned long long>(number));
        else if (high == 0)
            expected = std::to_string(low);
        else
            for (Wide rest = number; rest != 0; rest /= divisor)
                expected.insert(0, std::to_string(static_cast<unsigned>(rest % divisor)));
        char written[SPRINT64_ROOM];
        ASSERT_EQ(sprint64(written, high, low, base), static_cast<int>(expected.size()));
        ASSERT_EQ(written, expected) << number << " " << base;
    }
    char written[SPRINT64_ROOM];
    EXPECT_EQ(sprint64(written, 1, 0, 10), 10);
    EXPECT_STREQ(written, "4294967296");
    EXPECT_EQ(sprint64(written, UINT32_MAX, UINT32_MAX, 2), 64);
    EXPECT_EQ(sprint64(nullptr, 1, 0, 10), 0);
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(print64(1, 0, 16), 11); }), "0x100000000");
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(print64(0, 8, 8), 2); }), "10");
}

TEST(Paging, SmallHelpers) {
    struct {
        const char *text;
        int number;
    } numbers[] = {{"0x1A", 26},
                   {"0X1a", 26},
                   {"012", 12},
                   {"-5", -5},
                   {" 7x", 7},
                   {"0x", 0},
                   {"", 0},
                   {"x", 0},
                   {"0xg", 0},
                   {nullptr, 0},
                   {"0xffffffff", -1},
                   {"99999999999999999999", INT32_MAX},
                   {"0x123456789abcdef01", -1}};
    for (const auto &n : numbers)
        EXPECT_EQ(str2num(n.text), n.number) << n.text;
    // Exact heap blocks: nothing behind an empty text is looked at.
    std::unique_ptr<char[]> empty(new char[1]()), other(new char[1]());
    EXPECT_EQ(strequ(empty.get(), other.get()), 1);
    EXPECT_EQ(strequ("a", empty.get()), 0);
    EXPECT_EQ(strequ("abc", "abc"), 1);
    EXPECT_EQ(strequ("abc", "abd"), 0);
    EXPECT_EQ(strequ("ab", "abd"), 0);
    EXPECT_EQ(strequ(nullptr, "a"), 0);
    EXPECT_STREQ(val(nullptr), "");
    EXPECT_EQ(val(empty.get()), empty.get());
    EXPECT_EQ(eswap(0x12345678U), 0x12345678U);
    EXPECT_EQ(utilGetUserLevel(), 0);
    EXPECT_EQ(probe(0), 0);
    EXPECT_EQ(probe(4), 1);
    EXPECT_EQ(chkAccess(), 0);
    effective_user = 1000;
    EXPECT_EQ(chkAccess(), -1);
    effective_user = 0;
    struct {
        int (*call)();
        const char *message;
        int result;
    } stubs[] = {{getLine, "getLine() not ported\n", 0}, {less, "less() not ported\n", 18},
                 {peek, "peak() not ported\n", 0},       {peekl, "peekl() not ported\n", 0},
                 {poke, "poke() not ported\n", 0},       {pokel, "pokel() not supported\n", 0}};
    for (const auto &stub : stubs)
        EXPECT_EQ(support::captured(1, [&] { EXPECT_EQ(stub.call(), stub.result); }), stub.message);
}

}  // namespace
