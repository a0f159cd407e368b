// SPDX-License-Identifier: Apache-2.0
// Node, switch, slot and pic of this process. Each number is computed once and cached in a relaxed
// atomic; nothing is locked, since two threads that compute it at once find the same number. The
// text that putenv() was given lives here for ever.
#include "utils/identity.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"
#include "base/memory_order.h"
#include "base/retry.h"
#include "base/write_all.h"
#include "utils/cla.h"

namespace utils {
namespace {

constexpr const char *kNodeFile = "/config/haconfig";
constexpr const char *kUptimeFile = "/proc/uptime";
constexpr const char *kDateFiles[] = {"/etc/korin/datefile0", "/etc/korin/datefile1"};
// Kept: node 245 stands for "not read yet".
constexpr int32_t kNodeUnread = 245;
constexpr int32_t kUnread = -1;

std::atomic<int32_t> node{kNodeUnread};
std::atomic<int32_t> switch_number{kUnread};
std::atomic<int32_t> slot{kUnread};
std::atomic<int32_t> pic{kUnread};

char switch_variable[69];

// Negative numbers are out of range, too.
int32_t within(int32_t n, uint32_t max) {
    return static_cast<uint32_t>(n) > max ? 0 : n;
}

// The number in an environment variable, once; kUnread becomes 0 as any bad value does.
int32_t cached(std::atomic<int32_t> &cache, const char *variable, uint32_t max) {
    int32_t value = cache.load(kRelaxed);
    if (value == kUnread) {
        clafGetInt(getenv(variable), &value);
        value = within(value, max);
        cache.store(value, kRelaxed);
    }
    return value;
}

int32_t node_from_file() {
    Descriptor file(open(kNodeFile, O_RDONLY | O_CLOEXEC));
    if (!file) {
        perror("open haconfig:");
        return IDENTITY_NODE_B;
    }
    unsigned char words[12] = {};
    // A short file leaves zeros, which name no node.
    [[maybe_unused]] ssize_t got = read(file.get(), words, sizeof words);
    return (words[4] << 8 | words[5]) == IDENTITY_NODE_A ? IDENTITY_NODE_A : IDENTITY_NODE_B;
}

// Through a value list, so that the compiler does not take for granted that formatting works.
__attribute__((format(printf, 1, 2))) int format_variable(const char *format, ...) {
    va_list values;
    va_start(values, format);
    int length = vsnprintf(switch_variable, sizeof switch_variable, format, values);
    va_end(values);
    return length;
}

bool copy_file(int from, int to) {
    char chunk[256];
    for (;;) {
        ssize_t got = retry([&] { return read(from, chunk, sizeof chunk); });
        if (got <= 0)
            return got == 0;
        if (!write_all(to, chunk, static_cast<size_t>(got)))
            return false;
    }
}

}  // namespace
}  // namespace utils

using namespace utils;

uint16_t myNode(void) {
    int32_t known = node.load(kRelaxed);
    if (known == kNodeUnread) {
        known = node_from_file();
        node.store(known, kRelaxed);
    }
    return static_cast<uint16_t>(known);
}

uint16_t peerNode(void) {
    return myNode() == IDENTITY_NODE_A ? IDENTITY_NODE_B : IDENTITY_NODE_A;
}

int getMySwitch(void) {
    return cached(switch_number, IDENTITY_ENV_SWITCH, IDENTITY_SWITCH_MAX);
}

int setMySwitch(int n) {
    constexpr const char *kFormat = "%s=%d";
    if (within(n, IDENTITY_SWITCH_MAX) != n)
        return IDENTITY_ERR_RANGE;
    int length = format_variable(kFormat, IDENTITY_ENV_SWITCH, n);
    if (length < 1) {
        printf("setMySwitch: snprintf(%s, %s, %d) returned %d\n", kFormat, IDENTITY_ENV_SWITCH, n,
               length);
        return length;
    }
    putenv(switch_variable);
    switch_number.store(n, kRelaxed);
    return 0;
}

int exportMySwitch(int n) {
    if (within(n, IDENTITY_SWITCH_MAX) != n)
        return IDENTITY_ERR_RANGE;
    printf("export %s=%d", IDENTITY_ENV_SWITCH, n);
    return 0;
}

int getMySlot(void) {
    return cached(slot, IDENTITY_ENV_SLOT, IDENTITY_SLOT_MAX);
}

int getMyPic(void) {
    return cached(pic, IDENTITY_ENV_PIC, IDENTITY_PIC_MAX);
}

// Kept: the result is always an error.
int clafMySwitch(const char *text, void *out) {
    int32_t value = 0;
    if (clafGetInt(text, &value) == 0 && out != nullptr)
        *static_cast<uint16_t *>(out) = static_cast<uint16_t>(value);
    return IDENTITY_ERR_RANGE;
}

int clafMySlot(const char *text, void *out) {
    return clafGetInt(text, out);
}

int clafMyPic(const char *text, void *out) {
    if (text == nullptr || (text[0] != 'A' && text[0] != 'a') || text[1] != '\0')
        return 1;
    if (out != nullptr)
        *static_cast<int32_t *>(out) = 1;
    return 0;
}

int setSwitchStarttime(int which) {
    if (which != 0 && which != 1)
        return -1;
    Descriptor source(open(kUptimeFile, O_RDONLY | O_CLOEXEC));
    if (!source)
        return -1;
    // A link is followed: only root can have made it in this directory.
    Descriptor target(open(kDateFiles[which], O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!target)
        return -1;
    return copy_file(source.get(), target.get()) ? 0 : -1;
}

int setStartall(void) {
    return setSwitchStarttime(0) == 0 ? setSwitchStarttime(1) : -1;
}
