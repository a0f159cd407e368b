// SPDX-License-Identifier: Apache-2.0
// The requester's side of the messages between processes.
#pragma once

#include "utils/platform/ipc.h"

namespace utils::ipc {

// Sends a message that nobody answers. 0, or a negated errno value.
int send_one_way(const ipc_address &address, int code, const void *data, uint32_t length,
                 const uint32_t timeout[2]);

}  // namespace utils::ipc
