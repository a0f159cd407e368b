// SPDX-License-Identifier: Apache-2.0
// The heap: allocations that fail on demand, and a count of what is allocated.
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/memory_order.h"
#include "base/retry.h"
#include "taken.h"

// The sanitizers' own, where there is one.
extern "C" {
void *__interceptor_malloc(size_t size) __attribute__((weak));
void *__interceptor_calloc(size_t count, size_t size) __attribute__((weak));
void *__interceptor_realloc(void *block, size_t size) __attribute__((weak));
int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void *, size_t),
                                              void (*freed)(const volatile void *))
    __attribute__((weak));
}

namespace utils {
namespace {

std::atomic<int> live{0};

RECORD(malloc)
NEXT(malloc)
NEXT(calloc)
NEXT(realloc)
NEXT(free)
NEXT(memalign)
NEXT(aligned_alloc)
NEXT(posix_memalign)

// Finding the next definition may need memory itself: what is asked for meanwhile comes from here,
// zeroed, and stays.
alignas(std::max_align_t) char arena[4096];
std::atomic<size_t> arena_used{0};

// GCOVR_EXCL_START: for a C library whose dlsym() needs memory
void *from_arena(size_t size) {
    constexpr size_t kUnit = alignof(std::max_align_t);
    if (size > sizeof arena)
        return nullptr;
    size_t at = arena_used.fetch_add((size + kUnit - 1) / kUnit * kUnit, kRelaxed);
    return at + size <= sizeof arena ? arena + at : nullptr;
}
// GCOVR_EXCL_STOP

bool is_in_arena(const void *block) {
    return reinterpret_cast<uintptr_t>(block) - reinterpret_cast<uintptr_t>(arena) < sizeof arena;
}

template <typename Function>
Function *real(Next &next) {
    return reinterpret_cast<Function *>(next.find());
}

// Whether this very call serves the search for what it would go on to.
bool is_needed_first(const Next &next) {
    return is_finding() && next.address == nullptr;
}

bool is_refused() {
    if (is_finding() || judge(record_malloc).error == 0)
        return false;
    errno = ENOMEM;
    return true;
}

void *counted(void *block) {
    if (block != nullptr)
        live.fetch_add(1, kRelaxed);
    return block;
}

void *plain(size_t size) {
    if (is_needed_first(next_malloc))  // GCOVR_EXCL_LINE: as above
        return from_arena(size);       // GCOVR_EXCL_LINE
    return counted(real<void *(size_t)>(next_malloc)(size));
}

void release(void *block) {
    if (block == nullptr || is_in_arena(block) || is_needed_first(next_free))
        return;
    live.fetch_sub(1, kRelaxed);
    real<void(void *)>(next_free)(block);
}

// Always moves, and fills what is new.
void *moved(void *old, size_t size) {
    size_t had = old == nullptr || is_in_arena(old) ? 0 : malloc_usable_size(old);
    void *block = plain(size);
    if (block == nullptr)
        return nullptr;
    memset(block, 0x5A, size);
    if (old != nullptr)
        memcpy(block, old, std::min(size, is_in_arena(old) ? size : had));
    release(old);
    return block;
}

// Beside a sanitizer no call of the heap comes through here but those of UTILS_TESTING_HEAP.
__attribute__((constructor)) void count_by_hooks() {
    if (__sanitizer_install_malloc_and_free_hooks == nullptr)
        return;
    // GCOVR_EXCL_START: beside a sanitizer
    __sanitizer_install_malloc_and_free_hooks(
        [](const volatile void *, size_t) { live.fetch_add(1, kRelaxed); },
        [](const volatile void *) { live.fetch_sub(1, kRelaxed); });
    // GCOVR_EXCL_STOP
}

}  // namespace
}  // namespace utils

#define EXPORTED __attribute__((visibility("default")))
#define HEAP(symbol, Result, parameters)                                   \
    extern "C" EXPORTED Result taken_##symbol parameters __asm__(#symbol); \
    Result taken_##symbol parameters

using namespace utils;

HEAP(malloc, void *, (size_t size)) {
    return is_refused() ? nullptr : plain(size);
}

HEAP(calloc, void *, (size_t count, size_t size)) {
    // GCOVR_EXCL_START: as in from_arena()
    if (is_needed_first(next_calloc)) {
        size_t bytes = 0;
        return __builtin_mul_overflow(count, size, &bytes) ? nullptr : from_arena(bytes);
    }
    // GCOVR_EXCL_STOP
    return is_refused() ? nullptr : counted(real<void *(size_t, size_t)>(next_calloc)(count, size));
}

HEAP(realloc, void *, (void *block, size_t size)) {
    if (is_refused())
        return nullptr;
    if (size != 0 || block == nullptr)
        return moved(block, size);
    // Frees the block, as the next definition understands it.
    void *result = real<void *(void *, size_t)>(next_realloc)(block, size);
    live.fetch_sub(result == nullptr, kRelaxed);
    return result;
}

HEAP(reallocarray, void *, (void *block, size_t count, size_t size)) {
    size_t bytes = 0;
    return __builtin_mul_overflow(count, size, &bytes) ? null(ENOMEM) : taken_realloc(block, bytes);
}

HEAP(free, void, (void *block)) {
    KeptErrno kept;
    release(block);
}

HEAP(memalign, void *, (size_t alignment, size_t size)) {
    return is_refused() ? nullptr
                        : counted(real<void *(size_t, size_t)>(next_memalign)(alignment, size));
}

HEAP(aligned_alloc, void *, (size_t alignment, size_t size)) {
    return is_refused()
               ? nullptr
               : counted(real<void *(size_t, size_t)>(next_aligned_alloc)(alignment, size));
}

HEAP(posix_memalign, int, (void **block, size_t alignment, size_t size)) {
    if (is_refused())
        return ENOMEM;
    int error = real<int(void **, size_t, size_t)>(next_posix_memalign)(block, alignment, size);
    if (error == 0)
        counted(*block);
    return error;
}

EXPORTED int utils_testing_live_blocks(void) {
    return live;
}

EXPORTED void *utils_testing_malloc(size_t size) {
    // GCOVR_EXCL_START: beside a sanitizer
    if (__interceptor_malloc != nullptr)
        return is_refused() ? nullptr : __interceptor_malloc(size);
    // GCOVR_EXCL_STOP
    return taken_malloc(size);
}

EXPORTED void *utils_testing_calloc(size_t count, size_t size) {
    // GCOVR_EXCL_START: beside a sanitizer
    if (__interceptor_calloc != nullptr)
        return is_refused() ? nullptr : __interceptor_calloc(count, size);
    // GCOVR_EXCL_STOP
    return taken_calloc(count, size);
}

EXPORTED void *utils_testing_realloc(void *block, size_t size) {
    // GCOVR_EXCL_START: beside a sanitizer
    if (__interceptor_realloc != nullptr)
        return is_refused() ? nullptr : __interceptor_realloc(block, size);
    // GCOVR_EXCL_STOP
    return taken_realloc(block, size);
}
