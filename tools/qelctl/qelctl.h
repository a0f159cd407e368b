// SPDX-License-Identifier: Apache-2.0
// What the parts of qelctl share. Each part adds its subcommands to the application; a subcommand
// that cannot do its work throws Failure, which main() prints in one line on standard error.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
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

// Thrown when nobody reads standard output any more: the end, and nothing to report.
struct OutputClosed {};

// Whether standard output leads to a pipe or socket whose reader has gone.
bool output_closed();

// Throws what a failed write to standard output calls for.
[[noreturn]] void fail_to_write();

// A subcommand with help and version of its own.
CLI::App *add_subcommand(CLI::App &parent, const std::string &name, const std::string &description);

// What may stand before the subcommand or after it.
struct CommonOptions {
    std::optional<int> switch_no;
    bool json = false;
};
const CommonOptions &common_options();

// An option "--switch N" that makes N this process's logical switch.
void add_switch_option(CLI::App &command, const std::string &description =
                                              "Logical switch of the daemon (default: "
                                              "KORIN_SWITCHNO, else 0)");
// Whether --switch leaves out what belongs to `switch_no`.
bool is_left_out(int switch_no);

void add_json_option(CLI::App &command);

// Learns this control processor's node. False when nothing says which it is, and the library takes
// a default; its own line about that is kept from the operator.
bool learn_node();

// Where a command line has got to.
struct Place {
    CLI::App *command;                    // the innermost subcommand
    const CLI::Option *option = nullptr;  // the one whose value comes next
    std::vector<std::string> arguments;   // of the command so far
    std::optional<std::string> unknown;   // what stands where a subcommand should
};
Place find_place(CLI::App &app, const std::vector<std::string> &words);

// Names the word of a command line that is wrong, and what was meant, where that can be told.
Failure usage_failure(CLI::App &app, const CLI::ParseError &error,
                      const std::vector<std::string> &words);

// What could follow the last of `words`, which may have begun, one a line; "/" for names of files.
void complete(CLI::App &app, std::vector<std::string> words);

void add_list(CLI::App &app);
void add_clean(CLI::App &app);
void add_commands(CLI::App &app);  // cmd, redirect and exit
void add_evlog(CLI::App &app);
void add_log(CLI::App &app);
void add_stats(CLI::App &app);
void add_who(CLI::App &app);

}  // namespace qelctl
