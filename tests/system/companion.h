// SPDX-License-Identifier: Apache-2.0
// A daemon of libutils-daemon for tests, from its table, and what its tables are made of.
#pragma once

#include <sys/syscall.h>

#include "testd.h"
#include "utils/daemon.h"

namespace support {

inline int run(const daemon_table &table, std::vector<std::string> words = {}) {
    std::string program = "test";
    std::vector<char *> argv = {program.data()};
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return daemon_run(&table, static_cast<int>(argv.size()) - 1, argv.data());
}

// The daemon of a test, in a process of its own once the table is complete.
struct Companion : testing::Test {
    daemon_table table{};
    std::unique_ptr<Process> process;
    const std::string commands = "/run/korin/served.0.cmd";

    Companion() { table.name = "served"; }
    void TearDown() override {
        if (process != nullptr) {
            kill(process->pid(), SIGTERM);
            EXPECT_EQ(process->ending(), 0);
        }
    }
    // Serves until it is asked to end; `opened` is called before it is ready for others.
    int serve(
        const std::function<void()> &ready, const std::function<void()> &opened = [] {}) {
        char program[] = "test", *argv[] = {program, nullptr};
        int argc = 1;
        int status = daemon_open(&table, &argc, argv);
        if (status == 0)
            status = (opened(), daemon_ready());
        if (status == 0) {
            ready();
            status = daemon_loop();
            daemon_close();
        }
        return status;
    }
    void start(const std::function<void()> &before = [] {}) {
        process = std::make_unique<Process>([&](auto &ready) -> int {
            before();
            exit(serve(ready));
        });
        EXPECT_TRUE(process->is_ready());
    }
    void start_with(
        const daemon_command &command, const std::function<void()> &before = [] {}) {
        static daemon_command list[2];
        list[0] = command;
        table.commands = list;
        start(before);
    }
    std::string told(const std::vector<std::string> &words) {
        return send_command(command_message(words), commands);
    }
};

inline pid_t main_thread() {
    return static_cast<pid_t>(syscall(SYS_gettid)) == getpid();
}

inline int tell_thread(int argc, char **, FILE *out) {
    fprintf(out, "%d", main_thread());
    return argc + 40;
}

inline int32_t add_up(const void *data, uint32_t length, void *reply, uint32_t *reply_length,
                      void *) {
    int32_t sum = main_thread() ? 0 : -99;
    for (uint32_t i = 0; i < length; ++i)
        sum += static_cast<const unsigned char *>(data)[i];
    if (sum == 8) {
        memcpy(reply, "long", 4);
        *reply_length = 4;
    }
    return sum;
}

}  // namespace support
