// SPDX-License-Identifier: Apache-2.0
// Real log text through compressor and decompressor, buffer after buffer.
#include <algorithm>
#include <filesystem>
#include <random>
#include <sstream>

#include "support/log_stream.h"

namespace {

#ifdef __SANITIZE_THREAD__
constexpr bool kSlow = true;
#else
constexpr bool kSlow = false;
#endif

struct Corpus {
    support::Lines lines;
    size_t left_out = 0;

    // Takes the lines of all text files, each with its newline; foreign lines are counted.
    void add_files_below(const std::string &directory) {
        auto options = std::filesystem::directory_options::skip_permission_denied;
        for (auto &entry : std::filesystem::recursive_directory_iterator(directory, options)) {
            if (!entry.is_regular_file() || entry.file_size() > 8 << 20)
                continue;
            std::string text = support::read_file(entry.path());
            std::istringstream in(text.find('\0') == std::string::npos ? text : "");
            for (std::string line; std::getline(in, line);) {
                bool plain =
                    line.size() < LOG_COMPRESS_LINE_MAX &&
                    std::all_of(line.begin(), line.end(), [](char c) { return c > 0 && c < 0x7F; });
                if (plain)
                    lines.push_back(line + '\n');
                left_out += !plain;
            }
        }
    }
};

TEST(LogText, RealLogsComeBackIdentical) {
    Corpus corpus;
    corpus.add_files_below("/var/log.host");
    size_t from_logs = corpus.lines.size();
    if (from_logs < 1000)
        corpus.add_files_below("/usr/share/doc");
    ASSERT_GE(corpus.lines.size(), 1000u);
    const size_t wanted = (kSlow || support::emulated() ? size_t{2} : size_t{20}) << 20;
    support::Lines lines;
    std::mt19937 random(3);
    // The text once as it was written; repeated and shuffled by line until it is long enough.
    size_t bytes = 0, coded = 0, buffers = 0;
    for (size_t i = 0; bytes < wanted; ++i) {
        if (i == corpus.lines.size()) {
            std::shuffle(corpus.lines.begin(), corpus.lines.end(), random);
            i = 0;
        }
        lines.push_back(corpus.lines[i]);
        bytes += lines.back().size();
    }
    for (size_t next = 0, first = 0; next < lines.size(); first = next, ++buffers) {
        std::string stream = support::coded(lines, next, 64 * 1024);
        auto [back, errors] = support::decoded(stream);
        ASSERT_TRUE(next - first == back.size() &&
                    std::equal(back.begin(), back.end(), &lines[first]))
            << first;
        coded += stream.size();
    }
    EXPECT_LT(coded, bytes);
    printf(
        "%zu different lines (%zu of the machine's logs), %zu left out; %zu lines of %zu bytes in "
        "%zu buffers of %zu bytes: "
        "ratio %.2f\n",
        corpus.lines.size(), from_logs, corpus.left_out, lines.size(), bytes, buffers, coded,
        static_cast<double>(bytes) / static_cast<double>(coded));
}

}  // namespace
