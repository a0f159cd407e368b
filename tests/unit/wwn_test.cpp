// SPDX-License-Identifier: Apache-2.0
// Values out of tagged text, and World Wide Names.
#include "utils/wwn.h"

#include "fuzz/fuzz.h"
#include "support/support.h"

namespace {

// A heap block of the text's exact size.
auto exact(const std::string &text) {
    return fuzz::exact(text, 1);
}

struct Case {
    const char *text, *start, *end;
    int max;
    const char *prefix, *suffix;
    int result;
    const char *output;
    int moved;  // how far mode 101 moves the cursor
};

const Case kCases[] = {
    // Attributes and elements, with prefix and suffix, bare and terminated.
    {"<S ISN=\"5\" WWN=\"1000\"></S>", "WWN=", "</S>", 24, nullptr, "", 4, "1000", 20},
    {"<S ISN=\"5\" WWN=\"1000\"></S>", "ISN=", "</S>", 4, "<", "/>", 4, "<5/>", 9},
    {"x<Tag>a \"b\"</Tag>y", "<Tag>", "</Tag>", 24, nullptr, nullptr, 5, "a \"b\"", 11},
    // The value of an opener that is longer than its first closing character.
    {"<a><b>v</b></a>", "<a><b>", "</a>", 9, nullptr, "", 0, "", 3},
    {"W=junk\"v\"</S>", "W=", "</S>", 9, nullptr, "", 1, "v", 8},
    // Escapes, also of the last character before the record ends.
    {"W=\"a\\\"b\\\\\"</S>", "W=", "</S>", 9, nullptr, "", 4, "a\"b\\", 9},
    {"W=\"ab\\</S>", "W=", "</S>", 9, nullptr, "", -5, "ab", 0},
    {"<T>ab\\</T>", "<T>", "</T>", 9, nullptr, "", -5, "ab<", 0},
    // Cut values.
    {"W=\"abcdef\"</S>", "W=", "</S>", 4, "x", "y", 4, "xaby", 5},
    {"W=\"abcdef\"</S>", "W=", "</S>", 2, "x", "y", 2, "xy", 3},
    {"W=\"ab\\\"c\"</S>", "W=", "</S>", 2, nullptr, "", 2, "ab", 5},
    // Presence, and nothing there.
    {"  W=\"abc\"</S>", "W=", "</S>", 0, nullptr, nullptr, 1, "", 4},
    {"W=\"\"</S>", "W=", "</S>", 9, "x", "y", 0, "", 3},
    // Failures.
    {"W=\"abc\"", "W=", "</S>", 9, nullptr, "", -4, "", 0},
    {"</S>W=\"abc\"", "W=", "</S>", 9, nullptr, "", -3, "", 0},
    {"W=\"abc\"</S>", "</S>", "</S>", 9, nullptr, "", -3, "", 0},
    {"W=abc</S>\"\"", "W=", "</S>", 9, nullptr, "", -5, "", 0},
    {"W=\"abc\"/>", "W=", "\"/>", 9, nullptr, "", -5, "abc", 0},
    {"W=\"abc\"</S>", "", "</S>", 9, nullptr, "", -2, "", 0},
    {"W=\"abc\"</S>", "W=", "</S>", 2, "ab", "c", -2, "", 0},
    {"W=\"abc\"</S>", "W=", "</S>", -1, nullptr, nullptr, -2, "", 0},
};

// Texts are heap blocks of their exact size; what lies behind the room of an output is looked at.
TEST(StrElement, ReadsOneValueAndStaysWithinTextAndOutput) {
    for (const Case &c : kCases) {
        for (int mode : {STR_ELEMENT_KEEP, STR_ELEMENT_ADVANCE}) {
            SCOPED_TRACE(c.text);
            auto text = exact(c.text);
            char *cursor = text.get();
            std::string dst(40, '#'), expected = c.output;
            if (c.result > 0 && c.max > 0 && c.suffix != nullptr)
                expected += '\0';
            expected.resize(40, '#');
            EXPECT_EQ(
                getStrElement(dst.data(), &cursor, c.start, c.end, c.max, c.prefix, c.suffix, mode),
                c.result);
            EXPECT_EQ(dst, expected);
            EXPECT_EQ(cursor - text.get(), mode == STR_ELEMENT_ADVANCE ? c.moved : 0);
        }
    }
}

TEST(Wwn, ConvertsBetweenTheTwoForms) {
    const std::tuple<const char *, std::string, int> cases[] = {
        {"1000001122AB1234", "10:00:00:11:22:AB:12:34", 24},
        {"1000001122AB1234567890", "10:00:00:11:22:AB:12:34567", 26},
        {":123456789012345678901234567890", "123456789012345678901234", 24},
        {"/0:9:@A:FG`afg", "/09@AFG`afg", 24},
        {"/09@AFG`afg", "X0:9X:AF:XX:af:X", 24}};
    for (const auto &[from, to, size] : cases) {
        std::string dst(40, '#');
        EXPECT_EQ(formatWwn(exact(from).get(), dst.data(), size), static_cast<int>(to.size()) + 1);
        EXPECT_EQ(dst, (to + '\0').append(39 - to.size(), '#'));
    }
}

TEST(Wwn, TagDataReadsBothAttributesInPlainForm) {
    const std::tuple<const char *, const char *, const char *> cases[] = {
        {"<S WWN=\"10:00:00:11:22:AB:12:34\" ISN=\"10AB\"></Switch>", "10AB", "1000001122AB1234"},
        {"ISN=\"123456789012345678901234567\" WWN=\":::::::::::::::::::::::::::\" </Switch>",
         "123456789012345678901234", ""},
        {"ISN=\"\" WWN=\"1\"</Switch>", "#", "#"},
        {"ISN=\"1\"</Switch>WWN=\"1\"", "#", "#"}};
    for (const auto &[from, isn, wwn] : cases) {
        char found_isn[WWN_TAG_SIZE] = "#", found_wwn[WWN_TAG_SIZE] = "#";
        auto text = exact(from);
        char *cursor = text.get();
        EXPECT_EQ(getWwnTagData(&cursor, found_isn, found_wwn), *isn == '#' ? -1 : 0);
        EXPECT_STREQ(found_isn, isn);
        EXPECT_STREQ(found_wwn, wwn);
        EXPECT_EQ(cursor, text.get());
    }
}

TEST(Wwn, NullsAndShortOutputsAreBadArguments) {
    char t[] = "W=\"a\"</S>", *at = t, *none = nullptr;
    EXPECT_EQ(getStrElement(none, &at, "W=", "</S>", 0, none, "", 101), -2);
    EXPECT_EQ(getStrElement(t, nullptr, "W=", "</S>", 0, none, "", 101), -2);
    EXPECT_EQ(getStrElement(t, &none, "W=", "</S>", 0, none, "", 101), -2);
    EXPECT_EQ(getStrElement(t, &at, none, "</S>", 0, none, "", 101), -2);
    EXPECT_EQ(getStrElement(t, &at, "W=", none, 0, none, "", 101), -2);
    EXPECT_EQ(formatWwn("10", t, 23), -1);
    EXPECT_EQ(formatWwn(nullptr, t, 24), -1);
    EXPECT_EQ(formatWwn("10", nullptr, 24), -1);
    EXPECT_EQ(getWwnTagData(nullptr, t, t), -1);
    EXPECT_EQ(getWwnTagData(&at, nullptr, t), -1);
    EXPECT_EQ(getWwnTagData(&at, t, nullptr), -1);
}

}  // namespace
