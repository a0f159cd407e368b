#include "platform/trace.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <set>

#include "support/support.h"

namespace {

std::set<std::string> files() {
    std::set<std::string> names;
    std::error_code none;
    for (auto &entry : std::filesystem::directory_iterator(TRACE_DIRECTORY, none))
        names.insert(entry.path().filename());
    return names;
}

std::string file_name(int section, const char *name) {
    char text[200];
    snprintf(text, sizeof text, TRACE_FILE_FORMAT, getpid(), section, "trace_test", name);
    return text;
}

struct Section {
    int handle = -1;
    void *address = nullptr;
};

Section make(int number, const char *name, unsigned size = 5000) {
    Section section;
    EXPECT_EQ(trace_data_init(&section.handle, TRACE_KIND_EVENT_LOG, size, name, number,
                              &section.address, 0),
              0);
    return section;
}

TEST(Trace, SectionIsAFileThatOtherProcessesSeeAndThatCleanupRemoves) {
    Section section = make(3, "a/b 3");
    EXPECT_EQ(files(), std::set<std::string>{file_name(3, "a_b 3")});
    int pid = 0, number = 0;
    char program[TRACE_PROGRAM_SIZE], name[TRACE_NAME_SIZE];
    EXPECT_EQ(sscanf(files().begin()->c_str(), TRACE_FILE_SCAN, &pid, &number, program, name), 4);
    EXPECT_EQ(std::make_tuple(pid, number), std::make_tuple(getpid(), 3));
    EXPECT_STREQ(program, "trace_test");
    EXPECT_STREQ(name, "a_b 3");
    std::string path = TRACE_DIRECTORY "/" + file_name(3, "a_b 3");
    EXPECT_EQ(support::read_file(path), std::string(5000, '\0'));
    memcpy(static_cast<char *>(section.address) + 4990, "the end", 7);
    EXPECT_EQ(support::read_file(path).substr(4990), std::string("the end\0\0\0", 10));
    // A child that releases its copy leaves the file to its parent.
    EXPECT_EQ(support::in_child([&] { return trace_module_cleanup(section.handle); }).status, 0);
    EXPECT_EQ(files().size(), 1u);
    Section same = make(3, "a/b 3");
    EXPECT_EQ(files().count(file_name(3, "a_b 3+1")), 1u);
    EXPECT_EQ(trace_module_cleanup(section.handle), 0);
    EXPECT_EQ(trace_module_cleanup(same.handle), 0);
    EXPECT_NE(trace_module_cleanup(same.handle), 0);
    EXPECT_TRUE(files().empty());
}

TEST(Trace, KeepsTheNewestSixteenFilesOfAProgram) {
    std::string other = "1.1.other.log 1", theirs = "not a section", stale = "1.9.trace_test.old";
    for (auto &name : {other, theirs, stale})
        support::write_file(TRACE_DIRECTORY "/" + name, "x");
    std::set<std::string> expected{other, theirs};
    for (int i = 1; i <= 20; ++i) {
        // As if other processes had made them: released neither here nor there.
        support::in_child([i] {
            make(i, "n");
            return 0;
        });
        for (auto &name : files()) {
            if (i > 4 && name.find("." + std::to_string(i) + ".trace_test.n") != std::string::npos)
                expected.insert(name);
        }
    }
    EXPECT_EQ(files(), expected);
    EXPECT_EQ(expected.size(), 18u);
    std::filesystem::remove_all(TRACE_DIRECTORY);
}

TEST(Trace, FailsWhereASectionCannotBeAndFollowsNoLinks) {
    int handle = -1;
    void *address = nullptr;
    auto result = [&](unsigned size) {
        return trace_data_init(&handle, 136, size, "n", 1, &address, 0);
    };
    EXPECT_NE(result(0), 0);
    EXPECT_NE(trace_data_init(nullptr, 136, 1, "n", 1, &address, 0), 0);
    EXPECT_NE(trace_module_cleanup(99), 0);
    support::write_file("/tmp/victim", "precious");
    std::filesystem::create_directory(TRACE_DIRECTORY);
    std::filesystem::create_symlink("/tmp/victim", TRACE_DIRECTORY "/" + file_name(1, "n"));
    EXPECT_EQ(result(100), 0);
    memset(address, 'x', 100);
    EXPECT_EQ(support::read_file("/tmp/victim"), "precious");
    EXPECT_EQ(trace_module_cleanup(handle), 0);
    std::filesystem::remove_all(TRACE_DIRECTORY);
    std::filesystem::create_directory("/tmp/elsewhere");
    std::filesystem::create_symlink("/tmp/elsewhere", TRACE_DIRECTORY);
    EXPECT_NE(result(100), 0);
    unlink(TRACE_DIRECTORY);
}

}  // namespace
