// Lets one allocation of the process fail: the calloc or realloc that a countdown names. It stands
// in the sanitizers' builds too, so that they watch the failure paths. Include it in one source
// file of a test program whose library calls come from one thread.
#pragma once

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace support {

inline int failing = 0;  // 1: the next allocation fails, 2: the one after it, ...; 0: none

inline bool allocation_fails() {
    return failing > 0 && --failing == 0;
}

// Runs `call` with its first, then its second, ... allocation failing, each time followed by
// `refused(result)`, until it runs through undisturbed. Returns its result then.
template <typename Call, typename Refused>
auto with_each_failure(Call call, Refused refused) {
    for (int nth = 1;; ++nth) {
        failing = nth;
        auto result = call();
        bool undisturbed = failing > 0;
        failing = 0;
        if (undisturbed)
            return result;
        refused(result);
    }
}

}  // namespace support

extern "C" {
// Both stand on malloc, which is nobody's fake. The barrier keeps the compiler from seeing a
// calloc.
void *calloc(size_t count, size_t size) noexcept {
    size_t bytes = 0;
    if (support::allocation_fails() || __builtin_mul_overflow(count, size, &bytes))
        return nullptr;
    void *block = malloc(bytes);
    __asm__ volatile("" : "+r"(block)::"memory");
    return block != nullptr ? memset(block, 0, bytes) : nullptr;
}

void *realloc(void *old, size_t size) noexcept {
    void *block = support::allocation_fails() ? nullptr : malloc(size);
    if (block != nullptr)
        memset(block, 0x5A, size);
    if (block != nullptr && old != nullptr) {
        memcpy(block, old, std::min(size, malloc_usable_size(old)));
        free(old);
    }
    return block;
}
}
