// Feeds any bytes to the readers of tagged text. Text and output are heap blocks of exactly the
// promised size, so that the address sanitizer sees every step beyond them.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "utils/wwn.h"

namespace {

void require(bool holds) {
    if (!holds)
        abort();
}

std::unique_ptr<char[]> exact(const std::string &text) {
    std::unique_ptr<char[]> block(new char[text.size() + 1]);
    memcpy(block.get(), text.c_str(), text.size() + 1);
    return block;
}

void walk_elements(const std::string &content, const std::string &start, const std::string &end,
                   int max, const char *prefix, const char *suffix) {
    std::unique_ptr<char[]> text = exact(content);
    size_t room = static_cast<size_t>(max) + (suffix != nullptr ? 1 : 0);
    std::unique_ptr<char[]> dst(new char[room]);
    size_t length = strlen(text.get());
    char *cursor = text.get();
    for (;;) {
        const char *before = cursor;
        int result = getStrElement(dst.get(), &cursor, start.c_str(), end.c_str(), max, prefix,
                                   suffix, STR_ELEMENT_ADVANCE);
        require(result >= STR_ELEMENT_UNCLOSED && result <= std::max(max, 1));
        require(cursor >= before && cursor <= text.get() + length);
        if (result > 0 && max > 0 && suffix != nullptr)
            require(dst[static_cast<size_t>(result)] == '\0');
        if (result < 0 || cursor == before)
            return;
    }
}

}  // namespace

// The first byte chooses room, prefix and suffix; then come start tag, end tag and text, each ended
// by a NUL.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const char *from = reinterpret_cast<const char *>(data + 1);
    const char *end_of_data = reinterpret_cast<const char *>(data + size);
    std::string parts[3];
    for (std::string &part : parts) {
        const char *to = std::find(from, end_of_data, '\0');
        part.assign(from, to);
        from = to == end_of_data ? to : to + 1;
    }
    walk_elements(parts[2], parts[0], parts[1], data[0] & 15, (data[0] & 16) != 0 ? "<" : nullptr,
                  (data[0] & 32) != 0 ? ">" : nullptr);

    std::unique_ptr<char[]> text = exact(parts[2]);
    const int dst_length = WWN_TEXT_SIZE + (data[0] & 15);
    std::unique_ptr<char[]> wwn(new char[static_cast<size_t>(dst_length) + 1]);
    int result = formatWwn(text.get(), wwn.get(), dst_length);
    require(result == static_cast<int>(strlen(wwn.get())) + 1 && result <= dst_length + 1);

    std::unique_ptr<char[]> isn(new char[WWN_TAG_SIZE]);
    std::unique_ptr<char[]> tag(new char[WWN_TAG_SIZE]);
    char *cursor = text.get();
    if (getWwnTagData(&cursor, isn.get(), tag.get()) == 0)
        require(strlen(isn.get()) < WWN_TAG_SIZE && strlen(tag.get()) < WWN_TAG_SIZE);
    require(cursor == text.get());
    return 0;
}
