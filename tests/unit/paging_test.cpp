// SPDX-License-Identifier: Apache-2.0
// The page prompt, dumps of memory, 64-bit numbers and the small helpers of console commands.
#include "utils/paging.h"

#include <sys/mman.h>

#include <bit>
#include <cinttypes>
#include <cstdarg>

#include "support/support.h"

namespace {

using support::captured;

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
    auto expect_answer = [](const char *input, int answer) {
        support::write_file("/tmp/input", input);
        EXPECT_NE(freopen("/tmp/input", "r", stdin), nullptr);
        auto ask = [&] { EXPECT_EQ(more(), answer) << input; };
        EXPECT_EQ(captured(1, ask),
                  delays.empty() ? "\nType <CR> to continue, Q<CR> to stop: " : "");
    };
    for (auto [input, answer] :
         {std::pair("\n", 1), {"q\n", 0}, {"Quit\n", 0}, {" q\n", 1}, {"", 0}})
        expect_answer(input, answer);
    expect_answer(text("%79sq\n", "").c_str(), 1);
    captured(1, [] { EXPECT_EQ(more(), 0) << "behind 79 characters"; });
    moreDisable();
    delays = {0};
    int64_t begin = support::monotonic_ms();
    expect_answer("q\n", 1);
    EXPECT_EQ(delays.size(), 2u);
    EXPECT_GE(delays.back() - 250, begin);
    EXPECT_LE(delays.back() - 250, support::monotonic_ms());
    moreEnable();
    captured(1, [] { EXPECT_EQ(more(), 0) << "nothing was read while it was off"; });
}

TEST(Paging, KbhitTellsInputFromATimeOut) {
    EXPECT_TRUE(support::passes_in_child([] {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        EXPECT_EQ(dup2(ends[0], 0), 0);
        for (int seconds : {0, -1})
            EXPECT_EQ(kbhit(seconds), 0);
        EXPECT_EQ(write(ends[1], "x", 1), 1);
        EXPECT_EQ(kbhit(3600), 1);
        close(0);
        EXPECT_EQ(kbhit(0), 0);
    }));
}

// A dump of `count` units as the layout says, one byte at a time. Words show their most significant
// byte first, other units of several bytes zeros.
std::string dump_model(const unsigned char *bytes, int count, int width) {
    std::string all, column;
    int from_end = std::endian::native == std::endian::little ? width - 1 : 0;
    for (int at = 0; at < count * width || at % 16 != 0; ++at) {
        if (at % 16 == 0)
            all += text("%08" PRIxPTR ": ", reinterpret_cast<uintptr_t>(bytes + at));
        for (int i = 0; i < width && at % width == 0; ++i) {
            int byte = width <= 4 && width != 3 ? bytes[at + (i ^ from_end)] : 0;
            all += (at < count * width ? text("%02x", byte) : "  ") + (i == width - 1 ? " " : "");
        }
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
        {23, 0, 23, 1}, {7, -2, 7, 1},  {1, 20, 1, 20}, {2, 70, 2, 70}};
    for (const auto &[count, width, units, unit_width] : cases) {
        size_t padded = static_cast<size_t>(units * unit_width + 15) / 16 * 16;
        std::unique_ptr<unsigned char[]> exact(new unsigned char[padded]);
        std::generate_n(exact.get(), padded, std::ref(random));
        auto dump = [&, n = count, w = width](auto *function) {
            return captured(1, [&] { function(exact.get(), n, w); });
        };
        std::string expected = dump_model(exact.get(), units, unit_width);
        EXPECT_EQ(dump(memDump), expected);
        bool shown = count >= 0 && (width <= 4 || width == 8) && width != 3;
        EXPECT_EQ(dump(display_mem), shown ? expected : "");
    }
}

TEST(Paging, PrintMemShowsWordsAndCharacters) {
    std::unique_ptr<char[]> exact(new char[24]);
    memcpy(exact.get(), "AAAABBBBCCCCDDDD\x1f  \x1f~\x7f\x7f~", 24);
    const std::string whole = "41414141 42424242 43434343 44444444   *AAAABBBBCCCCDDDD*\n",
                      five = whole + "1f20201f                              *.  .            *\n",
                      six = whole + "1f20201f 7e7f7f7e                     *.  .~..~        *\n";
    const std::string one = "41414141                              *AAAA            *\n";
    const std::pair<int, std::string> cases[] = {{-4, ""},   {0, ""},   {1, one}, {16, whole},
                                                 {20, five}, {21, six}, {24, six}};
    for (const auto &[len, printed] : cases)
        EXPECT_EQ(captured(1, [&, n = len] { printMem(exact.get(), n); }), printed);
    // The longest length: every line is whole, up to the end of the memory.
    auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *edge =
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(edge, MAP_FAILED);
    char *last = static_cast<char *>(edge) + page - 16;
    memcpy(last, exact.get(), 16);
    mprotect(last + 16, page, PROT_NONE);
    auto print_all = [&] {
        setvbuf(stdout, nullptr, _IONBF, 0);
        printMem(last, INT32_MAX);
        return 0;
    };
    EXPECT_EQ(support::in_child(print_all).out, whole);
    munmap(edge, 2 * page);
    auto nulls = [] {
        printMem(nullptr, 4);
        memDump(nullptr, 1, 1);
        display_mem(nullptr, 1, 1);
    };
    EXPECT_EQ(captured(1, nulls), "");
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
    char exact[] = "0123456701234567012345670123456701234567012345670123456701234567.|";
    EXPECT_EQ(sprint64(exact, UINT32_MAX, UINT32_MAX, 2), 64);
    EXPECT_EQ(exact[65], '|') << "behind the end";
    EXPECT_EQ(sprint64(nullptr, 1, 0, 10), 0);
    EXPECT_EQ(captured(1, [] { EXPECT_EQ(print64(1, 0, 10), 10); }), "4294967296");
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
    EXPECT_EQ(strequ(empty.get(), ""), 1);
    EXPECT_EQ(strequ("abc", "abc"), 1);
    for (const char *other : {"abd", "ab", "", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(strequ("abc", other), 0);
        EXPECT_EQ(strequ(other, "abc"), 0);
    }
    EXPECT_STREQ(val(nullptr), "");
    EXPECT_EQ(val(empty.get()), empty.get());
    EXPECT_EQ(eswap(0x12345678U), 0x12345678U);
    EXPECT_EQ(utilGetUserLevel(), 0);
    EXPECT_EQ(probe(0), 0);
    EXPECT_EQ(probe(4), 1);
    for (auto [user, access] : {std::pair(0u, 0), {1000u, -1}}) {
        effective_user = user;
        EXPECT_EQ(chkAccess(), access);
    }
    const std::tuple<int (*)(), const char *, int> stubs[] = {
        {getLine, "getLine() not ported\n", 0}, {less, "less() not ported\n", 18},
        {peek, "peak() not ported\n", 0},       {peekl, "peekl() not ported\n", 0},
        {poke, "poke() not ported\n", 0},       {pokel, "pokel() not supported\n", 0}};
    for (const auto &[stub, message, result] : stubs)
        EXPECT_EQ(captured(1, [&, f = stub, r = result] { EXPECT_EQ(f(), r); }), message);
}

}  // namespace
