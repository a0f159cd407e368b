// SPDX-License-Identifier: Apache-2.0
// Hash tables against a model, with memory failing at every point; misuse; the printed overview.
#include "utils/hash.h"

#include <list>
#include <map>

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

// A key as two words that are the same key, and what a table should hold under it.
struct Key {
    uintptr_t words[2];
    unsigned bucket;
    Values values{};
    uintptr_t stored = 0;
    int arrival = 0;
};

// Texts are kept twice, so that the same key stands at two places.
std::vector<Key> keys_for(hashFunction hash) {
    static std::list<std::string> texts;
    std::vector<Key> keys;
    for (unsigned i = 0; i < 300; ++i) {
        unsigned pid = i % 100 + 503 * (i / 100);
        auto text = hash == wwn_hash ? std::string("\x85\0\xff", 3) + std::to_string(10000 + i)
                                     : std::to_string(i) + std::string(i % 20, 'n');
        auto word = [&] { return reinterpret_cast<uintptr_t>(texts.emplace_back(text).data()); };
        if (hash == pid_hash)
            keys.push_back({{pid, pid}, pid % 503});
        else
            keys.push_back({{word(), word()}, textbook_elf_bucket(text)});
    }
    return keys;
}

// What `get` puts into a new array; every allocation failure gives `refusal`.
Values taken(int refusal, const std::function<int(uintptr_t **)> &get) {
    uintptr_t *array = nullptr;
    int count = support::with_each_failure([&] { return get(&array); },
                                           [&](int refused) {
                                               EXPECT_EQ(refused, refusal);
                                               EXPECT_EQ(array, nullptr);
                                           });
    Values values(array, array + count);
    free(array);
    return values;
}

Values values_in(hash_table *table, uintptr_t key) {
    return taken(-1, [&](uintptr_t **out) { return get_from_hash(key, out, table); });
}

// A table that must agree with `keys`.
struct Model {
    hash_table *table;
    std::vector<Key> keys;
    std::mt19937 random{1};

    // Headers come bucket by bucket, in each in order of arrival.
    void expect_held() {
        std::map<std::pair<unsigned, int>, const Key *> order;
        for (const Key &key : keys) {
            if (!key.values.empty())
                order[{key.bucket, key.arrival}] = &key;
        }
        Values expected;
        for (const auto &[place, key] : order) {
            expected.push_back(key->stored);
            ASSERT_EQ(values_in(table, key->stored), key->values);
            hash_header *header = get_header(key->stored, &table->buckets[key->bucket], table);
            ASSERT_EQ(header->elements.count, static_cast<int>(key->values.size() + 4) / 5);
        }
        ASSERT_EQ(taken(0, [&](uintptr_t **out) { return get_all_headers(out, table); }), expected);
        ASSERT_EQ(is_hashlist_empty(table), expected.empty());
    }

    // With `failing`, each allocation of an add fails once: the add is refused, or it succeeds when
    // the memory was for the index.
    void change_one(int step, bool failing) {
        Key &key = keys[random() % (1 + random() % keys.size())];
        uintptr_t word = key.words[random() % 2], value = random() % 8;
        Values &values = key.values;
        const int known = values.empty() ? -1 : 0;
        auto what = random() % 1000 + (step % 4000 < 3000 ? 0 : 400);
        if (what < 560) {
            auto unchanged = [&](int refused) {
                if (refused == 0)
                    values.push_back(value);
                else
                    ASSERT_EQ(refused, -1);
                ASSERT_EQ(values_in(table, word), values);
                for (unsigned bucket : {key.bucket, (key.bucket + 1) % HASH_BUCKETS})
                    ASSERT_EQ(get_header(word, &table->buckets[bucket], table) != nullptr,
                              !values.empty() && bucket == key.bucket);
            };
            auto add = [&] { return add_to_hash(word, value, table); };
            ASSERT_EQ(failing ? support::with_each_failure(add, unchanged) : add(), 0);
            values.push_back(value);
        } else if (what < 960) {
            ASSERT_EQ(delete_hash_ele_from_hash(word, value, table), known);
            if (auto slot = std::find(values.begin(), values.end(), value); slot != values.end()) {
                *slot = values.back();
                values.pop_back();
            }
        } else {
            ASSERT_EQ(delete_from_hash(word, table), known);
            values.clear();
        }
        ASSERT_EQ(values_in(table, word), values);
        if (known != 0 && !values.empty()) {
            key.stored = word;
            key.arrival = step;
        }
    }

    void go_on_with_a_copy() {
        hash_table *copy = nullptr;
        auto make = [&] {
            free_hash_handle(copy);
            return copy_hash_table(table, &(copy = table));
        };
        auto refuse = [&](int refused) { ASSERT_EQ(refused == -1, copy == nullptr); };
        ASSERT_EQ(support::with_each_failure(make, refuse), 0);
        free_hash_handle(std::exchange(table, copy));
    }
};

// Keys come and go in waves.
void run_against_model(const std::vector<Key> &keys, hashFunction hash, hashCompare compare) {
    Model model{support::with_each_failure([&] { return create_hash_table(hash, compare); },
                                           [](auto *made) { EXPECT_EQ(made, nullptr); }),
                keys};
    for (int step = 0; step < 50000 && !testing::Test::HasFatalFailure(); ++step) {
        model.change_one(step, step % 16000 >= 8000);
        if (step % 8000 == 7000) {
            free_hash_eles(model.table);
            for (Key &freed : model.keys)
                freed.values.clear();
        }
        if (step % 8000 == 2500)
            model.go_on_with_a_copy();
        if (step % 500 == 0)
            model.expect_held();
    }
    free_hash_handle(model.table);
}

TEST(Hash, AgreesOverRandomOperationsAndEveryAllocationFailure) {
    support::leaves({.blocks = 1500});  // the texts of the keys
    auto run = []<hashFunction hash, hashCompare compare>() {
        std::vector<Key> keys = keys_for(hash);
        run_against_model(keys, hash, compare);
        // Functions that the table does not know make it walk the chains.
        run_against_model(
            keys, [](uintptr_t key) { return hash(key); },
            [](uintptr_t stored, uintptr_t soughtAfter) { return compare(stored, soughtAfter); });
    };
    run.operator()<pid_hash, pid_cmp>();
    run.operator()<name_hash, name_cmp>();
    run.operator()<wwn_hash, wwn_cmp>();
}

TEST(Hash, AnIndexOfMegabytesComesAndGoes) {
    for (int refused : {0, 1}) {
        hash_table *table = create_hash_table(pid_hash, pid_cmp);
        utils_testing_fail_call("mmap", 1, ENOMEM, refused);
        for (uintptr_t pid = 0; pid < 110000; ++pid)
            ASSERT_EQ(add_to_hash(pid, pid, table), 0);
        for (uintptr_t pid = 0; pid < 110000; ++pid)
            ASSERT_EQ(delete_from_hash(pid, table), 0) << pid;
        EXPECT_EQ(is_hashlist_empty(table), 1);
        free_hash_handle(table);
    }
}

TEST(Hash, ARecordThatAProgramHasMadeServesWithoutAnIndex) {
    auto *own = static_cast<hash_table *>(calloc(1, sizeof(hash_table)));
    own->buckets = static_cast<LIST *>(calloc(HASH_BUCKETS, sizeof(LIST)));
    own->numBuckets = HASH_BUCKETS;
    own->hashFn = pid_hash;
    own->cmpFn = pid_cmp;
    EXPECT_EQ(add_to_hash(7, 8, own), 0);
    EXPECT_EQ(values_in(own, 7), Values{8});
    free_hash_eles(own);
    EXPECT_EQ(values_in(own, 7), Values{});
    free_hash_handle(own);
}

TEST(Hash, RefusesNullsAndKeysWhoseBucketDoesNotExist) {
    hash_table *table = create_hash_table(pid_hash, pid_cmp), *none = nullptr;
    uintptr_t some = 0, *out = &some;
    auto expect_refused = [&](uintptr_t key, hash_table *where) {
        EXPECT_EQ(add_to_hash(key, 1, where), -1);
        EXPECT_EQ(delete_from_hash(key, where), -1);
        EXPECT_EQ(delete_hash_ele_from_hash(key, 1, where), -1);
        EXPECT_EQ(get_from_hash(key, &out, where), 0);
        EXPECT_EQ(out, &some);
    };
    for (int pid : {-1, -502, INT32_MIN})
        expect_refused(static_cast<uintptr_t>(pid), table);
    table->hashFn = [](uintptr_t key) { return static_cast<unsigned>(key); };
    expect_refused(503, table);
    EXPECT_EQ(is_hashlist_empty(table), 1);
    EXPECT_EQ(get_all_headers(&out, table), 0);
    EXPECT_EQ(out, nullptr);
    out = &some;
    EXPECT_EQ(add_to_hash(502, 1, table), 0);
    EXPECT_EQ(pthread_mutex_trylock(&table->buckets[502].lock), 0);
    pthread_mutex_unlock(&table->buckets[502].lock);
    free_hash_handle(table);
    expect_refused(1, none);
    EXPECT_EQ(is_hashlist_empty(none), -1);
    free_hash_eles(none);
    free_hash_handle(none);
    EXPECT_EQ(create_hash_table(nullptr, pid_cmp), nullptr);
    EXPECT_EQ(create_hash_table(pid_hash, nullptr), nullptr);
    EXPECT_GE(name_hash(0), 503U);
    EXPECT_GE(wwn_hash(0), 503U);
    EXPECT_EQ(ElfHash(reinterpret_cast<const unsigned char *>("ab"), -1), 0U);
}

TEST(Hash, PrintsBucketsOfMoreThanOneValueAndSearchesThoseOfOtherTables) {
    hash_table *table = create_hash_table(pid_hash, pid_cmp);
    for (uintptr_t pid : {9U, 9U, 9U, 9U, 9U, 9U, 7U, 510U, 100U})
        add_to_hash(pid, 0, table);
    EXPECT_EQ(support::captured(1, [] { print_hash_table(nullptr); }), "hash hdl is NULL \n");
    EXPECT_EQ(support::captured(1, [&] { print_hash_table(table); }),
              "print_hash_table: # buckets 503\n"
              "  buck 7, lst cnt 2, ele cnt 2\n  buck 9, lst cnt 2, ele cnt 6\n");
    hash_table *other = create_hash_table(pid_hash, pid_cmp);
    EXPECT_NE(get_header(9, &table->buckets[9], other), nullptr) << "a bucket of elsewhere";
    free_hash_handle(other);
    free_hash_handle(table);
}

}  // namespace
