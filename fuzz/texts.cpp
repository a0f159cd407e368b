// SPDX-License-Identifier: Apache-2.0
// Fuzz targets: texts of users, of the system and of files.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <set>

#include "fuzz/fuzz.h"
#include "tools/qelctl/qelctl.h"
#include "utils/cla.h"
#include "utils/getopt.h"
#include "utils/getval.h"
#include "utils/log_compress.h"
#include "utils/paging.h"
#include "utils/ppname.h"
#include "utils/wwn.h"

namespace fuzz {
namespace {

std::vector<std::string> decoded(std::string stream) {
    stream.resize(std::max<size_t>(stream.size(), LOG_COMPRESS_BUFFER_MIN), '\x80');
    auto block = exact<unsigned char>(stream);
    auto line = exact("", LOG_COMPRESS_LINE_SIZE);
    std::vector<std::string> lines;
    log_decompressor *in = log_createDecompressor(block.get(), static_cast<int>(stream.size()));
    size_t calls = 0;
    for (int result; (result = log_decompressGetLine(in, line.get())) != 0;) {
        // Every call takes at least one byte, and every line is terminated where it says.
        require(result >= -1 && result <= LOG_COMPRESS_LINE_MAX && ++calls <= stream.size());
        require(result < 0 || line[static_cast<size_t>(result)] == '\0');
        lines.emplace_back(line.get(), static_cast<size_t>(std::max(result, 0)));
    }
    log_deleteDecompressor(in);
    return lines;
}

void walk_elements(const std::string &content, const std::string &start, const std::string &end,
                   int max, const char *prefix, const char *suffix) {
    auto text = exact(content, 1);
    auto dst = exact("", static_cast<size_t>(max) + (suffix != nullptr ? 1 : 0));
    char *cursor = text.get();
    for (;;) {
        const char *before = cursor;
        int result = getStrElement(dst.get(), &cursor, start.c_str(), end.c_str(), max, prefix,
                                   suffix, STR_ELEMENT_ADVANCE);
        require(result >= STR_ELEMENT_UNCLOSED && result <= std::max(max, 1));
        require(cursor >= before && cursor <= text.get() + content.size());
        if (result > 0 && max > 0 && suffix != nullptr)
            require(dst[static_cast<size_t>(result)] == '\0');
        if (result < 0 || cursor == before)
            return;
    }
}

std::string bytes_in(int fd) {
    std::string bytes(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    require(pread(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    return bytes;
}

// A file of the input's bytes at a path that lasts.
const char *file_of(std::string_view bytes) {
    static int fd = memfd_create("input", MFD_CLOEXEC);
    static std::string path = "/proc/self/fd/" + std::to_string(fd);
    require(ftruncate(fd, 0) == 0);
    require(pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    return path.c_str();
}

}  // namespace

// A stream, or lines that come back through one.
void compressed(Input in) {
    if (in.byte() % 2 == 0)
        return void(decoded(std::string(in.rest)));
    std::vector<std::string> lines = in.texts('\n');
    auto stream = exact<unsigned char>("", 257 * lines.size() + LOG_COMPRESS_BUFFER_MIN);
    int room = static_cast<int>(257 * lines.size() + LOG_COMPRESS_BUFFER_MIN);
    log_compressor *out = log_createCompressor(stream.get(), room);
    lines.erase(std::remove(lines.begin(), lines.end(), ""), lines.end());
    for (std::string &line : lines) {
        for (char &c : line)
            c = (c & 0x7F) != 0 ? static_cast<char>(c & 0x7F) : 'x';
        require(log_compressLine(out, exact(line, 1).get()) == 0);
        line.resize(std::min<size_t>(line.size(), LOG_COMPRESS_LINE_MAX));
    }
    auto length = static_cast<size_t>(log_getCompressorOlen(out));
    log_deleteCompressor(out);
    require(decoded({stream.get(), stream.get() + length}) == lines);
}

// A byte chooses room, prefix and suffix; then come start tag, end tag and text.
void tagged(Input in) {
    int choice = static_cast<int>(in.byte());
    std::string start = in.text(), end = in.text(), content = in.text();
    walk_elements(content, start, end, choice & 15, (choice & 16) != 0 ? "<" : nullptr,
                  (choice & 32) != 0 ? ">" : nullptr);
    auto text = exact(content, 1);
    const int length = WWN_TEXT_SIZE + (choice & 15);
    auto wwn = exact("", static_cast<size_t>(length) + 1);
    int result = formatWwn(text.get(), wwn.get(), length);
    require(result == static_cast<int>(strlen(wwn.get())) + 1 && result <= length + 1);
    auto isn = exact("", WWN_TAG_SIZE), tag = exact("", WWN_TAG_SIZE);
    char *cursor = text.get();
    if (getWwnTagData(&cursor, isn.get(), tag.get()) == 0)
        require(strlen(isn.get()) < WWN_TAG_SIZE && strlen(tag.get()) < WWN_TAG_SIZE);
    require(cursor == text.get());
}

// An argument vector: what is left of it is in its old order.
void options(Input in) {
    int32_t number = 0;
    int16_t small = 0;
    claFltrEntry table[] = {{'s', "switch", clafGetInt, &number},
                            {'s', nullptr, clafGetShort, &small},
                            {'p', "", clafGetShort, &small},
                            {0, nullptr, nullptr, nullptr}};
    Words words(in.texts('\n'));
    std::vector<char *> before = words.argv;
    char **left = words.argv.data();
    require(claFltr(table, &words.argc, left) == 0 && left[words.argc] == nullptr);
    auto at = before.begin();
    for (int i = 1; i < words.argc; ++i, ++at) {
        at = std::find(at, before.end(), left[i]);
        require(at != before.end());
    }
}

// Slots and ports, then tokens between separators.
void places(Input in) {
    size_t capacity = in.byte() % 8;
    std::string separators = in.text('\n');
    std::vector<std::string> texts = in.texts('\n');
    int slot = 0, pic = 0;
    Words first(texts), second(texts), third(texts);
    int result = clafSlotSlashPort(first.argc, first.argv.data(), &slot);
    require(result == (texts.empty() ? CLA_ERR_FORM : 0));
    clafSlotSlashPicSlashPort(second.argc, second.argv.data(), &slot, &pic);
    for (Words *words : {&first, &second}) {
        for (size_t i = 0; i < texts.size(); ++i) {
            const char *begin = words->owned[i].get(), *at = words->argv[i];
            require(at >= begin && at <= begin + texts[i].size());
        }
        clafArgPresent(words->argc, words->argv.data(), separators.c_str());
    }
    std::vector<char *> out(capacity + 1);
    result = claReparse(third.argc, third.argv.data(), out.data(), static_cast<int>(capacity),
                        separators.empty() ? nullptr : separators.c_str());
    size_t stored = result >= 0 ? static_cast<size_t>(result) : 0;
    for (size_t i = 0; i < stored; ++i)
        require(*out[i] != '\0' && strpbrk(out[i], separators.c_str()) == nullptr);
    require(result == CLA_ERR_TOO_MANY ? out[capacity] == nullptr : out[stored] == nullptr);
}

// Option letters, then an argument vector: the scan ends, and its arguments are the caller's.
void letters(Input in) {
    struct Seen {
        Words words;
        size_t calls, most;
    };
    std::string known = in.text('\n');
    Seen seen{Words(in.texts('\n')), 0, 2};
    for (auto &word : seen.words.owned)
        seen.most += strlen(word.get());
    int result = qelGetOpt(
        seen.words.argc, seen.words.argv.data(), known.c_str(),
        [](void *arg, qelGetOptState *state) {
            auto &all = *static_cast<Seen *>(arg);
            require(++all.calls <= all.most);
            state->err = 0;
            const char *value = qelGetOpt_arg(state);
            require(value == nullptr || strlen(value) < all.most);
            require(qelGetOpt_ind(state) <= std::max(all.words.argc, 1) + 1);
            return qelGetOpt_opt(state);
        },
        &seen);
    require(result == QELGETOPT_END);
}

// Type and bounds, then what the operator types.
void prompt(Input in) {
    const int32_t kBounds[] = {0, 1, -1, 40, 255, 300, INT32_MAX, INT32_MIN};
    int32_t type = static_cast<int32_t>(in.byte() % 25);
    unsigned choice = in.byte();
    int32_t min = kBounds[choice % 8], max = kBounds[choice / 8 % 8];
    bool text = type >= GETVAL_STRING_TRIM || type == GETVAL_STRING;
    auto room = exact("", text ? std::max<size_t>(GETVAL_IP_ROOM, LOG_COMPRESS_LINE_SIZE) : 4);
    getvalDesc desc{type, room.get(), min, max, kBounds[choice / 64]};
    auto typed = exact(in.rest, 1);
    FILE *terminal = stdin;
    stdin = fmemopen(typed.get(), std::max<size_t>(in.rest.size(), 1), "r");
    int result = getval("value", &desc);
    fclose(stdin);
    stdin = terminal;
    require(result == 0 || result == 1 || (result == -1 && min > max));
    if (result == 1 && (type == GETVAL_INT || type == GETVAL_HEX || type == GETVAL_PORT_ID)) {
        int32_t value;
        memcpy(&value, room.get(), sizeof value);
        require(value >= min && value <= max && (desc.multiple == 0 || value % desc.multiple == 0));
    }
}

// The system's table of connections.
void connections(Input in) {
    size_t size = in.byte() % 20;
    auto address = exact("", size);
    faked_path = file_of(in.rest);
    int input = dup(STDIN_FILENO);
    dup2(memfd_create("no-socket", MFD_CLOEXEC), STDIN_FILENO);
    int result = ppnamePeerAddr(getpid(), static_cast<int>(size), address.get());
    dup2(input, STDIN_FILENO);
    close(input);
    faked_path = nullptr;
    require(result == 0 || result == -1);
    for (size_t i = 0; i < size && address[i] != '\0'; ++i)
        require(strchr("0123456789.", address[i]) != nullptr);
}

// A 64-bit number and its base come back from their text; then a text that may hold a number.
void numbers(Input in) {
    unsigned words[2] = {};
    int base = static_cast<int>(in.byte() % 40);
    for (unsigned &word : words)
        for (int i = 0; i < 4; ++i)
            word = word << 8 | in.byte();
    auto text = exact("", SPRINT64_ROOM);
    int length = sprint64(text.get(), words[0], words[1], base);
    require(length > 0 && static_cast<size_t>(length) == strlen(text.get()));
    int read_as = base < 2 || (words[0] == 0 && base != 16 && base != 8) ? 10 : base;
    if (read_as <= 10 || read_as == 16)
        require(strtoull(text.get(), nullptr, read_as) == (uint64_t{words[0]} << 32 | words[1]));
    std::string number = in.text();
    long long value = strtoll(number.c_str(), nullptr, 10);
    int got = str2num(exact(number, 1).get());
    if (number.size() < 3 || number[0] != '0' || (number[1] | 32) != 'x')
        require(got == std::clamp<long long>(value, INT_MIN, INT_MAX));
}

// A trace section as the operator's command shows it: nothing in it gets to control the terminal.
void section(Input in) {
    static int shown = memfd_create("shown", MFD_CLOEXEC);
    std::string path = "/tmp/section";
    int file = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
    require(write(file, in.rest.data(), in.rest.size()) == static_cast<ssize_t>(in.rest.size()));
    close(file);
    fflush(stdout);
    int output = dup(STDOUT_FILENO);
    require(ftruncate(shown, 0) == 0 && lseek(shown, 0, SEEK_SET) == 0);
    dup2(shown, STDOUT_FILENO);
    try {
        CLI::App app;
        qelctl::add_evlog(app);
        app.parse("evlog --file " + path);
    } catch (const qelctl::Failure &) {
    }
    fflush(stdout);
    dup2(output, STDOUT_FILENO);
    close(output);
    for (char c : bytes_in(shown))
        require(static_cast<unsigned char>(c) >= ' ' || c == '\n' || c == '\t');
}

}  // namespace fuzz
