// SPDX-License-Identifier: Apache-2.0
// The texts of format_text() against those of vsnprintf().
#include "base/format.h"

#include "support/support.h"

namespace {

using Formatter = int (*)(char *, size_t, const char *, va_list);

// The length, and the text with what stands behind it in a block of `size` bytes.
std::pair<int, std::string> formatted(Formatter formatter, size_t size, const char *format, ...) {
    std::string block(size, '\x5A');
    va_list values;
    va_start(values, format);
    int length = formatter(block.data(), size, format, values);
    va_end(values);
    return {length, block};
}

// A directive, simple or not, that takes a text or an int.
std::string directive(std::mt19937 &random, bool takes_text) {
    auto one_of = [&](std::initializer_list<const char *> all) {
        return std::string(all.begin()[random() % all.size()]);
    };
    std::string precision = one_of({"", "", "", "", ".", ".0", ".3"});
    if (takes_text)
        return "%" + one_of({"", "", "-"}) + one_of({"", "", "1", "3", "12", "40"}) + precision +
               "s";
    std::string flags = one_of({"", "", "-", "0", "-0", "0-", "+", "#", " "});
    std::string width = one_of({"", "", "1", "3", "12", "40", "0", "007"});
    std::string conversion = one_of({"d", "u", "x", "d", "u", "x", "c", "i", "X", "o"});
    if (conversion == "c")  // takes no other flags, and no precision
        return (flags == "-" || flags.empty()) && width != "0" && width != "007"
                   ? "%" + flags + width + "c"
                   : "%c";
    return "%" + flags + width + precision + conversion;
}

TEST(Format, GivesTheTextOfVsnprintf) {
    std::mt19937 random(11);
    std::string texts[] = {"", "x", "online", "a name that is longer than most", "%d"};
    for (int round = support::emulated() ? 20000 : 200000; round > 0; --round) {
        std::string format = texts[random() % 4];
        bool first = random() % 3 == 0, second = random() % 3 == 0;  // takes a text
        for (bool takes_text : {first, second})
            format += directive(random, takes_text) + (random() % 8 == 0 ? "%%" : "") +
                      texts[random() % 4];
        int i = static_cast<int>(random() >> random() % 32), j = ~i;
        const char *s = texts[random() % 5].c_str(), *t = texts[random() % 5].c_str();
        size_t size = random() % 2 == 0 ? 200 : random() % 80;
        auto with = [&](Formatter way) {
            const char *f = format.c_str();
            if (first)
                return second ? formatted(way, size, f, s, t) : formatted(way, size, f, s, j);
            return second ? formatted(way, size, f, i, t) : formatted(way, size, f, i, j);
        };
        ASSERT_EQ(with(utils::format_text), with(vsnprintf)) << format;
    }
}

TEST(Format, LeavesTheRestToVsnprintf) {
    const char *no_text = nullptr;
    auto same = [](const char *format, auto... values) {
        EXPECT_EQ(formatted(utils::format_text, 100, format, values...),
                  formatted(vsnprintf, 100, format, values...))
            << format;
    };
    same("%s|%8s", no_text, no_text);
    same("%d %ld %llx %5.2f %p", 1, 2L, 3ULL, 4.5, no_text);
    same("%*d %-*s|", 7, 1, 9, "x");
    same("%5000d", 1);
    same("%lc", 0x20AC);
    same("%d %s %m", 1, "x");
    same("%99999999999999999999d", 1);
    same("a % % b %5% %", 1);
    same("%d %", 7);
}

}  // namespace
