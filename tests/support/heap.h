// Counts the allocations of the whole process, and refuses them on demand; include it in one source
// file of a test program. The sanitizers own malloc: beside the address sanitizer only calloc and
// realloc are faked (UTILS_FAKE_HEAP), beside the thread sanitizer, which needs them before it is
// ready, nothing is. A test that wants malloc refused asks for UTILS_FAKE_MALLOC.
#pragma once

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

namespace support {

inline std::atomic<int> allocations{0};
inline std::atomic<int> refuse_after{-1};  // this many more succeed, then all fail; -1: none fails
inline std::atomic<int> failing{0};        // 1: the next one fails alone, 2: the one after it, ...

inline bool refuse_allocation() {
    ++allocations;
    if (failing > 0 && --failing == 0)
        return true;
    int left = refuse_after;
    while (left > 0 && !refuse_after.compare_exchange_weak(left, left - 1)) {
    }
    return left == 0;
}

// Runs `call` with its first, then its second, ... allocation failing, each time followed by
// `refused(result)`, until it runs through undisturbed. Returns its result then.
template <typename Call, typename Refused>
auto with_each_failure(Call call, Refused refused) {
    for (int nth = 1;; ++nth) {
        failing = nth;
        auto result = call();
        if (failing.exchange(0) > 0)
            return result;
        refused(result);
    }
}

}  // namespace support

#ifndef __SANITIZE_THREAD__
#define UTILS_FAKE_HEAP 1
extern "C" {
#ifdef __SANITIZE_ADDRESS__
#define __libc_malloc malloc
#else
#define UTILS_FAKE_MALLOC 1
void *__libc_malloc(size_t);

void *malloc(size_t size) {
    return support::refuse_allocation() ? nullptr : __libc_malloc(size);
}
#endif

// The barrier keeps the compiler from seeing a calloc in here.
void *calloc(size_t count, size_t size) noexcept {
    size_t bytes = 0;
    if (support::refuse_allocation() || __builtin_mul_overflow(count, size, &bytes))
        return nullptr;
    void *block = __libc_malloc(bytes);
    __asm__ volatile("" : "+r"(block)::"memory");
    return block != nullptr ? memset(block, 0, bytes) : nullptr;
}

// Always moves, and fills what is new.
void *realloc(void *old, size_t size) noexcept {
    void *block = support::refuse_allocation() ? nullptr : __libc_malloc(size);
    if (block != nullptr)
        memset(block, 0x5A, size);
    if (block != nullptr && old != nullptr) {
        memcpy(block, old, std::min(size, malloc_usable_size(old)));
        free(old);
    }
    return block;
}
}
#endif
