// SPDX-License-Identifier: Apache-2.0
// The per-thread context: 32 bytes that a program may set and read.
#include "utils/platform/context.h"

#include <cstring>

namespace {

constexpr unsigned kContextSize = 32;
thread_local unsigned char context[kContextSize];

}  // namespace

int ep_context(const void *from, void *to) {
    if (to != nullptr)
        memcpy(to, context, kContextSize);
    if (from != nullptr)
        memcpy(context, from, kContextSize);
    return 0;
}

unsigned sizeof_geps(void) {
    return kContextSize;
}
