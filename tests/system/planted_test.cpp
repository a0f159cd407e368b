// SPDX-License-Identifier: Apache-2.0
// Files, sockets and descriptors in bad company. Somebody has put something else in the place of each file whose
// name can be foretold: nothing is written through it, nobody waits at it, and the result says whether there is a
// file in the end. Each is also made with descriptors above 1023 and with few of them, leaves no descriptor to
// programs that are started, and no file that another user can write.
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>

#include "testd.h"
#include "utils/daemon.h"
#include "utils/log_cache.h"
#include "utils/platform/posix/trace_files.h"
#include "utils/platform/rasevt.h"
#include "utils/ppname.h"
#include "utils/service_stat.h"

namespace {

using support::socket_of_testd, support::testd;

enum Kind { kLink, kPipe, kDirectory, kHardLink, kOthers, kForeign };
#ifdef __SANITIZE_THREAD__  // keeps fstat() for itself
constexpr int kKinds = kForeign;
#else
constexpr int kKinds = kForeign + 1;
#endif

const std::string kNumber =
    "1\n";  // of a process that lives, as when a dead one's was given out again

// From here on, such a file is another user's, of whom the image has none.
void see_as_foreign() {
    support::replace_call("fstat", [](int file, struct stat *status) {
        int result = fstat(file, status);
        if (status->st_size == static_cast<off_t>(kNumber.size()))
            status->st_uid = 4711;
        return result;
    });
    support::replace_call("lstat", [](const char *path, struct stat *status) {
        int result = lstat(path, status);
        if (status->st_size == static_cast<off_t>(kNumber.size()))
            status->st_uid = 4711;
        return result;
    });
}

void plant(Kind kind, const std::string &path, const std::string &victim) {
    std::filesystem::remove_all(path);
    switch (kind) {
        case kLink:
            return std::filesystem::create_symlink(victim, path);
        case kPipe:
            ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
            return;
        case kDirectory:
            std::filesystem::create_directory(path);
            return;
        case kHardLink:
            return std::filesystem::create_hard_link(victim, path);
        case kForeign:
            see_as_foreign();
            [[fallthrough]];
        default:
            support::write_file(path, kNumber);
    }
}

std::string section_path() {
    char name[200];
    snprintf(name, sizeof name, TRACE_DIRECTORY "/" TRACE_FILE_FORMAT, getpid(), 1, "planted_test",
             "n");
    return name;
}

int open_ipc() {
    ipc_address own = testd();
    return ipc_open(&own);
}

int open_companion() {
    static daemon_table table{};
    char program[] = "test", *argv[] = {program, nullptr};
    int argc = 1;
    table.name = "planted";
    int status = daemon_open(&table, &argc, argv);
    return status != 0 ? status : daemon_ready();
}

const struct Place {
    std::string (*path)();
    int (*use)();               // 0 when nothing is in the way
    int results[kForeign + 1];  // by kind
} kPlaces[] = {
    {[] { return std::string("/var/run/planted.0.pid"); },
     [] { return -stor_pid("planted", 0); },
     {1, 1, 1, 1, 0, 0}},
    {[] { return std::string("/var/log/serviceStat.sw3"); },
     [] {
         serviceStat_init(1);
         std::string said = support::captured(1, [] { serviceStat_stop("NS", nullptr, 3); });
         return said.empty() ? 0 : 1;
     },
     {1, 1, 1, 1, 0, 0}},
    {[] { return std::string("/var/log/rasevt"); },
     [] { return rasevt_log("file", "function", 1, 0, 0, RASEVT_VERIFY); },
     {0, 0, 0, 0, 0, 0}},
    {[] { return std::string("/tmp/planted"); },
     [] {
         log_cache_init("planted");
         log_cache_write("a line");
         return log_cache_dump();
     },
     {LOG_CACHE_NO_FILE, LOG_CACHE_NO_FILE, LOG_CACHE_NO_FILE, LOG_CACHE_NO_FILE, 0,
      LOG_CACHE_NO_FILE}},
    {section_path,
     [] {
         int handle;
         void *address;
         int result = trace_data_init(&handle, TRACE_KIND_EVENT_LOG, 100, "n", 1, &address, 0);
         return result == 0 ? (memset(address, 'x', 100), 0) : 1;
     },
     {0, 0, 0, 0, 0, 0}},
    {socket_of_testd, open_ipc, {0, 0, -EADDRINUSE, 0, 0, 0}},
    {[] { return socket_of_testd() + ".lock"; }, open_ipc, {0, 0, -EISDIR, 0, 0, 0}},
    {[] { return std::string("/run/korin/planted.0.lock"); }, open_companion, {1, 1, 1, 1, 0, 1}},
    {[] { return std::string("/run/korin/planted.0.cmd"); }, open_companion, {0, 0, 1, 0, 0, 0}},
};

TEST(Planted, ThingsInThePlaceOfFilesDoNoHarm) {
    int points = 0;
    for (const Place &place : kPlaces) {
        for (int kind = 0; kind < kKinds; ++kind, ++points) {
            auto ending = support::in_child([&] {
                mkdir(TRACE_DIRECTORY, 01777);
                std::string path = place.path(), victim = path + ".victim";
                support::write_file(victim, "precious");
                plant(static_cast<Kind>(kind), path, victim);
                alarm(20);  // who waits is ended
                int result = place.use();
                std::filesystem::remove_all(path);
                return printf("\n%d %s", result, support::read_file(victim).c_str()) < 0;
            });
            std::string result = "\n" + std::to_string(place.results[kind]) + " precious";
            EXPECT_THAT(ending.out, testing::EndsWith(result))
                << place.path() << " " << kind << ", ended with " << ending.status;
        }
    }
    printf("%d names and kinds\n", points);
}

// How many descriptors a program that is started here has.
int inherited() {
    int count = -1;
    FILE *list = popen("ls /proc/self/fd | wc -l", "r");
    EXPECT_EQ(fscanf(list, "%d", &count), 1);
    pclose(list);
    return count;
}

// Whether there is a file that another user may write to.
bool is_open_to_others(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

TEST(Planted, DescriptorsMayBeManyOrFewAndAreNobodyElses) {
    for (const Place &place : kPlaces) {
        for (rlim_t limit : {24u, 4096u})
            EXPECT_TRUE(support::passes_in_child([&] {
                rlimit descriptors{limit, limit};
                ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &descriptors), 0);
                while (limit > 1024 && dup(0) < 1024) {
                }
                int before = inherited();
                EXPECT_EQ(place.use(), 0);
                EXPECT_EQ(inherited(), before);
                EXPECT_FALSE(is_open_to_others(place.path()));
            })) << place.path()
                << " with " << limit;
    }
}

}  // namespace
