// SPDX-License-Identifier: Apache-2.0
// Argument blocks: pieces of data packed into one message, inline or through a shared-memory
// segment. The encoder only detaches from a segment; whoever decodes and destroys the block removes
// it. No state outside the block. What arrives is checked before it is used: the body stands at its
// one place, fits its memory, and a segment holds what the block says.
#include "utils/ipc_args.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>

#include "base/big_endian.h"
#include "base/heap.h"
#include "base/retry.h"
#include "utils/platform/ipc.h"

// The wire format; every field is a big-endian 32-bit word.
struct qelIpcArgBlock {
    unsigned char flags[4];
    unsigned char data[4];
    unsigned char data_length[4];
    unsigned char body_offset[4];
    unsigned char body_length[4];  // the body follows
};
static_assert(sizeof(qelIpcArgBlock) == QEL_IPC_ARGS_HEADER_SIZE);
static_assert(offsetof(qelIpcArgBlock, data) == 4 && offsetof(qelIpcArgBlock, data_length) == 8);
static_assert(offsetof(qelIpcArgBlock, body_offset) == 12);
static_assert(IPC_REQUEST_MAX == QEL_IPC_ARGS_HEADER_SIZE + QEL_IPC_ARGS_INLINE_MAX &&
              IPC_REPLY_MAX == QEL_IPC_ARGS_REPLY_SIZE);

namespace utils {
namespace {

constexpr uint32_t kKindMask = QEL_IPC_ARGS_INLINE | QEL_IPC_ARGS_SHM;
constexpr uint32_t kSegmentBody = 8;  // segment id, segment size
constexpr int kSegmentMode = IPC_CREAT | 0666;

const unsigned char *body_of(const qelIpcArgBlock &block) {
    return reinterpret_cast<const unsigned char *>(&block + 1);
}
unsigned char *body_of(qelIpcArgBlock &block) {
    return reinterpret_cast<unsigned char *>(&block + 1);
}
uint32_t flags_of(const qelIpcArgBlock &block) {
    return load_be32(block.flags);
}
uint32_t kind_of(const qelIpcArgBlock &block) {
    return flags_of(block) & kKindMask;
}
int segment_id(const qelIpcArgBlock &block) {
    return static_cast<int>(load_be32(body_of(block)));
}
uint32_t segment_size(const qelIpcArgBlock &block) {
    return load_be32(body_of(block) + 4);
}

// The two process-local words: address and length on the target; one 64-bit address elsewhere.
void set_payload(qelIpcArgBlock &block, const void *data, uint32_t length) {
    auto address = reinterpret_cast<uintptr_t>(data);
    if constexpr (sizeof address == 4) {
        store_be32(block.data, static_cast<uint32_t>(address));
        store_be32(block.data_length, length);
    } else {
        store_be32(block.data, static_cast<uint32_t>(uint64_t{address} >> 32));
        store_be32(block.data_length, static_cast<uint32_t>(address));
    }
}

unsigned char *payload(const qelIpcArgBlock &block) {
    uint64_t address = load_be32(block.data);
    if constexpr (sizeof(uintptr_t) != 4)
        address = address << 32 | load_be32(block.data_length);
    return reinterpret_cast<unsigned char *>(static_cast<uintptr_t>(address));
}

uint32_t payload_length(const qelIpcArgBlock &block) {
    if constexpr (sizeof(uintptr_t) == 4)
        return load_be32(block.data_length);
    if (payload(block) == nullptr)
        return 0;
    bool in_segment = kind_of(block) == QEL_IPC_ARGS_SHM;
    return in_segment ? segment_size(block) : load_be32(block.body_length);
}

void *attach(int id) {
    void *at = shmat(id, nullptr, 0);
    return at == reinterpret_cast<void *>(-1) ? nullptr : at;
}

// Gives a mapping all its pages in one call, where the kernel can, instead of one fault for each.
void populate([[maybe_unused]] void *at, [[maybe_unused]] uint32_t size,
              [[maybe_unused]] bool to_write) {
#ifdef MADV_POPULATE_WRITE
    KeptErrno error;
    madvise(at, size, to_write ? MADV_POPULATE_WRITE : MADV_POPULATE_READ);
#endif
}

void remove_segment(int id) {
    shmctl(id, IPC_RMID, nullptr);
}

// The pieces' total, rounded up to a multiple of 4; beyond 32 bits when that is what they ask for.
bool rounded_size(const qelIpcArgs &args, uint64_t &size) {
    uint64_t sum = 0;
    for (uint32_t i = 0; i < args.count; ++i) {
        if (args.entries[i].length > 0 && args.entries[i].data == nullptr)
            return false;
        sum += args.entries[i].length;
        if (sum > std::numeric_limits<uint32_t>::max())
            break;
    }
    size = (sum + 3) & ~uint64_t{3};
    return true;
}

void copy_pieces(const qelIpcArgs &args, unsigned char *to) {
    for (uint32_t i = 0; i < args.count; ++i) {
        if (args.entries[i].length > 0)
            memcpy(to, args.entries[i].data, args.entries[i].length);
        to += args.entries[i].length;
    }
}

qelIpcArgBlock *new_block(uint32_t flags, uint32_t body_length) {
    auto *block = allocate_zeroed<qelIpcArgBlock>(body_length);
    if (block != nullptr) {
        store_be32(block->flags, flags);
        store_be32(block->body_offset, QEL_IPC_ARGS_HEADER_SIZE);
        store_be32(block->body_length, body_length);
    }
    return block;
}

qelIpcArgBlock *encode_inline(const qelIpcArgs &args, uint32_t size) {
    qelIpcArgBlock *block = new_block(QEL_IPC_ARGS_INLINE, size);
    if (block != nullptr) {
        set_payload(*block, body_of(*block), size);
        copy_pieces(args, body_of(*block));
    }
    return block;
}

// What does not fit into a message goes by shared memory, and its reader removes the segment.
qelIpcArgBlock *encode_in_segment(const qelIpcArgs &args, uint32_t size) {
    HeapBlock<qelIpcArgBlock> block(new_block(QEL_IPC_ARGS_SHM, kSegmentBody));
    if (!block)
        return nullptr;
    int id = shmget(IPC_PRIVATE, size, kSegmentMode);
    if (id == -1)
        return nullptr;
    void *at = attach(id);
    if (at == nullptr) {
        remove_segment(id);
        return nullptr;
    }
    populate(at, size, true);
    copy_pieces(args, static_cast<unsigned char *>(at));
    shmdt(at);
    store_be32(body_of(*block.get()), static_cast<uint32_t>(id));
    store_be32(body_of(*block.get()) + 4, size);
    return block.release();
}

// Attaches the sender's segment; one that is not what the block says is removed at once.
int decode_segment(qelIpcArgBlock &block) {
    if (load_be32(block.body_length) != kSegmentBody)
        return UTILS_EINVAL;
    int id = segment_id(block);
    uint32_t size = segment_size(block);
    void *at = attach(id);
    shmid_ds segment{};
    if (at == nullptr || shmctl(id, IPC_STAT, &segment) != 0 || segment.shm_segsz < size) {
        if (at != nullptr)
            shmdt(at);
        remove_segment(id);
        return UTILS_EINVAL;
    }
    populate(at, size, false);
    set_payload(block, at, size);
    return UTILS_OK;
}

// Decodes a block in memory that holds `inline_max` bytes behind the header.
int decode(qelIpcArgBlock &block, uint32_t inline_max) {
    uint32_t flags = flags_of(block);
    if ((flags & QEL_IPC_ARGS_HELD) != 0)
        return UTILS_EAGAIN;
    if ((flags & QEL_IPC_ARGS_DECODED) != 0)
        return UTILS_OK;
    if (load_be32(block.body_offset) != QEL_IPC_ARGS_HEADER_SIZE)
        return UTILS_EINVAL;
    uint32_t length = load_be32(block.body_length);
    switch (flags & kKindMask) {
        case QEL_IPC_ARGS_INLINE:
            if (length > inline_max)
                return UTILS_EINVAL;
            set_payload(block, length > 0 ? body_of(block) : nullptr, length);
            break;
        case QEL_IPC_ARGS_SHM:
            if (inline_max < kSegmentBody || decode_segment(block) != UTILS_OK)
                return UTILS_EINVAL;
            break;
        default:
            return UTILS_EINVAL;
    }
    store_be32(block.flags, flags | QEL_IPC_ARGS_DECODED);
    return UTILS_OK;
}

}  // namespace
}  // namespace utils

using namespace utils;

int qelIpcArgsEncode(qelIpcArgs *args, qelIpcArgBlock **block) {
    if (block != nullptr)
        *block = nullptr;
    if (args == nullptr || args->count == 0 || args->entries == nullptr || block == nullptr)
        return UTILS_EINVAL;
    uint64_t rounded = 0;
    if (!rounded_size(*args, rounded))
        return UTILS_EINVAL;
    if (rounded > std::numeric_limits<uint32_t>::max())
        return UTILS_ENOMEM;
    auto size = static_cast<uint32_t>(rounded);
    bool fits = size <= QEL_IPC_ARGS_INLINE_MAX;
    *block = fits ? encode_inline(*args, size) : encode_in_segment(*args, size);
    if (*block == nullptr)
        return UTILS_ENOMEM;
    return fits ? QEL_IPC_ARGS_HEADER_SIZE + static_cast<int>(size) : QEL_IPC_ARGS_SHM_SIZE;
}

int qelIpcArgsDecode(qelIpcArgBlock *block) {
    return block != nullptr ? decode(*block, QEL_IPC_ARGS_INLINE_MAX) : UTILS_EINVAL;
}

int qelIpcArgsDestroy(qelIpcArgBlock *block) {
    if (block == nullptr)
        return UTILS_EINVAL;
    uint32_t flags = flags_of(*block);
    switch (flags & (kKindMask | QEL_IPC_ARGS_HELD)) {
        case QEL_IPC_ARGS_SHM:
            if ((flags & QEL_IPC_ARGS_DECODED) != 0) {
                shmdt(payload(*block));
                remove_segment(segment_id(*block));
                // A second call must not detach what may stand at the same address by then.
                set_payload(*block, nullptr, 0);
                store_be32(block->flags, flags & ~QEL_IPC_ARGS_DECODED);
            }
            return UTILS_OK;
        case QEL_IPC_ARGS_INLINE:
        case QEL_IPC_ARGS_HELD:
            return UTILS_OK;
        default:
            return UTILS_EINVAL;
    }
}

void *qelIpcArgsData(const qelIpcArgBlock *block) {
    return block != nullptr ? payload(*block) : nullptr;
}

uint32_t qelIpcArgsDataLength(const qelIpcArgBlock *block) {
    return block != nullptr ? payload_length(*block) : 0;
}

int qelIpcSendRcv(void *address, int code, qelIpcArgBlock *block, qelIpcArgBlock **reply,
                  const uint32_t timeout[2]) {
    if (reply == nullptr)
        return UTILS_EINVAL;
    *reply = nullptr;
    if (block == nullptr)
        return UTILS_EINVAL;
    bool in_block = (flags_of(*block) & QEL_IPC_ARGS_INLINE) != 0;
    uint32_t body_length = load_be32(block->body_length);
    if (in_block && body_length > QEL_IPC_ARGS_INLINE_MAX)
        return UTILS_EINVAL;
    uint32_t length = in_block ? QEL_IPC_ARGS_HEADER_SIZE + body_length : QEL_IPC_ARGS_SHM_SIZE;
    uint32_t received = QEL_IPC_ARGS_REPLY_SIZE;
    HeapBlock<qelIpcArgBlock> buffer(static_cast<qelIpcArgBlock *>(calloc(1, received)));
    if (!buffer)
        return UTILS_ENOMEM;
    int result = ipcSendRcv(address, code, block, length, buffer.get(), &received, timeout);
    if (result != 0) {
        // Kept: the reply of a failed exchange is never freed.
        // Not released: the platform may still hold the buffer of an exchange that it gave up.
        [[maybe_unused]] qelIpcArgBlock *kept = buffer.release();
        return result;
    }
    if (received < QEL_IPC_ARGS_HEADER_SIZE || received > QEL_IPC_ARGS_REPLY_SIZE)
        return UTILS_EINVAL;
    qelIpcArgsReceived(buffer.get());
    if (decode(*buffer.get(), received - QEL_IPC_ARGS_HEADER_SIZE) != UTILS_OK)
        return UTILS_EINVAL;
    *reply = buffer.release();
    return UTILS_OK;
}

int qelIpcSendOne(void *address, int code, void *data, uint32_t length, void *reply,
                  uint32_t *replyLength, const uint32_t timeout[2]) {
    qelIpcArg piece{data, length};
    qelIpcArgs args{&piece, 1};
    qelIpcArgBlock *encoded = nullptr;
    int size = qelIpcArgsEncode(&args, &encoded);
    if (size < 0)
        return size;
    HeapBlock<qelIpcArgBlock> block(encoded);
    return ipcSendRcv(address, code, block.get(), static_cast<uint32_t>(size), reply, replyLength,
                      timeout);
}
