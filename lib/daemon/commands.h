// SPDX-License-Identifier: Apache-2.0
// The commands that every daemon has.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "state.h"

namespace utils::service {

// Own and built-in commands by number, the daemon's own first; null behind the last one.
const daemon_command *command_at(int number);

// What a command says before its client gets it: one that does not read must hold nobody up. Memory
// may run out at the end, where fclose() gives success, a length and no text.
class Collected {
  public:
    Collected() : stream_(open_memstream(&text_, &size_)) {}
    ~Collected() { free(text_); }
    Collected(const Collected &) = delete;
    Collected &operator=(const Collected &) = delete;

    FILE *stream() const { return stream_; }

    // Ends the collection. False, and nothing is written, when memory has run out.
    bool give_to(FILE *out) {
        bool whole = fclose(stream_) == 0 && text_ != nullptr;
        if (whole)
            fwrite(text_, 1, size_, out);
        return whole;
    }

  private:
    char *text_ = nullptr;
    size_t size_ = 0;
    FILE *stream_;
};

// What the last command of the client's process gave.
int cmd_result(int argc, char **argv, FILE *out);

}  // namespace utils::service
