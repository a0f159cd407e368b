// SPDX-License-Identifier: Apache-2.0
#include "utils/paging.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "support/support.h"

namespace {
std::vector<int64_t> delays;  // their ends, in milliseconds of the monotonic clock
uid_t effective_user;

[[maybe_unused]] const bool faked = [] {
    support::replace_call("geteuid", [] { return effective_user; });
    support::replace_call("clock_nanosleep", [](clockid_t, int, const timespec *until, timespec *) {
        delays.push_back(int64_t{until->tv_sec} * 1000 + until->tv_nsec / 1000000);
        return 0;
    });
    return true;
}();

__attribute__((format(printf, 1, 2))) std::string text(const char *format, ...) {
    char line[300];
    va_list values;
    va_start(values, format);
    vsnprintf(line, sizeof line, format, values);
    va_end(values);
    return line;
}

TEST(Paging, MoreAsksUnlessItIsOff) {
    auto answered = [](const char *input) {
        support::write_file("/tmp/input", input);
        EXPECT_NE(freopen("/tmp/input", "r", stdin), nullptr);
        int result = -1;
        std::string prompt = support::captured(1, [&] { result = more(); });
        EXPECT_EQ(prompt, delays.empty() ? "\nType <CR> to continue, Q<CR> to stop: " : "");
        return result;
    };
    EXPECT_EQ((std::vector{answered("\n"), answered("q\n"), answered("Quit\n"), answered(" q\n"),
                           answered(""), answered(text("%79sq\n", "").c_str())}),
              (std::vector{1, 0, 0, 1, 0, 1}));
    support::captured(1, [] { EXPECT_EQ(more(), 0) << "behind 79 characters"; });
    moreDisable();
    delays = {0};
    int64_t begin = support::monotonic_ms();
    EXPECT_EQ(answered("q\n"), 1);
    EXPECT_EQ(delays.size(), 2u);
    EXPECT_GE(delays.back() - 250, begin);
    EXPECT_LE(delays.back() - 250, support::monotonic_ms());
    moreEnable();
    support::captured(1, [] { EXPECT_EQ(more(), 0) << "nothing was read while it was off"; });
}

TEST(Paging, KbhitTellsInputFromATimeOut) {
    support::Ending ending = support::in_child([] {
        int ends[2];
        int silent = pipe(ends) + dup2(ends[0], 0) + kbhit(0) + kbhit(-1);
        bool hit = write(ends[1], "x", 1) == 1 && kbhit(3600) == 1;
        return silent + close(0) + kbhit(0) == 0 && hit ? 0 : 1;
    });
    EXPECT_EQ(ending.status, 0);
}

// The unit of `width` bytes at `from` as a dump shows it, in the order of this machine.
std::string unit(const unsigned char *from, int width) {
    uint16_t half = 0;
    uint32_t word = 0;
    width == 2 ? memcpy(&half, from, 2) : width == 4 ? memcpy(&word, from, 4) : nullptr;
    unsigned value = width == 1 ? *from : width == 2 ? half : word;
    return text("%0*x ", 2 * width, value);
}

// A dump of `count` units as the layout says, one byte at a time.
std::string dump_model(const unsigned char *bytes, int count, int width) {
    std::string all, column;
    for (int at = 0; at < count * width || at % 16 != 0; ++at) {
        if (at % 16 == 0)
            all += text("%08" PRIxPTR ": ", reinterpret_cast<uintptr_t>(bytes + at));
        if (at % width == 0)
            all += at < count * width ? unit(bytes + at, width) : text("%*s", 2 * width + 1, "");
        column += bytes[at] >= 0x20 && bytes[at] < 0x7f ? static_cast<char>(bytes[at]) : '.';
        if (at % 16 == 15)
            all += "*" + std::exchange(column, "") + "*\n";
    }
    return all;
}

TEST(Paging, MemDumpPrintsWholeLinesOfSixteenBytes) {
    std::mt19937 random(5);
    // Count and width, and what they stand for.
    const std::tuple<int, int, int, int> cases[] = {
        {16, 1, 16, 1}, {9, 2, 9, 2},   {6, 3, 6, 3},   {5, 4, 5, 4},
        {3, 8, 3, 8},   {2, 16, 2, 16}, {0, 1, 256, 1}, {-3, 4, 256, 4},
        {7, 0, 7, 1},   {7, -2, 7, 1},  {1, 20, 1, 20}, {2, 70, 2, 70}};
    for (const auto &[count, width, units, unit_width] : cases) {
        size_t padded = static_cast<size_t>(units * unit_width + 15) / 16 * 16;
        std::unique_ptr<unsigned char[]> exact(new unsigned char[padded]);
        std::generate_n(exact.get(), padded, std::ref(random));
        auto dump = [&, n = count, w = width](auto *function) {
            return support::captured(1, [&] { function(exact.get(), n, w); });
        };
        std::string expected = dump_model(exact.get(), units, unit_width);
        EXPECT_EQ(dump(memDump), expected);
        bool shown = count >= 0 && (width <= 4 || width == 8) && width != 3;
        EXPECT_EQ(dump(display_mem), shown ? expected : "");
    }
}

TEST(Paging, PrintMemShowsWordsAndCharacters) {
    std::unique_ptr<char[]> exact(new char[24]);
    memcpy(exact.get(), "AAAABBBBCCCCDDDD\x1f\x1f\x1f\x1f~~~~", 24);
    const std::string whole = "41414141 42424242 43434343 44444444   *AAAABBBBCCCCDDDD*\n",
                      five = whole + "1f1f1f1f                              *....            *\n",
                      six = whole + "1f1f1f1f 7e7e7e7e                     *....~~~~        *\n";
    const std::pair<int, std::string> cases[] = {{-4, ""},   {0, ""},   {16, whole},
                                                 {20, five}, {21, six}, {24, six}};
    for (const auto &[len, printed] : cases)
        EXPECT_EQ(support::captured(1, [&, n = len] { printMem(exact.get(), n); }), printed);
    // The longest length: every line is whole, up to the end of the memory.
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *edge =
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(edge, MAP_FAILED);
    char *last = static_cast<char *>(edge) + page - 16;
    memcpy(last, exact.get(), 16);
    mprotect(last + 16, page, PROT_NONE);
    EXPECT_EQ(support::in_child([&] {
                  setvbuf(stdout, nullptr, _IONBF, 0);
                  printMem(last, INT32_MAX);
                  return 0;
              }).out,
              whole);
    munmap(edge, 2 * page);
    auto nulls = [] {
        printMem(nullptr, 4);
        memDump(nullptr, 1, 1);
        display_mem(nullptr, 1, 1);
    };
    EXPECT_EQ(support::captured(1, nulls), "");
}

#ifdef __SIZEOF_INT128__
__extension__ using Wide = unsigned __int128;
#else
using Wide = uint64_t;
#endif

TEST(Paging, Sprint64AgreesWithWideArithmetic) {
    std::mt19937_64 random(7);
    char written[SPRINT64_ROOM];
    for (int round = 0; round < 20000; ++round) {
        uint64_t number = random() >> random() % 64;
        auto base = static_cast<int>(random() % (round % 2 == 0 ? 40 : 100000)) - 2;
        auto high = static_cast<unsigned>(number >> 32), low = static_cast<unsigned>(number);
        std::string expected;
        auto divisor = static_cast<Wide>(base > 1 ? base : 10);
        for (Wide rest = number; rest != 0; rest /= divisor)
            expected.insert(0, std::to_string(static_cast<unsigned>(rest % divisor)));
        if (base == 16)
            expected = text("0x%" PRIx64, number);
        else if (high == 0)
            expected = text(base == 8 ? "%o" : "%u", low);
        ASSERT_EQ(sprint64(written, high, low, base), static_cast<int>(expected.size()));
        ASSERT_EQ(written, expected) << number << " " << base;
    }
    EXPECT_EQ(sprint64(written, UINT32_MAX, UINT32_MAX, 2), 64);
    EXPECT_EQ(sprint64(nullptr, 1, 0, 10), 0);
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(print64(1, 0, 10), 10); }), "4294967296");
}

TEST(Paging, SmallHelpers) {
    const std::pair<const char *, int> numbers[] = {
        {"0x1A", 26}, {"0X1a", 26}, {"-5", -5},           {" 7x", 7},
        {"0xgg", 0},  {"x", 0},     {"0xffffffff", -1},   {"0x123456789abcdef01", -1},
        {"012", 12},  {"0x", 0},    {nullptr, 0},         {"99999999999999999999", INT32_MAX},
        {"0x-5", -5}, {"0x 5", 5},  {"0x -0xA", -10},     {"0x-ffffffff", 1},
        {"0x--5", 0}, {"0x+5", 5},  {"0x-fffffffff", -1}, {"0x-123456789abcdef01", -1}};
    for (const auto &[digits, number] : numbers)
        EXPECT_EQ(str2num(digits), number) << digits;
    // An exact heap block: nothing behind an empty text is looked at.
    std::unique_ptr<char[]> empty(new char[1]());
    EXPECT_EQ(strequ(empty.get(), "") + strequ("abc", "abc"), 2);
    for (const char *other : {"abd", "ab", "", static_cast<const char *>(nullptr)})
        EXPECT_EQ(strequ("abc", other) + strequ(other, "abc"), 0);
    EXPECT_STREQ(val(nullptr), "");
    EXPECT_EQ(val(empty.get()), empty.get());
    EXPECT_EQ(eswap(0x12345678U), 0x12345678U);
    EXPECT_EQ((std::vector{utilGetUserLevel(), probe(0), probe(4), chkAccess()}),
              (std::vector{0, 0, 1, 0}));
    effective_user = 1000;
    EXPECT_EQ(chkAccess(), -1);
    const std::tuple<int (*)(), const char *, int> stubs[] = {
        {getLine, "getLine() not ported\n", 0}, {less, "less() not ported\n", 18},
        {peek, "peak() not ported\n", 0},       {peekl, "peekl() not ported\n", 0},
        {poke, "poke() not ported\n", 0},       {pokel, "pokel() not supported\n", 0}};
    for (const auto &[stub, message, result] : stubs)
        EXPECT_EQ(support::captured(1, [&, f = stub, r = result] { EXPECT_EQ(f(), r); }), message);
}

}  // namespace
