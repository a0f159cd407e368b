#include "utils/platform/posix/trace_files.h"

#include <unistd.h>

#include <cstring>
#include <filesystem>
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

std::string file_name(int section, const char *name, int pid = getpid()) {
    char text[200];
    snprintf(text, sizeof text, TRACE_FILE_FORMAT, pid, section, "trace_test", name);
    return text;
}

struct Section {
    explicit Section(int number, const char *name = "n", unsigned size = 5000)
        : result(trace_data_init(&handle, TRACE_KIND_EVENT_LOG, size, name, number, &address, 0)) {}
    int handle = -1;
    void *address = nullptr;
    int result;
};

TEST(Trace, SectionIsAFileThatOtherProcessesSeeAndThatCleanupRemoves) {
    Section section(3, "a/b 3");
    EXPECT_EQ(files(), std::set{file_name(3, "a_b 3")});
    int pid = 0, number = 0;
    char program[TRACE_PROGRAM_SIZE], name[TRACE_NAME_SIZE];
    EXPECT_EQ(sscanf(files().begin()->c_str(), TRACE_FILE_SCAN, &pid, &number, program, name), 4);
    EXPECT_EQ(file_name(number, name, pid), *files().begin());
    memcpy(static_cast<char *>(section.address) + 4990, "the end", 7);
    std::string expected(5000, '\0');
    expected.replace(4990, 7, "the end");
    EXPECT_EQ(read_file(TRACE_DIRECTORY "/" + *files().begin()), expected);
    // A child that releases its copy leaves the file to its parent.
    EXPECT_EQ(support::in_child([&] { return trace_module_cleanup(section.handle); }).status, 0);
    Section same(3, "a/b 3");
    EXPECT_EQ(files(), (std::set{file_name(3, "a_b 3"), file_name(3, "a_b 3+1")}));
    EXPECT_EQ(trace_module_cleanup(section.handle), 0);
    EXPECT_EQ(trace_module_cleanup(same.handle), 0);
    EXPECT_NE(trace_module_cleanup(same.handle), 0);
    EXPECT_TRUE(files().empty());
}

TEST(Trace, KeepsTheNewestSixteenFilesOfAProgram) {
    std::set<std::string> expected{"1.1.other.log 1", "not a section"};
    for (auto &name : {*expected.begin(), *expected.rbegin(), file_name(9, "old", 1)})
        support::write_file(TRACE_DIRECTORY "/" + name, "x");
    for (int i = 1; i <= 20; ++i) {
        // As if other processes had made them: released neither here nor there.
        std::string pid =
            support::in_child([i] { return printf("%d", getpid()) + Section(i).result; }).out;
        if (i > 4)
            expected.insert(file_name(i, "n", std::stoi(pid)));
    }
    EXPECT_EQ(files(), expected);
    std::filesystem::remove_all(TRACE_DIRECTORY);
}

TEST(Trace, FailsWhereASectionCannotBeAndFollowsNoLinks) {
    EXPECT_NE(Section(1, "n", 0).result, 0);
    std::filesystem::create_directory(TRACE_DIRECTORY);
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
}

}  // namespace
