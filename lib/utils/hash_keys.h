// SPDX-License-Identifier: Apache-2.0
// The kinds of keys that hash tables know: which functions make a kind, and the word that stands
// for a key in an index. Of a process id or a WWN the word is all of it; of a name it is a hash.
#pragma once

#include <dlfcn.h>
#include <link.h>

#include <cstdint>
#include <cstring>

#include "utils/hash.h"

namespace utils {

enum class KeyKind : uint8_t { kUnknown, kPid, kName, kWwn };

constexpr int kWwnLength = 8;

constexpr uint64_t kBucketBits = 0xFFFF;  // no part of a name's word

// Each byte moves what is there by four bits, and the four that leave the 28 are folded into the
// low ones. Six bytes fit before any leave.
inline uint32_t elf_hash(const unsigned char *bytes, int len) {
    if (bytes == nullptr || len <= 0)
        return 0;
    constexpr int kFree = 6;
    uint32_t shifted = 0;  // the hash, moved already
    int i = 0;
    if (len >= kFree) {
        uint32_t six = (uint32_t{bytes[0]} << 20) + (uint32_t{bytes[1]} << 16) +
                       (uint32_t{bytes[2]} << 12) + (uint32_t{bytes[3]} << 8) +
                       (uint32_t{bytes[4]} << 4) + bytes[5];
        shifted = six << 4 ^ (six >> 20 & 0xF00U);
        i = kFree;
    }
    for (; i < len; ++i) {
        uint32_t sum = shifted + bytes[i];
        shifted = sum << 4 ^ (sum >> 20 & 0xF00U);
    }
    return shifted >> 4;
}

// A negative remainder becomes an index far above the buckets, which the table refuses.
inline unsigned pid_bucket(uintptr_t pid) {
    return static_cast<unsigned>(static_cast<int32_t>(pid) % HASH_BUCKETS);
}

inline unsigned wwn_bucket(uintptr_t wwn) {
    return elf_hash(reinterpret_cast<const unsigned char *>(wwn), kWwnLength) % HASH_BUCKETS;
}

template <typename Word>
uint64_t load_word(const char *from) {
    Word word = 0;
    memcpy(&word, from, sizeof word);
    return word;
}

// The upper bits of the result depend on all bits.
inline uint64_t mixed_word(uint64_t word) {
    return (word ^ word >> 32) * 0x9E3779B97F4A7C15U;
}

inline uint64_t text_hash(const char *text) {
    size_t left = strlen(text);
    uint64_t hash = left;
    for (; left > 8; left -= 8, text += 8)
        hash = mixed_word(hash ^ load_word<uint64_t>(text));
    if (left >= 4) {  // the two words overlap below 8
        hash ^= load_word<uint32_t>(text) ^ load_word<uint32_t>(text + left - 4) << 32;
    } else {
        for (; left > 0; --left)
            hash ^= load_word<uint8_t>(text + left - 1) << 8 * left;
    }
    return mixed_word(mixed_word(hash));
}

// Not for null pointers.
inline uint64_t key_word(KeyKind kind, uintptr_t key) {
    auto *bytes = reinterpret_cast<const char *>(key);
    return kind == KeyKind::kPid   ? key
           : kind == KeyKind::kWwn ? load_word<uint64_t>(bytes)
                                   : text_hash(bytes) & ~kBucketBits;
}

// The upper bits say where a word belongs.
inline uint64_t spread_word(KeyKind kind, uint64_t word) {
    return kind == KeyKind::kName ? word : mixed_word(word);
}

inline bool same_text(uintptr_t a, uintptr_t b) {
    return strcmp(reinterpret_cast<const char *>(a), reinterpret_cast<const char *>(b)) == 0;
}

// A position-dependent program sees our functions at stubs of its own; what it defines itself under
// one of our names stands at the same place, but is not ours.
inline bool is_stub(const void *address) {
#ifdef __GLIBC__
    Dl_info info{};
    const ElfW(Sym) *symbol = nullptr;
    return dladdr1(address, &info, const_cast<void **>(reinterpret_cast<const void **>(&symbol)),
                   RTLD_DL_SYMENT) != 0 &&
           symbol != nullptr && symbol->st_shndx == SHN_UNDEF;
#else
    return address == nullptr;
#endif
}

// Whether `given` is the function that we define as `ours` and programs see as `seen`.
template <typename Function>
bool is_built_in(Function given, Function ours, Function seen) {
    return given == ours || (given == seen && is_stub(reinterpret_cast<const void *>(seen)));
}

// NOLINTBEGIN(misc-definitions-in-headers): other names of what hash.cpp, the only user, defines.
extern "C" {
#define UTILS_OWN(name) __attribute__((alias(#name), visibility("hidden"))) utils_own_##name
unsigned UTILS_OWN(pid_hash)(uintptr_t);
unsigned UTILS_OWN(name_hash)(uintptr_t);
unsigned UTILS_OWN(wwn_hash)(uintptr_t);
int UTILS_OWN(pid_cmp)(uintptr_t, uintptr_t);
int UTILS_OWN(name_cmp)(uintptr_t, uintptr_t);
int UTILS_OWN(wwn_cmp)(uintptr_t, uintptr_t);
}
// NOLINTEND(misc-definitions-in-headers)

inline KeyKind kind_of(hashFunction hash, hashCompare compare) {
    if (is_built_in(hash, utils_own_pid_hash, pid_hash) &&
        is_built_in(compare, utils_own_pid_cmp, pid_cmp))
        return KeyKind::kPid;
    if (is_built_in(hash, utils_own_name_hash, name_hash) &&
        is_built_in(compare, utils_own_name_cmp, name_cmp))
        return KeyKind::kName;
    if (is_built_in(hash, utils_own_wwn_hash, wwn_hash) &&
        is_built_in(compare, utils_own_wwn_cmp, wwn_cmp))
        return KeyKind::kWwn;
    return KeyKind::kUnknown;
}

}  // namespace utils
