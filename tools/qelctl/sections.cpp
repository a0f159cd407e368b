// SPDX-License-Identifier: Apache-2.0
#include "sections.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <map>

#include "daemons.h"
#include "process.h"
#include "qelctl.h"
#include "text.h"

namespace qelctl {
namespace {

namespace fs = std::filesystem;

// What the file's end says, unless that is missing or of another process.
std::optional<trace_owner> writer_of(const fs::path &path, int pid) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat status {};
    trace_owner writer{};
    constexpr ssize_t kSize = sizeof writer;
    bool whole = fd >= 0 && fstat(fd, &status) == 0 &&
                 pread(fd, &writer, sizeof writer, status.st_size - kSize) == kSize;
    if (fd >= 0)
        close(fd);
    if (!whole || writer.magic != TRACE_OWNER_MAGIC || writer.pid != pid)
        return {};
    return writer;
}

// "PID.SECTION.PROGRAM.NAME"; the program holds no dot.
std::optional<SectionFile> parse(const fs::path &path) {
    std::string name = path.filename();
    size_t ends[3], from = 0;
    for (size_t &end : ends) {
        end = name.find('.', from);
        if (end == std::string::npos)
            return {};
        from = end + 1;
    }
    std::optional<int> pid = number_in(std::string_view(name).substr(0, ends[0]), 1, INT_MAX);
    std::optional<int> section =
        number_in(std::string_view(name).substr(ends[0] + 1, ends[1] - ends[0] - 1), 0, INT_MAX);
    if (!pid || !section || ends[2] == ends[1] + 1 || from == name.size())
        return {};
    SectionFile file;
    file.path = path;
    file.pid = *pid;
    file.section = *section;
    file.program = name.substr(ends[1] + 1, ends[2] - ends[1] - 1);
    file.name = name.substr(from);
    file.writer = writer_of(path, *pid);
    file.daemon = file.program;
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0)
        file.owner = status.st_uid;
    return file;
}

}  // namespace

Section::Section(const fs::path &path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        throw system_failure(path);
    constexpr size_t kMost =
        sizeof(qel_evlog_handle) + QEL_EVLOG_MAX_ENTRIES * sizeof(qel_evlog_entry);
    struct stat status {};
    ssize_t size = -1;
    try {
        bytes_.resize((kMost + sizeof(qel_evlog_handle) - 1) / sizeof(qel_evlog_handle));
        size = fstat(fd, &status) == 0 ? pread(fd, bytes_.data(), kMost, 0) : -1;
    } catch (...) {
        close(fd);
        throw;
    }
    int reason = errno;
    close(fd);
    errno = reason;
    owner_ = status.st_uid;
    if (size < 0)
        throw system_failure(path);
    if (!prepare(static_cast<size_t>(size)))
        throw Failure(path.string() + ": not an event log");
}

bool Section::prepare(size_t size) {
    qel_evlog_handle *header = log();
    if (size < sizeof *header || header->magic != QEL_EVLOG_MAGIC || header->total < 1 ||
        header->total > QEL_EVLOG_MAX_ENTRIES || header->current < 0 ||
        header->current >= header->total ||
        size < sizeof *header + static_cast<size_t>(header->total) * sizeof(qel_evlog_entry))
        return false;
    header->entries = reinterpret_cast<qel_evlog_entry *>(header + 1);
    header->next = nullptr;
    for (int i = 0; i < header->total; ++i) {
        qel_evlog_entry &entry = header->entries[i];
        entry.text[QEL_EVLOG_TEXT_SIZE - 1] = '\0';
        entry.microseconds = std::clamp(entry.microseconds, 0, 999999);
    }
    return pthread_mutex_init(&header->lock, nullptr) == 0;
}

std::string Section::text_in(const char *text, size_t room) {
    return {text, strnlen(text, room)};
}

// Positions below 0 are those of the rounds before the count began anew.
qel_evlog_entry &Section::entry(int position) {
    return log()->entries[(position + positions()) % total()];
}

int Section::oldest() {
    // A slot ahead that was written before says that the ring has wrapped.
    return log()->wrapped != 0 || entry(position()).seconds != 0 ? position() - total() : 0;
}

std::vector<Event> Section::events(int first, int last) {
    std::vector<Event> events;
    for (int at = first; at < last; ++at) {
        char line[QEL_EVLOG_LINE_SIZE] = "";
        qel_evlog_entry &from = entry(at);
        if (from.seconds == 0)
            continue;  // the log was cleared meanwhile
        qel_evlog_entry_dump(stdout, line, &from, 1);
        Event event{uint64_t{static_cast<uint32_t>(from.seconds)} * 1000000 +
                        static_cast<uint32_t>(from.microseconds),
                    text_in(from.text, sizeof from.text), line};
        if (!event.text.empty() && event.text.back() == '\n')
            event.text.pop_back();
        events.push_back(event);
    }
    return events;
}

bool is_alive(const SectionFile &file) {
    std::optional<ProcessStatus> now = process_status(file.pid);
    if (now && file.writer && file.writer->start != 0)
        return static_cast<uint64_t>(now->start_ticks) == file.writer->start;
    return kill(file.pid, 0) == 0 || errno != ESRCH;
}

std::vector<SectionFile> section_files() {
    std::vector<SectionFile> files;
    std::error_code error;
    for (fs::directory_iterator entry(TRACE_DIRECTORY, error), end; !error && entry != end;
         entry.increment(error)) {
        std::optional<SectionFile> file = parse(entry->path());
        if (file && !(file->writer && is_left_out(file->writer->switch_no)))
            files.push_back(*file);
    }
    if (error && error != std::errc::no_such_file_or_directory)
        throw Failure(TRACE_DIRECTORY ": " + error.message());
    std::sort(files.begin(), files.end(), [](const SectionFile &a, const SectionFile &b) {
        return std::tie(a.pid, a.section, a.path) < std::tie(b.pid, b.section, b.path);
    });
    std::map<int, std::string> names = daemon_names();
    for (SectionFile &file : files)
        if (auto found = names.find(file.pid); found != names.end() && file.writer)
            file.daemon = found->second;
    return files;
}

SectionFile section_file(const std::string &name) {
    fs::path path =
        name.find('/') != std::string::npos ? fs::path(name) : fs::path(TRACE_DIRECTORY) / name;
    SectionFile file = parse(path).value_or(SectionFile());
    struct stat status {};
    file.path = path;
    if (lstat(path.c_str(), &status) == 0)
        file.owner = status.st_uid;
    std::map<int, std::string> names = daemon_names();
    if (auto found = names.find(file.pid); found != names.end() && file.writer)
        file.daemon = found->second;
    return file;
}

std::string line_mark(uid_t owner) {
    return owner == 0 ? "" : user_name(owner) + ": ";
}

}  // namespace qelctl
