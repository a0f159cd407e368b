// SPDX-License-Identifier: Apache-2.0
// qelctl list: the daemons that run, and what dead ones have left behind.
#include <cstdio>

#include "daemons.h"
#include "json.h"
#include "qelctl.h"
#include "text.h"
#include "utils/clock.h"

namespace qelctl {
namespace {

std::string known(int number) {
    return number != 0 ? std::to_string(number) : "-";
}

const char *word_for(Life life) {
    return life == Life::kRunning ? "running" : life == Life::kStale ? "stale" : "unknown";
}

std::string state_of(const Daemon &daemon) {
    std::string note = daemon.life == Life::kUnknown ? daemon.denied ? " (permission denied)" : ""
                       : daemon.life == Life::kStale ? ""
                       : daemon.pid_file == PidFile::kNone  ? " (no pid file)"
                       : daemon.pid_file == PidFile::kWrong ? " (wrong pid file)"
                                                            : "";
    return word_for(daemon.life) + note;
}

std::vector<std::string> owners_of(const Daemon &daemon) {
    std::vector<std::string> names;
    for (uid_t owner : daemon.owners)
        names.push_back(user_name(owner));
    return names;
}

void print_table(const std::vector<Daemon> &daemons) {
    printf("%-4s  %-6s  %-16s  %-7s  %-8s  %-15s  %s\n", "NODE", "SWITCH", "NAME", "PID", "OWNER",
           "SINCE", "STATE");
    for (const Daemon &daemon : daemons) {
        char since[CLOCK_TIME_ROOM] = "-";
        if (daemon.since != 0)
            get_time(daemon.since, since);
        std::string owners;
        for (const std::string &name : owners_of(daemon))
            owners += (owners.empty() ? "" : ",") + name;
        printf("%-4s  %-6d  %-16s  %-7s  %-8s  %-15s  %s\n", known(daemon.node).c_str(),
               daemon.switch_no, visible_name(daemon.name).c_str(), known(daemon.pid).c_str(),
               owners.c_str(), since, state_of(daemon).c_str());
    }
}

void print_document(const std::vector<Daemon> &daemons) {
    Json document = new_document();
    document["daemons"] = Json::array();
    for (const Daemon &daemon : daemons)
        document["daemons"].push_back(
            {{"name", daemon.name},
             {"switch", daemon.switch_no},
             {"node", known_or_null(daemon.node != 0, daemon.node)},
             {"pid", known_or_null(daemon.pid != 0, daemon.pid)},
             {"owners", owners_of(daemon)},
             {"since", known_or_null(daemon.since != 0, daemon.since)},
             {"state", word_for(daemon.life)},
             {"pid_file", daemon.pid_file == PidFile::kNone    ? Json(nullptr)
                          : daemon.pid_file == PidFile::kRight ? Json("right")
                                                               : Json("wrong")}});
    print_json(document);
}

void list() {
    std::vector<Daemon> daemons = find_daemons();
    std::erase_if(daemons, [](const Daemon &daemon) { return is_left_out(daemon.switch_no); });
    common_options().json ? print_document(daemons) : print_table(daemons);
}

}  // namespace

void add_list(CLI::App &app) {
    CLI::App *command =
        add_subcommand(app, "list", "List running daemons and stale entries of dead ones");
    add_switch_option(*command, "Only this logical switch (default: all)");
    add_json_option(*command);
    command->footer(
        "OWNER has the users of the daemon's sockets and pid file: those of others than root\n"
        "prove nothing. PID is the process that serves the daemon's sockets or holds its lock, "
        "else\n"
        "the one in its pid file. STATE is running, with a note where the pid file is missing or\n"
        "names another process; stale when all that is left is proved to be a dead process's; or\n"
        "unknown when the daemon may not be asked.\n\n"
        "JSON: daemons, an array of objects with name, switch, node, pid, owners (an array), "
        "since\n"
        "(start of the process), state (running, stale or unknown) and pid_file (right, wrong, or\n"
        "null without one).");
    command->callback(list);
}

}  // namespace qelctl
