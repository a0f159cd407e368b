// SPDX-License-Identifier: Apache-2.0
#include "support/support.h"

#include <dlfcn.h>
#include <sys/prctl.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "utils/testing.h"

UTILS_TESTING_HEAP

namespace support {
namespace {

// An unnamed file that collects what is written to a descriptor while it stands in its place.
class Capture {
  public:
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

// First uses of the C library, of threads and of the test frame keep a few blocks.
constexpr int kFirstUses = 12;
Holdings allowed;

// Around each test: what it has opened, started and allocated is gone when it has ended.
class Audit : public testing::EmptyTestEventListener {
  public:
    void OnTestStart(const testing::TestInfo &) override {
        allowed = {0, 0, 0, kFirstUses};
        before_ = held();
    }
    void OnTestEnd(const testing::TestInfo &info) override {
        if (info.result()->Failed() || info.result()->Skipped())
            return;
        Holdings after;
        auto more = [&](int Holdings::*of) { return after.*of - before_.*of - allowed.*of; };
        eventually(
            [&] {  // threads and their peers' ends of sockets go a moment after the calls that end them
                after = held();
                return more(&Holdings::descriptors) <= 0 && more(&Holdings::threads) <= 0;
            });
        EXPECT_LE(more(&Holdings::descriptors), 0) << "descriptors are left open";
        EXPECT_LE(more(&Holdings::threads), 0) << "threads are left running";
        EXPECT_LE(more(&Holdings::segments), 0) << "shared segments are left";
        EXPECT_LE(more(&Holdings::blocks), 0) << "blocks of memory are left";
    }

  private:
    Holdings before_;
};

[[maybe_unused]] const bool audited =
    (testing::UnitTest::GetInstance()->listeners().Append(new Audit), true);

#ifdef __SANITIZE_THREAD__
// The sanitizer's own thread comes with the first one, and stays.
[[maybe_unused]] const bool accompanied = (std::thread([] {}).join(), true);
#endif

}  // namespace

int threads() {
    std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<int>(std::distance(tasks, {}));
}

int segments() {
    std::string table = read_file("/proc/sysvipc/shm");
    return static_cast<int>(std::count(table.begin(), table.end(), '\n')) - 1;
}

Holdings held() {
    return {utils_testing_open_descriptors(), threads(), segments(), utils_testing_live_blocks()};
}

void leaves(const Holdings &more) {
    allowed.descriptors += more.descriptors;
    allowed.threads += more.threads;
    allowed.segments += more.segments;
    allowed.blocks += more.blocks;
}

std::string captured(int descriptor, const std::function<void()> &body) {
    Capture capture(descriptor);
    body();
    return capture.finish();
}

Ending in_child(const std::function<int()> &body, bool core) {
    Ending ending;
    int status = 0;
    Capture out(1);
    Capture err(2);
    pid_t child = fork();
    if (child == 0) {
        if (!core) {
            rlimit none{0, 0};
            setrlimit(RLIMIT_CORE, &none);
        }
        int result = body();
        fflush(nullptr);
        _exit(result);
    }
    if (child > 0 && waitpid(child, &status, 0) == child) {
        ending.exited = WIFEXITED(status);
        ending.status = ending.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    }
    ending.err = err.finish();
    if (emulated())
        ending.err.erase(std::min(ending.err.find(emulator() + ": "), ending.err.size()));
    ending.out = out.finish();
    return ending;
}

int signal_of(const std::function<int()> &body) {
    Ending ending = in_child(body);
    return ending.exited ? 0 : ending.status;
}

testing::AssertionResult passes_in_child(const std::function<void()> &body) {
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

Process::Process(const std::function<int(const std::function<void()> &)> &body) {
    int ends[2];
    char byte;
    if (pipe2(ends, O_CLOEXEC) != 0)
        abort();
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
        close(ends[0]);
        _exit(body([&] { ready_ = write(ends[1], "r", 1) == 1 && close(ends[1]) == 0; }));
    }
    close(ends[1]);
    ready_ = read(ends[0], &byte, 1) == 1;
    close(ends[0]);
}

Process::~Process() {
    if (status_ == -1)
        kill(pid_, SIGKILL);
    ending();
}

int Process::ending() {
    if (status_ == -1)
        waitpid(pid_, &status_, 0);
    return status_;
}

void write_file(const std::string &path, std::string_view content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!file.flush()) {
        perror(path.c_str());
        abort();
    }
}

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void read_late(const std::string &path) {
    const timespec times[2] = {{INT64_C(0x80000000), 0}, {0, UTIME_OMIT}};
    if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) {
        perror(path.c_str());
        abort();
    }
}

bool emulated() {
    return getenv("UTILS_EMULATOR") != nullptr;
}

std::string emulator() {
    std::string path = getenv("UTILS_EMULATOR"), name = path.substr(path.rfind('/') + 1);
    return name.substr(0, name.find('-'));
}

bool is_stand_in(const char *function) {
    Dl_info info{};
    void *next = dlsym(RTLD_NEXT, function);  // behind the test program, which may define its own
    return next != nullptr && dladdr(next, &info) != 0 &&
           std::string_view(info.dli_fname).find("/libutils-platform.so") != std::string_view::npos;
}

std::string runnable(const std::string &command) {
    return emulated() ? getenv("UTILS_EMULATOR") + (" " + command) : command;
}

void let_interrupt(int signal) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(signal, &action, nullptr);
}

int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

bool eventually(const std::function<bool()> &condition, int limit_ms) {
    for (int64_t end = monotonic_ms() + limit_ms; !condition();) {
        if (monotonic_ms() > end)
            return false;
        timespec pause{0, 1000000};
        nanosleep(&pause, nullptr);
    }
    return true;
}

}  // namespace support
