// SPDX-License-Identifier: Apache-2.0
// Trace sections: one shared mapping of one file each, so that the memory outlives its process. The
// list of this process's sections is guarded by one mutex; a section belongs to the process that
// made it, and a forked child that releases its copy leaves the parent's file alone.
#include "utils/platform/posix/trace_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"
#include "base/heap.h"
#include "base/held_signal.h"
#include "base/process.h"
#include "base/retry.h"
#include "base/text.h"
#include "base/thread.h"
#include "base/trusted.h"
#include "base/write_all.h"

namespace utils {
namespace {

constexpr size_t kFileNameSize = TRACE_PROGRAM_SIZE + TRACE_NAME_SIZE + 40;
constexpr unsigned kCountedNames = 50;  // of one section, that end in "+1", "+2" and so on
constexpr size_t kSuffixSize = 11;
constexpr off_t kPiece = 64 * 1024;
constexpr int kSwitchMax = 240;
constexpr int kNoSwitch = -1;
constexpr int kMostRemovals = 1000;

struct Section {
    Section *next;
    int handle;
    void *address;
    size_t size;
    trace_owner owner;
    char file[kFileNameSize];
};

Mutex section_mutex;
Section *sections UTILS_GUARDED_BY(section_mutex);
int next_handle UTILS_GUARDED_BY(section_mutex);

void replace_all(char *text, const char *unwanted) {
    for (char *at = strpbrk(text, unwanted); at != nullptr; at = strpbrk(at, unwanted))
        *at = '_';
}

void program_name(char (&program)[TRACE_PROGRAM_SIZE]) {
    copy_text(program, program_invocation_short_name);
    if (program[0] == '\0')
        copy_text(program, "_");
    replace_all(program, "./ \t\n");
}

// The directory itself may be planted by others.
int open_directory() {
    bool made = mkdir(TRACE_DIRECTORY, 01777) == 0;
    Descriptor directory(open_trusted_directory(AT_FDCWD, TRACE_DIRECTORY, O_NOFOLLOW));
    // Whatever the mask of this process is.
    if (made && directory && fchmodat(directory.get(), ".", 01777, 0) != 0)
        return -1;
    return directory.release();
}

// This process's switch, from 0 to 240.
int switch_number() {
    const char *text = getenv("KORIN_SWITCHNO");
    if (text == nullptr || *text < '0' || *text > '9')
        return 0;
    char *end = nullptr;
    long number = strtol(text, &end, 0);
    return *end == '\0' && number >= 0 && number <= kSwitchMax ? static_cast<int>(number) : 0;
}

trace_owner make_owner() {
    pid_t self = getpid();
    return {TRACE_OWNER_MAGIC, self, switch_number(), 0, process_start(self)};
}

// ---- The files of dead processes

struct SectionFile {
    char name[kFileNameSize];
    int section;
    trace_owner owner;  // without a switch and a start when the file does not say
    timespec born;
};

void read_owner(int directory, off_t size, SectionFile &file) {
    Descriptor fd(openat(directory, file.name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    trace_owner owner{};
    auto length = static_cast<ssize_t>(sizeof owner);
    if (fd && pread(fd.get(), &owner, sizeof owner, size - length) == length &&
        owner.magic == TRACE_OWNER_MAGIC && owner.pid == file.owner.pid)
        file.owner = owner;
}

// Whether `name` is a section file of this user and of `program`; fills in `file`.
bool is_section(int directory, const char *name, const char *program, SectionFile &file) {
    char from[TRACE_PROGRAM_SIZE];
    char rest[TRACE_NAME_SIZE];
    struct stat status {};
    file.owner = {0, 0, kNoSwitch, 0, 0};
    if (sscanf(name, TRACE_FILE_SCAN, &file.owner.pid, &file.section, from, rest) != 4 ||
        strcmp(from, program) != 0 || strlen(name) >= kFileNameSize ||
        fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode) ||
        status.st_uid != geteuid())
        return false;
    copy_text(file.name, name);
    file.born = status.st_mtim;
    read_owner(directory, status.st_size, file);
    return true;
}

bool same_process(const trace_owner &a, const trace_owner &b) {
    return a.pid == b.pid && a.start == b.start;
}

// Sections of one process are as old as their process, then by birth, then by number.
bool older(const SectionFile &a, const SectionFile &b) {
    if (a.owner.start != b.owner.start)
        return a.owner.start < b.owner.start;
    if (a.born.tv_sec != b.born.tv_sec)
        return a.born.tv_sec < b.born.tv_sec;
    if (a.born.tv_nsec != b.born.tv_nsec)
        return a.born.tv_nsec < b.born.tv_nsec;
    return a.section < b.section;
}

struct DeadFiles {
    int count;
    SectionFile newest;
    SectionFile oldest;  // without a name when there is none
};

// The section files that dead processes of `program` have left on this process's switch; a file
// that does not name its switch counts on each. The oldest is none of the process `spared`.
void find_dead(int directory, const char *program, int switch_no, const trace_owner &spared,
               DeadFiles &dead) {
    dead = {};
    Descriptor copy(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    DIR *stream = copy ? fdopendir(copy.get()) : nullptr;
    if (stream == nullptr)
        return;
    copy.release();
    SectionFile file;
    while (const dirent *entry = readdir(stream)) {
        if (!is_section(directory, entry->d_name, program, file) ||
            (file.owner.switch_no != switch_no && file.owner.switch_no != kNoSwitch) ||
            process_lives(file.owner.pid, file.owner.start))
            continue;
        if (dead.count++ == 0 || older(dead.newest, file))
            dead.newest = file;
        if (!same_process(file.owner, spared) &&
            (dead.oldest.name[0] == '\0' || older(file, dead.oldest)))
            dead.oldest = file;
    }
    closedir(stream);
}

// Keeps the newest files, and all of the process that started last, however many it had.
void remove_old_files(int directory, int switch_no) {
    char program[TRACE_PROGRAM_SIZE];
    program_name(program);
    trace_owner spared{};
    DeadFiles dead;
    for (int i = 0; i < kMostRemovals; ++i) {
        find_dead(directory, program, switch_no, spared, dead);
        if (dead.count <= TRACE_FILES_KEPT)
            return;
        if (!same_process(spared, dead.newest.owner))
            spared = dead.newest.owner;
        else if (dead.oldest.name[0] == '\0' || unlinkat(directory, dead.oldest.name, 0) != 0)
            return;
    }
}

// ---- New files

bool is_in_use(const char *file, const trace_owner &self) UTILS_REQUIRES(section_mutex) {
    for (const Section *s = sections; s != nullptr; s = s->next) {
        if (same_process(s->owner, self) && strcmp(s->file, file) == 0)
            return true;
    }
    return false;
}

// Whether a program that this process ran before has left the file.
bool is_forgotten(int directory, const char *file, const char *program, const trace_owner &self)
    UTILS_REQUIRES(section_mutex) {
    SectionFile found;
    return !is_in_use(file, self) && is_section(directory, file, program, found) &&
           same_process(found.owner, self);
}

// Creates a file with a name that nobody has. Taken names are left alone, be they those of other
// sections or planted: behind the counted names come such that nobody can foretell. -1 on failure.
int create_file(int directory, const char *name, int section, const trace_owner &self,
                char (&file)[kFileNameSize]) UTILS_REQUIRES(section_mutex) {
    char program[TRACE_PROGRAM_SIZE];
    program_name(program);
    char clean[TRACE_NAME_SIZE - kSuffixSize];
    copy_text(clean, name);
    replace_all(clean, "/\n");
    int length = snprintf(file, sizeof file, TRACE_FILE_FORMAT, static_cast<int>(self.pid), section,
                          program, clean);
    for (unsigned copy = 1; copy <= 2 * kCountedNames; ++copy) {
        if (is_forgotten(directory, file, program, self))
            unlinkat(directory, file, 0);
        int fd = openat(directory, file, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
        if (fd >= 0 || (errno != EEXIST && errno != EINTR))
            return fd;
        snprintf(file + length, sizeof file - static_cast<size_t>(length), "+%u",
                 copy <= kCountedNames ? copy : unforeseen_number());
    }
    return -1;
}

// Sets the file's memory aside; errno says why not. An interrupted call starts again, so that it gets
// small pieces.
bool allocate(int fd, off_t size) {
    for (off_t at = 0; at < size; at += kPiece) {
        off_t piece = std::min(kPiece, size - at);
        if (int error = retry_error([&] { return posix_fallocate(fd, at, piece); }); error != 0) {
            errno = error;
            return false;
        }
    }
    return true;
}

// Maps a new file of `size` bytes and what says whose it is. Its memory is set aside and its pages
// are mapped at once: a full file system is noticed here and not by a fault later, and the file's
// time stays its time of birth.
void *map_file(int directory, int fd, const char *name, size_t size, const trace_owner &owner) {
    auto end = static_cast<off_t>(size);
    auto length = static_cast<off_t>(sizeof owner);
    HeldSignal size_limit(SIGXFSZ);
    if (allocate(fd, end + length) && lseek(fd, end, SEEK_SET) == end &&
        write_all(fd, &owner, sizeof owner)) {
        void *address =
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
        if (address != MAP_FAILED)
            return address;
    }
    size_limit.raised();
    unlinkat(directory, name, 0);
    return nullptr;
}

}  // namespace
}  // namespace utils

using namespace utils;

int trace_data_init(int *handle, int, unsigned size, const char *name, int section, void **address,
                    int) {
    if (handle == nullptr || address == nullptr || size == 0)
        return -1;
    Descriptor directory(open_directory());
    HeapBlock<Section> made(allocate_zeroed<Section>());
    if (!directory || !made)
        return -1;
    MutexLock lock(section_mutex);
    made->owner = make_owner();
    Descriptor fd(create_file(directory.get(), name, section, made->owner, made->file));
    if (!fd)
        return -1;
    made->size = size;
    made->address = map_file(directory.get(), fd.get(), made->file, size, made->owner);
    if (made->address == nullptr)
        return -1;
    remove_old_files(directory.get(), made->owner.switch_no);
    made->handle = next_handle++;
    made->next = sections;
    *handle = made->handle;
    *address = made->address;
    sections = made.release();
    return 0;
}

int trace_module_cleanup(int handle) {
    MutexLock lock(section_mutex);
    Section **link = &sections;
    while (*link != nullptr && (*link)->handle != handle)
        link = &(*link)->next;
    if (*link == nullptr)
        return -1;
    HeapBlock<Section> section(*link);
    *link = section->next;
    munmap(section->address, section->size);
    bool own =
        section->owner.pid == getpid() && process_lives(section->owner.pid, section->owner.start);
    Descriptor directory(own ? open_directory() : -1);
    if (directory)
        unlinkat(directory.get(), section->file, 0);
    return 0;
}
