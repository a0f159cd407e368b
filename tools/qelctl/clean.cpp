// SPDX-License-Identifier: Apache-2.0
// qelctl clean: removes what dead daemons have left behind, after showing it. Evidence goes only
// when it is asked for, and what carries no mark only by its number.
#include <fcntl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fstream>

#include "daemons.h"
#include "qelctl.h"
#ifdef QELCTL_STAND_IN
#include "sections.h"
#endif
#include "text.h"

namespace qelctl {
namespace {

struct Choice {
    bool dry_run = false, logs = false;
    std::vector<int> segments;
};

// A file as it was when its owner was proved dead.
struct DeadFile {
    const char *kind;
    std::string path;
    struct stat status {};
};

void add_file(std::vector<DeadFile> &files, const char *kind, const std::string &path,
              mode_t type) {
    DeadFile file{kind, path};
    if (lstat(path.c_str(), &file.status) == 0 && (file.status.st_mode & S_IFMT) == type)
        files.push_back(file);
}

std::vector<DeadFile> dead_files([[maybe_unused]] const Choice &choice) {
    std::vector<DeadFile> files;
    for (const Daemon &daemon : find_daemons()) {
        if (daemon.life != Life::kStale || is_left_out(daemon.switch_no))
            continue;
        for (const DaemonFile &file : daemon.files)
            add_file(files, file.kind, file.path,
                     file.kind == std::string("socket") ? S_IFSOCK : S_IFREG);
    }
#ifdef QELCTL_STAND_IN
    if (!choice.logs)
        return files;
    for (const SectionFile &file : section_files())
        if (!is_alive(file))
            add_file(files, "section", file.path, S_IFREG);
#endif
    return files;
}

bool is_same(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// Takes the file aside first and looks at it again, so that what a daemon that starts this moment
// has put into its place stays.
bool remove_file(const DeadFile &file) {
    std::string aside = file.path + ".removed";
    struct stat status {};
    if (renameat2(AT_FDCWD, file.path.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) != 0)
        return errno == ENOENT;
    if (lstat(aside.c_str(), &status) == 0 && is_same(status, file.status))
        return unlink(aside.c_str()) == 0;
    return renameat2(AT_FDCWD, aside.c_str(), AT_FDCWD, file.path.c_str(), RENAME_NOREPLACE) == 0;
}

struct Segment {
    int id;
    unsigned long long size;
    time_t made;
    int creator;
    uid_t owner;
};

// Those that are private, attached to by nobody, and whose creator is dead.
std::vector<Segment> unused_segments() {
    std::vector<Segment> segments;
    std::ifstream table("/proc/sysvipc/shm");
    for (std::string line; std::getline(table, line);) {
        long key = 0;
        unsigned long attached = 0;
        long long changed = 0;
        unsigned owner = 0;
        Segment segment{};
        if (sscanf(line.c_str(), "%ld %d %*o %llu %d %*d %lu %u %*u %*u %*u %*u %*u %lld", &key,
                   &segment.id, &segment.size, &segment.creator, &attached, &owner,
                   &changed) != 7 ||
            key != IPC_PRIVATE || attached != 0)
            continue;
        segment.owner = owner;
        segment.made = static_cast<time_t>(changed);
        if (writer_life(segment.creator, segment.made) == Life::kStale)
            segments.push_back(segment);
    }
    return segments;
}

std::string age_of(time_t made) {
    long long seconds = std::max<long long>(time(nullptr) - made, 0);
    char text[48];
    snprintf(text, sizeof text, "%lld d %02lld:%02lld:%02lld", seconds / 86400, seconds / 3600 % 24,
             seconds / 60 % 60, seconds % 60);
    return text;
}

bool is_named(const Choice &choice, const Segment &segment) {
    return std::count(choice.segments.begin(), choice.segments.end(), segment.id) > 0;
}

void show(const Choice &choice, const std::vector<DeadFile> &files,
          const std::vector<Segment> &segments) {
    printf("%-8s  %-8s  %-15s  %s\n", "KIND", "OWNER", "AGE", "WHAT");
    for (const DeadFile &file : files)
        printf("%-8s  %-8s  %-15s  %s\n", file.kind, user_name(file.status.st_uid).c_str(),
               age_of(file.status.st_mtime).c_str(), visible_name(file.path).c_str());
    for (const Segment &segment : segments)
        printf("%-8s  %-8s  %-15s  %d, %llu bytes, creator %d%s\n", "segment",
               user_name(segment.owner).c_str(), age_of(segment.made).c_str(), segment.id,
               segment.size, segment.creator, is_named(choice, segment) ? "" : " (stays)");
    if (fflush(stdout) != 0)
        fail_to_write();
}

// Counts what goes; says why something does not.
class Removal {
  public:
    void note(bool done, const std::string &what) {
        if (done) {
            ++removed_;
            return;
        }
        report(system_failure("cannot remove " + what));
        failed_ = true;
    }
    void end() const {
        printf("removed %d\n", removed_);
        if (failed_)
            throw Failure("something could not be removed");
    }

  private:
    int removed_ = 0;
    bool failed_ = false;
};

void clean(const Choice &choice) {
    std::vector<DeadFile> files = dead_files(choice);
    std::vector<Segment> segments = unused_segments();
    for (int id : choice.segments)
        if (std::none_of(segments.begin(), segments.end(), [&](auto &one) { return one.id == id; }))
            throw Failure("segment " + std::to_string(id) +
                          " is not private, unattached and left by a dead process");
    show(choice, files, segments);
    if (choice.dry_run)
        return;
    Removal removal;
    for (const DeadFile &file : files)
        removal.note(remove_file(file), file.path);
    for (const Segment &segment : segments)
        if (is_named(choice, segment))
            removal.note(shmctl(segment.id, IPC_RMID, nullptr) == 0,
                         "segment " + std::to_string(segment.id));
    removal.end();
}

}  // namespace

void add_clean(CLI::App &app) {
    static Choice choice;
    CLI::App *command =
        add_subcommand(app, "clean", "Show what dead daemons have left behind and remove it");
    add_switch_option(*command, "Only of this logical switch (default: all)");
    command->add_flag("--dry-run", choice.dry_run, "Show it only");
#ifdef QELCTL_STAND_IN
    command->add_flag("--logs", choice.logs,
                      "Event logs of dead processes, too: they are evidence");
#endif
    command
        ->add_option("--segment", choice.segments,
                     "This shared-memory segment, too; may be repeated")
        ->check(CLI::Range(0, INT_MAX))
        ->allow_extra_args(false)
        ->type_name("ID");
    command->footer(
        "Removed are sockets and pid files of daemons of which nothing lives: no socket is bound, "
        "no\n"
        "lock is held, and the process of the pid file is gone or started after the file was "
        "written.\n"
        "What may not be asked stays, and so do lock files. Shared-memory segments say nothing of\n"
        "whose they are: those are listed that are private, attached to by nobody and made by a\n"
        "process that is dead, and only the ones named are removed.");
    command->callback([] { clean(choice); });
}

}  // namespace qelctl
