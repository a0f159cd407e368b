#include "utils/hash.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/one_failure.h"
#include "support/support.h"

namespace {

using Values = std::vector<uintptr_t>;

unsigned textbook_elf_bucket(const std::string &bytes) {
    uint64_t h = 0;
    for (char c : bytes) {
        h = h * 16 + static_cast<unsigned char>(c);
        if (uint64_t g = h & 0xF0000000; g != 0)
            h ^= g >> 24;
        h &= 0x0FFFFFFF;
    }
    return static_cast<unsigned>(h % 503);
}

// The keys of one kind: each one as two words that are the same key, and the bucket it belongs to.
struct Kind {
    const char *name;
    hashFunction hash;
    hashCompare compare;
    std::vector<std::string> text{}, again{};  // what the words of names and WWNs point to
    std::vector<unsigned> bucket{};

    explicit Kind(const char *n, hashFunction h, hashCompare c) : name(n), hash(h), compare(c) {
        for (unsigned i = 0; i < 300; ++i) {
            std::string key = "port " + std::to_string(i * i);
            if (hash == wwn_hash)
                key = std::string("\x85\0\xff", 3) + std::to_string(10000 + i);
            text.push_back(key);
            bucket.push_back(hash == pid_hash ? pid(i) % 503 : textbook_elf_bucket(key));
        }
        again = text;
    }
    static unsigned pid(size_t id) { return static_cast<unsigned>(id % 100 + 503 * (id / 100)); }
    uintptr_t word(size_t id, bool second) const {
        if (hash == pid_hash)
            return pid(id);
        return reinterpret_cast<uintptr_t>((second ? again : text)[id].data());
    }
};

// What a table should hold: buckets by index, in each the keys in order of arrival.
struct Entry {
    size_t id;
    uintptr_t stored;
    Values values;
};
using Model = std::map<unsigned, std::vector<Entry>>;

Values values_in(hash_table *table, uintptr_t key) {
    uintptr_t *array = nullptr;
    int count = support::with_each_failure([&] { return get_from_hash(key, &array, table); },
                                           [](int refused) { EXPECT_EQ(refused, -1); });
    Values values(array, array + count);
    free(array);
    return values;
}

void expect_holds(hash_table *table, const Model &model) {
    Values keys;
    for (const auto &[bucket, entries] : model) {
        for (const Entry &entry : entries) {
            keys.push_back(entry.stored);
            ASSERT_EQ(values_in(table, entry.stored), entry.values);
            hash_header *header = get_header(entry.stored, &table->buckets[bucket], table);
            ASSERT_NE(header, nullptr);
            ASSERT_EQ(header->elements.count, static_cast<int>(entry.values.size() + 4) / 5);
        }
    }
    uintptr_t *array = nullptr;
    int count = support::with_each_failure(
        [&] { return get_all_headers(&array, table); },
        [&](int refused) { EXPECT_TRUE(refused == 0 && array == nullptr); });
    ASSERT_EQ(Values(array, array + count), keys);
    free(array);
    ASSERT_EQ(is_hashlist_empty(table), keys.empty());
}

class HashModel : public testing::TestWithParam<Kind> {};

TEST_P(HashModel, AgreesOverRandomOperationsAndEveryAllocationFailure) {
    const Kind &kind = GetParam();
    std::mt19937 random(1);
    Model model;
    hash_table *table = create_hash_table(kind.hash, kind.compare);
    for (int step = 0; step < 100000; ++step) {
        size_t id = random() % (1 + random() % kind.text.size());
        uintptr_t key = kind.word(id, random() % 2 == 0), value = random() % 8;
        std::vector<Entry> &bucket = model[kind.bucket[id]];
        auto entry =
            std::find_if(bucket.begin(), bucket.end(), [&](Entry &e) { return e.id == id; });
        Values values = entry != bucket.end() ? entry->values : Values();
        const int known = values.empty() ? -1 : 0;
        auto what = random() % 1000;
        if (what < 560) {
            int result = support::with_each_failure([&] { return add_to_hash(key, value, table); },
                                                    [&](int refused) {
                                                        ASSERT_EQ(refused, -1);
                                                        ASSERT_EQ(values_in(table, key), values);
                                                    });
            ASSERT_EQ(result, 0);
            values.push_back(value);
        } else if (what < 960) {
            ASSERT_EQ(delete_hash_ele_from_hash(key, value, table), known);
            if (auto slot = std::find(values.begin(), values.end(), value); slot != values.end()) {
                *slot = values.back();
                values.pop_back();
            }
        } else {
            ASSERT_EQ(delete_from_hash(key, table), known);
            values.clear();
        }
        ASSERT_EQ(values_in(table, key), values);
        if (known != 0 && !values.empty())
            bucket.push_back({id, key, values});
        else if (known == 0 && values.empty())
            bucket.erase(entry);
        else if (known == 0)
            entry->values = values;
        if (step % 8000 == 7000) {
            free_hash_eles(table);
            model.clear();
            for (int i = 0; i < HASH_BUCKETS; ++i)
                ASSERT_EQ(pthread_mutex_trylock(&table->buckets[i].lock) +
                              pthread_mutex_unlock(&table->buckets[i].lock),
                          0);
        }
        if (step % 500 == 0) {
            ASSERT_NO_FATAL_FAILURE(expect_holds(table, model)) << step;
        }
    }
    expect_holds(table, model);
    hash_table *copy = nullptr;
    int result = support::with_each_failure(
        [&] {
            copy = table;
            return copy_hash_table(table, &copy);
        },
        [&](int refused) { EXPECT_TRUE(refused == -1 && copy == nullptr); });
    ASSERT_EQ(result, 0);
    free_hash_handle(table);
    expect_holds(copy, model);
    free_hash_handle(copy);
}

INSTANTIATE_TEST_SUITE_P(Keys, HashModel,
                         testing::Values(Kind("Pids", pid_hash, pid_cmp),
                                         Kind("Names", name_hash, name_cmp),
                                         Kind("Wwns", wwn_hash, wwn_cmp)),
                         [](auto &kind) { return std::string(kind.param.name); });

TEST(Hash, RefusesKeysWhoseBucketDoesNotExist) {
    hash_table *table = create_hash_table(pid_hash, pid_cmp);
    uintptr_t *out = nullptr;
    for (int pid : {-1, -502, INT32_MIN}) {
        auto key = static_cast<uintptr_t>(pid);
        EXPECT_EQ(add_to_hash(key, 1, table), -1);
        EXPECT_EQ(get_from_hash(key, &out, table), 0);
        EXPECT_EQ(delete_from_hash(key, table), -1);
        EXPECT_EQ(delete_hash_ele_from_hash(key, 1, table), -1);
    }
    EXPECT_EQ(is_hashlist_empty(table), 1);
    table->hashFn = [](uintptr_t key) { return static_cast<unsigned>(key); };
    EXPECT_EQ(add_to_hash(503, 1, table), -1);
    EXPECT_EQ(add_to_hash(502, 1, table), 0);
    free_hash_handle(table);
    for (hashFunction hash : {name_hash, wwn_hash})
        EXPECT_GE(hash(0), 503U);
}

TEST(Hash, NullTablesAndFailedCreationGetTheirCodes) {
    uintptr_t some = 0, *out = &some, *all = &some;
    hash_table *copy = nullptr, *none = nullptr;
    EXPECT_EQ((std::vector{add_to_hash(1, 1, none), get_from_hash(1, &out, none),
                           get_all_headers(&all, none), delete_from_hash(1, none),
                           delete_hash_ele_from_hash(1, 1, none), is_hashlist_empty(none),
                           copy_hash_table(none, &copy)}),
              (std::vector{-1, 0, 0, -1, -1, -1, -1}));
    EXPECT_TRUE(out == &some && all == nullptr);
    free_hash_eles(none);
    free_hash_handle(none);
    EXPECT_EQ(create_hash_table(nullptr, pid_cmp), nullptr);
    EXPECT_EQ(create_hash_table(pid_hash, nullptr), nullptr);
    free_hash_handle(support::with_each_failure([] { return create_hash_table(pid_hash, pid_cmp); },
                                                [](auto *made) { EXPECT_EQ(made, nullptr); }));
}

TEST(Hash, PrintsBucketsOfMoreThanOneValue) {
    EXPECT_EQ(support::captured(1, [] { print_hash_table(nullptr); }), "hash hdl is NULL \n");
    hash_table *table = create_hash_table(pid_hash, pid_cmp);
    for (uintptr_t value = 0; value < 6; ++value)
        add_to_hash(9, value, table);
    for (uintptr_t pid : {7U, 510U, 100U})
        add_to_hash(pid, 0, table);
    EXPECT_EQ(support::captured(1, [&] { print_hash_table(table); }),
              "print_hash_table: # buckets 503\n"
              "  buck 7, lst cnt 2, ele cnt 2\n"
              "  buck 9, lst cnt 2, ele cnt 6\n");
    free_hash_handle(table);
}

TEST(Hash, ElfHashTakesExactlyItsBytes) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(
        "ab\0\xff"
        "fibrechannel");
    EXPECT_EQ(ElfHash(bytes, 0) | ElfHash(bytes, -1), 0U);
    EXPECT_EQ(ElfHash(bytes, 4), ((0x61U * 16 + 0x62) * 16) * 16 + 0xff);
    EXPECT_EQ(ElfHash(bytes, 16) % 503, textbook_elf_bucket({"ab\0\xff"
                                                             "fibrechannel",
                                                             16}));
    EXPECT_EQ(name_hash(reinterpret_cast<uintptr_t>("")), 0U);
}

}  // namespace
