// SPDX-License-Identifier: Apache-2.0
// Two kinds of log through the compressor and back, line by line, as a daemon that stores its lines
// at once must do it: zstd at its fastest level and lz4 flush every line, too. One operation is one
// line; the counter tells the bytes of the whole stream.
#include "bench.h"

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#ifdef BENCH_ZSTD
#include <zstd.h>
#endif
#ifdef BENCH_LZ4
#include <lz4.h>
#endif

#include "utils/line_history.h"
#include "utils/log_compress.h"

namespace {

using Lines = std::vector<std::string>;
constexpr size_t kLines = 1000;
constexpr int kCapacity = 1 << 18;

class Random {
  public:
    explicit Random(unsigned seed) : engine_(seed) {}
    unsigned below(unsigned limit) { return static_cast<unsigned>(engine_()) % limit; }

  private:
    std::mt19937 engine_;
};

// What syslog writes: several daemons, several texts.
Lines syslog_lines() {
    Random random(1);
    const char *daemons[] = {"portd", "fspfd", "named", "zoned", "secd"};
    const char *texts[][3] = {{"port ", " link up, speed ", ""},
                              {"port ", " link down, reason ", ""},
                              {"login from ", " accepted in ", " ms"},
                              {"timer ", " armed for ", " ms"},
                              {"frame from ", " dropped, class ", ""}};
    Lines lines;
    for (unsigned second = 36000; lines.size() < kLines; second += random.below(3)) {
        unsigned which = random.below(5);
        auto &text = texts[random.below(5)];
        char line[LOG_COMPRESS_LINE_SIZE];
        snprintf(line, sizeof line, "Nov 21 %02u:%02u:%02u switch5 %s[%u]: %s%u%s%u%s\n",
                 second / 3600, second / 60 % 60, second % 60, daemons[which], 1200 + which * 17,
                 text[0], random.below(64), text[1], random.below(1000), text[2]);
        lines.emplace_back(line);
    }
    return lines;
}

// What a dump of an event log holds: the steps of one machine.
Lines evlog_lines() {
    Random random(2);
    Lines lines;
    for (unsigned ms = 36000000; lines.size() < kLines; ms += random.below(40)) {
        char line[LOG_COMPRESS_LINE_SIZE];
        snprintf(line, sizeof line,
                 "%02u:%02u:%02u.%03u SM state %u -> %u, event 0x%04x, port %3u\n", ms / 3600000,
                 ms / 60000 % 60, ms / 1000 % 60, ms % 1000, random.below(8), random.below(8),
                 random.below(64), random.below(256));
        lines.emplace_back(line);
    }
    return lines;
}

// The streams of a log and where their lines end.
struct Stream {
    std::vector<unsigned char> bytes = std::vector<unsigned char>(kCapacity);
    std::vector<size_t> ends;

    size_t size() const { return ends.empty() ? 0 : ends.back(); }
    unsigned char *end() { return bytes.data() + size(); }
    size_t room() const { return bytes.size() - size(); }
    void add(size_t size_of_line) { ends.push_back(size() + size_of_line); }
};

void ours(const Lines &lines, Stream &stream) {
    log_compressor *to = log_createCompressor(stream.bytes.data(), kCapacity);
    for (const std::string &line : lines) {
        log_compressLine(to, const_cast<char *>(line.c_str()));
        stream.ends.push_back(static_cast<size_t>(log_getCompressorOlen(to)));
    }
    log_deleteCompressor(to);
}

// The ways that other processors take.
template <typename History, typename... Search>
void other(const Lines &lines, Stream &stream, Search... search) {
    auto history = std::make_unique<History>();
    for (const std::string &line : lines) {
        int written = utils::code_line(*history, line.data(), static_cast<int>(line.size()),
                                       stream.end(), search...);
        stream.end()[written] = LOG_COMPRESS_END_OF_LINE;
        stream.add(static_cast<size_t>(written) + 1);
    }
}

void decode_ours(const Stream &stream) {
    char line[LOG_COMPRESS_LINE_SIZE];
    log_decompressor *from =
        log_createDecompressor(stream.bytes.data(), static_cast<int>(stream.size()));
    while (log_decompressGetLine(from, line) > 0)
        benchmark::DoNotOptimize(line);
    log_deleteDecompressor(from);
}

#ifdef BENCH_ZSTD
void zstd(const Lines &lines, Stream &stream) {
    static ZSTD_CCtx *to = ZSTD_createCCtx();
    ZSTD_CCtx_reset(to, ZSTD_reset_session_only);
    ZSTD_CCtx_setParameter(to, ZSTD_c_compressionLevel, 1);
    for (const std::string &line : lines) {
        ZSTD_inBuffer in{line.data(), line.size(), 0};
        ZSTD_outBuffer out{stream.end(), stream.room(), 0};
        ZSTD_compressStream2(to, &out, &in, ZSTD_e_flush);
        stream.add(out.pos);
    }
}

void decode_zstd(const Stream &stream) {
    static ZSTD_DCtx *from = ZSTD_createDCtx();
    ZSTD_DCtx_reset(from, ZSTD_reset_session_only);
    char line[LOG_COMPRESS_LINE_SIZE];
    ZSTD_inBuffer in{stream.bytes.data(), 0, 0};
    for (size_t end : stream.ends) {
        ZSTD_outBuffer out{line, sizeof line, 0};
        in.size = end;
        ZSTD_decompressStream(from, &out, &in);
        benchmark::DoNotOptimize(line);
    }
}
#endif

#ifdef BENCH_LZ4
void lz4(const Lines &lines, Stream &stream) {
    static std::vector<char> text(kCapacity);
    LZ4_stream_t *to = LZ4_createStream();
    char *at = text.data();
    for (const std::string &line : lines) {
        memcpy(at, line.data(), line.size());
        stream.add(static_cast<size_t>(LZ4_compress_fast_continue(
            to, at, reinterpret_cast<char *>(stream.end()), static_cast<int>(line.size()),
            static_cast<int>(stream.room()), 1)));
        at += line.size();
    }
    LZ4_freeStream(to);
}

void decode_lz4(const Stream &stream) {
    static std::vector<char> text(kCapacity);
    LZ4_streamDecode_t *from = LZ4_createStreamDecode();
    auto *bytes = reinterpret_cast<const char *>(stream.bytes.data());
    size_t begin = 0;
    char *at = text.data();
    for (size_t end : stream.ends) {
        at += LZ4_decompress_safe_continue(from, bytes + begin, at, static_cast<int>(end - begin),
                                           LOG_COMPRESS_LINE_SIZE);
        begin = end;
    }
    benchmark::DoNotOptimize(text.data());
    LZ4_freeStreamDecode(from);
}
#endif

using Coder = void (*)(const Lines &, Stream &);
using Decoder = void (*)(const Stream &);

void side(const std::string &kind, const char *name, const Lines *lines, Coder code,
          Decoder decode) {
    auto register_as = [&](const char *what, auto run) {
        benchmark::RegisterBenchmark(
            (what + kind + "/" + name).c_str(), [=](benchmark::State &state) {
                Stream stream;
                code(*lines, stream);
                for (auto _ : state)
                    run(stream);
                state.SetItemsProcessed(state.iterations() * kLines);
                state.counters["bytes"] = static_cast<double>(stream.size());
            });
    };
    register_as("compress_", [=](Stream &stream) {
        stream.ends.clear();
        code(*lines, stream);
    });
    if (decode != nullptr)
        register_as("decompress_", decode);
}

void sides(const char *kind, const Lines *lines) {
    side(kind, "ours", lines, ours, decode_ours);
#ifdef __x86_64__
    auto sse2 = [](const Lines &text, Stream &stream) {
        other<utils::LineColumns>(text, stream, utils::equal_lines_sse2);
    };
    side(kind, "ours-sse2", lines, sse2, nullptr);
#endif
    side(kind, "ours-portable", lines, other<utils::LineRows>, nullptr);
#ifdef BENCH_ZSTD
    side(kind, "zstd", lines, zstd, decode_zstd);
#endif
#ifdef BENCH_LZ4
    side(kind, "lz4", lines, lz4, decode_lz4);
#endif
}

void prepare() {
    static const Lines syslog = syslog_lines(), evlog = evlog_lines();
    sides("syslog", &syslog);
    sides("evlog", &evlog);
}

}  // namespace

BENCH_MAIN(prepare)
