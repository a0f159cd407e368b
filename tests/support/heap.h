// Counts the allocations of the whole process, and refuses them on demand; include it in one source
// file of a test program. The sanitizers own the allocator, so the fake is absent in their builds.
#pragma once

#include <atomic>
#include <cstddef>

namespace support {

inline std::atomic<int> allocations{0};
inline std::atomic<int> refuse_after{-1};  // this many more succeed, then all fail; -1: none fails

inline bool refuse_allocation() {
    ++allocations;
    int left = refuse_after;
    while (left > 0 && !refuse_after.compare_exchange_weak(left, left - 1)) {
    }
    return left == 0;
}

}  // namespace support

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define UTILS_FAKE_HEAP 1
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);

void *malloc(size_t size) {
    return support::refuse_allocation() ? nullptr : __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
    return support::refuse_allocation() ? nullptr : __libc_calloc(count, size);
}
void *realloc(void *block, size_t size) {
    return support::refuse_allocation() ? nullptr : __libc_realloc(block, size);
}
}
#endif
