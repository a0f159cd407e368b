// SPDX-License-Identifier: Apache-2.0
// Trace sections: their files, names, limits, and what others may have planted.
#include "utils/platform/posix/trace_files.h"

#include <set>

#include "support/support.h"

namespace {

using std::filesystem::create_symlink;
using support::read_file;

std::set<std::string> files() {
    std::set<std::string> names;
    for (auto &entry : std::filesystem::directory_iterator(TRACE_DIRECTORY))
        names.insert(entry.path().filename());
    return names;
}

std::string file_name(int section, const char *name, int pid = getpid(),
                      const char *program = "trace_test") {
    char text[200];
    snprintf(text, sizeof text, TRACE_FILE_FORMAT, pid, section, program, name);
    return text;
}

struct Section {
    explicit Section(int number, const char *name = "n", unsigned size = 5000)
        : result(trace_data_init(&handle, TRACE_KIND_EVENT_LOG, size, name, number, &address, 0)) {}
    int handle = -1;
    void *address = nullptr;
    int result;
};

// What the file of a section says about its owner.
trace_owner owner_in(const std::string &content) {
    trace_owner owner{};
    content.copy(reinterpret_cast<char *>(&owner), sizeof owner, content.size() - sizeof owner);
    return owner;
}

TEST(Trace, SectionIsAFileThatOtherProcessesSeeAndThatCleanupRemoves) {
    static int bad_closes = 0;
    support::replace_call("close", [](int fd) {
        int result = close(fd);
        bad_closes += result != 0;
        return result;
    });
    mode_t mask = umask(0);
    Section section(3, "a/b 3", 200000), other(4, "n", 65536 - sizeof(trace_owner));
    umask(mask);
    EXPECT_EQ(utils_testing_count_calls("posix_fallocate"), 4 + 1) << "64 KB at a time";
    EXPECT_EQ(trace_module_cleanup(other.handle), 0);
    EXPECT_EQ(bad_closes, 0);
    utils_testing_reset();
    EXPECT_EQ(files(), std::set{file_name(3, "a_b 3")});
    struct stat status {};
    EXPECT_EQ(stat((TRACE_DIRECTORY "/" + *files().begin()).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0640u);
    EXPECT_EQ(stat(TRACE_DIRECTORY, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFDIR | 01777u);
    int pid = 0, number = 0;
    char program[TRACE_PROGRAM_SIZE], name[TRACE_NAME_SIZE];
    EXPECT_EQ(sscanf(files().begin()->c_str(), TRACE_FILE_SCAN, &pid, &number, program, name), 4);
    EXPECT_EQ(file_name(number, name, pid), *files().begin());
    memcpy(static_cast<char *>(section.address) + 199990, "the end", 7);
    std::string expected(200000, '\0'), content = read_file(TRACE_DIRECTORY "/" + *files().begin());
    expected.replace(199990, 7, "the end");
    EXPECT_EQ(content.size(), expected.size() + sizeof(trace_owner));
    EXPECT_TRUE(content.substr(0, 200000) == expected);
    EXPECT_EQ(owner_in(content).magic, TRACE_OWNER_MAGIC);
    EXPECT_EQ(owner_in(content).pid, getpid());
    EXPECT_EQ(owner_in(content).switch_no, 0);
    // A child that releases its copy leaves the file to its parent.
    EXPECT_EQ(support::in_child([&] { return trace_module_cleanup(section.handle); }).status, 0);
    Section same(3, "a/b 3"), cut(1, std::string(99, 'c').c_str());
    EXPECT_EQ(files(), (std::set{file_name(1, std::string(52, 'c').c_str()), file_name(3, "a_b 3"),
                                 file_name(3, "a_b 3+1")}));
    EXPECT_EQ(trace_module_cleanup(cut.handle), 0);
    EXPECT_EQ(trace_module_cleanup(section.handle), 0);
    EXPECT_EQ(trace_module_cleanup(same.handle), 0);
    EXPECT_NE(trace_module_cleanup(same.handle), 0);
    EXPECT_TRUE(files().empty());
}

// Leaves the files of a process that dies on a switch and releases none; gives its number.
int leave_files(const char *switch_no, int sections) {
    setenv("KORIN_SWITCHNO", switch_no, 1);
    auto make = [=] {
        for (int i = 1; i <= sections; ++i)
            EXPECT_EQ(Section(i).result, 0);
        return printf("%d", getpid()) < 0;
    };
    return std::stoi(support::in_child(make).out);
}

TEST(Trace, AProgramsNameIsOneWordOfTheFilesName) {
    char odd[] = "a b/c.d", empty[] = "";
    const std::pair<char *, const char *> cases[] = {{odd, "a_b_c_d"}, {empty, "_"}};
    for (auto &[name, shown] : cases) {
        EXPECT_TRUE(support::passes_in_child([&, name = name, shown = shown] {
            program_invocation_short_name = name;
            Section section(1);
            EXPECT_EQ(files(), std::set{file_name(1, "n", getpid(), shown)});
            EXPECT_EQ(trace_module_cleanup(section.handle), 0);
        }));
    }
}

TEST(Trace, LimitsTheFilesOfDeadProcessesOfAProgramAndSwitch) {
    std::set<std::string> kept{"1.1.other.log 1", "not a section"};
    for (auto &name : {*kept.begin(), *kept.rbegin(), file_name(9, "old", 99999999)})
        support::write_file(TRACE_DIRECTORY "/" + name, "x");
    Section living(1, "living");
    kept.insert(file_name(1, "living"));
    // A file of our number that another process has left: its start is not ours.
    std::string other = read_file(TRACE_DIRECTORY "/" + file_name(1, "living"));
    trace_owner owner = owner_in(other);
    --owner.start;
    other.replace(other.size() - sizeof owner, sizeof owner, reinterpret_cast<char *>(&owner),
                  sizeof owner);
    support::write_file(TRACE_DIRECTORY "/" + file_name(1, "reused"), other);
    auto add = [](std::set<std::string> names, int first, int last, int pid) {
        for (int i = first; i <= last; ++i)
            names.insert(file_name(i, "n", pid));
        return names;
    };
    auto expect_files = [](std::set<std::string> expected) {
        for (const std::string &name : files())
            support::read_late(TRACE_DIRECTORY "/" + name);
        Section maker(1, "maker");
        expected.insert(file_name(1, "maker"));
        EXPECT_EQ(files(), expected);
        EXPECT_EQ(trace_module_cleanup(maker.handle), 0);
    };
    kept = add(kept, 1, 12, leave_files("7", 12));
    kept = add(kept, 1, 16, leave_files("241", 16));  // no switch, so 0, as of the two older files
    expect_files(kept);
    int older = leave_files("0x8", 12);
    expect_files(add(add(kept, 9, 12, older), 1, 12, leave_files("8", 12)));
    expect_files(add(kept, 1, 20, leave_files("8", 20)));  // above the limit, but all of one
    EXPECT_EQ(trace_module_cleanup(living.handle), 0);
    std::filesystem::remove_all(TRACE_DIRECTORY);
}

TEST(Trace, TakenNamesAndInterruptionsPreventNoSection) {
    int handle = Section(1).handle;
    std::string name = TRACE_DIRECTORY "/" + file_name(1, "n"), left = read_file(name);
    ASSERT_EQ(trace_module_cleanup(handle), 0);
    support::write_file(name, left);  // as an earlier program of this process would leave it
    EXPECT_EQ(trace_module_cleanup(Section(1).handle), 0);
    EXPECT_TRUE(files().empty());
    for (int i = 0; i <= 50; ++i)
        std::filesystem::create_directory(name + (i > 0 ? "+" + std::to_string(i) : ""));
    utils_testing_fail_call("posix_fallocate", 1, EINTR, 3);
    Section section(1);
    EXPECT_EQ(section.result, 0);
    EXPECT_EQ(utils_testing_failures(), 3);
    EXPECT_EQ(files().size(), 52u);
    EXPECT_EQ(trace_module_cleanup(section.handle), 0);
    std::filesystem::remove_all(TRACE_DIRECTORY);
}

TEST(Trace, FailsWhereASectionCannotBeAndFollowsNoLinks) {
    EXPECT_NE(Section(1, "n", 0).result, 0);
    for (const char *call : {"posix_fallocate", "lseek", "write", "mmap"}) {
        utils_testing_fail_call(call, 1, ENOSPC, 1);
        EXPECT_NE(Section(1).result, 0) << call;
        EXPECT_EQ(files(), std::set<std::string>()) << call;
    }
    int handle = 0;
    void *address = nullptr;
    EXPECT_EQ(trace_data_init(nullptr, 0, 5000, "n", 1, &address, 0), -1);
    EXPECT_EQ(trace_data_init(&handle, 0, 5000, "n", 1, nullptr, 0), -1);
    support::write_file("/tmp/victim", "precious");
    create_symlink("/tmp/victim", TRACE_DIRECTORY "/" + file_name(1, "n"));
    Section section(1);
    ASSERT_EQ(section.result, 0);
    memset(section.address, 'x', 100);
    EXPECT_EQ(read_file("/tmp/victim"), "precious");
    EXPECT_EQ(trace_module_cleanup(section.handle), 0);
    std::filesystem::remove_all(TRACE_DIRECTORY);
    std::filesystem::create_directory("/tmp/elsewhere");
    create_symlink("/tmp/elsewhere", TRACE_DIRECTORY);
    EXPECT_NE(Section(1).result, 0);
    unlink(TRACE_DIRECTORY);
    std::filesystem::create_directory(TRACE_DIRECTORY);
    const std::tuple<mode_t, uid_t, bool> directories[] = {{0755, 4711, true},
                                                           {01777, 4711, true},
                                                           {0777, 0, true},
                                                           {0775, 0, true},
                                                           {01777, 0, false}};
    static uid_t shown_owner;  // of directories, unless it is 0
    for (auto [mode, owner, refused] : directories) {
#ifdef __SANITIZE_THREAD__  // keeps fstat() for itself
        if (owner != 0)
            continue;
#endif
        chmod(TRACE_DIRECTORY, mode);
        shown_owner = owner;
        support::replace_call("fstat", [](int fd, struct stat *status) {
            int result = fstat(fd, status);
            if (S_ISDIR(status->st_mode) && shown_owner != 0)
                status->st_uid = shown_owner;
            return result;
        });
        Section made(1);
        EXPECT_EQ(made.result != 0, refused) << std::oct << mode << " of " << std::dec << owner;
        trace_module_cleanup(made.handle);
    }
    utils_testing_reset();
}

}  // namespace
