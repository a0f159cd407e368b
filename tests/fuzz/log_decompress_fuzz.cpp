// Feeds any bytes to the decompressor. Stream and line are heap blocks of exactly the promised
// size, so that the address sanitizer sees every step beyond them.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "utils/log_compress.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    size_t length = std::max<size_t>(size, LOG_COMPRESS_BUFFER_MIN);
    std::unique_ptr<unsigned char[]> stream(new unsigned char[length]);
    std::fill_n(stream.get(), length, static_cast<unsigned char>(LOG_COMPRESS_END_OF_LINE));
    std::copy_n(data, size, stream.get());
    std::unique_ptr<char[]> line(new char[LOG_COMPRESS_LINE_SIZE]);
    log_decompressor *in = log_createDecompressor(stream.get(), static_cast<int>(length));
    size_t calls = 0;
    for (int result; (result = log_decompressGetLine(in, line.get())) != 0;) {
        // Every call takes at least one byte, and every line is terminated where it says.
        if (result < -1 || result > LOG_COMPRESS_LINE_MAX || ++calls > length ||
            (result > 0 && line[static_cast<size_t>(result)] != '\0'))
            abort();
    }
    log_deleteDecompressor(in);
    return 0;
}
