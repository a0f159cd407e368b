// SPDX-License-Identifier: Apache-2.0
// Event logs of living and dead processes, read from their trace sections.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "utils/evlog.h"
#include "utils/platform/posix/trace_files.h"

namespace qelctl {

struct Event {
    uint64_t time_us;  // since 1970
    std::string text;  // without its line end
    std::string line;  // as the library formats it
};

// A copy of a section, ready for qel_evlog_dump(). It is copied before it is looked at, and
// everything in it is checked: its writer may be running, dead or another program altogether.
class Section {
  public:
    explicit Section(const std::filesystem::path &path);

    qel_evlog_handle *log() { return &bytes_[0]; }
    uid_t owner() const { return owner_; }
    std::string name() { return text_in(log()->name, sizeof log()->name); }
    std::string shortcut() { return text_in(log()->shortcut, sizeof log()->shortcut); }
    int total() { return log()->total; }
    // How many events were ever written, modulo what the header can count.
    int position() { return log()->wrapped * total() + log()->current; }
    int positions() { return 256 * total(); }
    // The position of the oldest event that is still there; below 0 when the count began anew.
    int oldest();
    // Events from position `first` to the one before `last`.
    std::vector<Event> events(int first, int last);
    std::vector<Event> events() { return events(oldest(), position()); }

  private:
    bool prepare(size_t size);
    static std::string text_in(const char *text, size_t room);
    qel_evlog_entry &entry(int position);

    std::vector<qel_evlog_handle> bytes_;
    uid_t owner_ = 0;
};

struct SectionFile {
    std::filesystem::path path;
    int pid = 0, section = 0;
    std::string program, name;
    uid_t owner = 0;
    std::optional<trace_owner> writer;
    std::string daemon;  // by the pid file that names the process, else the program

    std::string switch_text() const { return writer ? std::to_string(writer->switch_no) : "-"; }
};

// A process of the same number that started at another time is another one.
bool is_alive(const SectionFile &file);

// The section files by process and number, without those that --switch leaves out.
std::vector<SectionFile> section_files();

// The file of a section: a name in the directory of sections, or a path.
SectionFile section_file(const std::string &name);

// Anyone can leave a section under any process's number. What root did not write says so in every
// line, since its texts may look like anything.
std::string line_mark(uid_t owner);

}  // namespace qelctl
