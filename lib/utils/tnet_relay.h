// SPDX-License-Identifier: Apache-2.0
// The client's half of a remote command: what the daemon prints, on its way to an output.
#pragma once

namespace utils {

// Copies what comes from `socket` to `out` until the connection ends; both below FD_SETSIZE.
void relay_output(int socket, int out);

}  // namespace utils
