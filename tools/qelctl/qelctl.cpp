// SPDX-License-Identifier: Apache-2.0
#include "qelctl.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "text.h"
#include "utils/identity.h"

namespace qelctl {

Failure system_failure(const std::string &what) {
    return Failure(what + ": " + strerror(errno));
}

void report(const std::exception &failure) {
    fflush(stdout);
    fprintf(stderr, "qelctl: %s\n", visible_name(failure.what()).c_str());
}

CLI::App *add_subcommand(CLI::App &parent, const std::string &name,
                         const std::string &description) {
    CLI::App *command = parent.add_subcommand(name, description);
    command->set_version_flag("--version", "qelctl " QELCTL_VERSION, "Print the version and exit");
    return command;
}

bool output_closed() {
    pollfd output{STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & (POLLERR | POLLHUP)) != 0;
}

void fail_to_write() {
    int reason = errno;
    if (output_closed())
        throw OutputClosed();
    errno = reason;
    throw system_failure("cannot write");
}

namespace {

CommonOptions common;

}  // namespace

const CommonOptions &common_options() {
    return common;
}

void add_switch_option(CLI::App &command, const std::string &description) {
    command
        .add_option_function<int>(
            "-s,--switch",
            [](int number) {
                common.switch_no = number;
                setMySwitch(number);
            },
            description)
        ->check(CLI::Range(0, IDENTITY_SWITCH_MAX))
        ->type_name("N");
}

bool is_left_out(int switch_no) {
    return common.switch_no && *common.switch_no != switch_no;
}

void add_json_option(CLI::App &command) {
    command.add_flag("--json", common.json, "Print JSON (described below)");
}

bool learn_node() {
    constexpr const char *kNodeFile = "/config/haconfig";
    if (access(kNodeFile, R_OK) == 0) {
        myNode();
        return true;
    }
    fflush(stderr);
    int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved >= 0 && nowhere >= 0 && dup2(nowhere, STDERR_FILENO) >= 0) {
        myNode();
        dup2(saved, STDERR_FILENO);
    }
    if (nowhere >= 0)
        close(nowhere);
    if (saved >= 0)
        close(saved);
    return false;
}

}  // namespace qelctl
