// Hash tables of 503 chains. A bucket is a list of headers, one a key; a header has a list of
// blocks with up to five values each. The table owns headers and blocks, never what keys and values
// point to. Lists are walked without their locks: callers serialise, as the header file says. A
// record is complete before it is linked, so that a failed allocation leaves the table as it was.
#include "utils/hash.h"

#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/heap.h"

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
constexpr int kWwnLength = 8;

hash_header *as_header(NODE *node) {
    return reinterpret_cast<hash_header *>(node);
}
hash_block *as_block(NODE *node) {
    return reinterpret_cast<hash_block *>(node);
}

// The bucket of `key`, or null when there is no table or the key is refused.
LIST *bucket_of(uintptr_t key, const hash_table *table) {
    if (table == nullptr)
        return nullptr;
    unsigned index = table->hashFn(key);
    return index < HASH_BUCKETS ? &table->buckets[index] : nullptr;
}

hash_header *new_header(uintptr_t key) {
    auto *header = allocate_zeroed<hash_header>();
    if (header != nullptr) {
        header->key = key;
        lstInit(&header->elements);
    }
    return header;
}

// For a header that is on no list (any more).
void release_header(hash_header *header) {
    lstFree(&header->elements);
    free(header);
}

bool append_value(hash_header *header, uintptr_t value) {
    hash_block *last = as_block(header->elements.tail);
    if (last == nullptr || last->used == HASH_BLOCK_VALUES) {
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
    hash_header *copy = new_header(source->key);
    if (copy == nullptr)
        return nullptr;
    for (NODE *n = source->elements.head; n != nullptr; n = n->next) {
        auto *block = allocate_zeroed<hash_block>();
        if (block == nullptr) {
            release_header(copy);
            return nullptr;
        }
        memcpy(block->values, as_block(n)->values, sizeof block->values);
        block->used = as_block(n)->used;
        lstAdd(&copy->elements, &block->link);
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

void drop_last_value(hash_header *header) {
    hash_block *last = as_block(header->elements.tail);
    if (--last->used == 0) {
        lstDelete(&header->elements, &last->link);
        free(last);
    }
    --header->count;
}

// Frees everything in `bucket` and destroys the list.
void release_bucket(LIST *bucket) {
    for (NODE *n = bucket->head; n != nullptr; n = n->next)
        lstFree(&as_header(n)->elements);
    lstFree(bucket);
}

}  // namespace
}  // namespace utils

hash_table *create_hash_table(hashFunction hash, hashCompare compare) {
    if (hash == nullptr || compare == nullptr)
        return nullptr;
    utils::HeapBlock<hash_table> table(utils::allocate_zeroed<hash_table>());
    if (!table)
        return nullptr;
    table->buckets = static_cast<LIST *>(calloc(HASH_BUCKETS, sizeof(LIST)));
    if (table->buckets == nullptr)
        return nullptr;
    table->numBuckets = HASH_BUCKETS;
    for (int i = 0; i < HASH_BUCKETS; ++i)
        lstInit(&table->buckets[i]);
    table->hashFn = hash;
    table->cmpFn = compare;
    return table.release();
}

int add_to_hash(uintptr_t key, uintptr_t value, hash_table *table) {
    LIST *bucket = utils::bucket_of(key, table);
    if (bucket == nullptr)
        return UTILS_ERROR;
    hash_header *header = get_header(key, bucket, table);
    if (header != nullptr)
        return utils::append_value(header, value) ? UTILS_OK : UTILS_ERROR;
    header = utils::new_header(key);
    if (header == nullptr)
        return UTILS_ERROR;
    if (!utils::append_value(header, value)) {
        utils::release_header(header);
        return UTILS_ERROR;
    }
    lstAdd(bucket, &header->link);
    return UTILS_OK;
}

int get_from_hash(uintptr_t key, uintptr_t **out, hash_table *table) {
    hash_header *header = get_header(key, utils::bucket_of(key, table), table);
    if (header == nullptr || header->count == 0 || out == nullptr)
        return 0;
    auto *values =
        static_cast<uintptr_t *>(calloc(static_cast<size_t>(header->count), sizeof(uintptr_t)));
    if (values == nullptr)
        return UTILS_ERROR;
    *out = values;
    for (NODE *n = header->elements.head; n != nullptr; n = n->next) {
        hash_block *block = utils::as_block(n);
        memcpy(values, block->values, static_cast<size_t>(block->used) * sizeof(uintptr_t));
        values += block->used;
    }
    return header->count;
}

hash_header *get_header(uintptr_t key, LIST *bucket, hash_table *table) {
    if (bucket == nullptr || table == nullptr)
        return nullptr;
    for (NODE *n = bucket->head; n != nullptr; n = n->next) {
        if (table->cmpFn(utils::as_header(n)->key, key) != 0)
            return utils::as_header(n);
    }
    return nullptr;
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
            *keys++ = utils::as_header(n)->key;
    }
    return count;
}

int delete_from_hash(uintptr_t key, hash_table *table) {
    LIST *bucket = utils::bucket_of(key, table);
    hash_header *header = get_header(key, bucket, table);
    if (header == nullptr)
        return UTILS_ERROR;
    lstDelete(bucket, &header->link);
    utils::release_header(header);
    return UTILS_OK;
}

int delete_hash_ele_from_hash(uintptr_t key, uintptr_t value, hash_table *table) {
    LIST *bucket = utils::bucket_of(key, table);
    hash_header *header = get_header(key, bucket, table);
    if (header == nullptr)
        return UTILS_ERROR;
    uintptr_t *slot = utils::find_value(header, value);
    if (slot == nullptr)
        return UTILS_OK;
    const hash_block *last = utils::as_block(header->elements.tail);
    *slot = last->values[last->used - 1];
    utils::drop_last_value(header);
    if (header->count == 0) {
        lstDelete(bucket, &header->link);
        utils::release_header(header);
    }
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
        utils::release_bucket(&table->buckets[i]);
        lstInit(&table->buckets[i]);
    }
}

void free_hash_handle(hash_table *table) {
    if (table == nullptr)
        return;
    for (int i = 0; i < HASH_BUCKETS; ++i)
        utils::release_bucket(&table->buckets[i]);
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
    for (int i = 0; i < HASH_BUCKETS; ++i) {
        for (NODE *n = src->buckets[i].head; n != nullptr; n = n->next) {
            hash_header *header = utils::copy_header(utils::as_header(n));
            if (header == nullptr) {
                free_hash_handle(copy);
                return UTILS_ERROR;
            }
            lstAdd(&copy->buckets[i], &header->link);
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
            blocks += utils::as_header(n)->elements.count;
            values += utils::as_header(n)->count;
        }
        if (values > 1)
            printf("  buck %d, lst cnt %d, ele cnt %d\n", i, blocks, values);
    }
    return 0;
}

uint32_t ElfHash(const unsigned char *bytes, int len) {
    uint32_t hash = 0;
    for (int i = 0; bytes != nullptr && i < len; ++i) {
        hash = (hash << 4) + bytes[i];
        uint32_t high = hash & 0xF0000000U;
        hash ^= high >> 24;
        hash &= ~high;
    }
    return hash;
}

// A negative remainder becomes an index far above the buckets, which the table refuses.
unsigned pid_hash(uintptr_t pid) {
    return static_cast<unsigned>(static_cast<int32_t>(pid) % HASH_BUCKETS);
}

int pid_cmp(uintptr_t stored, uintptr_t lookedUp) {
    return stored == lookedUp;
}

unsigned name_hash(uintptr_t name) {
    auto *text = reinterpret_cast<const char *>(name);
    if (text == nullptr)
        return utils::kNoBucket;
    int length = static_cast<int>(strnlen(text, INT_MAX));
    return ElfHash(reinterpret_cast<const unsigned char *>(text), length) % HASH_BUCKETS;
}

int name_cmp(uintptr_t stored, uintptr_t lookedUp) {
    return stored != 0 && lookedUp != 0 &&
           strcmp(reinterpret_cast<const char *>(stored),
                  reinterpret_cast<const char *>(lookedUp)) == 0;
}

unsigned wwn_hash(uintptr_t wwn) {
    if (wwn == 0)
        return utils::kNoBucket;
    return ElfHash(reinterpret_cast<const unsigned char *>(wwn), utils::kWwnLength) % HASH_BUCKETS;
}

int wwn_cmp(uintptr_t stored, uintptr_t lookedUp) {
    return stored != 0 && lookedUp != 0 &&
           memcmp(reinterpret_cast<const void *>(stored), reinterpret_cast<const void *>(lookedUp),
                  utils::kWwnLength) == 0;
}
