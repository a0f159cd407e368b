// What a dead process leaves behind: its event log in a trace section, and its core file.
#include <dirent.h>
#include <elf.h>
#include <link.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <vector>

#include "platform/trace.h"
#include "support/support.h"
#include "utils/assert.h"
#include "utils/evlog.h"
#include "utils/signals.h"

extern "C" const char *__asan_default_options() {
    return "handle_segv=0:handle_abort=0:disable_coredump=0";
}
extern "C" const char *__tsan_default_options() {
    return "handle_segv=0:handle_abort=0:disable_coredump=0:report_signal_unsafe=0";
}
extern "C" const char *__ubsan_default_options() {
    return "handle_segv=0:handle_abort=0";
}

namespace {

using testing::HasSubstr;

// The dump of a section's event log, as a tool in another process makes it from the file's bytes.
std::string dump_section(std::string block) {
    auto *log = reinterpret_cast<qel_evlog_handle *>(block.data());
    size_t entries = (block.size() - sizeof *log) / sizeof(qel_evlog_entry);
    if (block.size() < sizeof *log || log->magic != QEL_EVLOG_MAGIC ||
        static_cast<size_t>(log->total) != entries)
        return "not a log";
    log->entries = reinterpret_cast<qel_evlog_entry *>(log + 1);
    log->next = nullptr;
    pthread_mutex_init(&log->lock, nullptr);
    return support::captured(1, [&] { qel_evlog_dump(stdout, log, 0); });
}

// The section file of `pid` whose section has the number and name given.
std::string section_of(pid_t pid, int number, const std::string &name) {
    for (auto &entry : std::filesystem::directory_iterator(TRACE_DIRECTORY)) {
        int from = 0, section = 0;
        char program[TRACE_PROGRAM_SIZE], title[TRACE_NAME_SIZE];
        if (sscanf(entry.path().filename().c_str(), TRACE_FILE_SCAN, &from, &section, program,
                   title) == 4 &&
            from == pid && section == number && title == name)
            return support::read_file(entry.path());
    }
    return "";
}

[[noreturn]] void run_daemon(int ready) {
    qel_evlog_db db;
    qel_evlog_init(&db);
    qel_evlog_newHandle(&db, 10, "idle", "i");
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 50, "protocol", "p");
    for (int i = 1; i <= 120; ++i)
        qel_evlog(log, "step %d of the protocol\n", i);
    if (write(ready, "x", 1) == 1)
        pause();
    _exit(1);
}

TEST(PostMortem, EventLogOfAKilledDaemonIsReadFromItsSection) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pid_t daemon = fork();
    if (daemon == 0)
        run_daemon(ends[1]);
    char byte;
    ASSERT_EQ(read(ends[0], &byte, 1), 1);
    std::string live = dump_section(section_of(daemon, 2, "proto"));
    kill(daemon, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(daemon, &status, 0), daemon);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    std::string dead = dump_section(section_of(daemon, 2, "proto"));
    EXPECT_THAT(
        dead,
        HasSubstr("evt log            :protocol\nshortcut           :p\ntotal entries      :50\n"
                  "current            :20\nwrapped            :2\n"));
    size_t at = 0;
    for (int i = 71; i <= 120; ++i) {
        at = dead.find("step " + std::to_string(i) + " of the protocol\n", at);
        ASSERT_NE(at, std::string::npos) << i;
    }
    EXPECT_EQ(dead, live);
    EXPECT_THAT(dump_section(section_of(daemon, 1, "idle 1")),
                HasSubstr("current            :0\n"));
}

using Ehdr = ElfW(Ehdr);

// The signal in a core file's process status note, or -1.
int signal_of_core(const std::string &core) {
    if (core.size() < sizeof(Ehdr) || memcmp(core.data(), ELFMAG, SELFMAG) != 0)
        return -1;
    Ehdr header;
    memcpy(&header, core.data(), sizeof header);
    if (header.e_type != ET_CORE)
        return -1;
    for (size_t i = 0; i < header.e_phnum; ++i) {
        ElfW(Phdr) segment;
        memcpy(&segment, core.data() + header.e_phoff + i * sizeof segment, sizeof segment);
        if (segment.p_type != PT_NOTE)
            continue;
        for (size_t at = segment.p_offset; at + 12 < segment.p_offset + segment.p_filesz;) {
            ElfW(Nhdr) note;
            memcpy(&note, core.data() + at, sizeof note);
            at += sizeof note + ((note.n_namesz + 3) & ~3u);
            int32_t number;  // the first word of the process status
            if (note.n_type == NT_PRSTATUS) {
                memcpy(&number, core.data() + at, sizeof number);
                return number;
            }
            at += (note.n_descsz + 3) & ~3u;
        }
    }
    return -1;
}

// The one core file of a program's directory.
std::string core_of(const char *program) {
    std::vector<std::string> found;
    for (auto &entry :
         std::filesystem::directory_iterator(std::string(QEL_CORE_DIRECTORY "/") + program)) {
        // The emulator may leave a core file of its own beside that of the program.
        if (!support::emulated() || entry.path().filename().string().rfind("qemu_", 0) == 0)
            found.push_back(entry.path());
    }
    EXPECT_EQ(found.size(), 1u);
    return found.empty() ? "" : support::read_file(found[0]);
}

TEST(PostMortem, CoreFileAppearsInTheProgramsDirectoryWithItsSignal) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer's own memory would fill the disk";
#endif
    std::string pattern = support::read_file("/proc/sys/kernel/core_pattern");
    rlimit limit{};
    getrlimit(RLIMIT_CORE, &limit);
    if (!support::emulated() && (pattern[0] == '|' || pattern[0] == '/'))
        GTEST_SKIP() << "this kernel hands core files to " << pattern;
    if (limit.rlim_max < QEL_CORE_LIMIT)
        GTEST_SKIP() << "the hard limit of core files is " << limit.rlim_max;
    support::Ending ending = support::in_child(
        [] {
            signal(SIGABRT, SIG_IGN);
            qel_sigdefaults("cored");
            raise(QEL_SIGNAL_DUMP_PROF);
            return 0;
        },
        true);
    EXPECT_TRUE(!ending.exited && ending.status == SIGABRT) << ending.status << ending.err;
    EXPECT_EQ(signal_of_core(core_of("cored")), SIGABRT);
    ending = support::in_child(
        [] {
            qel_coreenv_set("asserted");
            QEL_ASSERT(getpid() == 0);
            return 0;
        },
        true);
    EXPECT_TRUE(!ending.exited && ending.status == SIGSEGV) << ending.status << ending.err;
    EXPECT_EQ(signal_of_core(core_of("asserted")), SIGSEGV);
}

// The directory of the sources, found from the program's own place in a build directory below it.
std::string source_directory() {
    std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe");
    while (path.has_relative_path() && !std::filesystem::exists(path / "lib/utils/assert.cpp"))
        path = path.parent_path();
    return path;
}

// The store that ends the process is undefined behaviour, so what each optimiser makes of it is
// looked at.
TEST(PostMortem, FailedAssertIsASegmentationFaultAtEveryOptimisationLevel) {
    std::string top = source_directory();
    ASSERT_NE(top, "/");
    support::write_file(
        "/tmp/crash.cpp",
        "#include \"lib/utils/assert.cpp\"\n"
        "int rasevt_log(const char *, const char *, int, int, int, unsigned, ...) { return 0; }\n"
        "int main() { return do_assert(\"crash\", __FILE__, QEL_CHECK_INFO(QEL_CHECK_ASSERT, 0)); "
        "}\n");
    std::vector<std::string> compilers = {"g++", "clang++"};
    if (support::emulated())
        compilers = {"powerpc-linux-gnu-g++"};
    int used = 0;
    for (const std::string &compiler : compilers) {
        if (system(("command -v " + compiler + " >/dev/null").c_str()) != 0)
            continue;
        ++used;
        for (const char *level : {"-O0", "-O1", "-O2", "-O3", "-Os", "-Ofast"}) {
            std::string command =
                compiler + " " + level + " -std=gnu++20 -fno-exceptions -fno-rtti -I" + top +
                "/include -I" + top + " -I" + top + "/lib/utils -o /tmp/crash /tmp/crash.cpp";
            ASSERT_EQ(system(command.c_str()), 0) << command;
            support::Ending ending = support::in_child([] {
                std::string run = "exec " + support::runnable("/tmp/crash");
                return execl("/bin/sh", "sh", "-c", run.c_str(), nullptr);
            });
            EXPECT_FALSE(ending.exited) << command << ending.err;
            EXPECT_EQ(ending.status, SIGSEGV) << command;
            EXPECT_EQ(ending.out, "do_assert: forcing segv to get core file\n\n") << command;
        }
    }
    EXPECT_GT(used, 0) << "no compiler";
}

}  // namespace
