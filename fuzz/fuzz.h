// SPDX-License-Identifier: Apache-2.0
// What the fuzz targets share: taking an input apart, and demands that stop the program.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

inline void require(bool holds) {
    if (!holds)
        abort();
}

// A heap block of exactly this size, so that the address sanitizer sees every step beyond it.
template <typename Byte = char>
std::unique_ptr<Byte[]> exact(std::string_view bytes, size_t more = 0) {
    std::unique_ptr<Byte[]> block(new Byte[bytes.size() + more]());
    std::copy(bytes.begin(), bytes.end(), block.get());
    return block;
}

struct Input {
    std::string_view rest;

    std::string_view take(size_t size) {
        std::string_view taken = rest.substr(0, size);
        rest.remove_prefix(taken.size());
        return taken;
    }
    unsigned byte() {
        std::string_view one = take(1);
        return one.empty() ? 0 : static_cast<unsigned char>(one[0]);
    }
    // Up to the separator, which goes too.
    std::string text(char separator = '\0') {
        std::string_view taken = take(std::min(rest.find(separator), rest.size()));
        take(1);
        return std::string(taken);
    }
    std::vector<std::string> texts(char separator) {
        std::vector<std::string> all;
        while (!rest.empty())
            all.push_back(text(separator));
        return all;
    }
};

// An argument vector whose texts are blocks of their own.
struct Words {
    std::vector<std::unique_ptr<char[]>> owned;
    std::vector<char *> argv;
    int argc;

    explicit Words(const std::vector<std::string> &texts) : argc(static_cast<int>(texts.size())) {
        for (const std::string &text : texts)
            argv.push_back(owned.emplace_back(exact(text.c_str(), 1)).get());
        argv.push_back(nullptr);
    }
};

// What opens a file meanwhile gets this one in its place; null: what it asks for.
inline const char *faked_path = nullptr;

// Messages: messages.cpp.
void command(Input in);
void arguments(Input in);
void packets(Input in);
void replies(Input in);
// Texts: texts.cpp.
void compressed(Input in);
void tagged(Input in);
void options(Input in);
void places(Input in);
void letters(Input in);
void prompt(Input in);
void connections(Input in);
void numbers(Input in);
void section(Input in);

}  // namespace fuzz
