// qelctl: what an operator asks of the daemons of a switch, one subcommand a question.
#include <csignal>
#include <cstdio>
#include <cstring>

#include "qelctl.h"
#include "utils/identity.h"

namespace qelctl {

Failure system_failure(const std::string &what) {
    return Failure(what + ": " + strerror(errno));
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

int main(int argc, char **argv) {
    using namespace qelctl;
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

    signal(SIGPIPE, SIG_IGN);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0)
            return app.exit(error);
        fprintf(stderr, "qelctl: %s (see qelctl --help)\n", error.what());
        return kUsage;
    } catch (const Failure &failure) {
        fflush(stdout);
        fprintf(stderr, "qelctl: %s\n", failure.what());
        return failure.exit_status();
    }
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        fprintf(stderr, "qelctl: cannot write: %s\n", strerror(errno));
        return kFailed;
    }
    return kDone;
}
