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
unsigned long word(const void *from, int size) {
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

// A dump of `count` units of `width` bytes as the layout says, one byte at a time.
std::string dump_model(const unsigned char *bytes, int count, int width) {
    std::string all, column;
    for (int at = 0; at < count * width || at % 16 != 0; ++at) {
        if (at % 16 == 0)
            all += text("%08" PRIxPTR ": ", reinterpret_cast<uintptr_t>(bytes + at));
        if (at % width == 0 && at >= count * width)
            all += std::string(static_cast<size_t>(2 * width) + 1, ' ');
        else if (at % width == 0)
            all += text("%0*lx ", 2 * width,
                        width > 4    ? 0
                        : width == 1 ? bytes[at]
                                     : word(bytes + at, width));
        column += bytes[at] >= 0x20 && bytes[at] < 0x7f ? static_cast<char>(bytes[at]) : '.';
        if (at % 16 == 15)
            all += "*" + std::exchange(column, "") + "*\n";
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
    EXPECT_EQ(support::captured(1, [] { memDump(nullptr, 1, 1); }), "");
    EXPECT_EQ(support::captured(1, [] { display_mem(nullptr, 1, 1); }), "");
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
    auto last = [&](const char *words, const char *column) {
        return whole + text("%-36s  *%-16s*\n", words, column);
    };
    std::string five = text("%08lx ", w[4]), six = five + text("%08lx ", w[5]);
    const std::pair<int, std::string> cases[] = {{-4, ""},
                                                 {0, ""},
                                                 {16, whole},
                                                 {20, last(five.c_str(), ". ~.")},
                                                 {21, last(six.c_str(), ". ~.....")},
                                                 {24, last(six.c_str(), ". ~.....")}};
    for (const auto &[len, printed] : cases)
        EXPECT_EQ(support::captured(1, [&, n = len] { printMem(exact.get(), n); }), printed);
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
        if (base == 16)
            expected = text("0x%" PRIx64, number);
        else if (high == 0 && base == 8)
            expected = text("%o", low);
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
    for (const char *good : {"0x1A", "0X1a", "-5", " 7x", "0", "0xgg", "x", ""})
        EXPECT_EQ(str2num(good), strtol(good, nullptr, 0)) << good;
    for (const char *cut : {"0xffffffff", "0x123456789abcdef01"})
        EXPECT_EQ(str2num(cut), -1);
    EXPECT_EQ(str2num("012"), 12);
    EXPECT_EQ(str2num("0x"), 0);
    EXPECT_EQ(str2num("99999999999999999999"), INT32_MAX);
    EXPECT_EQ(str2num(nullptr), 0);
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
