// Real log text through compressor and decompressor, buffer after buffer.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <sstream>
#include <vector>

#include "support/support.h"
#include "utils/log_compress.h"

namespace {

constexpr size_t kEnoughLines = 1000;
constexpr int kBufferSize = 64 * 1024;
#ifdef __SANITIZE_THREAD__
constexpr bool kSlow = true;
#else
constexpr bool kSlow = false;
#endif

struct Corpus {
    std::vector<std::string> lines;
    size_t left_out = 0;

    // Takes the lines of a text, each with its newline; binary files and foreign lines are counted.
    void add(const std::string &text) {
        if (text.find('\0') != std::string::npos)
            return;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) {
            line += '\n';
            bool plain =
                std::all_of(line.begin(), line.end(), [](char c) { return c > 0 && c < 0x7F; });
            if (plain && line.size() <= LOG_COMPRESS_LINE_MAX)
                lines.push_back(line);
            else
                ++left_out;
        }
    }

    void add_files_below(const std::string &directory) {
        std::error_code error;
        for (auto it = std::filesystem::recursive_directory_iterator(
                 directory, std::filesystem::directory_options::skip_permission_denied, error);
             !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
            if (it->is_regular_file(error) && it->file_size(error) < 8 << 20)
                add(support::read_file(it->path()));
        }
    }
};

Corpus read_corpus() {
    Corpus corpus;
    corpus.add_files_below("/var/log.host");
    if (corpus.lines.size() < kEnoughLines) {
        printf("The machine's logs hold %zu lines only; package descriptions are taken as well.\n",
               corpus.lines.size());
        corpus.add_files_below("/usr/share/doc");
    }
    return corpus;
}

// Fills one buffer from `next` on, takes it apart again and compares; the bytes of the stream.
size_t round_trip(const std::vector<std::string> &lines, size_t &next, size_t &text_bytes) {
    std::vector<unsigned char> buffer(kBufferSize, LOG_COMPRESS_END_OF_LINE);
    log_compressor *out = log_createCompressor(buffer.data(), kBufferSize);
    size_t first = next;
    for (; next < lines.size(); ++next) {
        std::string line = lines[next];
        if (log_compressLine(out, line.data()) != 0)
            break;
    }
    int length = log_getCompressorOlen(out);
    log_deleteCompressor(out);
    log_decompressor *in =
        log_createDecompressor(buffer.data(), std::max(length, LOG_COMPRESS_BUFFER_MIN));
    char line[LOG_COMPRESS_LINE_SIZE];
    for (size_t i = first; i < next; ++i) {
        int size = log_decompressGetLine(in, line);
        if (size < 0 || std::string_view(line, static_cast<size_t>(size)) != lines[i]) {
            ADD_FAILURE() << "line " << i << " came back as " << line;
            break;
        }
        text_bytes += lines[i].size();
    }
    EXPECT_EQ(log_decompressGetLine(in, line), 0);
    log_deleteDecompressor(in);
    return static_cast<size_t>(length);
}

TEST(LogText, RealLogsComeBackIdentical) {
    Corpus corpus = read_corpus();
    ASSERT_GE(corpus.lines.size(), kEnoughLines);
    const size_t wanted = (kSlow || support::emulated() ? size_t{2} : size_t{20}) << 20;
    std::vector<std::string> lines;
    std::mt19937 random(3);
    // The text once as it was written; repeated and shuffled by line until it is long enough.
    for (size_t size = 0; size < wanted;) {
        for (const std::string &line : corpus.lines) {
            if (size >= wanted)
                break;
            lines.push_back(line);
            size += line.size();
        }
        std::shuffle(corpus.lines.begin(), corpus.lines.end(), random);
    }
    size_t text_bytes = 0, coded_bytes = 0, buffers = 0;
    auto begin = std::chrono::steady_clock::now();
    for (size_t next = 0; next < lines.size() && !HasFailure(); ++buffers)
        coded_bytes += round_trip(lines, next, text_bytes);
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_GE(text_bytes, wanted);
    EXPECT_LT(coded_bytes, text_bytes);
    printf(
        "%zu different lines, %zu left out; %zu lines of %zu bytes in %zu buffers of %zu bytes: "
        "ratio %.2f; %.1f s\n",
        corpus.lines.size(), corpus.left_out, lines.size(), text_bytes, buffers, coded_bytes,
        static_cast<double>(text_bytes) / static_cast<double>(coded_bytes), seconds);
}

}  // namespace
