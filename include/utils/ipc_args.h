/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file ipc_args.h
 * @brief Argument blocks: several pieces of data packed into one message to another process.
 *
 * The pieces' bytes are laid end to end, without padding between them; the sum is rounded up to a
 * multiple of 4 with zeros. A payload of up to 2024 bytes travels inside the block, a larger one in
 * a System V shared-memory segment of its own, which the receiver removes. The receiver gets no
 * piece boundaries: both sides agree on the layout, usually a fixed record and then the texts whose
 * offsets the record gives.
 *
 * The block is made of big-endian 32-bit words: flags (QEL_IPC_ARGS_...), two words that mean
 * something in one process only (see qelIpcArgsData()), the body's offset (always 20), the body's
 * length, and the body: the payload, or the segment's id and size.
 *
 * A requester encodes, sends with qelIpcSendRcv() or the platform's ipcSendRcv(), and frees the
 * block with free(). A handler decodes what it received, reads the payload and destroys the block.
 * Nothing that a block says is trusted: lengths and offsets are checked before they are used.
 *
 * A segment whose request is never received (the send fails, or the receiver dies or does not
 * decode it) stays until somebody removes it with `ipcrm` or the machine restarts: the sender
 * cannot know whether the receiver still wants it.
 *
 * Threads: the calls keep no state; a block must not be used by two threads at once.
 */
#ifndef UTILS_IPC_ARGS_H
#define UTILS_IPC_ARGS_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** @name Flags, the first word of a block
 *  @{ */
#define QEL_IPC_ARGS_INLINE 1u  /**< the payload follows the header */
#define QEL_IPC_ARGS_SHM 2u     /**< the payload is in a shared-memory segment */
#define QEL_IPC_ARGS_DECODED 4u /**< the payload can be read in this process */
#define QEL_IPC_ARGS_HELD 8u    /**< reserved for an owner who wants the block left untouched */
/** @} */

/** @name Sizes in bytes
 *  @{ */
#define QEL_IPC_ARGS_HEADER_SIZE 20  /**< header of a block, and the offset of its body */
#define QEL_IPC_ARGS_INLINE_MAX 2024 /**< largest payload that travels inline */
#define QEL_IPC_ARGS_SHM_SIZE 28     /**< a block whose payload is in shared memory */
#define QEL_IPC_ARGS_REPLY_SIZE 2048 /**< the buffer that receives a reply block */
/** @} */

/** One piece of data. */
typedef struct qelIpcArg {
    void *data;      /**< its bytes; not touched when the length is 0 */
    uint32_t length; /**< their number */
} qelIpcArg;

/** What qelIpcArgsEncode() packs; belongs to the caller. */
typedef struct qelIpcArgs {
    qelIpcArg *entries; /**< the pieces */
    uint32_t count;     /**< their number */
} qelIpcArgs;

/** A block, in the heap (encoded, or a reply) or in the memory of a received message. */
typedef struct qelIpcArgBlock qelIpcArgBlock;

/**
 * Packs @p args into a new block.
 * @param args  the pieces
 * @param block receives the block, which the caller releases with free() once it is sent; null on
 *              error. A shared-memory segment stays for the receiver.
 * @return the bytes to send (20 and the payload, or 28), UTILS_EINVAL when @p args is null or empty
 *         or a piece with a length has no data, UTILS_ENOMEM when memory, the segment or its
 *         attachment cannot be had or the sum exceeds 32 bits
 */
int qelIpcArgsEncode(qelIpcArgs *args, qelIpcArgBlock **block);

/**
 * Makes a received block readable in this process. The memory behind @p block must hold at least
 * 2044 bytes, or the whole block when that is shorter and comes from a trusted sender. A segment
 * that cannot be attached, or is smaller than the block says,
 * is removed. Decoding twice is harmless.
 * @return 0, UTILS_EINVAL for a null or malformed block, UTILS_EAGAIN when it is held
 */
int qelIpcArgsDecode(qelIpcArgBlock *block);

/**
 * Releases a decoded block: its segment is detached and removed. The block's own memory stays.
 * @return 0 (also for an inline or held block, and for one in shared memory that is not decoded),
 *         UTILS_EINVAL for a null block or any other flags
 */
int qelIpcArgsDestroy(qelIpcArgBlock *block);

/** @return the payload of a decoded block, null when it is empty; valid until qelIpcArgsDestroy()
 */
void *qelIpcArgsData(const qelIpcArgBlock *block);

/** @return the payload's length in bytes, a multiple of 4 */
uint32_t qelIpcArgsDataLength(const qelIpcArgBlock *block);

/**
 * Says that @p block has just arrived in a message: a "decoded" mark that the sender left in it is
 * void in this process. Call it in a message handler of your own before qelIpcArgsDecode();
 * qelIpcSendRcv() and the library's handlers do so themselves.
 */
static inline void qelIpcArgsReceived(qelIpcArgBlock *block) {
    typedef uint8_t *bytes;
    bytes flags = UTILS_AS(bytes, block);
    flags[3] = UTILS_AS(uint8_t, flags[3] & ~QEL_IPC_ARGS_DECODED);
}

/**
 * Sends an encoded block as a request and receives an argument block as the reply.
 * @param address the target's ipc_address
 * @param code    the request's message code
 * @param block   the request; stays the caller's
 * @param reply   receives the decoded reply, to be released with qelIpcArgsDestroy() and then
 *                free(); null on error
 * @param timeout seconds and microseconds
 * @return 0, UTILS_ENOMEM, UTILS_EINVAL when the reply is shorter than 20 bytes or malformed (or an
 *         argument is null), or the platform's non-zero result. In that last case the reply buffer
 *         of 2048 bytes is kept on purpose and lost: the platform may still write into it.
 */
int qelIpcSendRcv(void *address, int code, qelIpcArgBlock *block, qelIpcArgBlock **reply,
                  const uint32_t timeout[2]);

/**
 * Sends one piece of data as a request block and takes the reply raw.
 * @param address     the target's ipc_address
 * @param code        the request's message code
 * @param data        the piece
 * @param length      its length in bytes
 * @param reply       receives the reply
 * @param replyLength room in @p reply on entry, bytes received on return
 * @param timeout     seconds and microseconds
 * @return what the platform's ipcSendRcv() returned,
 * or a result of qelIpcArgsEncode() with nothing sent
 */
int qelIpcSendOne(void *address, int code, void *data, uint32_t length, void *reply,
                  uint32_t *replyLength, const uint32_t timeout[2]);

UTILS_END_DECLS

#endif
