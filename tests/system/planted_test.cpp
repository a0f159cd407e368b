// SPDX-License-Identifier: Apache-2.0
// Somebody has put something else in the place of each file whose name can be foretold: nothing is
// written through it, nobody waits at it, and the result says whether there is a file in the end.
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "support/support.h"
#include "testd.h"
#include "utils/platform/posix/trace_files.h"
#include "utils/platform/rasevt.h"
#include "utils/ppname.h"
#include "utils/service_stat.h"

namespace {

using support::socket_of_testd, support::testd;

enum Kind { kLink, kPipe, kDirectory, kHardLink, kKinds };

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
        default:
            return std::filesystem::create_hard_link(victim, path);
    }
}

std::string section_path() {
    char name[200];
    snprintf(name, sizeof name, TRACE_DIRECTORY "/" TRACE_FILE_FORMAT, getpid(), 1, "planted_test",
             "n");
    return name;
}

const struct Place {
    std::string (*path)();
    int (*use)();
    int results[kKinds];  // by kind
} kPlaces[] = {
    {[] { return std::string("/var/run/planted.0.pid"); },
     [] { return -stor_pid("planted", 0); },
     {1, 1, 1, 1}},
    {[] { return std::string("/var/log/serviceStat.sw3"); },
     [] {
         serviceStat_init(1);
         std::string said = support::captured(1, [] { serviceStat_stop("NS", nullptr, 3); });
         return said.empty() ? 0 : 1;
     },
     {1, 1, 1, 1}},
    {[] { return std::string("/var/log/rasevt"); },
     [] { return rasevt_log("file", "function", 1, 0, 0, RASEVT_VERIFY); },
     {0, 0, 0, 0}},
    {section_path,
     [] {
         int handle;
         void *address;
         int result = trace_data_init(&handle, TRACE_KIND_EVENT_LOG, 100, "n", 1, &address, 0);
         return result == 0 ? (memset(address, 'x', 100), trace_module_cleanup(handle)) : 1;
     },
     {0, 0, 0, 0}},
    {[] { return socket_of_testd(); },
     [] {
         ipc_address own = testd();
         return ipc_open(&own);
     },
     {0, 0, -EADDRINUSE, 0}},
    {[] { return socket_of_testd() + ".lock"; },
     [] {
         ipc_address own = testd();
         return ipc_open(&own);
     },
     {0, 0, -EISDIR, 0}},
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
                return printf("%d %s", result, support::read_file(victim).c_str()) < 0;
            });
            EXPECT_EQ(ending.out, std::to_string(place.results[kind]) + " precious")
                << place.path() << " " << kind << ", ended with " << ending.status;
        }
    }
    printf("%d names and kinds\n", points);
}

}  // namespace
