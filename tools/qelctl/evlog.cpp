// SPDX-License-Identifier: Apache-2.0
// qelctl evlog: event logs of living and dead processes, listed, printed, followed and drawn.
#include "evlog.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>

#include "json.h"
#include "process.h"
#include "qelctl.h"
#include "text.h"

namespace qelctl {
namespace {

const char *state_of(const SectionFile &file) {
    return is_alive(file) ? "running" : "dead";
}

void print_list(const std::vector<SectionFile> &files) {
    printf("%-7s  %-7s  %-8s  %-16s  %-20s  %-6s  %-7s  %s\n", "PID", "SECTION", "OWNER", "PROGRAM",
           "NAME", "SWITCH", "STATE", "DAEMON");
    for (const SectionFile &file : files)
        printf("%-7d  %-7d  %-8s  %-16s  %-20s  %-6s  %-7s  %s\n", file.pid, file.section,
               user_name(file.owner).c_str(), visible_name(file.program).c_str(),
               visible_name(file.name).c_str(), file.switch_text().c_str(), state_of(file),
               visible_name(file.daemon).c_str());
}

std::string day_of(const Event &event) {
    auto seconds = static_cast<time_t>(event.time_us / 1000000);
    tm local{};
    char text[32] = "";
    if (localtime_r(&seconds, &local) != nullptr)
        strftime(text, sizeof text, "%Y-%m-%d", &local);
    return text;
}

// The days of the first event and the last: the events themselves say the time of day only.
std::string days_of(Section &section) {
    std::vector<Event> events = section.events();
    if (events.empty())
        return "no events";
    std::string first = day_of(events.front()), last = day_of(events.back());
    return first == last ? first : first + " to " + last;
}

void dump(const SectionFile &file, Section &section) {
    VisibleOutput output(line_mark(section.owner()));
    fprintf(output.stream(), "daemon             :%s\n",
            file.daemon.empty() ? "-" : visible_name(file.daemon).c_str());
    fprintf(output.stream(), "switch             :%s\n", file.switch_text().c_str());
    if (file.pid > 0)
        fprintf(output.stream(), "process            :%d (%s)\n", file.pid, state_of(file));
    else
        fprintf(output.stream(), "process            :-\n");
    fprintf(output.stream(), "date               :%s\n", days_of(section).c_str());
    fprintf(output.stream(), "owner              :%s\n", user_name(section.owner()).c_str());
    qel_evlog_dump(output.stream(), section.log(), 1);
}

Json description_of(const SectionFile &file) {
    return {{"daemon", known_or_null(!file.daemon.empty(), file.daemon)},
            {"switch", file.writer ? Json(file.writer->switch_no) : Json(nullptr)},
            {"pid", known_or_null(file.pid > 0, file.pid)},
            {"section", known_or_null(file.pid > 0, file.section)},
            {"program", known_or_null(!file.program.empty(), file.program)},
            {"state", file.pid > 0 ? Json(state_of(file)) : Json(nullptr)},
            {"owner", user_name(file.owner)},
            {"file", file.path.string()}};
}

Json log_of(const SectionFile &file, Section &section) {
    Json log = description_of(file);
    log["owner"] = user_name(section.owner());
    log["name"] = section.name();
    log["shortcut"] = section.shortcut();
    log["entries"] = section.total();
    log["events"] = Json::array();
    for (const Event &event : section.events())
        log["events"].push_back(
            {{"time", static_cast<double>(event.time_us) / 1e6}, {"text", event.text}});
    return log;
}

void print_document(const std::vector<SectionFile> &files, bool with_events) {
    Json document = new_document();
    document["logs"] = Json::array();
    std::optional<Failure> failure;
    if (with_events)
        failure = each_log(files, [&](const SectionFile &file, Section &section) {
            document["logs"].push_back(log_of(file, section));
        });
    else
        for (const SectionFile &file : files)
            document["logs"].push_back(description_of(file));
    print_json(document);
    if (failure)
        throw Failure(*failure);
}

struct Choice {
    std::vector<int> pids;
    std::vector<std::string> files, daemons;
    bool follow = false;
    std::string timeline;

    bool any() const { return !pids.empty() || !files.empty() || !daemons.empty(); }
    bool holds(const SectionFile &file) const {
        return !any() || std::count(pids.begin(), pids.end(), file.pid) > 0 ||
               std::count(daemons.begin(), daemons.end(), file.daemon) > 0 ||
               std::count(daemons.begin(), daemons.end(), file.program) > 0;
    }
};

std::vector<SectionFile> chosen(const Choice &choice) {
    std::vector<SectionFile> files;
    for (const std::string &name : choice.files)
        files.push_back(section_file(name));
    if (!choice.any() || !choice.pids.empty() || !choice.daemons.empty())
        for (const SectionFile &file : section_files())
            if (choice.holds(file))
                files.push_back(file);
    return files;
}

// Every process and daemon that was asked for has a log.
void require_logs(const Choice &choice, const std::vector<SectionFile> &files) {
    for (int pid : choice.pids)
        if (std::none_of(files.begin(), files.end(), [&](auto &file) { return file.pid == pid; }))
            throw Failure("process " + std::to_string(pid) + " has left no event log");
    for (const std::string &name : choice.daemons)
        if (std::none_of(files.begin(), files.end(),
                         [&](auto &file) { return file.daemon == name || file.program == name; }))
            throw Failure("daemon " + name + " has left no event log");
}

void show(const Choice &choice) {
    if (choice.follow)
        return follow([&] { return chosen(choice); });
    std::vector<SectionFile> files = chosen(choice);
    require_logs(choice, files);
    if (!choice.timeline.empty())
        write_timeline(files, choice.timeline);
    else if (common_options().json)
        print_document(files, choice.any());
    else if (!choice.any())
        print_list(files);
    else if (std::optional<Failure> failure = each_log(files, dump))
        throw Failure(*failure);
}

}  // namespace

std::optional<Failure> each_log(const std::vector<SectionFile> &files,
                                const std::function<void(const SectionFile &, Section &)> &visit) {
    std::optional<Failure> failure;
    for (const SectionFile &file : files) {
        try {
            Section section(file.path);
            visit(file, section);
        } catch (const Failure &reason) {
            if (failure)
                report(*failure);
            failure = reason;
        }
    }
    return failure;
}

void add_evlog(CLI::App &app) {
    static Choice choice;
    CLI::App *command =
        add_subcommand(app, "evlog", "Print event logs of living and dead processes");
    add_switch_option(*command, "Only logs of this logical switch (default: all)");
    add_json_option(*command);
    command->add_option("--pid", choice.pids, "Every log of this process; may be repeated")
        ->check(CLI::Range(1, INT_MAX))
        ->allow_extra_args(false)
        ->type_name("PID");
    command
        ->add_option("--daemon", choice.daemons,
                     "Every log of processes of this daemon or program; may be repeated")
        ->allow_extra_args(false)
        ->type_name("DAEMON");
    command
        ->add_option("--file", choice.files,
                     "One section: a file name of the list, or a path; may be repeated")
        ->allow_extra_args(false)
        ->type_name("SECTION");
    auto *follow = command->add_flag("--follow", choice.follow,
                                     "Print events as they come, until the processes are dead");
    command
        ->add_option("--timeline", choice.timeline,
                     "Write the logs to FILE for a viewer instead ('-': standard output)")
        ->excludes(follow)
        ->type_name("FILE");
    command->footer(
        "Without --pid, --daemon and --file, lists the logs that there are; --follow and "
        "--timeline\n"
        "then take all. DAEMON is the daemon's name where a pid file says it, else the program's.\n"
        "Each log is headed by its daemon, switch, process, the day of its first event and of its\n"
        "last, and its owner. Lines of a log that root does not own begin with its owner's name.\n"
        "Followed together, each line names daemon, process and log.\n\n"
        "A timeline is a trace-event file (JSON) for chrome://tracing or Perfetto, with one track "
        "a\n"
        "daemon and log; when FILE ends in .html it is a page by itself that any browser shows\n"
        "without a network, with zoom, search and a colour for each log. Control characters in\n"
        "texts are shown as \\xNN there.\n\n"
        "JSON: logs, an array of objects with daemon, switch, pid, section, program, state "
        "(running\n"
        "or dead), owner and file; of those asked for also name, shortcut, entries (the size of "
        "the\n"
        "ring) and events, the oldest first: time (with a fraction) and text. With --follow one\n"
        "object a line and event: format, daemon, switch, pid, log, time and text.");
    command->callback([] { show(choice); });
}

}  // namespace qelctl
