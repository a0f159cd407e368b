// SPDX-License-Identifier: Apache-2.0
#include "support/support.h"

#include <dlfcn.h>

UTILS_TESTING_HEAP
UTILS_TESTING_AUDIT

namespace support {

std::string own_words(const Ending &ending) {
    return emulated() ? ending.err.substr(0, ending.err.find(emulator() + ": ")) : ending.err;
}

void read_late(const std::string &path) {
    const timespec times[2] = {{INT64_C(0x80000000), 0}, {0, UTIME_OMIT}};
    if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) {
        perror(path.c_str());
        abort();
    }
}

bool emulated() {
    return getenv("UTILS_EMULATOR") != nullptr;
}

std::string emulator() {
    std::string path = getenv("UTILS_EMULATOR"), name = path.substr(path.rfind('/') + 1);
    return name.substr(0, name.find('-'));
}

bool is_stand_in(const char *function) {
    Dl_info info{};
    void *next = dlsym(RTLD_NEXT, function);  // behind the test program, which may define its own
    return next != nullptr && dladdr(next, &info) != 0 &&
           std::string_view(info.dli_fname).find("/libutils-platform.so") != std::string_view::npos;
}

std::string runnable(const std::string &command) {
    return emulated() ? getenv("UTILS_EMULATOR") + (" " + command) : command;
}

}  // namespace support
