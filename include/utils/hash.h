/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file hash.h
 * @brief Hash tables from a key word to any number of value words,
 * with keys for process ids, names and WWNs.
 *
 * A table has HASH_BUCKETS chains, always. With both functions of one of the key kinds below it
 * finds a key in the same time at any size, by an index beside the chains; with other functions,
 * and when there is no memory for the index, it walks the chain, which suits some thousands of
 * keys. It maps a key to several values (a multimap) and keeps duplicates. Keys and values are
 * single machine words, numbers or pointers; the table neither copies nor frees what they point to,
 * so a name or a WWN that serves as a key must stay unchanged as long as the key is in the table.
 *
 * Values of a key keep the order in which they were added until one of them is deleted: the last
 * value then takes the place of the deleted one.
 *
 * Threads: a table has no lock of its own; threads that share one serialise all their calls.
 */
#ifndef UTILS_HASH_H
#define UTILS_HASH_H

#include <utils/base.h>
#include <utils/lst.h>

UTILS_BEGIN_DECLS

#define HASH_BUCKETS 503    /**< buckets of every table; a hash function's answer is below this */
#define HASH_BLOCK_VALUES 5 /**< values that share one block */

/**
 * Chooses the bucket of a key.
 * @return a number below HASH_BUCKETS. A key with any other answer is refused: it cannot be added,
 *         and looking for it finds nothing.
 */
typedef unsigned (*hashFunction)(uintptr_t key);

/** Tells whether two keys are the same. @return non-zero when they are */
typedef int (*hashCompare)(uintptr_t stored, uintptr_t lookedUp);

/**
 * A table; public for inspection in a debugger, to be changed only by the calls below. Only
 * create_hash_table() and copy_hash_table() make one: there is more behind the record.
 */
typedef struct hash_table {
    hashFunction hashFn; /**< chooses the bucket */
    hashCompare cmpFn;   /**< identifies the key within the bucket */
    LIST *buckets;       /**< array of lists of hash_header */
    int32_t numBuckets;  /**< HASH_BUCKETS */
} hash_table;

/**
 * A key and its values. The lists of a table are read-only: the first block is part of its header's
 * allocation, and lstFree() or lstDelete() on one of them would leave the table wrong.
 */
typedef struct hash_header {
    NODE link;     /**< place on the bucket's list */
    uintptr_t key; /**< the key as it was given */
    int32_t count; /**< number of values, in all blocks */
    LIST elements; /**< list of hash_block, read-only; only the last one may have free slots */
} hash_header;

/** Up to HASH_BLOCK_VALUES values of one key. */
typedef struct hash_block {
    NODE link;                           /**< place on the header's list */
    uintptr_t values[HASH_BLOCK_VALUES]; /**< the values, oldest first */
    int32_t used;                        /**< slots in use, from 1 */
} hash_block;

/**
 * Makes an empty table.
 * @param hash    chooses the bucket of a key
 * @param compare tells whether two keys are the same
 * @return the table, to be released with free_hash_handle(), or null when memory runs out or a
 *         function is null
 */
hash_table *create_hash_table(hashFunction hash, hashCompare compare);

/**
 * Adds a value to those of @p key. A value that is already there is added again.
 * @return 0, or -1 with the table as it was: null table, refused key, out of memory
 */
int add_to_hash(uintptr_t key, uintptr_t value, hash_table *table);

/**
 * Copies the values of @p key into a new array.
 * @param key   the key
 * @param out   receives the array, which the caller frees with free(); left alone unless the result
 *              is above 0
 * @param table the table
 * @return the number of values, 0 when the key is absent, -1 when memory runs out
 */
int get_from_hash(uintptr_t key, uintptr_t **out, hash_table *table);

/**
 * Finds the record of @p key on one bucket's list. On the bucket that the table's hash function
 * names this takes the same time at any size, for the key kinds below; another list is walked.
 * @return the record, which belongs to the table, or null
 */
hash_header *get_header(uintptr_t key, LIST *bucket, hash_table *table);

/**
 * Copies all keys into a new array, bucket by bucket, within a bucket in the order of arrival.
 * @param out   receives the array, which the caller frees with free(), or null when the result is 0
 * @param table the table
 * @return the number of keys; 0 when there is none, also when memory runs out
 */
int get_all_headers(uintptr_t **out, hash_table *table);

/** Removes @p key and all its values. @return 0, or -1 when the key is absent or the table null */
int delete_from_hash(uintptr_t key, hash_table *table);

/**
 * Removes the first value of @p key that equals @p value; the key's last value moves to its place.
 * A key that has lost its last value is removed.
 * @return 0, also when the key has no such value; -1 when the key is absent or the table null
 */
int delete_hash_ele_from_hash(uintptr_t key, uintptr_t value, hash_table *table);

/** @return 1 when the table has no key, 0 when it has, -1 for a null table */
int is_hashlist_empty(hash_table *table);

/** Removes every key and value; the table can be filled again. Does nothing for a null table. */
void free_hash_eles(hash_table *table);

/** Removes everything and frees the table. Does nothing for a null table. */
void free_hash_handle(hash_table *table);

/**
 * Makes a second table with the same functions, keys and values, in the same order.
 * @param src the table to copy
 * @param dst receives the copy, to be released with free_hash_handle(), or null on failure
 * @return 0, or -1 when memory runs out or an argument is null
 */
int copy_hash_table(hash_table *src, hash_table **dst);

/** Prints the fill of the buckets that hold more than one value on standard output. @return 0 */
int print_hash_table(hash_table *table);

/** The ELF symbol hash of @p len bytes. @return the hash, 0 when @p len is 0 or less */
uint32_t ElfHash(const unsigned char *bytes, int len);

/** @name Keys that are process ids
 *  Negative ids are refused by the table. @{ */
/** @return the bucket of process id @p pid */
unsigned pid_hash(uintptr_t pid);
/** @return 1 when @p stored and @p lookedUp are the same process id, else 0 */
int pid_cmp(uintptr_t stored, uintptr_t lookedUp);
/** @} */

/** @name Keys that point to NUL-terminated names
 *  Null pointers are refused by the table. @{ */
/** @return the bucket of the text at @p name */
unsigned name_hash(uintptr_t name);
/** @return 1 when the texts at @p stored and @p lookedUp are equal, else 0 */
int name_cmp(uintptr_t stored, uintptr_t lookedUp);
/** @} */

/** @name Keys that point to World Wide Names of 8 bytes, at any alignment
 *  Null pointers are refused by the table. @{ */
/** @return the bucket of the name at @p wwn */
unsigned wwn_hash(uintptr_t wwn);
/** @return 1 when the 8 bytes at @p stored and @p lookedUp are equal, else 0 */
int wwn_cmp(uintptr_t stored, uintptr_t lookedUp);
/** @} */

UTILS_END_DECLS

#endif
