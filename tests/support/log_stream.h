// SPDX-License-Identifier: Apache-2.0
// Lines into a compressed stream and out of it again.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "support/support.h"
#include "utils/log_compress.h"

namespace support {

using Lines = std::vector<std::string>;

// The stream of the lines from `next` on; `next` is left at the first one that was refused.
inline std::string coded(const Lines &lines, size_t &next, int capacity) {
    std::vector<unsigned char> buffer(static_cast<size_t>(capacity));
    log_compressor *out = log_createCompressor(buffer.data(), capacity);
    for (std::string line; next < lines.size(); ++next) {
        line = lines[next];
        if (log_compressLine(out, line.data()) != 0)
            break;
        EXPECT_LE(strlen(line.c_str()), 255u);  // longer lines are cut in their own place
    }
    EXPECT_EQ(log_getCompressorObuf(out), buffer.data());
    std::string stream(buffer.begin(), buffer.begin() + log_getCompressorOlen(out));
    log_deleteCompressor(out);
    return stream;
}

// The lines of a stream and the number of refusals; input and output stand in blocks of their exact
// size.
inline std::pair<Lines, size_t> decoded(std::string stream) {
    stream.resize(std::max<size_t>(stream.size(), LOG_COMPRESS_BUFFER_MIN), '\x80');
    auto exact = std::make_unique<unsigned char[]>(stream.size());
    memcpy(exact.get(), stream.data(), stream.size());
    auto out = std::make_unique<char[]>(LOG_COMPRESS_LINE_SIZE);
    log_decompressor *in = log_createDecompressor(exact.get(), static_cast<int>(stream.size()));
    Lines lines;
    size_t errors = 0;
    for (int length; (length = log_decompressGetLine(in, out.get())) != 0;) {
        if (length < -1 || length > LOG_COMPRESS_LINE_MAX || errors + lines.size() > stream.size())
            abort();
        if (length < 0)
            ++errors;
        else
            lines.emplace_back(out.get(), out[static_cast<size_t>(length)] == '\0' ? length : 0);
    }
    log_deleteDecompressor(in);
    return {std::move(lines), errors};
}

}  // namespace support
