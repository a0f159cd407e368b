// The hash table beside std::unordered_multimap and a textbook chained table (same buckets and hash
// functions, one heap node a value), with the same keys: fill, find a key, collect its values into
// an array, replace a value. Arguments: number of keys, values of each key.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "utils/hash.h"

namespace {

// How a kind of key reads for us, and for std::unordered_multimap.
struct PidKeys {
    static constexpr hashFunction kHash = pid_hash;
    static constexpr hashCompare kCompare = pid_cmp;
    using Native = uintptr_t;
    static Native native(uintptr_t word) { return word; }
    static std::string text(unsigned i) { return std::to_string(i); }
    static uintptr_t word(const std::string &text) {
        return strtoul(text.c_str(), nullptr, 10) * 3 + 100;
    }
};

struct NameKeys {
    static constexpr hashFunction kHash = name_hash;
    static constexpr hashCompare kCompare = name_cmp;
    using Native = std::string_view;
    static Native native(uintptr_t word) { return reinterpret_cast<const char *>(word); }
    static std::string text(unsigned i) { return "switch-port-" + std::to_string(i); }
    static uintptr_t word(const std::string &text) {
        return reinterpret_cast<uintptr_t>(text.c_str());
    }
};

struct WwnKeys {
    static constexpr hashFunction kHash = wwn_hash;
    static constexpr hashCompare kCompare = wwn_cmp;
    using Native = uint64_t;
    static Native native(uintptr_t word) {
        Native wwn = 0;
        memcpy(&wwn, reinterpret_cast<const void *>(word), sizeof wwn);
        return wwn;
    }
    static std::string text(unsigned i) {
        char wwn[9] = "\x10\x00\x00\x05\x1e";
        wwn[5] = static_cast<char>(i >> 16), wwn[6] = static_cast<char>(i >> 8),
        wwn[7] = static_cast<char>(i);
        return {wwn, 8};
    }
    static uintptr_t word(const std::string &text) {
        return reinterpret_cast<uintptr_t>(text.data());
    }
};

template <typename Keys>
class Ours {
  public:
    Ours() : table_(create_hash_table(Keys::kHash, Keys::kCompare)) {}
    ~Ours() { free_hash_handle(table_); }
    void add(uintptr_t key, uintptr_t value) { add_to_hash(key, value, table_); }
    bool has(uintptr_t key) {
        return get_header(key, &table_->buckets[Keys::kHash(key)], table_) != nullptr;
    }
    uintptr_t *collect(uintptr_t key, size_t *count) {
        uintptr_t *values = nullptr;
        *count = static_cast<size_t>(get_from_hash(key, &values, table_));
        return values;
    }
    void remove(uintptr_t key, uintptr_t value) { delete_hash_ele_from_hash(key, value, table_); }

  private:
    hash_table *table_;
};

template <typename Keys>
class Standard {
  public:
    void add(uintptr_t key, uintptr_t value) { map_.emplace(Keys::native(key), value); }
    bool has(uintptr_t key) { return map_.find(Keys::native(key)) != map_.end(); }
    uintptr_t *collect(uintptr_t key, size_t *count) {
        auto [from, to] = map_.equal_range(Keys::native(key));
        *count = static_cast<size_t>(std::distance(from, to));
        auto *values = static_cast<uintptr_t *>(calloc(*count, sizeof(uintptr_t)));
        for (uintptr_t *value = values; from != to; ++from)
            *value++ = from->second;
        return values;
    }
    void remove(uintptr_t key, uintptr_t value) {
        for (auto [at, end] = map_.equal_range(Keys::native(key)); at != end; ++at) {
            if (at->second == value) {
                map_.erase(at);
                return;
            }
        }
    }

  private:
    std::unordered_multimap<typename Keys::Native, uintptr_t> map_;
};

template <typename Keys>
class Plain {
  public:
    ~Plain() {
        for (Node *node : buckets_) {
            while (node != nullptr) {
                Node *next = node->next;
                free(node);
                node = next;
            }
        }
    }
    void add(uintptr_t key, uintptr_t value) {
        Node *&head = buckets_[Keys::kHash(key)];
        auto *node = static_cast<Node *>(malloc(sizeof(Node)));
        *node = {head, key, value};
        head = node;
    }
    bool has(uintptr_t key) {
        const Node *node = buckets_[Keys::kHash(key)];
        while (node != nullptr && !Keys::kCompare(node->key, key))
            node = node->next;
        return node != nullptr;
    }
    uintptr_t *collect(uintptr_t key, size_t *count) {
        const Node *first = buckets_[Keys::kHash(key)];
        *count = 0;
        for (const Node *node = first; node != nullptr; node = node->next)
            *count += Keys::kCompare(node->key, key) != 0;
        auto *values = static_cast<uintptr_t *>(calloc(*count, sizeof(uintptr_t)));
        uintptr_t *value = values;
        for (const Node *node = first; node != nullptr; node = node->next) {
            if (Keys::kCompare(node->key, key))
                *value++ = node->value;
        }
        return values;
    }
    void remove(uintptr_t key, uintptr_t value) {
        for (Node **at = &buckets_[Keys::kHash(key)]; *at != nullptr; at = &(*at)->next) {
            Node *node = *at;
            if (node->value == value && Keys::kCompare(node->key, key)) {
                *at = node->next;
                free(node);
                return;
            }
        }
    }

  private:
    struct Node {
        Node *next;
        uintptr_t key, value;
    };
    Node *buckets_[HASH_BUCKETS] = {};
};

// The keys of a run; names and WWNs stay where the key words point.
template <typename Keys>
struct Workload {
    std::vector<std::string> texts;
    std::vector<uintptr_t> keys;
    uintptr_t values;

    explicit Workload(const benchmark::State &state)
        : values(static_cast<uintptr_t>(state.range(1))) {
        for (unsigned i = 0; i < state.range(0); ++i)
            texts.push_back(Keys::text(i));
        for (const std::string &text : texts)
            keys.push_back(Keys::word(text));
    }
    template <typename Table>
    void fill(Table &table) const {
        for (uintptr_t value = 0; value < values; ++value) {
            for (uintptr_t key : keys)
                table.add(key, value);
        }
    }
};

template <typename Keys, template <typename> class Table>
void Fill(benchmark::State &state) {
    Workload<Keys> work(state);
    for (auto _ : state) {
        Table<Keys> table;
        work.fill(table);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(1));
}

// Calls `step(table, key)` for every key of a filled table, over and over.
template <typename Keys, template <typename> class Table, typename Step>
void each_key(benchmark::State &state, Step step) {
    Workload<Keys> work(state);
    Table<Keys> table;
    work.fill(table);
    for (auto _ : state) {
        for (uintptr_t key : work.keys)
            step(table, key);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Keys, template <typename> class Table>
void Find(benchmark::State &state) {
    each_key<Keys, Table>(
        state, [](auto &table, uintptr_t key) { benchmark::DoNotOptimize(table.has(key)); });
}

template <typename Keys, template <typename> class Table>
void Collect(benchmark::State &state) {
    each_key<Keys, Table>(state, [](auto &table, uintptr_t key) {
        size_t count = 0;
        uintptr_t *values = table.collect(key, &count);
        benchmark::DoNotOptimize(std::accumulate(values, values + count, uintptr_t{0}));
        free(values);
    });
}

template <typename Keys, template <typename> class Table>
void Replace(benchmark::State &state) {
    each_key<Keys, Table>(state, [](auto &table, uintptr_t key) {
        table.remove(key, 0);
        table.add(key, 0);
    });
}

void sizes(benchmark::internal::Benchmark *bench) {
    bench->Args({500, 1})->Args({500, 10})->Args({5000, 1})->Args({5000, 10});
}

#define FOR_EACH_TABLE(what, keys)                          \
    BENCHMARK_TEMPLATE(what, keys, Ours)->Apply(sizes);     \
    BENCHMARK_TEMPLATE(what, keys, Standard)->Apply(sizes); \
    BENCHMARK_TEMPLATE(what, keys, Plain)->Apply(sizes)
#define FOR_EACH_OPERATION(keys)   \
    FOR_EACH_TABLE(Fill, keys);    \
    FOR_EACH_TABLE(Find, keys);    \
    FOR_EACH_TABLE(Collect, keys); \
    FOR_EACH_TABLE(Replace, keys)

FOR_EACH_OPERATION(PidKeys);
FOR_EACH_OPERATION(NameKeys);
FOR_EACH_OPERATION(WwnKeys);

}  // namespace

BENCHMARK_MAIN();
