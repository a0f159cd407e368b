#include "qelctl.h"

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

void add_switch_option(CLI::App &command) {
    command
        .add_option_function<int>(
            "-s,--switch", [](int number) { setMySwitch(number); },
            "Logical switch of the daemon (default: KORIN_SWITCHNO, else 0)")
        ->check(CLI::Range(0, 240))
        ->type_name("N");
}

}  // namespace qelctl
