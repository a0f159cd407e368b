// qelctl: what an operator asks of the daemons of a switch, one subcommand a question.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <new>

#include "qelctl.h"

namespace {

using namespace qelctl;

void run(int argc, char **argv) {
    CLI::App app("Ask and direct the daemons of a switch", "qelctl");
    app.set_version_flag("--version", "qelctl " QELCTL_VERSION, "Print the version and exit");
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 done, 1 failed, 2 wrong usage, 3 the daemon does not answer in time,\n"
        "4 no such daemon. Errors are one line on standard error.");
    add_list(app);
    add_commands(app);
    add_evlog(app);
    add_log(app);
    add_stats(app);
    add_who(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != 0)
            throw Failure(std::string(error.what()) + " (see qelctl --help)", kUsage);
        app.exit(error);  // --help and --version
    }
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        throw system_failure("cannot write");
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
