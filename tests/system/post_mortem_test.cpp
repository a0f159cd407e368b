// SPDX-License-Identifier: Apache-2.0
// What a failed assertion and an exception leave behind: a core file, and the end in any case.
#include <arpa/inet.h>
#include <elf.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

#include "support/crash.h"
#include "support/support.h"
#include "utils/utils.h"

namespace {

// The signal in the process status note of the one core file in a program's directory, or -1.
int signal_of_core(const char *program) {
    std::string core;
    int found = 0;
    for (auto &entry :
         std::filesystem::directory_iterator(std::string(QEL_CORE_DIRECTORY "/") + program)) {
        // The emulator may leave a core file of its own beside that of the program.
        if (!support::emulated() ||
            entry.path().filename().string().rfind(support::emulator() + "_", 0) == 0)
            core = support::read_file(entry.path()), ++found;
    }
    EXPECT_EQ(found, 1);
    const std::string name("CORE", 5);  // what stands in its padding is open
    EXPECT_EQ(core.compare(0, SELFMAG, ELFMAG), 0);
    for (size_t at = 0; (at = core.find(name, at + 1)) != std::string::npos;) {
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
        EXPECT_FALSE(ending.exited) << ending.err;
        EXPECT_EQ(ending.status, number);
        EXPECT_EQ(signal_of_core(strsignal(number)), number);
    }
}

void fill(int fd) {
    char block[4096] = {};
    fcntl(fd, F_SETFL, O_NONBLOCK);
    while (write(fd, block, sizeof block) > 0) {
    }
    fcntl(fd, F_SETFL, 0);
}

enum Output { kBroken, kFull, kLocked };  // locked: full, and a thread that waits holds its streams

void lose_output(Output kind) {
    int ends[2];
    // The emulator has something to say on standard error itself.
    if (pipe(ends) != 0 || dup2(ends[1], 1) < 0 || (!support::emulated() && dup2(ends[1], 2) < 0))
        abort();
    close(ends[1]);
    kind == kBroken ? static_cast<void>(close(ends[0])) : fill(1);
    if (kind == kLocked)
        std::thread([] { flockfile(stdout), flockfile(stderr), pause(); }).detach();
    while (kind == kLocked && ftrylockfile(stderr) == 0)
        funlockfile(stderr);
}

const struct {
    const char *name;
    int status;  // as wait() has it, less the core file
    void (*end)();
} kEnds[] = {
    {"interrupt", SIGINT << 8, [] { raise(SIGINT); }},
    {"exception", SIGABRT, [] { raise(QEL_SIGNAL_DUMP_PROF); }},
    {"assert", SIGSEGV, [] { QEL_ASSERT(false); }},
    {"verify", 0, [] { _exit(QEL_VERIFY(false)); }},
    {"timer service", SIGABRT, [] { timer_ioss_free(nullptr); }},
    {"lost expiry", SIGABRT,
     [] {
         timer_set_r(timer_create_r(msgQCreate(0, TIMER_MESSAGE_LENGTH, 0, ""), nullptr, 0, 0), 1);
         pause();
     }},
    {"process lock", SIGABRT,
     [] {
         static procrwlock_t lock = {};
         lock.l_readers = lock.l_state = PROCRWLOCK_WRITE;
         procrwlock_rdlock(&lock);
     }},
    {"exit request", 0,
     [] {
         uint32_t message[512] = {0, htonl(1), 0, 0, htonl(20), htonl(4), htonl(QELD_EXIT_NORMAL)};
         ipcCbQelDExitHandler(nullptr, 0, message);
     }},
};

TEST(PostMortem, TheEndComesInTimeWhateverTheOutputWaitsFor) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer waits for the streams itself";
#endif
    // Nobody reads the console and the system's log either.
    support::leaves({.descriptors = 3});
    unlink("/dev/console");
    EXPECT_EQ(mkfifo("/dev/console", 0600), 0);
    fill(open("/dev/console", O_RDWR));
    sockaddr_un address{AF_UNIX, "/dev/log"};
    int log = socket(AF_UNIX, SOCK_DGRAM, 0), sender = socket(AF_UNIX, SOCK_DGRAM, 0);
    EXPECT_EQ(bind(log, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(connect(sender, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    fill(sender);
    std::map<pid_t, std::pair<decltype(&*kEnds), Output>> running;
    for (auto &end : kEnds) {
        for (Output output : {kBroken, kFull, kLocked}) {
            fflush(nullptr);
            pid_t child = fork();
            if (child == 0) {
                rlimit none{0, 0};
                qel_sigdefaults("portd");
                setrlimit(RLIMIT_CORE, &none);
                alarm(5);
                if (output != kLocked)
                    printf("text that waits");
                lose_output(output);
                end.end();
                _exit(99);
            }
            running[child] = {&end, output};
        }
    }
    for (int status; !running.empty();) {
        auto [end, output] = running.extract(wait(&status)).mapped();
        EXPECT_EQ(status & ~0x80, end->status) << end->name << output;
    }
}

}  // namespace
