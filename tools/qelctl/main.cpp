// SPDX-License-Identifier: Apache-2.0
// qelctl: what an operator asks of the daemons of a switch, one subcommand a question.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <new>
#include <vector>

#include "qelctl.h"

namespace {

using namespace qelctl;

constexpr const char *kNotes =
    "Exit status: 0 done, 1 failed, 2 wrong usage, 3 the daemon does not answer in time,\n"
    "4 no such daemon. Errors are one line on standard error. When nobody reads the output any "
    "more\n"
    "the command ends by SIGPIPE and says nothing.\n\n"
    "JSON: one object whose member format is 1; later versions may add members and keep those "
    "there\n"
    "are. What is not known is null. Characters beyond ASCII, control characters among them, are\n"
    "written as \\uNNNN, and what is not UTF-8 as \\ufffd; times are seconds since 1970.";

void add_all(CLI::App &app) {
    app.set_version_flag("--version", "qelctl " QELCTL_VERSION, "Print the version and exit");
    app.require_subcommand(1);
    app.footer(kNotes);
    add_switch_option(app);
    add_json_option(app);
    add_list(app);
    add_commands(app);
#ifdef QELCTL_STAND_IN
    add_evlog(app);
#endif
    add_log(app);
    add_stats(app);
    add_who(app);
    add_clean(app);
    app.parse_complete_callback([&app] {
        const CLI::App *command = &app;
        std::string path = command->get_name();
        while (!command->get_subcommands().empty()) {
            command = command->get_subcommands().front();
            path += " " + command->get_name();
        }
        if (common_options().json && command->get_option_no_throw("--json") == nullptr)
            throw Failure(path + " has no option --json (see " + path + " --help)", kUsage);
    });
}

void run(int argc, char **argv) {
    CLI::App app("Ask and direct the daemons of a switch", "qelctl");
    add_all(app);
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    if (!words.empty() && words[0] == "--complete")
        return complete(app, {words.begin() + 1, words.end()});
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != 0)
            throw usage_failure(app, error, words);
        app.exit(error);  // --help and --version
    }
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        fail_to_write();
}

// As a program ends that never heard of the signal.
void end_by_broken_pipe() noexcept {
    signal(SIGPIPE, SIG_DFL);
    raise(SIGPIPE);
}

// Says so without needing any.
int out_of_memory() noexcept {
    constexpr char kText[] = "qelctl: out of memory\n";
    fflush(stdout);
    [[maybe_unused]] ssize_t written = write(STDERR_FILENO, kText, sizeof kText - 1);
    return kFailed;
}

// Reports the exception that is being handled; the exit status for it.
int status_of_failure() noexcept {
    try {
        try {
            throw;
        } catch (const OutputClosed &) {
            end_by_broken_pipe();
            return kFailed;
        } catch (const Failure &failure) {
            report(failure);
            return failure.exit_status();
        } catch (const std::bad_alloc &) {
            return out_of_memory();
        } catch (const std::exception &failure) {
            report(failure);
            return kFailed;
        }
    } catch (...) {
        return out_of_memory();
    }
}

// What is thrown before main() ends here, and what finds no memory to be thrown with.
__attribute__((constructor(101))) void catch_the_rest() {
    std::set_terminate(
        [] { _exit(std::current_exception() ? status_of_failure() : out_of_memory()); });
}

}  // namespace

int main(int argc, char **argv) {
    signal(SIGPIPE, SIG_IGN);
    try {
        run(argc, argv);
        return kDone;
    } catch (...) {
        return status_of_failure();
    }
}
