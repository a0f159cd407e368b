// qelctl list: the daemons that run, and what dead ones have left behind.
#include <cstdio>

#include "daemons.h"
#include "qelctl.h"
#include "text.h"
#include "utils/clock.h"

namespace qelctl {
namespace {

std::string known(int number) {
    return number != 0 ? std::to_string(number) : "-";
}

void list() {
    printf("%-4s  %-6s  %-16s  %-7s  %-15s  %s\n", "NODE", "SWITCH", "NAME", "PID", "SINCE",
           "STATE");
    for (const Daemon &daemon : find_daemons()) {
        char since[32] = "-";
        if (daemon.since != 0)
            get_time(daemon.since, since);
        printf("%-4s  %-6d  %-16s  %-7s  %-15s  %s\n", known(daemon.node).c_str(), daemon.switch_no,
               visible_name(daemon.name).c_str(), known(daemon.pid).c_str(), since,
               daemon.alive ? "running" : "stale");
    }
}

}  // namespace

void add_list(CLI::App &app) {
    CLI::App *command =
        add_subcommand(app, "list", "List running daemons and stale entries of dead ones");
    command->callback(list);
}

}  // namespace qelctl
