// SPDX-License-Identifier: Apache-2.0
// qelctl evlog --follow: several logs of several processes, in the order of their events.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "evlog.h"
#include "json.h"
#include "qelctl.h"
#include "text.h"

namespace qelctl {
namespace {

constexpr int kPauseMs = 100;
constexpr int kSearchEvery = 10;  // pauses

struct Followed {
    SectionFile file;
    bool ended = false;
    bool started = false;
    int last = 0;  // the position behind what was printed
    std::string name;
};

struct Line {
    const Followed *log;
    uid_t owner;
    Event event;
};

// Appends what has come to the log since the last time.
void collect(Followed &log, std::vector<Line> &lines) {
    bool ends = log.file.pid > 0 && !is_alive(log.file);
    Section section(log.file.path);
    int position = section.position();
    if (!log.started)
        log.last = section.oldest();
    if (position < log.last)
        position += section.positions();
    // A writer that has lapped us leaves only what the ring still holds.
    int first = std::max(log.last, position - section.total());
    for (Event &event : section.events(first, position))
        lines.push_back({&log, section.owner(), std::move(event)});
    log.last = position % section.positions();
    log.name = section.name();
    log.started = true;
    log.ended = ends;
}

Json json_of(const Line &line) {
    const SectionFile &file = line.log->file;
    Json event = new_document();
    event["daemon"] = known_or_null(!file.daemon.empty(), file.daemon);
    event["switch"] = file.writer ? Json(file.writer->switch_no) : Json(nullptr);
    event["pid"] = known_or_null(file.pid > 0, file.pid);
    event["log"] = line.log->name;
    event["time"] = static_cast<double>(line.event.time_us) / 1e6;
    event["text"] = line.event.text;
    return event;
}

void print(std::vector<Line> &lines, bool together) {
    std::stable_sort(lines.begin(), lines.end(), [](const Line &a, const Line &b) {
        return a.event.time_us < b.event.time_us;
    });
    for (const Line &line : lines) {
        if (common_options().json) {
            print_json(json_of(line));
            continue;
        }
        const SectionFile &file = line.log->file;
        std::string prefix = line_mark(line.owner);
        if (together)
            prefix += visible_name(file.daemon) + "[" + std::to_string(file.pid) + "] " +
                      visible_name(line.log->name) + ": ";
        VisibleOutput output(prefix);
        fputs(line.event.line.c_str(), output.stream());
    }
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        fail_to_write();
}

// Waits for new events, or until nobody reads what is printed.
void pause() {
    pollfd output{STDOUT_FILENO, 0, 0};
    poll(&output, 1, kPauseMs);
    if (output_closed())
        throw OutputClosed();
}

class Follower {
  public:
    void add(const std::vector<SectionFile> &files) {
        for (const SectionFile &file : files)
            logs_.try_emplace(file.path, Followed{file, false, false, 0, ""});
    }

    // False when all writers are dead.
    bool round() {
        std::vector<Line> lines;
        bool more = false;
        for (auto &[path, log] : logs_) {
            if (log.ended)
                continue;
            try {
                collect(log, lines);
            } catch (const Failure &failure) {
                fail(log, failure);
            }
            more |= !log.ended;
        }
        print(lines, logs_.size() > 1);
        return more;
    }

  private:
    // A log that cannot be read, or no longer, ends no other.
    void fail(Followed &log, const Failure &failure) {
        if (logs_.size() == 1)
            throw failure;
        report(failure);
        log.ended = true;
    }

    std::map<std::string, Followed> logs_;
};

}  // namespace

void follow(const FindSections &find) {
    Follower follower;
    std::vector<SectionFile> files = find();
    if (files.empty())
        throw Failure("there is no event log");
    follower.add(files);
    for (int pauses = 1; follower.round(); ++pauses) {
        pause();
        if (pauses % kSearchEvery == 0)
            follower.add(find());
    }
}

}  // namespace qelctl
