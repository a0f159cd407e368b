#include "utils/wwn.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "fuzz/wwn_fuzz.cpp"
#include "support/support.h"

namespace {

// Memory whose last byte is followed by a page that faults at any access.
class Edge {
  public:
    Edge() : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
        map_ = static_cast<char *>(
            mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(map_ + page_, page_, PROT_NONE);
    }
    ~Edge() { munmap(map_, 2 * page_); }
    Edge(const Edge &) = delete;
    Edge &operator=(const Edge &) = delete;

    // The last `size` bytes, all set to `fill`.
    char *last(size_t size, char fill) const {
        return static_cast<char *>(memset(map_ + page_ - size, fill, size));
    }
    char *text(const std::string &text) const {
        return static_cast<char *>(memcpy(last(text.size() + 1, '\0'), text.data(), text.size()));
    }

  private:
    size_t page_;
    char *map_;
};

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
    {"x<Tag>value</Tag>y", "<Tag>", "</Tag>", 24, nullptr, nullptr, 5, "value", 11},
    {"<Tag>a \"b\"</Tag>", "<Tag>", "</Tag>", 24, "", "", 5, "a \"b\"", 10},
    // The value of an opener that is longer than its first closing character.
    {"<a><b>v</b></a>", "<a><b>", "</a>", 9, nullptr, "", 0, "", 3},
    {"W=junk\"v\"</S>", "W=", "</S>", 9, nullptr, "", 1, "v", 8},
    // Escapes, also of the last character before the record ends.
    {"W=\"a\\\"b\\\\\"</S>", "W=", "</S>", 9, nullptr, "", 4, "a\"b\\", 9},
    {"<T>a\\<b</T>", "<T>", "</T>", 9, nullptr, "", 3, "a<b", 7},
    {"W=\"ab\\</S>", "W=", "</S>", 9, nullptr, "", -5, "ab", 0},
    {"<T>ab\\</T>", "<T>", "</T>", 9, nullptr, "", -5, "ab<", 0},
    {"W=\"\\</S>", "W=", "</S>", 9, nullptr, "", -5, "", 0},
    // Cut values.
    {"W=\"abcdef\"</S>", "W=", "</S>", 4, nullptr, "", 4, "abcd", 7},
    {"W=\"abcdef\"</S>", "W=", "</S>", 4, "x", "y", 4, "xaby", 5},
    {"W=\"abcdef\"</S>", "W=", "</S>", 2, "x", "y", 2, "xy", 3},
    {"W=\"ab\\\"c\"</S>", "W=", "</S>", 2, nullptr, "", 2, "ab", 5},
    // Presence, and nothing there.
    {"  W=\"abc\"</S>", "W=", "</S>", 0, nullptr, nullptr, 1, "", 4},
    {"W=\"\"</S>", "W=", "</S>", 9, "x", "y", 0, "", 3},
    {"<T></T>", "<T>", "</T>", 9, "x", "y", 0, "", 3},
    // Failures.
    {"W=\"abc\"", "W=", "</S>", 9, nullptr, "", -4, "", 0},
    {"", "W=", "</S>", 9, nullptr, "", -4, "", 0},
    {"</S>W=\"abc\"", "W=", "</S>", 9, nullptr, "", -3, "", 0},
    {"W=\"abc\"</S>", "</S>", "</S>", 9, nullptr, "", -3, "", 0},
    {"V=\"abc\"</S>", "W=", "</S>", 0, nullptr, "", -3, "", 0},
    {"W=abc</S>\"\"", "W=", "</S>", 9, nullptr, "", -5, "", 0},
    {"W=\"abc</S>\"", "W=", "</S>", 9, nullptr, "", -5, "abc", 0},
    {"W=\"abc\"/>", "W=", "\"/>", 9, nullptr, "", -5, "abc", 0},
    {"W=\"abc\"</S>", "", "</S>", 9, nullptr, "", -2, "", 0},
    {"W=\"abc\"</S>", "W=", "</S>", 2, "ab", "c", -2, "", 0},
    {"W=\"abc\"</S>", "W=", "</S>", -1, nullptr, nullptr, -2, "", 0},
};

TEST(StrElement, ReadsOneValueAndStaysWithinTextAndOutput) {
    Edge in, out;
    for (const Case &c : kCases) {
        for (int mode : {STR_ELEMENT_KEEP, STR_ELEMENT_ADVANCE}) {
            SCOPED_TRACE(std::string(c.text) + " " + std::to_string(c.max));
            char *text = in.text(c.text), *cursor = text;
            size_t room = static_cast<size_t>(std::max(c.max, 0)) + (c.suffix != nullptr ? 1 : 0);
            std::string expected = c.output;
            if (c.result > 0 && c.max > 0 && c.suffix != nullptr)
                expected += '\0';
            expected.resize(room, '#');
            char *dst = out.last(room, '#');
            EXPECT_EQ(getStrElement(dst, &cursor, c.start, c.end, c.max, c.prefix, c.suffix, mode),
                      c.result);
            EXPECT_EQ(std::string(dst, room), expected);
            EXPECT_EQ(cursor - text, mode == STR_ELEMENT_ADVANCE ? c.moved : 0);
        }
    }
    char text[] = "W=\"a\"</S>", *cursor = text, *none = nullptr;
    EXPECT_EQ((std::vector{getStrElement(none, &cursor, "W=", "</S>", 0, none, "", 101),
                           getStrElement(text, nullptr, "W=", "</S>", 0, none, "", 101),
                           getStrElement(text, &none, "W=", "</S>", 0, none, "", 101),
                           getStrElement(text, &cursor, none, "</S>", 0, none, "", 101),
                           getStrElement(text, &cursor, "W=", none, 0, none, "", 101)}),
              std::vector(5, STR_ELEMENT_BAD_ARGUMENT));
}

// The checks of the fuzz target, over texts made of every piece that means something.
TEST(TaggedText, SurvivesRandomTexts) {
    const char *const pieces[] = {"W=", "\"",  "<T>",  "</S>", "\\",
                                  ">",  "ab:", "ISN=", "WWN=", "</Switch>"};
    std::mt19937 random(1);
    for (int round = 0; round < (support::emulated() ? 5000 : 100000); ++round) {
        std::string input(1, static_cast<char>(random()));
        input += random() % 4 != 0 ? "W=" : "<T>";
        (input += '\0') += random() % 4 != 0 ? "</S>" : pieces[random() % std::size(pieces)];
        input += '\0';
        while (random() % 12 != 0)
            input += pieces[random() % std::size(pieces)];
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
    }
}

TEST(FormatWwn, ConvertsBetweenTheTwoForms) {
    const struct {
        const char *from, *to;
        int size;
    } cases[] = {
        {"1000001122AB1234", "10:00:00:11:22:AB:12:34", 24},
        {"10:00:00:11:22:ab:12:34", "1000001122ab1234", 24},
        {"10g0", "10:X0:", 24},
        {"zz:zz", "zzzz", 24},
        {"", "", 24},
        {"1", "1", 24},
        {"1000001122AB1234567890", "10:00:00:11:22:AB:12:345", 24},
        {"1000001122AB1234567890", "10:00:00:11:22:AB:12:34567", 26},
        {":123456789012345678901234567890", "123456789012345678901234", 24},
        {"/0:9:@A:FG`afg", "/09@AFG`afg", 24},
        {"/09@AFG`afg", "X0:9X:AF:XX:af:X", 24},
    };
    Edge in, out;
    for (const auto &c : cases) {
        char *dst = out.last(static_cast<size_t>(c.size) + 1, '#');
        EXPECT_EQ(formatWwn(in.text(c.from), dst, c.size), static_cast<int>(strlen(c.to)) + 1);
        EXPECT_STREQ(dst, c.to);
    }
    char dst[WWN_TEXT_SIZE] = "#";
    EXPECT_EQ(formatWwn("10", dst, 23), -1);
    EXPECT_EQ(formatWwn(nullptr, dst, 24), -1);
    EXPECT_EQ(formatWwn("10", nullptr, 24), -1);
    EXPECT_STREQ(dst, "#");
}

TEST(WwnTagData, ReadsBothAttributesInPlainForm) {
    const struct {
        const char *text;
        int result;
        const char *isn, *wwn;
    } cases[] = {
        {"<Switch WWN=\"10:00:00:11:22:AB:12:34\" ISN=\"1000001122AB1234\"></Switch>", 0,
         "1000001122AB1234", "1000001122AB1234"},
        {"ISN=\"123456789012345678901234567\" WWN=\":::::::::::::::::::::::::::\" </Switch>", 0,
         "123456789012345678901234", ""},
        {"ISN=\"\" WWN=\"1\"</Switch>", -1, "#", "#"},
        {"ISN=\"1\"</Switch>WWN=\"1\"", -1, "#", "#"},
        {"WWN=\"1\"</Switch>", -1, "#", "#"},
        {"ISN=\"1\" WWN=\"1\"", -1, "#", "#"},
    };
    Edge in, out;
    for (const auto &c : cases) {
        char isn[WWN_TAG_SIZE] = "#", *wwn = out.last(WWN_TAG_SIZE, '\0'), *text = in.text(c.text),
             *cursor = text;
        *wwn = '#';
        EXPECT_EQ(getWwnTagData(&cursor, isn, wwn), c.result);
        EXPECT_STREQ(isn, c.isn);
        EXPECT_STREQ(wwn, c.wwn);
        EXPECT_EQ(cursor, text);
    }
    char text[WWN_TAG_SIZE] = "", *cursor = text;
    EXPECT_EQ(getWwnTagData(nullptr, text, text), -1);
    EXPECT_EQ(getWwnTagData(&cursor, nullptr, text), -1);
    EXPECT_EQ(getWwnTagData(&cursor, text, nullptr), -1);
}

}  // namespace
