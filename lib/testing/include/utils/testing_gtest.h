/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * What tests of daemons and tools need beside libutils-testing, for GoogleTest programs in C++17 or
 * later: child processes and how they end, captured output, waits with an end, and a check that no
 * test leaves a descriptor, a thread, a shared segment or a block of memory.
 *
 * A header alone; it adds nothing to the library. What makes a test stop when it has no file or
 * process to work with calls abort(). Threads: a program that captures output or forks must not do
 * so from two threads at once.
 */
#ifndef UTILS_TESTING_GTEST_H
#define UTILS_TESTING_GTEST_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utils/testing.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/** Of the tests of programs that use libutils. */
namespace utils_testing {

/** Milliseconds on the monotonic clock. */
inline int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/** True as soon as @p condition holds, false when it does not within @p limit_ms; asks each millisecond. */
inline bool eventually(const std::function<bool()> &condition, int limit_ms = 10000) {
    for (int64_t end = monotonic_ms() + limit_ms; !condition();) {
        if (monotonic_ms() > end)
            return false;
        timespec pause{0, 1000000};
        nanosleep(&pause, nullptr);
    }
    return true;
}

/** Writes a whole file; a failure ends the program. */
inline void write_file(const std::string &path, std::string_view content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!file.flush()) {
        perror(path.c_str());
        abort();
    }
}

/** What a file holds; nothing when it cannot be read. */
inline std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/** The threads of this process. */
inline int threads() {
    std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<int>(std::distance(tasks, {}));
}

/** The segments of System V shared memory in this process's namespace. */
inline int segments() {
    std::string table = read_file("/proc/sysvipc/shm");
    return static_cast<int>(std::count(table.begin(), table.end(), '\n')) - 1;
}

/** What a process holds. */
struct Holdings {
    int descriptors = 0; /**< that are open */
    int threads = 0;     /**< that run */
    int segments = 0;    /**< of System V shared memory, in the namespace */
    int blocks = 0;      /**< of memory */
};

/** What this process holds. */
inline Holdings held() {
    return {utils_testing_open_descriptors(), threads(), segments(), utils_testing_live_blocks()};
}

/**
 * Around each test: what it has opened, started and allocated is gone when it has ended, or the test
 * has failed. Said in one source file of the program: #UTILS_TESTING_AUDIT.
 */
class Audit : public testing::EmptyTestEventListener {
  public:
    /** Blocks that first uses of the C library, of threads and of GoogleTest keep. */
    static constexpr int kFirstUses = 12;

    /** What the running test may leave. */
    static Holdings &allowed() {
        static Holdings holdings;
        return holdings;
    }

    /** Counts what the process holds. */
    void OnTestStart(const testing::TestInfo & /*test*/) override {
        allowed() = {0, 0, 0, kFirstUses};
        before_ = held();
    }

    /** Waits for what is about to go, and compares. */
    void OnTestEnd(const testing::TestInfo &test) override {
        if (test.result()->Failed() || test.result()->Skipped())
            return;
        Holdings after;
        auto more = [&](int Holdings::*of) { return after.*of - before_.*of - allowed().*of; };
        // Threads and their peers' ends of sockets go a moment after the calls that end them.
        eventually([&] {
            after = held();
            return more(&Holdings::descriptors) <= 0 && more(&Holdings::threads) <= 0;
        });
        EXPECT_LE(more(&Holdings::descriptors), 0) << "descriptors are left open";
        EXPECT_LE(more(&Holdings::threads), 0) << "threads are left running";
        EXPECT_LE(more(&Holdings::segments), 0) << "shared segments are left";
        EXPECT_LE(more(&Holdings::blocks), 0) << "blocks of memory are left";
    }

    /** Has all tests of the program looked at. */
    static bool begin() {
#ifdef __SANITIZE_THREAD__
        // The sanitizer's own thread comes with the first one, and stays.
        std::thread([] {}).join();
#endif
        testing::UnitTest::GetInstance()->listeners().Append(new Audit);
        return true;
    }

  private:
    Holdings before_;
};

/** Has what every test of the program leaves counted: see utils_testing::Audit. */
#define UTILS_TESTING_AUDIT \
    [[maybe_unused]] static const bool utils_testing_audited = utils_testing::Audit::begin();

/** Says in a test what it leaves, for a reason. */
inline void leaves(const Holdings &more) {
    Holdings &allowed = Audit::allowed();
    allowed.descriptors += more.descriptors;
    allowed.threads += more.threads;
    allowed.segments += more.segments;
    allowed.blocks += more.blocks;
}

/** An unnamed file that collects what is written to a descriptor while it stands in its place. */
class Capture {
  public:
    /** Takes the place of @p descriptor. */
    explicit Capture(int descriptor) : descriptor_(descriptor), file_(tmpfile()) {
        fflush(nullptr);
        saved_ = dup(descriptor);
        if (file_ == nullptr || saved_ < 0 || dup2(fileno(file_), descriptor) < 0)
            abort();
    }
    ~Capture() {
        close(saved_);
        fclose(file_);
    }
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    /** Gives the descriptor back; what was written to it. */
    std::string finish() {
        fflush(nullptr);
        dup2(saved_, descriptor_);
        std::string text;
        char part[4096];
        rewind(file_);
        for (size_t n; (n = fread(part, 1, sizeof part, file_)) > 0;)
            text.append(part, n);
        return text;
    }

  private:
    int descriptor_;
    FILE *file_;
    int saved_;
};

/** What @p body writes to @p descriptor (1: standard output, 2: standard error), by stdio or write(). */
inline std::string captured(int descriptor, const std::function<void()> &body) {
    Capture capture(descriptor);
    body();
    return capture.finish();
}

/** Waits for the end of a child process, whatever signals come; what waitpid() stores. */
inline int wait_for(pid_t child) {
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        continue;
    return status;
}

/** How a child process ended. */
struct Ending {
    bool exited = false; /**< with #status, otherwise by signal #status */
    int status = -1;     /**< exit status or number of the signal */
    std::string out;     /**< its standard output */
    std::string err;     /**< its standard error */
};

/**
 * Runs @p body in a forked child and waits for it; the child exits with what @p body returns. Core
 * files of a dying child are switched off unless @p core says otherwise.
 */
inline Ending in_child(const std::function<int()> &body, bool core = false) {
    Ending ending;
    Capture out(1);
    Capture err(2);
    pid_t child = fork();
    if (child == 0) {
        const rlimit none{0, 0};
        if (!core)
            setrlimit(RLIMIT_CORE, &none);
        int result = body();
        fflush(nullptr);
        _exit(result);
    }
    if (child > 0) {
        int status = wait_for(child);
        ending.exited = WIFEXITED(status);
        ending.status = ending.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    }
    ending.err = err.finish();
    ending.out = out.finish();
    return ending;
}

/** The signal that ends a forked child which runs @p body, or 0 when it exits. */
inline int signal_of(const std::function<int()> &body) {
    Ending ending = in_child(body);
    return ending.exited ? 0 : ending.status;
}

/**
 * Runs @p body, which uses EXPECT_* itself, in a forked child: for what a process can do only once,
 * or only without threads of another test. Succeeds when nothing failed there.
 */
inline testing::AssertionResult passes_in_child(const std::function<void()> &body) {
    Ending ending = in_child([&] {
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    });
    if (ending.exited && ending.status == 0)
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << (ending.exited ? "exit status " : "signal ") << ending.status << "\n"
           << ending.out << ending.err;
}

/**
 * A process that runs @p body, which calls @c ready once others may go on: the constructor waits for
 * that, or for its end. The process dies with the object, or with the test.
 */
class Process {
  public:
    /** Starts it; it exits with what @p body returns. */
    explicit Process(const std::function<int(const std::function<void()> &ready)> &body) {
        int ends[2];
        char byte;
        if (pipe2(ends, O_CLOEXEC) != 0)
            abort();
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            const rlimit none{0, 0};
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setrlimit(RLIMIT_CORE, &none);
            close(ends[0]);
            _exit(body([&] { ready_ = write(ends[1], "r", 1) == 1 && close(ends[1]) == 0; }));
        }
        close(ends[1]);
        ready_ = read(ends[0], &byte, 1) == 1;
        close(ends[0]);
    }
    ~Process() {
        if (status_ == -1)
            kill(pid_, SIGKILL);
        ending();
    }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    /** Its number. */
    pid_t pid() const { return pid_; }
    /** Whether it has said that it is ready. */
    bool is_ready() const { return ready_; }
    /** Waits for its end, which it gives as waitpid() does. */
    int ending() {
        if (status_ == -1)
            status_ = wait_for(pid_);
        return status_;
    }

  private:
    pid_t pid_;
    bool ready_ = false;
    int status_ = -1;
};

/**
 * Runs @p call with its first, then its second, ... allocation failing, each time followed by
 * `refused(result)`, until it runs through undisturbed. Returns its result then.
 */
template <typename Call, typename Refused>
auto with_each_failure(Call call, Refused refused) {
    for (int nth = 1;; ++nth) {
        utils_testing_fail_allocation(nth, UTILS_TESTING_ONCE);
        auto result = call();
        utils_testing_fail_allocation(1, 0);
        if (utils_testing_failures() == 0)
            return result;
        refused(result);
    }
}

/** What @p call gives when no allocation succeeds behind the first @p granted ones. */
template <typename Call>
auto without_memory(Call call, int granted = 0) {
    utils_testing_fail_allocation(granted + 1, UTILS_TESTING_FROM_THEN_ON);
    auto result = call();
    utils_testing_fail_allocation(1, 0);
    return result;
}

/** Calls of the system function go to @p replacement, a lambda without captures. */
template <typename Replacement>
void replace_call(const char *function, Replacement replacement) {
    auto *own = reinterpret_cast<utils_testing_replacement *>(+replacement);
    if (utils_testing_replace_call(function, own) != 0)
        abort();
}

/** Runs `body(0)` to `body(count - 1)`, each in a thread of its own, and waits for all. */
template <typename Body>
void in_threads(int count, Body body) {
    std::vector<std::thread> all;
    for (int i = 0; i < count; ++i)
        all.emplace_back([=, &body] { body(i); });
    for (std::thread &thread : all)
        thread.join();
}

/** From here on, @p signal does nothing but end the calls that it meets with EINTR. */
inline void let_interrupt(int signal) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(signal, &action, nullptr);
}

}  // namespace utils_testing

#endif
