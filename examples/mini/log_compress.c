/* SPDX-License-Identifier: Apache-2.0 */
/* Lines that repeat themselves, packed and unpacked. */
#include <stdio.h>
#include <string.h>
#include <utils/log_compress.h>

int main(void) {
    unsigned char packed[4096];
    memset(packed, LOG_COMPRESS_END_OF_LINE, sizeof packed);
    log_compressor *out = log_createCompressor(packed, sizeof packed);
    if (out == NULL)
        return 1;
    size_t text = 0;
    for (int port = 0; port < 20; ++port) {
        char line[64];
        text += (size_t)snprintf(line, sizeof line,
                                 "Nov 21 10:00:%02d switch portd: port %d is up\n", port, port);
        if (log_compressLine(out, line) != 0)
            return 1;
    }
    int length = log_getCompressorOlen(out);
    log_deleteCompressor(out);
    printf("%zu bytes of text in %d bytes\n", text, length);
    log_showDecompressedData(packed,
                             length < LOG_COMPRESS_BUFFER_MIN ? LOG_COMPRESS_BUFFER_MIN : length);
    return 0;
}
