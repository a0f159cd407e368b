// SPDX-License-Identifier: Apache-2.0
// Text of others on its way to the operator: log lines, names of files, daemons and users. None of
// it gets to control the terminal: control characters, and those that turn the direction of text,
// are shown as \xNN or \uNNNN, and what is not UTF-8 as U+FFFD.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace qelctl {

// Checks text that comes in pieces of any size. Line ends and tabs stay.
class TextFilter {
  public:
    // What of `piece` can be shown; a character whose rest has yet to come is kept back.
    std::string pass(std::string_view piece);
    // What was kept back, when nothing more comes.
    std::string end();

  private:
    std::string pending_;
};

std::string visible_text(std::string_view text);

// The same in one line: line ends and tabs are control characters here.
std::string visible_name(std::string_view name);

// A decimal number within bounds and nothing else; none otherwise.
std::optional<int> number_in(std::string_view text, int lowest, int highest);

// "root", another user's name, or the number of one who has none. Only user 0 is called root.
std::string user_name(uid_t user);

// A stream whose text is checked on its way to standard output; each line begins with `prefix`.
class VisibleOutput {
  public:
    explicit VisibleOutput(const std::string &prefix = "");
    ~VisibleOutput();
    VisibleOutput(const VisibleOutput &) = delete;
    VisibleOutput &operator=(const VisibleOutput &) = delete;
    FILE *stream() { return stream_; }

  private:
    static ssize_t write(void *output, const char *bytes, size_t count);
    bool print(const std::string &text);

    TextFilter filter_;
    std::string prefix_;
    bool at_line_start_ = true;
    FILE *stream_;
};

}  // namespace qelctl
