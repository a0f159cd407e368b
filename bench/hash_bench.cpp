// SPDX-License-Identifier: Apache-2.0
// The hash table beside GLib's table of arrays and std::unordered_multimap, with the same keys in
// the same random order. find: the record of a key; values: a copy of a key's values; add and
// delete: a key and its only value, in a table that holds `size` others. `walk` is our table with
// functions that it does not know, so that it walks the chains.
#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bench.h"
#include "utils/hash.h"

#ifdef BENCH_GLIB
#include <glib.h>
#endif

namespace {

constexpr size_t kBatch = 256;  // keys that come and go beside the `size` others

uint32_t mixed(uint64_t x) {
    x ^= x >> 32;
    x *= 0x9E3779B97F4A7C15U;
    return static_cast<uint32_t>((x ^ x >> 29) >> 16);
}

struct Pid {
    static constexpr const char *kName = "pid";
    static constexpr hashFunction kHash = pid_hash;
    static constexpr hashCompare kCompare = pid_cmp;
    using Native = uintptr_t;
    static Native native(uintptr_t word) { return word; }
    static std::string text(unsigned i) { return std::to_string(i * 3 + 100); }
    static uintptr_t word(const std::string &text) { return strtoul(text.c_str(), nullptr, 10); }
    static unsigned hash(const void *key) { return mixed(reinterpret_cast<uintptr_t>(key)); }
    static int equal(const void *a, const void *b) { return a == b; }
};

struct Name {
    static constexpr const char *kName = "name";
    static constexpr hashFunction kHash = name_hash;
    static constexpr hashCompare kCompare = name_cmp;
    using Native = std::string_view;
    static Native native(uintptr_t word) { return reinterpret_cast<const char *>(word); }
    static std::string text(unsigned i) { return "switch-port-" + std::to_string(i); }
    static uintptr_t word(const std::string &text) {
        return reinterpret_cast<uintptr_t>(text.c_str());
    }
    static unsigned hash(const void *key) {
        auto *text = static_cast<const char *>(key);
        uint64_t h = strlen(text);
        for (uint64_t left = h, part = 0; left > 0; left -= std::min(left, uint64_t{8})) {
            memcpy(&part, text, std::min(left, uint64_t{8}));
            text += 8;
            h = (h ^ part) * 0x9E3779B97F4A7C15U;
            h ^= h >> 32;
        }
        return mixed(h);
    }
    static int equal(const void *a, const void *b) {
        return strcmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0;
    }
};

struct Wwn {
    static constexpr const char *kName = "wwn";
    static constexpr hashFunction kHash = wwn_hash;
    static constexpr hashCompare kCompare = wwn_cmp;
    using Native = uint64_t;
    static Native load(const void *key) {
        Native wwn = 0;
        memcpy(&wwn, key, sizeof wwn);
        return wwn;
    }
    static Native native(uintptr_t word) { return load(reinterpret_cast<const void *>(word)); }
    static std::string text(unsigned i) {
        char wwn[] = "\x10\x00\x00\x05\x1e\x00\x00\x00";
        wwn[5] = static_cast<char>(i >> 16);
        wwn[6] = static_cast<char>(i >> 8);
        wwn[7] = static_cast<char>(i);
        return {wwn, 8};
    }
    static uintptr_t word(const std::string &text) {
        return reinterpret_cast<uintptr_t>(text.data());
    }
    static unsigned hash(const void *key) { return mixed(load(key)); }
    static int equal(const void *a, const void *b) { return load(a) == load(b); }
};

template <typename Kind>
class Ours {
  public:
    static constexpr const char *kSide = "ours";
    Ours() : Ours(Kind::kHash, Kind::kCompare) {}
    void add(uintptr_t key, uintptr_t value) { add_to_hash(key, value, table_); }
    void *find(uintptr_t key) {
        return get_header(key, &table_->buckets[table_->hashFn(key)], table_);
    }
    uintptr_t *values(uintptr_t key) {
        uintptr_t *values = nullptr;
        get_from_hash(key, &values, table_);
        return values;
    }
    void remove(uintptr_t key) { delete_from_hash(key, table_); }

  protected:
    Ours(hashFunction hash, hashCompare compare) : table_(create_hash_table(hash, compare)) {}
    hash_table *table_;
};

template <typename Kind>
class Walk : public Ours<Kind> {
  public:
    static constexpr const char *kSide = "walk";
    Walk()
        : Ours<Kind>([](uintptr_t key) { return Kind::kHash(key); },
                     [](uintptr_t a, uintptr_t b) { return Kind::kCompare(a, b); }) {}
};

#ifdef BENCH_GLIB
template <typename Kind>
class GLib {
  public:
    static constexpr const char *kSide = "glib";
    GLib() : table_(g_hash_table_new_full(Kind::hash, Kind::equal, nullptr, release)) {}
    void add(uintptr_t key, uintptr_t value) {
        auto *array = static_cast<GArray *>(g_hash_table_lookup(table_, as_pointer(key)));
        if (array == nullptr) {
            array = g_array_new(FALSE, FALSE, sizeof value);
            g_hash_table_insert(table_, as_pointer(key), array);
        }
        g_array_append_val(array, value);
    }
    void *find(uintptr_t key) { return g_hash_table_lookup(table_, as_pointer(key)); }
    uintptr_t *values(uintptr_t key) {
        auto *array = static_cast<GArray *>(g_hash_table_lookup(table_, as_pointer(key)));
        return static_cast<uintptr_t *>(g_memdup2(array->data, array->len * sizeof(uintptr_t)));
    }
    void remove(uintptr_t key) { g_hash_table_remove(table_, as_pointer(key)); }

  private:
    static void *as_pointer(uintptr_t key) { return reinterpret_cast<void *>(key); }
    static void release(void *array) { g_array_unref(static_cast<GArray *>(array)); }
    GHashTable *table_;
};
#endif

template <typename Kind>
class Standard {
  public:
    static constexpr const char *kSide = "std";
    void add(uintptr_t key, uintptr_t value) { map_.emplace(Kind::native(key), value); }
    void *find(uintptr_t key) { return &*map_.find(Kind::native(key)); }

  private:
    std::unordered_multimap<typename Kind::Native, uintptr_t> map_;
};

// The keys of a kind and size in random order, kBatch more behind them; and the same keys at other
// addresses, to look for.
template <typename Kind>
struct Keys {
    std::vector<std::string> texts;
    std::vector<uintptr_t> words, sought;

    explicit Keys(size_t size) {
        for (unsigned i = 0; i < size + kBatch; ++i)
            texts.push_back(Kind::text(i));
        std::shuffle(texts.begin(), texts.end(), std::mt19937(1));
        const size_t all = texts.size();
        texts.reserve(2 * all);
        for (size_t i = 0; i < all; ++i)
            texts.push_back(texts[i]);
        for (size_t i = 0; i < all; ++i) {
            words.push_back(Kind::word(texts[i]));
            sought.push_back(Kind::word(texts[all + i]));
        }
    }
    static const Keys &of(size_t size) {
        static std::unordered_map<size_t, std::unique_ptr<Keys>> all;
        auto &keys = all[size];
        if (keys == nullptr)
            keys = std::make_unique<Keys>(size);
        return *keys;
    }
};

// The table of `size` keys, filled once, in another order than it is asked.
template <typename Kind, template <typename> class Table>
Table<Kind> &filled(size_t size) {
    static std::unordered_map<size_t, std::unique_ptr<Table<Kind>>> all;
    auto &table = all[size];
    if (table == nullptr) {
        table = std::make_unique<Table<Kind>>();
        const auto &words = Keys<Kind>::of(size).words;
        const size_t values = size > 100000 ? 1 : 3;  // of every key
        for (size_t i = 0; i < size * values; ++i)
            table->add(words[i * 7 % size], 2 * i);
    }
    return *table;
}

// Looks for one key after the other. What a look-up gives (an even number) decides on the next one:
// programs use what they find, and the processor cannot work ahead.
template <typename Kind, template <typename> class Table, typename Look>
void each_key(benchmark::State &state, size_t size, Look look) {
    auto &table = filled<Kind, Table>(size);
    const auto &sought = Keys<Kind>::of(size).sought;
    static size_t last = 0;
    size_t at = last % size;
    for (auto _ : state) {
        at += 1 + look(table, sought[at]) % 2;
        at = at < size ? at : 0;
    }
    last = at;
}

// Times one of two steps that undo each other, a batch at a time; as with the others, what counts
// is this thread's time on the processor.
template <typename Kind, template <typename> class Table>
void add_delete(benchmark::State &state, size_t size, bool time_add) {
    auto now = [] {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    };
    auto &table = filled<Kind, Table>(size);
    const uintptr_t *extra = &Keys<Kind>::of(size).words[size];
    for (auto _ : state) {
        double start = now();
        for (size_t i = 0; i < kBatch; ++i)
            table.add(extra[i], i);
        double middle = now();
        for (size_t i = 0; i < kBatch; ++i)
            table.remove(extra[i]);
        state.SetIterationTime(time_add ? middle - start : now() - middle);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBatch));
}

template <typename Kind, template <typename> class Table>
std::string name_of(const char *what, size_t size) {
    return std::string(what) + "_" + Kind::kName + "_" + std::to_string(size) + "/" +
           Table<Kind>::kSide;
}

template <typename Kind, template <typename> class Table>
void offer_find(size_t size) {
    benchmark::RegisterBenchmark(
        name_of<Kind, Table>("find", size).c_str(), [size](benchmark::State &state) {
            each_key<Kind, Table>(state, size, [](auto &table, uintptr_t key) {
                return reinterpret_cast<uintptr_t>(table.find(key));
            });
        });
}

template <typename Kind, template <typename> class Table>
void offer_others(size_t size) {
    auto all_values = [size](benchmark::State &state) {
        each_key<Kind, Table>(state, size, [](auto &table, uintptr_t key) {
            uintptr_t *values = table.values(key);
            uintptr_t first = values[0];
            free(values);
            return first;
        });
    };
    if (size == 1000)
        benchmark::RegisterBenchmark(name_of<Kind, Table>("values", size).c_str(), all_values);
    if (size == 1000 || size == 100000)
        return;
    for (bool add : {true, false}) {
        benchmark::RegisterBenchmark(
            name_of<Kind, Table>(add ? "add" : "delete", size).c_str(),
            [size, add](benchmark::State &state) { add_delete<Kind, Table>(state, size, add); })
            ->UseManualTime();
    }
}

template <typename Kind>
void offer_kind() {
    for (size_t size : {100U, 1000U, 10000U, 100000U, 1000000U}) {
        offer_find<Kind, Ours>(size);
        offer_others<Kind, Ours>(size);
#ifdef BENCH_GLIB
        offer_find<Kind, GLib>(size);
        offer_others<Kind, GLib>(size);
#endif
        if (size <= 100000)
            offer_find<Kind, Standard>(size);
        if (size <= 10000)
            offer_find<Kind, Walk>(size);
    }
}

void offer_all() {
    offer_kind<Pid>();
    offer_kind<Name>();
    offer_kind<Wwn>();
}

}  // namespace

BENCH_MAIN(offer_all)
