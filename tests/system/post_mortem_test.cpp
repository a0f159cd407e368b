// What a failed assertion and an exception leave behind: a core file.
#include <elf.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "support/crash.h"
#include "support/support.h"
#include "utils/assert.h"
#include "utils/signals.h"

namespace {

// The signal in the process status note of the one core file in a program's directory, or -1.
int signal_of_core(const char *program) {
    std::string core;
    int found = 0;
    for (auto &entry :
         std::filesystem::directory_iterator(std::string(QEL_CORE_DIRECTORY "/") + program)) {
        // The emulator may leave a core file of its own beside that of the program.
        if (!support::emulated() || entry.path().filename().string().rfind("qemu_", 0) == 0)
            core = support::read_file(entry.path()), ++found;
    }
    EXPECT_EQ(found, 1);
    const std::string name("CORE", 5);  // what stands in its padding is open
    if (core.compare(0, SELFMAG, ELFMAG) != 0)
        return -1;
    for (size_t at = core.find(name); at != std::string::npos; at = core.find(name, at + 1)) {
        int32_t words[4];  // the note's type, its name, the status's first word
        memcpy(words, core.data() + at - 4, sizeof words);
        if (words[0] == NT_PRSTATUS)
            return words[3];
    }
    return -1;
}

TEST(PostMortem, CoreFileAppearsInTheProgramsDirectoryWithItsSignal) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer's own memory would fill the disk";
#endif
    std::string pattern = support::read_file("/proc/sys/kernel/core_pattern");
    rlimit limit{};
    getrlimit(RLIMIT_CORE, &limit);
    if (limit.rlim_max < QEL_CORE_LIMIT || (!support::emulated() && strchr("|/", pattern[0])))
        GTEST_SKIP() << "hard limit " << limit.rlim_max << ", core files go to " << pattern;
    for (int number : {SIGABRT, SIGSEGV}) {
        auto body = [number] {
            signal(SIGABRT, SIG_IGN);
            qel_sigdefaults(strsignal(number));
            if (number == SIGABRT)
                raise(QEL_SIGNAL_DUMP_PROF);
            QEL_ASSERT(number == 0);
            return 0;
        };
        support::Ending ending = support::in_child(body, true);
        EXPECT_TRUE(!ending.exited && ending.status == number) << ending.status << ending.err;
        EXPECT_EQ(signal_of_core(strsignal(number)), number);
    }
}

// The store that ends the process is undefined behaviour, so what each optimiser makes of it is
// looked at.
TEST(PostMortem, FailedAssertIsASegmentationFaultAtEveryOptimisationLevel) {
    // The sources stand above the build directory.
    std::filesystem::path top = std::filesystem::read_symlink("/proc/self/exe");
    while (top.has_relative_path() && !exists(top / "lib/utils/assert.cpp"))
        top = top.parent_path();
    support::write_file(
        "/tmp/crash.cpp",
        "#include \"utils/assert.cpp\"\n"
        "int rasevt_log(const char *, const char *, int, int, int, unsigned, ...) { return 0; }\n"
        "int main() { return do_assert(\"e\", \"f\", QEL_CHECK_ASSERT); }\n");
    bool used = false;
    std::vector<std::string> compilers = {"g++", "clang++"};
    if (support::emulated())
        compilers = {std::filesystem::path(getenv("QEMU_LD_PREFIX")).filename().string() + "-g++"};
    for (const std::string &compiler : compilers) {
        if (system((compiler + " --version >/dev/null 2>&1").c_str()) != 0)
            continue;
        used = true;
        for (const char *level : {"-O0", "-O1", "-O2", "-O3", "-Os", "-Ofast"}) {
            std::string command = "cd " + top.string() + " && " + compiler + " " + level +
                                  " -std=gnu++20 -Iinclude -Iplatform/include -Ilib -Ilib/utils -o "
                                  "/tmp/crash /tmp/crash.cpp && exec " +
                                  support::runnable("/tmp/crash");
            support::Ending ending = support::in_child(
                [&] { return execl("/bin/sh", "sh", "-c", command.c_str(), nullptr); });
            EXPECT_TRUE(!ending.exited && ending.status == SIGSEGV) << command << ending.err;
            EXPECT_EQ(ending.out, "do_assert: forcing segv to get core file\n\n") << command;
        }
    }
    EXPECT_TRUE(used) << "no compiler";
}

}  // namespace
