// SPDX-License-Identifier: Apache-2.0
// The commands that every daemon has.
#pragma once

#include "state.h"

namespace utils::service {

// Own and built-in commands by number, the daemon's own first; null behind the last one.
const daemon_command *command_at(int number);

// What the last command of the client's process gave.
int cmd_result(int argc, char **argv, FILE *out);

}  // namespace utils::service
