// SPDX-License-Identifier: Apache-2.0
// qelctl log: text logs as a compressed line stream, in and out of pipes, of any size. The stream
// is a sequence of frames; each holds one compressor's buffer, or bytes that the compressor cannot
// carry.
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "json.h"
#include "qelctl.h"
#include "text.h"
#include "utils/log_compress.h"

namespace qelctl {
namespace {

constexpr size_t kCapacity = 64 * 1024;  // bytes of coded lines in a frame
constexpr size_t kLeastCoded = 256;      // the decompressor wants no less
constexpr size_t kLineMax = 255;         // longer lines travel in pieces
constexpr size_t kHeaderSize = 8;
constexpr unsigned char kLineEnd = 0x80;
constexpr char kLines = 'L', kRaw = 'R';

constexpr const char *kFormat =
    "The stream is a sequence of frames. A frame begins with the three letters QLF, a letter for "
    "its\n"
    "kind and the number of bytes that follow as a big-endian 32-bit word (at most 65536). Kind "
    "L:\n"
    "compressed lines, each frame with a history of its own, filled up to at least 256 bytes with\n"
    "0x80; lines of more than 255 characters travel in pieces. Kind R: bytes as they are, for "
    "what\n"
    "is not plain ASCII text.";

constexpr const char *kDocument =
    "JSON: lines (an array of texts without their line ends), frames, text_bytes and "
    "packed_bytes.\n"
    "A stream that is damaged leaves the document unfinished, and the exit status is 1.";

struct FileCloser {
    void operator()(FILE *file) const {
        if (file != stdin)
            fclose(file);
    }
};
using File = std::unique_ptr<FILE, FileCloser>;

File open_input(const std::string &path) {
    File file(path.empty() || path == "-" ? stdin : fopen(path.c_str(), "re"));
    if (!file)
        throw system_failure(path);
    return file;
}

// A bar on standard error while a long input is read; absent when that is no terminal.
class Progress {
  public:
    explicit Progress(FILE *input) {
        struct stat status {};
        if (isatty(STDERR_FILENO) == 1 && fstat(fileno(input), &status) == 0) {
            shown_ = true;
            total_ = S_ISREG(status.st_mode) ? static_cast<size_t>(status.st_size) : 0;
        }
    }
    ~Progress() {
        if (shown_ && last_ > 0)
            fprintf(stderr, "\r\033[K");
    }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void advance(size_t bytes) {
        done_ += bytes;
        if (!shown_ || done_ - last_ < kStep)
            return;
        last_ = done_;
        if (total_ == 0) {
            fprintf(stderr, "\r%zu MB", done_ / 1000000);
            return;
        }
        size_t part = std::min<size_t>(done_ * kWidth / total_, kWidth);
        std::string bar = std::string(part, '#') + std::string(kWidth - part, '.');
        fprintf(stderr, "\r[%s] %3zu%%", bar.c_str(), std::min<size_t>(done_ * 100 / total_, 100));
    }

  private:
    static constexpr size_t kStep = 256 * 1024;
    static constexpr size_t kWidth = 50;
    bool shown_ = false;
    size_t total_ = 0, done_ = 0, last_ = 0;
};

void write_out(const void *bytes, size_t count) {
    if (fwrite(bytes, 1, count, stdout) != count)
        fail_to_write();
}

void write_frame(char kind, const unsigned char *bytes, size_t count) {
    unsigned char header[kHeaderSize] = {'Q', 'L', 'F', static_cast<unsigned char>(kind)};
    for (size_t i = 0; i < 4; ++i)
        header[4 + i] = static_cast<unsigned char>(count >> (24 - 8 * i));
    write_out(header, sizeof header);
    write_out(bytes, count);
}

// Collects pieces of text in the buffer of the current frame and writes it when it is full or the
// kind changes.
class Packer {
  public:
    ~Packer() { drop(); }

    void add(std::string_view piece) {
        bool plain = std::none_of(piece.begin(), piece.end(),
                                  [](unsigned char c) { return c == 0 || c >= 0x80; });
        if (plain)
            add_line(piece);
        else
            add_raw(piece);
    }

    void flush() {
        if (compressor_ != nullptr) {
            auto length = static_cast<size_t>(log_getCompressorOlen(compressor_));
            std::fill(buffer_.begin() + static_cast<long>(length), buffer_.end(), kLineEnd);
            drop();
            write_frame(kLines, buffer_.data(), std::max(length, kLeastCoded));
        } else if (raw_ > 0) {
            write_frame(kRaw, buffer_.data(), raw_);
            raw_ = 0;
        }
    }

  private:
    void drop() {
        if (compressor_ != nullptr)
            log_deleteCompressor(compressor_);
        compressor_ = nullptr;
    }

    void add_line(std::string_view piece) {
        if (raw_ > 0)
            flush();
        char line[kLineMax + 1];
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (compressor_ == nullptr)
                compressor_ =
                    log_createCompressor(buffer_.data(), static_cast<int>(buffer_.size()));
            if (compressor_ == nullptr)
                throw Failure("out of memory");
            memcpy(line, piece.data(), piece.size());
            line[piece.size()] = '\0';
            if (log_compressLine(compressor_, line) == 0)
                return;
            flush();
        }
    }

    void add_raw(std::string_view piece) {
        if (compressor_ != nullptr || raw_ + piece.size() > buffer_.size())
            flush();
        memcpy(buffer_.data() + raw_, piece.data(), piece.size());
        raw_ += piece.size();
    }

    std::vector<unsigned char> buffer_ = std::vector<unsigned char>(kCapacity);
    log_compressor *compressor_ = nullptr;
    size_t raw_ = 0;
};

void pack(const std::string &path) {
    if (isatty(STDOUT_FILENO) == 1)
        throw Failure("a packed log is not for a terminal", kUsage);
    File input = open_input(path);
    Progress progress(input.get());
    Packer packer;
    std::string pending;
    std::array<char, 64 * 1024> part;
    while (size_t count = fread(part.data(), 1, part.size(), input.get())) {
        progress.advance(count);
        pending.append(part.data(), count);
        size_t begin = 0;
        while (begin < pending.size()) {
            std::string_view rest = std::string_view(pending).substr(begin);
            size_t end = rest.substr(0, kLineMax).find('\n');
            if (end == std::string_view::npos && rest.size() < kLineMax)
                break;
            size_t length = end == std::string_view::npos ? kLineMax : end + 1;
            packer.add(rest.substr(0, length));
            begin += length;
        }
        pending.erase(0, begin);
    }
    if (ferror(input.get()) != 0)
        throw system_failure("cannot read");
    if (!pending.empty())
        packer.add(pending);
    packer.flush();
}

struct Totals {
    size_t frames = 0, lines = 0, coded = 0, text = 0;
};

// Calls `visit` with every piece of text of the stream.
template <typename Visit>
Totals unpack_all(FILE *input, Visit visit) {
    Progress progress(input);
    Totals totals;
    std::vector<unsigned char> bytes(kCapacity);
    unsigned char header[kHeaderSize];
    while (size_t count = fread(header, 1, sizeof header, input)) {
        size_t length = 0;
        for (size_t i = 4; i < kHeaderSize; ++i)
            length = length << 8 | header[i];
        bool lines = header[3] == kLines;
        if (count != sizeof header || memcmp(header, "QLF", 3) != 0 ||
            (!lines && header[3] != kRaw) || length > bytes.size() || length == 0 ||
            (lines && length < kLeastCoded))
            throw Failure("frame " + std::to_string(totals.frames + 1) + ": not a compressed log");
        if (fread(bytes.data(), 1, length, input) != length)
            throw Failure("frame " + std::to_string(totals.frames + 1) + ": the stream ends early");
        ++totals.frames;
        totals.coded += sizeof header + length;
        progress.advance(sizeof header + length);
        if (!lines) {
            visit(std::string_view(reinterpret_cast<char *>(bytes.data()), length));
            totals.text += length;
            continue;
        }
        std::unique_ptr<log_decompressor, decltype(&log_deleteDecompressor)> decompressor(
            log_createDecompressor(bytes.data(), static_cast<int>(length)), log_deleteDecompressor);
        if (!decompressor)
            throw Failure("out of memory");
        char line[kLineMax + 1];
        int decoded;
        while ((decoded = log_decompressGetLine(decompressor.get(), line)) > 0) {
            visit(std::string_view(line, static_cast<size_t>(decoded)));
            totals.text += static_cast<size_t>(decoded);
            ++totals.lines;
        }
        if (decoded < 0)
            throw Failure("frame " + std::to_string(totals.frames) + ": a reference leads nowhere");
    }
    if (ferror(input) != 0)
        throw system_failure("cannot read");
    return totals;
}

Totals print_checked(FILE *input) {
    TextFilter filter;
    auto print = [](const std::string &text) { write_out(text.data(), text.size()); };
    Totals totals = unpack_all(input, [&](std::string_view piece) { print(filter.pass(piece)); });
    print(filter.end());
    return totals;
}

void unpack(const std::string &path) {
    File input = open_input(path);
    if (isatty(STDOUT_FILENO) == 1)
        print_checked(input.get());
    else
        unpack_all(input.get(),
                   [](std::string_view piece) { write_out(piece.data(), piece.size()); });
}

// The lines go out as they come: a log may be larger than memory.
void show_json(FILE *input) {
    std::string line;
    bool any = false;
    auto write_line = [&] {
        printf("%s%s", any ? "," : "", text_of(line).c_str());
        any = true;
        line.clear();
    };
    printf("{\"format\":1,\"lines\":[");
    Totals totals = unpack_all(input, [&](std::string_view piece) {
        for (size_t end; (end = piece.find('\n')) != std::string_view::npos;
             piece.remove_prefix(end + 1)) {
            line += piece.substr(0, end);
            write_line();
        }
        line += piece;
        if (ferror(stdout) != 0)
            fail_to_write();
    });
    if (!line.empty())
        write_line();
    printf("],\"frames\":%zu,\"text_bytes\":%zu,\"packed_bytes\":%zu}\n", totals.frames,
           totals.text, totals.coded);
}

void show_stream(const std::string &path) {
    File input = open_input(path);
    if (common_options().json)
        return show_json(input.get());
    Totals totals = print_checked(input.get());
    fprintf(stderr, "%zu frames, %zu lines, %zu bytes of text in %zu (%.1f : 1)\n", totals.frames,
            totals.lines, totals.text, totals.coded,
            totals.coded != 0 ? static_cast<double>(totals.text) / static_cast<double>(totals.coded)
                              : 0.0);
}

}  // namespace

void add_log(CLI::App &app) {
    static std::string path;
    CLI::App *command =
        add_subcommand(app, "log", "Pack text logs into a compressed line stream and back");
    command->require_subcommand(1);
    add_json_option(*command);
    command->footer(kFormat);
    struct {
        const char *name, *description;
        void (*run)(const std::string &);
    } const actions[] = {
        {"pack", "Compress text to standard output", pack},
        {"unpack",
         "Write the text of a stream to standard output, byte for byte (to a terminal: as show "
         "does)",
         unpack},
        {"show", "Print the text of a stream, control characters as \\xNN, and its ratio",
         show_stream}};
    for (auto &action : actions) {
        CLI::App *one = add_subcommand(*command, action.name, action.description);
        one->add_option("FILE", path, "Input (default, and for '-': standard input)");
        if (action.run == show_stream)
            add_json_option(*one);
        one->footer(action.run == show_stream ? std::string(kFormat) + "\n\n" + kDocument
                                              : kFormat);
        one->callback([run = action.run] { run(path); });
    }
}

}  // namespace qelctl
