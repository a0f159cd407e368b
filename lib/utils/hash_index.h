// SPDX-License-Identifier: Apache-2.0
// The index of a hash table whose key kind is known: open addressing with linear probing, beside
// the chains. It is never needed: without memory it is dropped, and the table walks. An entry holds
// all that its place depends on, so that growing, shrinking and removing touch neither headers nor
// what keys point to, which may be gone.
#pragma once

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "hash_keys.h"

namespace utils {

struct HashEntry {
    uint64_t word;        // see hash_keys.h; of a name, the bucket is in the low bits
    hash_header *header;  // null: free
};

// Of a name all bytes are compared in the end: its place is here and not a record away.
struct NameEntry {
    HashEntry entry;
    uintptr_t key;
};

// Part of the table's zero-filled record, hence without constructor.
class HashIndex {
  public:
    // Starts over for a table without keys.
    void reset(KeyKind kind) {
        release(entries_, capacity() * stride_);
        entries_ = nullptr;
        used_ = 0;
        bits_ = 0;
        kind_ = kind;
        stride_ = kind == KeyKind::kName ? sizeof(NameEntry) : sizeof(HashEntry);
    }
    bool alive() const { return kind_ != KeyKind::kUnknown; }
    KeyKind kind() const { return kind_; }

    // The entry of `key`, whose word is stored in `word`; null when the key is absent, or is none.
    HashEntry *find(uintptr_t key, uint64_t *word) const {
        if (key == 0 && kind_ != KeyKind::kPid)
            return nullptr;
        *word = key_word(kind_, key);
        if (entries_ == nullptr)
            return nullptr;
        const uint64_t ignored = kind_ == KeyKind::kName ? kBucketBits : 0;
        for (size_t i = home(*word); at(i)->header != nullptr; i = next(i)) {
            if (((at(i)->word ^ *word) & ~ignored) == 0 &&
                (ignored == 0 || same_text(reinterpret_cast<NameEntry *>(at(i))->key, key)))
                return at(i);
        }
        return nullptr;
    }

    // Takes a key that is not there yet; the index is dropped when it finds no room.
    void insert(const NameEntry &entry) {
        if (used_ >= capacity() / 16 * 13 &&
            !resize(entries_ != nullptr ? bits_ + 1 : kLeastBits)) {
            reset(KeyKind::kUnknown);
            return;
        }
        place(&entry.entry);
        ++used_;
    }

    // Fills the hole from behind, so that every probe still meets what it looks for.
    void erase(HashEntry *entry) {
        auto hole = static_cast<size_t>(reinterpret_cast<char *>(entry) - entries_) / stride_;
        for (size_t i = next(hole); at(i)->header != nullptr; i = next(i)) {
            if (distance(home(at(i)->word), i) >= distance(hole, i)) {
                memcpy(at(hole), at(i), stride_);
                hole = i;
            }
        }
        at(hole)->header = nullptr;
        if (--used_ < capacity() / 8 && bits_ > kLeastBits)
            resize(bits_ - 1);
    }

  private:
    static constexpr unsigned kLeastBits = 4;
    static constexpr size_t kHuge = size_t{2} << 20;  // from here on, pages as large as can be had

    size_t capacity() const { return entries_ != nullptr ? size_t{1} << bits_ : 0; }
    // Whole strides into memory that is aligned for any type.
    static HashEntry *entry_at(void *place) { return static_cast<HashEntry *>(place); }
    HashEntry *at(size_t i) const { return entry_at(entries_ + i * stride_); }
    size_t home(uint64_t word) const {
        return static_cast<size_t>(spread_word(kind_, word) >> (64 - bits_));
    }
    size_t next(size_t i) const { return distance(0, i + 1); }
    size_t distance(size_t from, size_t to) const {
        return (to - from) & ((size_t{1} << bits_) - 1);
    }

    static char *reserve(size_t size) {
        if (size < kHuge)
            return static_cast<char *>(calloc(1, size));
        void *room =
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (room == MAP_FAILED)
            return nullptr;
#ifdef MADV_HUGEPAGE
        madvise(room, size, MADV_HUGEPAGE);
#endif
        return static_cast<char *>(room);
    }
    static void release(char *room, size_t size) {
        if (size < kHuge)
            free(room);
        else
            munmap(room, size);
    }

    void place(const HashEntry *entry) {
        size_t i = home(entry->word);
        while (at(i)->header != nullptr)
            i = next(i);
        memcpy(at(i), entry, stride_);
    }

    bool resize(unsigned bits) {
        char *room = reserve(stride_ << bits);
        if (room == nullptr)
            return false;
        char *old = entries_;
        const size_t old_size = capacity() * stride_;
        entries_ = room;
        bits_ = bits;
        for (char *from = old; from != old + old_size; from += stride_) {
            const HashEntry *entry = entry_at(from);
            if (entry->header != nullptr)
                place(entry);
        }
        release(old, old_size);
        return true;
    }

    char *entries_;
    size_t used_;
    size_t stride_;  // bytes of an entry
    unsigned bits_;  // of the capacity
    KeyKind kind_;
};

}  // namespace utils
