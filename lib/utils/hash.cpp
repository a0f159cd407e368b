// SPDX-License-Identifier: Apache-2.0
// Hash tables of 503 chains. A bucket is a list of headers, one a key; a header has a list of
// blocks with up to five values each, of which the first one lies behind the header. The table owns
// headers and blocks, never what keys and values point to. Lists are walked without their locks:
// callers serialise, as the header file says. A record is complete before it is linked, so that a
// failed allocation leaves the table as it was. A table of built-in key functions has an index of
// the keys beside the chains.
#include "utils/hash.h"

#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/heap.h"
#include "base/thread.h"
#include "hash_index.h"

static_assert(offsetof(hash_table, cmpFn) == sizeof(void *));
static_assert(offsetof(hash_table, buckets) == 2 * sizeof(void *));
static_assert(offsetof(hash_table, numBuckets) == 3 * sizeof(void *));
static_assert(offsetof(hash_header, link) == 0 && offsetof(hash_header, key) == sizeof(NODE));
static_assert(offsetof(hash_header, count) == sizeof(NODE) + sizeof(uintptr_t));
static_assert(offsetof(hash_block, link) == 0 && offsetof(hash_block, values) == sizeof(NODE));
static_assert(offsetof(hash_block, used) == sizeof(NODE) + HASH_BLOCK_VALUES * sizeof(uintptr_t));
static_assert(sizeof(void *) != 4 || (sizeof(hash_table) == 16 && sizeof(hash_block) == 32 &&
                                      sizeof(hash_header) == 16 + sizeof(LIST)));

namespace utils {
namespace {

constexpr unsigned kNoBucket = UINT_MAX;  // what the key functions answer for a key that is no key

// What create_hash_table() really makes, with the buckets behind it.
struct Table {
    hash_table open;
    HashIndex index;
    hashFunction hash;  // the functions that the index was made for
    hashCompare compare;
};

// A header as it is allocated.
struct Record {
    hash_header header;
    hash_block first;
    uint64_t word;  // in the index, when the table had one
};
static_assert(offsetof(Record, header) == 0 && offsetof(Table, open) == 0);
static_assert(alignof(LIST) <= alignof(Table));

hash_header *as_header(NODE *node) {
    return reinterpret_cast<hash_header *>(node);
}
hash_block *as_block(NODE *node) {
    return reinterpret_cast<hash_block *>(node);
}
// Allocated as a record, whatever less its header asks for.
Record *as_record(void *header) {
    return static_cast<Record *>(header);
}
// Null for a record that a program made itself,
// which has nothing behind it: told by the place of its buckets.
Table *as_whole(hash_table *table) {
    auto behind = reinterpret_cast<uintptr_t>(table) + sizeof(Table);
    bool own = reinterpret_cast<uintptr_t>(table->buckets) == behind;
    return own ? reinterpret_cast<Table *>(table) : nullptr;
}

void start_index(Table *table) {
    if (table == nullptr)
        return;
    table->index.reset(kind_of(table->open.hashFn, table->open.cmpFn));
    table->hash = table->open.hashFn;
    table->compare = table->open.cmpFn;
}

// The index, or null when the chains must be walked: no built-in functions, no memory, or somebody
// made the record or put other functions into it.
HashIndex *index_of(hash_table *table) {
    Table *whole = as_whole(table);
    if (whole == nullptr)
        return nullptr;
    if (whole->hash != table->hashFn || whole->compare != table->cmpFn)
        whole->index.reset(KeyKind::kUnknown);
    return whole->index.alive() ? &whole->index : nullptr;
}

// Not inlined: the callers need no frame on the stack then.
__attribute__((noinline)) HashEntry *entry_of(uintptr_t key, const HashIndex *index) {
    uint64_t word = 0;
    return index->find(key, &word);
}

// The bucket of `key`, or null when there is no table or the key is refused.
LIST *bucket_of(uintptr_t key, const hash_table *table) {
    if (table == nullptr)
        return nullptr;
    unsigned index = table->hashFn(key);
    return index < HASH_BUCKETS ? &table->buckets[index] : nullptr;
}

// The number of the bucket that holds `entry`, which is that of `key`. No header is looked at.
unsigned bucket_in(const HashIndex &index, const HashEntry &entry, uintptr_t key) {
    return index.kind() == KeyKind::kPid   ? pid_bucket(key)
           : index.kind() == KeyKind::kWwn ? wwn_bucket(key)
                                           : static_cast<unsigned>(entry.word & kBucketBits);
}

hash_header *walk(uintptr_t key, const LIST *bucket, const hash_table *table) {
    for (NODE *n = bucket != nullptr ? bucket->head : nullptr; n != nullptr; n = n->next) {
        if (table->cmpFn(as_header(n)->key, key) != 0)
            return as_header(n);
    }
    return nullptr;
}

// Where a key stands; `entry` only in a table with an index.
struct Place {
    hash_header *header;
    LIST *bucket;
    HashEntry *entry;
};

// The place of `key`; no header when it is absent or there is no table.
Place place_of(uintptr_t key, hash_table *table) {
    if (table == nullptr)
        return {};
    const HashIndex *index = index_of(table);
    if (index == nullptr) {
        LIST *bucket = bucket_of(key, table);
        return {walk(key, bucket, table), bucket, nullptr};
    }
    HashEntry *entry = entry_of(key, index);
    if (entry == nullptr)
        return {};
    return {entry->header, &table->buckets[bucket_in(*index, *entry, key)], entry};
}

// With an empty first block.
hash_header *new_header(uintptr_t key, uint64_t word) {
    auto *record = allocate_zeroed<Record>();
    if (record == nullptr)
        return nullptr;
    record->word = word;
    record->header.key = key;
    LIST *elements = &record->header.elements;
    lstInit(elements);
    elements->head = elements->tail = &record->first.link;
    elements->count = 1;
    return &record->header;
}

void release_blocks(hash_header *header) {
    for (NODE *n = header->elements.head->next; n != nullptr;) {
        NODE *next = n->next;
        free(as_block(n));
        n = next;
    }
    pthread_mutex_destroy(&header->elements.lock);
}

// For a header that is on no list (any more).
void release_header(hash_header *header) {
    release_blocks(header);
    free(as_record(header));
}

// lstDelete() would search the chain first.
void unlink_header(LIST *bucket, hash_header *header) {
    // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker): a header stands in a bucket
    RecordLock lock(bucket->lock);
    const NODE link = header->link;
    (link.previous != nullptr ? link.previous->next : bucket->head) = link.next;
    (link.next != nullptr ? link.next->previous : bucket->tail) = link.previous;
    --bucket->count;
}

void remove_header(const Place &place, hash_table *table) {
    if (place.entry != nullptr)
        as_whole(table)->index.erase(place.entry);
    unlink_header(place.bucket, place.header);
    release_header(place.header);
}

// Puts a complete header, whose key is new, into its bucket and the index.
void link_header(hash_table *table, LIST *bucket, hash_header *header) {
    lstAdd(bucket, &header->link);
    HashIndex *index = index_of(table);
    if (index == nullptr)
        return;
    uint64_t word = as_record(header)->word;
    if (index->kind() == KeyKind::kName)
        word |= static_cast<uint64_t>(bucket - table->buckets);
    index->insert({{word, header}, header->key});
}

// Kept: a value that the key has already is stored again.
bool append_value(hash_header *header, uintptr_t value) {
    hash_block *last = as_block(header->elements.tail);
    if (last->used == HASH_BLOCK_VALUES) {
        last = allocate_zeroed<hash_block>();
        if (last == nullptr)
            return false;
        lstAdd(&header->elements, &last->link);
    }
    last->values[last->used++] = value;
    ++header->count;
    return true;
}

// A header with the same key and blocks, on no list; null when memory runs out.
hash_header *copy_header(hash_header *source) {
    hash_header *copy = new_header(source->key, as_record(source)->word);
    if (copy == nullptr)
        return nullptr;
    hash_block *block = &as_record(copy)->first;
    for (NODE *n = source->elements.head; n != nullptr; n = n->next) {
        if (n != source->elements.head) {
            block = allocate_zeroed<hash_block>();
            if (block == nullptr) {
                release_header(copy);
                return nullptr;
            }
            lstAdd(&copy->elements, &block->link);
        }
        memcpy(block->values, as_block(n)->values, sizeof block->values);
        block->used = as_block(n)->used;
    }
    copy->count = source->count;
    return copy;
}

// The first slot that holds `value`, or null.
uintptr_t *find_value(hash_header *header, uintptr_t value) {
    for (NODE *n = header->elements.head; n != nullptr; n = n->next) {
        hash_block *block = as_block(n);
        for (int i = 0; i < block->used; ++i) {
            if (block->values[i] == value)
                return &block->values[i];
        }
    }
    return nullptr;
}

// A header keeps its first block, even an empty one.
void drop_last_value(hash_header *header) {
    hash_block *last = as_block(header->elements.tail);
    if (--last->used == 0 && header->elements.head != &last->link) {
        lstDelete(&header->elements, &last->link);
        free(last);
    }
    --header->count;
}

// Frees everything in `bucket` and destroys the list.
void release_bucket(LIST *bucket) {
    for (NODE *n = bucket->head; n != nullptr; n = n->next)
        release_blocks(as_header(n));
    lstFree(bucket);
}

}  // namespace
}  // namespace utils

using namespace utils;

hash_table *create_hash_table(hashFunction hash, hashCompare compare) {
    if (hash == nullptr || compare == nullptr)
        return nullptr;
    auto *whole = allocate_zeroed<Table>(HASH_BUCKETS * sizeof(LIST));
    if (whole == nullptr)
        return nullptr;
    hash_table *table = &whole->open;
    table->buckets = reinterpret_cast<LIST *>(whole + 1);
    table->numBuckets = HASH_BUCKETS;
    for (int i = 0; i < HASH_BUCKETS; ++i)
        lstInit(&table->buckets[i]);
    table->hashFn = hash;
    table->cmpFn = compare;
    start_index(whole);
    return table;
}

int add_to_hash(uintptr_t key, uintptr_t value, hash_table *table) {
    if (table == nullptr)
        return UTILS_ERROR;
    const HashIndex *index = index_of(table);
    const HashEntry *entry = nullptr;
    uint64_t word = 0;
    if (index != nullptr && (entry = index->find(key, &word)) != nullptr)
        return append_value(entry->header, value) ? UTILS_OK : UTILS_ERROR;
    LIST *bucket = bucket_of(key, table);
    hash_header *header = index == nullptr ? walk(key, bucket, table) : nullptr;
    if (header != nullptr)
        return append_value(header, value) ? UTILS_OK : UTILS_ERROR;
    if (bucket == nullptr || (header = new_header(key, word)) == nullptr)
        return UTILS_ERROR;
    append_value(header, value);
    link_header(table, bucket, header);
    return UTILS_OK;
}

int get_from_hash(uintptr_t key, uintptr_t **out, hash_table *table) {
    hash_header *header = place_of(key, table).header;
    if (header == nullptr || header->count == 0 || out == nullptr)
        return 0;
    auto *values =
        static_cast<uintptr_t *>(calloc(static_cast<size_t>(header->count), sizeof(uintptr_t)));
    if (values == nullptr)
        return UTILS_ERROR;
    *out = values;
    for (NODE *n = header->elements.head; n != nullptr; n = n->next) {
        hash_block *block = as_block(n);
        memcpy(values, block->values, static_cast<size_t>(block->used) * sizeof(uintptr_t));
        values += block->used;
    }
    return header->count;
}

hash_header *get_header(uintptr_t key, LIST *bucket, hash_table *table) {
    if (bucket == nullptr || table == nullptr)
        return nullptr;
    if (const HashIndex *index = index_of(table)) {
        const HashEntry *entry = entry_of(key, index);
        if (entry != nullptr && bucket == &table->buckets[bucket_in(*index, *entry, key)])
            return entry->header;
        bool own = bucket >= table->buckets && bucket < table->buckets + HASH_BUCKETS;
        if (entry == nullptr && own)
            return nullptr;
    }
    return walk(key, bucket, table);
}

int get_all_headers(uintptr_t **out, hash_table *table) {
    if (out == nullptr)
        return 0;
    *out = nullptr;
    int count = 0;
    for (int i = 0; table != nullptr && i < HASH_BUCKETS; ++i)
        count += table->buckets[i].count;
    if (count == 0)
        return 0;
    auto *keys = static_cast<uintptr_t *>(calloc(static_cast<size_t>(count), sizeof(uintptr_t)));
    if (keys == nullptr)
        return 0;
    *out = keys;
    for (int i = 0; i < HASH_BUCKETS; ++i) {
        for (NODE *n = table->buckets[i].head; n != nullptr; n = n->next)
            *keys++ = as_header(n)->key;
    }
    return count;
}

int delete_from_hash(uintptr_t key, hash_table *table) {
    Place place = place_of(key, table);
    if (place.header == nullptr)
        return UTILS_ERROR;
    remove_header(place, table);
    return UTILS_OK;
}

int delete_hash_ele_from_hash(uintptr_t key, uintptr_t value, hash_table *table) {
    Place place = place_of(key, table);
    if (place.header == nullptr)
        return UTILS_ERROR;
    uintptr_t *slot = find_value(place.header, value);
    if (slot == nullptr)
        return UTILS_OK;
    const hash_block *last = as_block(place.header->elements.tail);
    *slot = last->values[last->used - 1];
    drop_last_value(place.header);
    if (place.header->count == 0)
        remove_header(place, table);
    return UTILS_OK;
}

int is_hashlist_empty(hash_table *table) {
    if (table == nullptr)
        return UTILS_ERROR;
    for (int i = 0; i < HASH_BUCKETS; ++i) {
        if (table->buckets[i].head != nullptr)
            return 0;
    }
    return 1;
}

void free_hash_eles(hash_table *table) {
    for (int i = 0; table != nullptr && i < HASH_BUCKETS; ++i) {
        release_bucket(&table->buckets[i]);
        lstInit(&table->buckets[i]);
    }
    if (table != nullptr)
        start_index(as_whole(table));
}

void free_hash_handle(hash_table *table) {
    if (table == nullptr)
        return;
    for (int i = 0; i < HASH_BUCKETS; ++i)
        release_bucket(&table->buckets[i]);
    Table *whole = as_whole(table);
    if (whole != nullptr)
        whole->index.reset(KeyKind::kUnknown);
    else
        free(table->buckets);
    free(table);
}

int copy_hash_table(hash_table *src, hash_table **dst) {
    if (src == nullptr || dst == nullptr)
        return UTILS_ERROR;
    *dst = nullptr;
    hash_table *copy = create_hash_table(src->hashFn, src->cmpFn);
    if (copy == nullptr)
        return UTILS_ERROR;
    if (index_of(src) == nullptr)
        as_whole(copy)->index.reset(KeyKind::kUnknown);
    for (int i = 0; i < HASH_BUCKETS; ++i) {
        for (NODE *n = src->buckets[i].head; n != nullptr; n = n->next) {
            hash_header *header = copy_header(as_header(n));
            if (header == nullptr) {
                free_hash_handle(copy);
                return UTILS_ERROR;
            }
            link_header(copy, &copy->buckets[i], header);
        }
    }
    *dst = copy;
    return UTILS_OK;
}

int print_hash_table(hash_table *table) {
    if (table == nullptr) {
        printf("hash hdl is NULL \n");
        return 0;
    }
    printf("print_hash_table: # buckets %d\n", table->numBuckets);
    for (int i = 0; i < HASH_BUCKETS; ++i) {
        int blocks = 0;
        int values = 0;
        for (NODE *n = table->buckets[i].head; n != nullptr; n = n->next) {
            blocks += as_header(n)->elements.count;
            values += as_header(n)->count;
        }
        if (values > 1)
            printf("  buck %d, lst cnt %d, ele cnt %d\n", i, blocks, values);
    }
    return 0;
}

uint32_t ElfHash(const unsigned char *bytes, int len) {
    return elf_hash(bytes, len);
}

unsigned pid_hash(uintptr_t pid) {
    return pid_bucket(pid);
}

int pid_cmp(uintptr_t stored, uintptr_t lookedUp) {
    return stored == lookedUp;
}

unsigned name_hash(uintptr_t name) {
    auto *text = reinterpret_cast<const char *>(name);
    if (text == nullptr)
        return kNoBucket;
    int length = static_cast<int>(strnlen(text, INT_MAX));
    return elf_hash(reinterpret_cast<const unsigned char *>(text), length) % HASH_BUCKETS;
}

int name_cmp(uintptr_t stored, uintptr_t lookedUp) {
    return stored != 0 && lookedUp != 0 &&
           strcmp(reinterpret_cast<const char *>(stored),
                  reinterpret_cast<const char *>(lookedUp)) == 0;
}

unsigned wwn_hash(uintptr_t wwn) {
    if (wwn == 0)
        return kNoBucket;
    return wwn_bucket(wwn);
}

int wwn_cmp(uintptr_t stored, uintptr_t lookedUp) {
    return stored != 0 && lookedUp != 0 &&
           memcmp(reinterpret_cast<const void *>(stored), reinterpret_cast<const void *>(lookedUp),
                  kWwnLength) == 0;
}
