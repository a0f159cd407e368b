// What the parts of qelctl share. Each part adds its subcommands to the application; a subcommand
// that cannot do its work throws Failure, which main() prints in one line on standard error.
#pragma once

#include <CLI/CLI.hpp>
#include <stdexcept>
#include <string>

namespace qelctl {

enum ExitStatus {
    kDone = 0,
    kFailed = 1,        // the operation failed
    kUsage = 2,         // the command line is wrong
    kNoAnswer = 3,      // the daemon is there and does not answer in time
    kNoSuchDaemon = 4,  // no daemon of that name serves that switch
};

class Failure : public std::runtime_error {
  public:
    explicit Failure(const std::string &what, int exit_status = kFailed)
        : std::runtime_error(what), exit_status_(exit_status) {}
    int exit_status() const { return exit_status_; }

  private:
    int exit_status_;
};

// "what: reason" with the system's reason for errno.
Failure system_failure(const std::string &what);

// The line on standard error that says what failed.
void report(const std::exception &failure);

// A subcommand with help and version of its own.
CLI::App *add_subcommand(CLI::App &parent, const std::string &name, const std::string &description);

// An option "--switch N" that makes N this process's logical switch.
void add_switch_option(CLI::App &command);

void add_list(CLI::App &app);
void add_commands(CLI::App &app);  // cmd, redirect and exit
void add_evlog(CLI::App &app);
void add_log(CLI::App &app);
void add_stats(CLI::App &app);
void add_who(CLI::App &app);

}  // namespace qelctl
