// qelctl evlog: event logs of living and dead processes, read from their trace sections. A section
// is copied before it is looked at, and everything in it is checked: its writer may be running,
// dead or another program altogether.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <vector>

#include "process.h"
#include "qelctl.h"
#include "text.h"
#include "utils/evlog.h"
#include "utils/platform/posix/trace_files.h"

namespace qelctl {
namespace {

namespace fs = std::filesystem;

constexpr long kFollowPauseNs = 100 * 1000 * 1000;

// A copy of a section, ready for qel_evlog_dump().
class Section {
  public:
    explicit Section(const fs::path &path) {
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd < 0)
            throw system_failure(path);
        constexpr size_t kMost =
            sizeof(qel_evlog_handle) + QEL_EVLOG_MAX_ENTRIES * sizeof(qel_evlog_entry);
        bytes_.resize((kMost + sizeof(qel_evlog_handle) - 1) / sizeof(qel_evlog_handle));
        struct stat status {};
        ssize_t size = fstat(fd, &status) == 0 ? pread(fd, bytes_.data(), kMost, 0) : -1;
        close(fd);
        owner_ = status.st_uid;
        if (size < 0)
            throw system_failure(path);
        if (!prepare(static_cast<size_t>(size)))
            throw Failure(path.string() + ": not an event log");
    }

    qel_evlog_handle *log() { return &bytes_[0]; }
    uid_t owner() const { return owner_; }
    int total() { return log()->total; }
    // How many events were ever written, modulo what the header can count.
    int position() { return log()->wrapped * total() + log()->current; }
    int positions() { return 256 * total(); }
    qel_evlog_entry *entry(int position) { return &log()->entries[position % total()]; }

  private:
    bool prepare(size_t size) {
        qel_evlog_handle *header = log();
        if (size < sizeof *header || header->magic != QEL_EVLOG_MAGIC || header->total < 1 ||
            header->total > QEL_EVLOG_MAX_ENTRIES || header->current < 0 ||
            header->current >= header->total ||
            size < sizeof *header + static_cast<size_t>(header->total) * sizeof(qel_evlog_entry))
            return false;
        header->entries = reinterpret_cast<qel_evlog_entry *>(header + 1);
        header->next = nullptr;
        header->name[sizeof header->name - 1] = '\0';
        header->shortcut[sizeof header->shortcut - 1] = '\0';
        for (int i = 0; i < header->total; ++i)
            header->entries[i].text[QEL_EVLOG_TEXT_SIZE - 1] = '\0';
        return pthread_mutex_init(&header->lock, nullptr) == 0;
    }

    std::vector<qel_evlog_handle> bytes_;
    uid_t owner_ = 0;
};

// Anyone can leave a section under any process's number. What root did not write says so in every
// line, since its texts may look like anything.
std::string line_mark(const Section &section) {
    return section.owner() == 0 ? "" : user_name(section.owner()) + ": ";
}

struct SectionFile {
    fs::path path;
    int pid = 0, section = 0;
    std::string program, name;
    std::optional<trace_owner> writer;
};

// A process of the same number that started at another time is another one.
bool alive(const SectionFile &file) {
    std::optional<ProcessStatus> now = process_status(file.pid);
    if (now && file.writer && file.writer->start != 0)
        return static_cast<uint64_t>(now->start_ticks) == file.writer->start;
    return kill(file.pid, 0) == 0 || errno != ESRCH;
}

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

std::optional<SectionFile> parse(const fs::path &path) {
    SectionFile file;
    char program[TRACE_PROGRAM_SIZE], name[TRACE_NAME_SIZE];
    if (sscanf(path.filename().c_str(), TRACE_FILE_SCAN, &file.pid, &file.section, program, name) !=
        4)
        return {};
    file.path = path;
    file.program = program;
    file.name = name;
    file.writer = writer_of(path, file.pid);
    return file;
}

// The section files, of one process or of all (pid 0), by process and number.
std::vector<SectionFile> section_files(int pid) {
    std::vector<SectionFile> files;
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(TRACE_DIRECTORY, error)) {
        std::optional<SectionFile> file = parse(entry.path());
        if (file && (pid == 0 || file->pid == pid))
            files.push_back(*file);
    }
    if (error && error != std::errc::no_such_file_or_directory)
        throw Failure(TRACE_DIRECTORY ": " + error.message());
    std::sort(files.begin(), files.end(), [](const SectionFile &a, const SectionFile &b) {
        return std::tie(a.pid, a.section) < std::tie(b.pid, b.section);
    });
    return files;
}

void list_sections() {
    printf("%-7s  %-7s  %-8s  %-16s  %-20s  %-6s  %s\n", "PID", "SECTION", "OWNER", "PROGRAM",
           "NAME", "SWITCH", "STATE");
    for (const SectionFile &file : section_files(0)) {
        struct stat status {};
        bool there = lstat(file.path.c_str(), &status) == 0;
        printf("%-7d  %-7d  %-8s  %-16s  %-20s  %-6s  %s\n", file.pid, file.section,
               there ? user_name(status.st_uid).c_str() : "-", visible_name(file.program).c_str(),
               visible_name(file.name).c_str(),
               file.writer ? std::to_string(file.writer->switch_no).c_str() : "-",
               alive(file) ? "running" : "dead");
    }
}

void print_entry(FILE *output, Section &section, int position) {
    char line[QEL_EVLOG_LINE_SIZE] = "";
    if (section.entry(position)->seconds == 0)
        return;  // the log was cleared meanwhile
    qel_evlog_entry_dump(output, line, section.entry(position), 1);
    fputs(line, output);
}

// Prints events as they come, until the writer is dead (or for good, when it is not known).
void follow(const SectionFile &file) {
    int last = -1;
    while (true) {
        bool ends = file.pid > 0 && !alive(file);
        Section section(file.path);
        int position = section.position();
        if (last < 0)  // a slot ahead that was written before says that the ring has wrapped
            last = section.entry(position)->seconds != 0 ? position - section.total() : 0;
        if (position < last)
            position += section.positions();
        {
            VisibleOutput output(line_mark(section));
            // A writer that has lapped us leaves only what the ring still holds.
            for (int i = std::max(last, position - section.total()); i < position; ++i)
                print_entry(output.stream(), section, i + section.positions());
        }
        last = position % section.positions();
        if (fflush(stdout) != 0 || ferror(stdout) != 0 || ends)
            return;
        timespec pause{0, kFollowPauseNs};
        nanosleep(&pause, nullptr);
    }
}

void dump(const fs::path &path) {
    Section section(path);
    VisibleOutput output(line_mark(section));
    fprintf(output.stream(), "owner              :%s\n", user_name(section.owner()).c_str());
    qel_evlog_dump(output.stream(), section.log(), 1);
}

struct Choice {
    int pid = 0;
    std::string file;
    bool follow = false;
};

void show(const Choice &choice) {
    std::vector<SectionFile> files;
    if (!choice.file.empty()) {
        fs::path path = choice.file.find('/') != std::string::npos
                            ? fs::path(choice.file)
                            : fs::path(TRACE_DIRECTORY) / choice.file;
        files.push_back(parse(path).value_or(SectionFile{path, 0, 0, "", "", {}}));
    } else if (choice.pid != 0) {
        files = section_files(choice.pid);
        if (files.empty())
            throw Failure("process " + std::to_string(choice.pid) + " has left no event log");
    } else {
        return list_sections();
    }
    if (choice.follow && files.size() > 1)
        throw Failure("several logs; name the one to follow with --file", kUsage);
    if (choice.follow)
        return follow(files[0]);
    // One that cannot be read hides none of the others.
    std::optional<Failure> failure;
    for (const SectionFile &file : files) {
        try {
            dump(file.path);
        } catch (const Failure &reason) {
            if (failure)
                report(*failure);
            failure = reason;
        }
    }
    if (failure)
        throw Failure(*failure);
}

}  // namespace

void add_evlog(CLI::App &app) {
    static Choice choice;
    CLI::App *command =
        add_subcommand(app, "evlog", "Print event logs of living and dead processes");
    auto *pid = command->add_option("--pid", choice.pid, "Every log of this process")
                    ->check(CLI::PositiveNumber)
                    ->type_name("PID");
    command->add_option("--file", choice.file, "One section: a file name of the list, or a path")
        ->excludes(pid)
        ->type_name("SECTION");
    command->add_flag("--follow", choice.follow,
                      "Print events as they come, until the process is dead");
    command->footer(
        "Without --pid and --file, lists the sections that there are. Lines of a section that root "
        "does not\nown begin with its owner's name.");
    command->callback([] { show(choice); });
}

}  // namespace qelctl
