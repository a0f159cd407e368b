// Trace sections: one shared mapping of one file each, so that the memory outlives its process. The
// list of this process's sections is guarded by one mutex; a section belongs to the process that
// made it, and a forked child that releases its copy leaves the parent's file alone.
#include "utils/platform/posix/trace_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"
#include "base/heap.h"
#include "base/text.h"
#include "base/thread.h"

namespace {

using utils::copy_text;
using utils::Descriptor;
using utils::MutexLock;

constexpr size_t kFileNameSize = TRACE_PROGRAM_SIZE + TRACE_NAME_SIZE + 40;
constexpr int kMostSameNames = 1000;
constexpr int kMostRemovals = 1000;

struct Section {
    Section *next;
    int handle;
    void *address;
    size_t size;
    pid_t owner;
    char file[kFileNameSize];
};

utils::Mutex lock;
Section *sections UTILS_GUARDED_BY(lock);
int next_handle UTILS_GUARDED_BY(lock);

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

// The directory itself may be planted by others, so a link in its place is not followed.
int open_directory() {
    if (mkdir(TRACE_DIRECTORY, 0777) == 0)
        chmod(TRACE_DIRECTORY, 01777);
    return open(TRACE_DIRECTORY, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool is_own(const char *file) UTILS_REQUIRES(lock) {
    pid_t self = getpid();
    for (const Section *s = sections; s != nullptr; s = s->next) {
        if (s->owner == self && strcmp(s->file, file) == 0)
            return true;
    }
    return false;
}

// A file name that no living section of this process has.
void choose_file_name(char (&file)[kFileNameSize], const char *name, int section)
    UTILS_REQUIRES(lock) {
    char program[TRACE_PROGRAM_SIZE];
    program_name(program);
    char clean[TRACE_NAME_SIZE - 5];  // leaves room for the suffix
    copy_text(clean, name);
    replace_all(clean, "/\n");
    int length = snprintf(file, sizeof file, TRACE_FILE_FORMAT, static_cast<int>(getpid()), section,
                          program, clean);
    for (int copy = 1; is_own(file) && copy < kMostSameNames; ++copy)
        snprintf(file + length, sizeof file - static_cast<size_t>(length), "+%d", copy);
}

bool older(const struct stat &a, int section_a, const struct stat &b, int section_b) {
    if (a.st_mtim.tv_sec != b.st_mtim.tv_sec)
        return a.st_mtim.tv_sec < b.st_mtim.tv_sec;
    if (a.st_mtim.tv_nsec != b.st_mtim.tv_nsec)
        return a.st_mtim.tv_nsec < b.st_mtim.tv_nsec;
    return section_a < section_b;
}

// Counts this user's section files of `program` and finds the oldest, `newest` left out of the
// search.
int count_files(int directory, const char *program, const char *newest,
                char (&oldest)[kFileNameSize]) {
    int count = 0;
    int oldest_section = 0;
    struct stat oldest_status {};
    oldest[0] = '\0';
    Descriptor copy(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    DIR *stream = copy ? fdopendir(copy.get()) : nullptr;
    if (stream == nullptr)
        return 0;
    copy.release();
    while (const dirent *entry = readdir(stream)) {
        int pid = 0;
        int section = 0;
        char from[TRACE_PROGRAM_SIZE];
        char name[TRACE_NAME_SIZE];
        struct stat status {};
        if (sscanf(entry->d_name, TRACE_FILE_SCAN, &pid, &section, from, name) != 4 ||
            strcmp(from, program) != 0 || strlen(entry->d_name) >= kFileNameSize ||
            fstatat(directory, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(status.st_mode) || status.st_uid != geteuid())
            continue;
        ++count;
        if (strcmp(entry->d_name, newest) == 0)
            continue;
        if (oldest[0] == '\0' || older(status, section, oldest_status, oldest_section)) {
            copy_text(oldest, entry->d_name);
            oldest_status = status;
            oldest_section = section;
        }
    }
    closedir(stream);
    return count;
}

void remove_old_files(int directory, const char *newest) {
    char program[TRACE_PROGRAM_SIZE];
    program_name(program);
    char oldest[kFileNameSize];
    for (int i = 0; i < kMostRemovals; ++i) {
        if (count_files(directory, program, newest, oldest) <= TRACE_FILES_KEPT ||
            oldest[0] == '\0' || unlinkat(directory, oldest, 0) != 0)
            return;
    }
}

// Maps a new file of `size` bytes. Its memory is set aside and its pages are mapped at once: a full
// file system is noticed here and not by a fault later, and the file's time stays its time of
// birth.
void *map_file(int directory, const char *name, size_t size) {
    unlinkat(directory, name, 0);  // left behind by a process that had our pid
    Descriptor file(
        openat(directory, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640));
    if (!file)
        return nullptr;
    if (posix_fallocate(file.get(), 0, static_cast<off_t>(size)) == 0) {
        void *address =
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file.get(), 0);
        if (address != MAP_FAILED)
            return address;
    }
    unlinkat(directory, name, 0);
    return nullptr;
}

}  // namespace

int trace_data_init(int *handle, int, unsigned size, const char *name, int section, void **address,
                    int) {
    if (handle == nullptr || address == nullptr || size == 0)
        return -1;
    Descriptor directory(open_directory());
    utils::HeapBlock<Section> made(utils::allocate_zeroed<Section>());
    if (!directory || !made)
        return -1;
    MutexLock guard(lock);
    choose_file_name(made->file, name, section);
    made->size = size;
    made->owner = getpid();
    made->address = map_file(directory.get(), made->file, size);
    if (made->address == nullptr)
        return -1;
    remove_old_files(directory.get(), made->file);
    made->handle = next_handle++;
    made->next = sections;
    *handle = made->handle;
    *address = made->address;
    sections = made.release();
    return 0;
}

int trace_module_cleanup(int handle) {
    MutexLock guard(lock);
    Section **link = &sections;
    while (*link != nullptr && (*link)->handle != handle)
        link = &(*link)->next;
    if (*link == nullptr)
        return -1;
    utils::HeapBlock<Section> section(*link);
    *link = section->next;
    munmap(section->address, section->size);
    Descriptor directory(section->owner == getpid() ? open_directory() : -1);
    if (directory)
        unlinkat(directory.get(), section->file, 0);
    return 0;
}
