// SPDX-License-Identifier: Apache-2.0
// Zero-filled heap records. They come from the C allocator, so that callers may free() them.
#pragma once

#include <cstdlib>
#include <type_traits>

namespace utils {

// A zero-filled T, followed by `extra` zero bytes; null when memory runs out.
template <typename T>
T *allocate_zeroed(size_t extra = 0) {
    static_assert(std::is_trivial_v<T>);
    return static_cast<T *>(calloc(1, sizeof(T) + extra));
}

// Owner of one heap block: frees it when it goes out of scope.
template <typename T>
class HeapBlock {
  public:
    explicit HeapBlock(T *block) : block_(block) {}
    ~HeapBlock() { free(block_); }
    HeapBlock(const HeapBlock &) = delete;
    HeapBlock &operator=(const HeapBlock &) = delete;

    T *get() const { return block_; }
    T *operator->() const { return block_; }
    explicit operator bool() const { return block_ != nullptr; }
    T *release() {
        T *block = block_;
        block_ = nullptr;
        return block;
    }

  private:
    T *block_;
};

}  // namespace utils
