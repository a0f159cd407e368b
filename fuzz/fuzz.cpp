// SPDX-License-Identifier: Apache-2.0
// Hostile bytes for everything that reads bytes of others: a table of targets. With a fuzzer's main
// program the environment's FUZZ_TARGET names the one that gets the inputs; with our own, every
// target gets the inputs that are kept for it:   fuzz_corpus CORPUS-DIRECTORY
// Run it inside the test sandbox.
#include "fuzz/fuzz.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

const struct {
    std::string_view name;
    void (*run)(fuzz::Input);
} kTargets[] = {
    {"command", fuzz::command},       {"arguments", fuzz::arguments},
    {"packets", fuzz::packets},       {"replies", fuzz::replies},
    {"compressed", fuzz::compressed}, {"tagged", fuzz::tagged},
    {"options", fuzz::options},       {"places", fuzz::places},
    {"letters", fuzz::letters},       {"prompt", fuzz::prompt},
    {"numbers", fuzz::numbers},       {"connections", fuzz::connections},
    {"section", fuzz::section},
};

}  // namespace

// Files that requests name are not made, and the system's tables are the input's.
extern "C" int open(const char *path, int flags, ...) {
    va_list values;
    va_start(values, flags);
    mode_t mode = (flags & O_CREAT) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    path = fuzz::faked_path != nullptr ? fuzz::faked_path : path;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_LARGEFILE, mode));
}

extern "C" FILE *fopen(const char *path, const char *mode) {
    using Function = FILE *(const char *, const char *);
    static auto *real = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, "fopen64"));
    return real(fuzz::faked_path != nullptr ? fuzz::faked_path : path, mode);
}

#ifdef UTILS_FUZZER

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const auto *target = std::find_if(std::begin(kTargets), std::end(kTargets), [](auto &t) {
        const char *wanted = getenv("FUZZ_TARGET");
        return wanted != nullptr && t.name == wanted;
    });
    fuzz::require(target != std::end(kTargets));
    target->run({{reinterpret_cast<const char *>(data), size}});
    return 0;
}

#else

int main(int, char **argv) {
    FILE *report = fdopen(dup(STDOUT_FILENO), "w");
    dup2(open("/dev/null", O_RDWR), STDOUT_FILENO);
    dup2(STDOUT_FILENO, STDERR_FILENO);
    for (auto [name, run] : kTargets) {
        int count = 0;
        for (auto &file : std::filesystem::directory_iterator(std::string(argv[1]) + "/" += name)) {
            fprintf(report, "%s\n", file.path().c_str());
            fflush(report);
            std::ifstream stream(file.path(), std::ios::binary);
            std::string bytes{std::istreambuf_iterator<char>(stream), {}};
            run({bytes});
            ++count;
        }
        fuzz::require(count > 0);
    }
}

#endif
