// SPDX-License-Identifier: Apache-2.0
// qelctl evlog --timeline: event logs to look at. A trace-event file has a process for each daemon
// process and a thread for each log; the page holds the same data, drawn by a script of its own.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <tuple>

#include "evlog.h"
#include "json.h"
#include "qelctl.h"
#include "text.h"
#include "timeline_page.h"

namespace qelctl {
namespace {

// A viewer tells processes apart by their numbers alone, which the system gives out again, and the
// threads of one as well.
class Numbers {
  public:
    int process(const SectionFile &file) {
        Owner owner{file.pid, file.writer ? file.writer->start : 0, file.owner, file.daemon};
        auto [found, is_new] = processes_.try_emplace(owner, file.pid);
        if (is_new)
            found->second = free_from(file.pid, taken_);
        return found->second;
    }
    int thread(int process, int section) { return free_from(section, threads_[process]); }

  private:
    using Owner = std::tuple<int, uint64_t, uid_t, std::string>;

    static int free_from(int number, std::set<int> &taken) {
        number = std::max(number, 1);
        while (!taken.insert(number).second)
            number = number % 0x7fffffff + 1;
        return number;
    }

    std::map<Owner, int> processes_;
    std::set<int> taken_;
    std::map<int, std::set<int>> threads_;
};

std::string daemon_label(const SectionFile &file) {
    std::string owner = file.owner == 0 ? "" : user_name(file.owner) + ": ";
    std::string name = file.daemon.empty() ? file.path.filename().string() : file.daemon;
    return owner + visible_name(name) + ", switch " + file.switch_text() + ", process " +
           (file.pid > 0 ? std::to_string(file.pid) : "-") +
           (file.pid > 0 && !is_alive(file) ? " (dead)" : "");
}

Json name_event(const char *what, int process, int thread, const std::string &name) {
    return {
        {"name", what}, {"ph", "M"}, {"pid", process}, {"tid", thread}, {"args", {{"name", name}}}};
}

Json trace_events(const std::vector<SectionFile> &files, std::optional<Failure> &failure) {
    Json events = Json::array();
    Numbers numbers;
    std::set<int> named;
    failure = each_log(files, [&](const SectionFile &file, Section &section) {
        int process = numbers.process(file), thread = numbers.thread(process, file.section);
        std::string log = visible_name(section.name());
        if (named.insert(process).second)
            events.push_back(name_event("process_name", process, 0, daemon_label(file)));
        events.push_back(name_event("thread_name", process, thread, log));
        for (const Event &event : section.events())
            events.push_back({{"name", visible_name(event.text)},
                              {"cat", log},
                              {"ph", "i"},
                              {"s", "t"},
                              {"ts", event.time_us},
                              {"pid", process},
                              {"tid", thread}});
    });
    return events;
}

std::string trace_file(const std::vector<SectionFile> &files, std::optional<Failure> &failure) {
    return text_of({{"displayTimeUnit", "ms"}, {"traceEvents", trace_events(files, failure)}}) +
           "\n";
}

// Nothing in the data ends the element of the page that holds it.
std::string inside_page(const Json &json) {
    std::string text;
    for (char c : text_of(json)) {
        if (c == '<' || c == '>' || c == '&')
            text += c == '<' ? "\\u003c" : c == '>' ? "\\u003e" : "\\u0026";
        else
            text += c;
    }
    return text;
}

std::string page(const std::vector<SectionFile> &files, std::optional<Failure> &failure) {
    Json tracks = Json::array();
    failure = each_log(files, [&](const SectionFile &file, Section &section) {
        Json events = Json::array();
        for (const Event &event : section.events())
            events.push_back({event.time_us, visible_name(event.text)});
        tracks.push_back({{"daemon", daemon_label(file)},
                          {"log", visible_name(section.name())},
                          {"events", std::move(events)}});
    });
    std::string text = kTimelinePage;
    constexpr const char *kMark = "TIMELINE_DATA";
    size_t at = text.find(kMark);
    return text.replace(at, std::string(kMark).size(), inside_page(tracks));
}

void write_file(const std::string &path, const std::string &text) {
    std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path.c_str(), "we"), fclose);
    if (!file)
        throw system_failure(path);
    if (fwrite(text.data(), 1, text.size(), file.get()) != text.size() || fflush(file.get()) != 0)
        throw system_failure("cannot write " + path);
}

}  // namespace

void write_timeline(const std::vector<SectionFile> &files, const std::string &path) {
    bool is_page = path.size() > 5 && path.compare(path.size() - 5, 5, ".html") == 0;
    std::optional<Failure> failure;
    std::string text = is_page ? page(files, failure) : trace_file(files, failure);
    if (path != "-")
        write_file(path, text);
    else if (fwrite(text.data(), 1, text.size(), stdout) != text.size())
        fail_to_write();
    if (failure)
        throw Failure(*failure);
}

}  // namespace qelctl
