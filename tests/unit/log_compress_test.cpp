#include "utils/log_compress.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <random>
#include <vector>

#include "support/heap.h"
#include "support/support.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Compressor {
    explicit Compressor(int capacity = 1 << 16)
        : buffer(static_cast<size_t>(capacity)),
          stream(log_createCompressor(buffer.data(), capacity)) {}
    ~Compressor() { log_deleteCompressor(stream); }
    int add(std::string line) { return log_compressLine(stream, line.data()); }
    Bytes bytes() const { return {buffer.begin(), buffer.begin() + log_getCompressorOlen(stream)}; }
    Bytes buffer;
    log_compressor *stream;
};

// Every line of a stream, and the result that ended it; the input stands in a block of its exact
// size.
std::pair<std::vector<std::string>, int> decoded(Bytes stream) {
    stream.resize(std::max<size_t>(stream.size(), LOG_COMPRESS_BUFFER_MIN),
                  LOG_COMPRESS_END_OF_LINE);
    std::unique_ptr<unsigned char[]> exact(new unsigned char[stream.size()]);
    std::copy(stream.begin(), stream.end(), exact.get());
    log_decompressor *in = log_createDecompressor(exact.get(), static_cast<int>(stream.size()));
    std::vector<std::string> lines;
    std::unique_ptr<char[]> out(new char[LOG_COMPRESS_LINE_SIZE]);
    int length;
    while ((length = log_decompressGetLine(in, out.get())) > 0) {
        lines.emplace_back(out.get(), static_cast<size_t>(length));
        EXPECT_EQ(out[static_cast<size_t>(length)], '\0');
    }
    log_deleteDecompressor(in);
    return {lines, length};
}

// The coder as it is described, without any short cut.
Bytes model(const std::vector<std::string> &lines) {
    Bytes out;
    std::deque<std::string> history;  // newest first
    for (const std::string &whole : lines) {
        std::string line = whole.substr(0, 255);
        for (size_t p = 0; p < line.size();) {
            size_t best = 0, best_distance = 0;
            for (size_t d = 0; d < history.size(); ++d) {
                size_t run = 0;
                while (run < 127 && p + run < line.size() && p + run < history[d].size() &&
                       history[d][p + run] == line[p + run])
                    ++run;
                if (run > best) {
                    best = run;
                    best_distance = d;
                }
            }
            if (best < 3) {
                out.push_back(static_cast<unsigned char>(line[p++]) & 0x7F);
            } else {
                out.push_back(static_cast<unsigned char>(0x80 | best));
                out.push_back(static_cast<unsigned char>(best_distance));
                p += best;
            }
        }
        out.push_back(0x80);
        history.push_front(line);
        if (history.size() > 127)
            history.pop_back();
    }
    return out;
}

TEST(LogCompress, CodesTheseLinesToTheseBytes) {
    struct {
        std::vector<std::string> lines;
        Bytes expected;
    } cases[] = {
        {{"a\n", "a\n"}, {0x61, 0x0A, 0x80, 0x61, 0x0A, 0x80}},
        {{"abc\n", "abc\n"}, {0x61, 0x62, 0x63, 0x0A, 0x80, 0x84, 0x00, 0x80}},
        {{"xabc", "yabc", "zabcd", "-abcd"},
         {'x', 'a', 'b', 'c', 0x80, 'y', 0x83, 0, 0x80, 'z', 0x83, 0, 'd', 0x80, '-', 0x84, 0,
          0x80}},
        {{"abcd", "abcx", "abcd"}, {'a', 'b', 'c', 'd', 0x80, 0x83, 0, 'x', 0x80, 0x84, 1, 0x80}},
        {{"a\xE1\x80"
          "b",
          ""},
         {'a', 0x61, 0x00, 'b', 0x80, 0x80}},
        {{std::string(200, 'q'), std::string(200, 'q')}, {}},
    };
    for (auto &c : cases) {
        Compressor compressor;
        for (const std::string &line : c.lines)
            EXPECT_EQ(compressor.add(line), 0);
        EXPECT_EQ(compressor.bytes(), model(c.lines));
        if (!c.expected.empty()) {
            EXPECT_EQ(compressor.bytes(), c.expected);
        }
        EXPECT_EQ(log_getCompressorObuf(compressor.stream), compressor.buffer.data());
    }
}

// Lines that share columns with older ones in every way: changed characters, cut and grown ends.
std::vector<std::string> random_lines(unsigned seed, int count) {
    std::mt19937 random(seed);
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) {
        std::string line =
            lines.empty() || random() % 10 == 0
                ? std::string(1 + random() % 255, '-')
                : lines[lines.size() - 1 - random() % std::min<size_t>(lines.size(), 140)];
        for (auto changes = random() % 6; changes > 0; --changes)
            line[random() % line.size()] = static_cast<char>('a' + random() % 4);
        if (random() % 4 == 0)
            line.resize(1 + random() % 255, 'e');
        lines.push_back(line);
    }
    return lines;
}

TEST(LogCompress, AgreesWithTheDescribedSearchAndComesBack) {
    for (unsigned seed = 1; seed <= (support::emulated() ? 4u : 20u); ++seed) {
        std::vector<std::string> lines = random_lines(seed, 400);
        Compressor compressor(400 * 257);
        for (const std::string &line : lines)
            ASSERT_EQ(compressor.add(line), 0);
        ASSERT_EQ(compressor.bytes(), model(lines));
        ASSERT_EQ(decoded(compressor.bytes()), std::make_pair(lines, 0));
    }
}

TEST(LogCompress, BoundsLinesAndBuffers) {
    unsigned char small[256];
    EXPECT_EQ(log_createCompressor(nullptr, 1000), nullptr);
    EXPECT_EQ(log_createCompressor(small, 255), nullptr);
    EXPECT_EQ(log_createDecompressor(nullptr, 1000), nullptr);
    EXPECT_EQ(log_createDecompressor(small, 255), nullptr);
#ifdef UTILS_FAKE_HEAP
    support::refuse_after = 0;
    EXPECT_EQ(log_createCompressor(small, 256), nullptr);
    EXPECT_EQ(log_createDecompressor(small, 256), nullptr);
    support::refuse_after = -1;
#endif
    Compressor full(256), tight(258);
    EXPECT_EQ(full.add("x"), -1);
    EXPECT_EQ(tight.add("x"), 0);
    EXPECT_EQ(tight.add("x"), -1);
    EXPECT_EQ(tight.bytes(), (Bytes{'x', 0x80}));
    Compressor compressor;
    std::string text(300, 'x');
    EXPECT_EQ(log_compressLine(compressor.stream, text.data()), 0);
    EXPECT_EQ(strlen(text.c_str()), 255u);
    EXPECT_EQ(decoded(compressor.bytes()).first[0], std::string(255, 'x'));
    EXPECT_EQ(log_compressLine(nullptr, text.data()), -1);
    EXPECT_EQ(log_compressLine(compressor.stream, nullptr), -1);
    EXPECT_EQ(log_decompressGetLine(nullptr, text.data()), -1);
}

TEST(LogCompress, DecoderKeepsItsRules) {
    Bytes wrapped;
    for (int i = 0; i < 128; ++i)
        wrapped.insert(wrapped.end(), {'l', static_cast<unsigned char>(i % 100), '_', 0x80});
    auto then = [](Bytes head, std::initializer_list<unsigned char> tail) {
        head.insert(head.end(), tail);
        return head;
    };
    Bytes one = {'a', 'b', 'c', 0x80};
    Bytes full = then(Bytes(255, 'x'), {0x80});
    struct {
        Bytes stream;
        size_t lines;
        int end;
    } cases[] = {
        {then(one, {0x83, 0x00}), 2, 0},                    // a stream may end without a mark
        {then(one, {0x81, 0x00, 0x82, 0x00}), 2, 0},        // short runs are decoded all the same
        {then(one, {0x83, 0x01, 0x80}), 1, -1},             // no such line
        {then(full, {0xFF, 0, 0xFF, 0, 'y', 0x80}), 2, 0},  // 255 characters
        {then(full, {0xFF, 0, 0xFF, 0, 'y', 'z', 0x80}), 1, -1},
        {then(full, {0xFF, 0, 0xFF, 0, 0x82, 0, 0x80}), 1, -1},
        {Bytes(256, 'x'), 0, -1},
        {{0x90, 0x91, 'x', 0x80}, 1, 0},              // a first line is taken as it is
        {then(wrapped, {0x83, 0x7F, 0x80}), 129, 0},  // wrapped indices take an overwritten line
        {then(wrapped, {0x83, 0x81, 0x80}), 128, -1},
        {then(full, {0x83}), 1, -1},  // the distance is cut off
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        auto [lines, end] = decoded(cases[i].stream);
        EXPECT_EQ(lines.size(), cases[i].lines) << i;
        EXPECT_EQ(end, cases[i].end) << i;
    }
    // After an empty line the two histories differ by one line.
    Compressor compressor;
    for (const char *line : {"abc1", "xyz2", "", "xyz3"})
        compressor.add(line);
    EXPECT_EQ(decoded(compressor.bytes()).first,
              (std::vector<std::string>{"abc1", "xyz2", "abc3"}));
}

TEST(LogCompress, SurvivesTenMillionRandomBytes) {
    std::mt19937 random(7);
    size_t total = support::emulated() ? 1000000 : 10000000, errors = 0, lines = 0;
    for (size_t done = 0; done < total;) {
        Bytes stream(256 + random() % 8192);
        // Plain noise, and noise that is near to a stream.
        bool near = random() % 2;
        for (unsigned char &byte : stream) {
            auto value = random();
            byte =
                static_cast<unsigned char>(near && value % 3 == 0 ? value >> 8 & 3 : value >> 16);
            if (near && value % 16 == 0)
                byte = 0x80;
        }
        done += stream.size();
        std::unique_ptr<unsigned char[]> exact(new unsigned char[stream.size()]);
        std::copy(stream.begin(), stream.end(), exact.get());
        log_decompressor *in = log_createDecompressor(exact.get(), static_cast<int>(stream.size()));
        std::unique_ptr<char[]> out(new char[LOG_COMPRESS_LINE_SIZE]);
        size_t calls = 0;
        for (int length; (length = log_decompressGetLine(in, out.get())) != 0; ++calls) {
            ASSERT_GE(length, -1);
            ASSERT_LE(length, LOG_COMPRESS_LINE_MAX);
            ASSERT_LE(calls, stream.size());
            (length < 0 ? errors : lines) += 1;
        }
        log_deleteDecompressor(in);
    }
    EXPECT_GT(errors, 1000u);
    EXPECT_GT(lines, 1000u);
}

TEST(LogCompress, ShowsAStreamBetweenItsHeadings) {
    Bytes stream(256, 0x80);
    memcpy(stream.data(), "abc\n\x80\x84\0", 7);
    auto shown = [&](int length) {
        return support::captured(1, [&] { log_showDecompressedData(stream.data(), length); });
    };
    EXPECT_EQ(
        shown(256),
        "\n\nDecompressed data start ********\nabc\nabc\n\nDecompressed data end ********\n\n");
    EXPECT_EQ(shown(255), "Error: can't create log data decompressor\n");
}

}  // namespace
