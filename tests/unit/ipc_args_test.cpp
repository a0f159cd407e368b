#include "utils/ipc_args.h"

#include <dlfcn.h>
#include <sys/shm.h>

#include <cstring>
#include <functional>
#include <numeric>
#include <vector>

#include "internal/big_endian.h"
#include "platform/ipc.h"
#include "support/heap.h"
#include "support/wire.h"

namespace {

using support::segments;
using Bytes = std::vector<unsigned char>;

bool fail_shmget, fail_shmat;
// The platform's exchange: what it was asked, and what it answers.
struct {
    Bytes request;
    Bytes reply;
    int result = 0;
    uint32_t extra = 0;  // bytes that the platform claims beyond the reply
} peer;

}  // namespace

extern "C" int shmget(key_t key, size_t size, int flags) {
    auto real = reinterpret_cast<decltype(&shmget)>(dlsym(RTLD_NEXT, "shmget"));
    EXPECT_EQ(flags, 01666);
    return fail_shmget ? -1 : real(key, size, flags);
}

extern "C" void *shmat(int id, const void *at, int flags) {
    auto real = reinterpret_cast<decltype(&shmat)>(dlsym(RTLD_NEXT, "shmat"));
    return fail_shmat ? reinterpret_cast<void *>(-1) : real(id, at, flags);
}

int ipcSendRcv(void *address, int code, const void *request, uint32_t length, void *reply,
               uint32_t *reply_length, const uint32_t timeout[2]) {
    EXPECT_STREQ(static_cast<char *>(address), "peer");
    EXPECT_EQ(code, 77);
    EXPECT_EQ(timeout[0], 20u);
    auto *bytes = static_cast<const unsigned char *>(request);
    peer.request.assign(bytes, bytes + length);
    EXPECT_GE(*reply_length, peer.reply.size());
    memcpy(reply, peer.reply.data(), peer.reply.size());
    *reply_length = static_cast<uint32_t>(peer.reply.size()) + peer.extra;
    return peer.result;
}

namespace {

const uint32_t kTimeout[2] = {20, 0};
char peer_address[] = "peer";

Bytes words(const std::vector<uint32_t> &values) {
    std::string bytes = support::words(values);
    return {bytes.begin(), bytes.end()};
}

// A block as it arrives in a handler: with the memory behind it that the platform grants.
struct Message {
    Bytes memory;
    explicit Message(Bytes bytes) : memory(std::move(bytes)) { memory.resize(2048); }
    qelIpcArgBlock *block() { return reinterpret_cast<qelIpcArgBlock *>(memory.data()); }
};

Bytes encoded(std::vector<Bytes> pieces, int expected) {
    std::vector<qelIpcArg> entries;
    for (Bytes &piece : pieces)
        entries.push_back({piece.data(), static_cast<uint32_t>(piece.size())});
    qelIpcArgs args{entries.data(), static_cast<uint32_t>(entries.size())};
    qelIpcArgBlock *block = nullptr;
    EXPECT_EQ(qelIpcArgsEncode(&args, &block), expected);
    auto *bytes = reinterpret_cast<unsigned char *>(block);
    Bytes result(bytes, bytes + (block != nullptr ? expected : 0));
    free(block);
    return result;
}

TEST(IpcArgs, LaysPiecesEndToEndInBigEndianBlocks) {
    Bytes block = encoded({{'a', 'b', 'c'}, {}, {'d', 'e'}}, 28);
    memset(block.data() + 4, 0, 8);  // the words of one process
    Bytes expected = words({QEL_IPC_ARGS_INLINE, 0, 0, 20, 8, 0x61626364, 0x65000000});
    EXPECT_EQ(block, expected);
}

TEST(IpcArgs, CarriesEveryPayloadAndLeavesNoSegment) {
    struct {
        size_t payload;
        int sent;
    } cases[] = {{0, 20}, {1, 24}, {8, 28}, {2024, 2044}, {2025, 28}, {2028, 28}, {100001, 28}};
    for (auto [payload, sent] : cases) {
        Bytes first(payload / 3), second(payload - payload / 3);
        std::iota(first.begin(), first.end(), static_cast<unsigned char>(1));
        std::iota(second.begin(), second.end(), static_cast<unsigned char>(7));
        Message message(encoded({first, second}, sent));
        ASSERT_EQ(qelIpcArgsDecode(message.block()), 0);
        Bytes decoded = message.memory;
        EXPECT_EQ(qelIpcArgsDecode(message.block()), 0);
        EXPECT_EQ(message.memory, decoded);
        auto *data = static_cast<unsigned char *>(qelIpcArgsData(message.block()));
        uint32_t length = qelIpcArgsDataLength(message.block());
        ASSERT_EQ(length, (payload + 3) / 4 * 4);
        first.insert(first.end(), second.begin(), second.end());
        first.resize(length);
        EXPECT_EQ(data == nullptr, length == 0);
        EXPECT_EQ(Bytes(data, data + length), first);
        EXPECT_EQ(
            utils::load_be32(message.memory.data() + 8),
            sizeof data == 4 ? length : static_cast<uint32_t>(reinterpret_cast<uintptr_t>(data)));
        EXPECT_EQ(qelIpcArgsDestroy(message.block()), 0);
        EXPECT_EQ(qelIpcArgsDestroy(message.block()), 0);
        EXPECT_EQ(segments(), 0);
    }
}

TEST(IpcArgs, AnswersBadBlocksAndDisposesOfTheirSegments) {
    constexpr uint32_t kId = 0xFFFFFFFF;  // stands for the id of a segment of 100 bytes
    struct {
        std::vector<uint32_t> block;
        int decoded, destroyed, left;
    } cases[] = {
        {{0, 0, 0, 20, 4}, -22, -22, 1},
        {{3, 0, 0, 20, 4}, -22, -22, 1},
        {{1, 0, 0, 24, 4}, -22, 0, 1},     // body elsewhere
        {{1, 0, 0, 20, 2028}, -22, 0, 1},  // body longer than a request
        {{1, 0, 0, 20, 0xFFFFFFF0}, -22, 0, 1},
        {{9, 0, 0, 20, 4}, -11, -22, 1},
        {{8, 0, 0, 20, 4}, -11, 0, 1},
        {{2, 0, 0, 20, 4, kId, 100}, -22, 0, 1},  // no room for id and size
        {{2, 0, 0, 20, 0, kId, 100}, -22, 0, 1},
        {{2, 0, 0, 20, 8, 0x7FFFFFFF, 100}, -22, 0, 1},
        {{2, 0, 0, 20, 8, kId, 101}, -22, 0, 0},  // smaller than the block says
        {{2, 0, 0, 20, 8, kId, 100}, 0, 0, 0},
    };
    for (auto &c : cases) {
        int id = shmget(IPC_PRIVATE, 100, 01666);
        Bytes block = words(c.block);
        for (size_t at = 20; at < block.size(); at += 4) {
            if (utils::load_be32(&block[at]) == kId)
                utils::store_be32(&block[at], static_cast<uint32_t>(id));
        }
        Message message(block);
        EXPECT_EQ(qelIpcArgsDecode(message.block()), c.decoded) << &c - cases;
        EXPECT_EQ(qelIpcArgsDestroy(message.block()), c.destroyed) << &c - cases;
        EXPECT_EQ(segments(), c.left) << &c - cases;
        if (c.left != 0)
            shmctl(id, IPC_RMID, nullptr);
    }
    EXPECT_EQ(qelIpcArgsDecode(nullptr), -22);
    EXPECT_EQ(qelIpcArgsDestroy(nullptr), -22);
}

TEST(IpcArgs, RefusesWhatCannotBeEncoded) {
    qelIpcArgBlock *block = reinterpret_cast<qelIpcArgBlock *>(&block);
    qelIpcArg pieces[2] = {{&block, 0x80000000u}, {&block, 0x80000000u}};
    qelIpcArg missing{nullptr, 4};
    qelIpcArgs none{pieces, 0}, huge{pieces, 2}, hollow{&missing, 1};
    EXPECT_EQ(qelIpcArgsEncode(nullptr, &block), -22);
    EXPECT_EQ(qelIpcArgsEncode(&none, &block), -22);
    EXPECT_EQ(qelIpcArgsEncode(&hollow, &block), -22);
    EXPECT_EQ(qelIpcArgsEncode(&huge, &block), -12);
    EXPECT_EQ(block, nullptr);
    fail_shmget = true;
    encoded({Bytes(3000)}, -12);
    fail_shmget = false;
    fail_shmat = true;
    encoded({Bytes(3000)}, -12);
    fail_shmat = false;
    EXPECT_EQ(segments(), 0);
    for (uint32_t length : {8u, 4000u}) {
        Bytes piece(length);
        qelIpcArg entry{piece.data(), length};
        qelIpcArgs args{&entry, 1};
        support::refuse_after = 0;
        int result = qelIpcArgsEncode(&args, &block);
        support::refuse_after = -1;
        EXPECT_EQ(result, -12);
    }
}

TEST(IpcArgs, ExchangesBlocksAndChecksTheReply) {
    Bytes ok = words({1, 0, 0, 20, 4, 0xCAFEF00D});
    struct {
        Bytes reply;
        uint32_t extra;
        int result, expected;
    } cases[] = {
        {ok, 0, 0, 0},
        {ok, 0, -110, -110},
        {ok, 0, 5, 5},
        {words({1, 0, 0, 20}), 3, 0, -22},                             // 19 bytes
        {words({1, 0, 0, 20, 8, 1}), 0, 0, -22},                       // body longer than the reply
        {words({5, 0x7FFF, 0xFFFF0000, 20, 4, 0xCAFEF00D}), 0, 0, 0},  // "decoded", says the peer
        {words({8, 0, 0, 20, 0}), 0, 0, -22},
        {words({2, 0, 0, 20, 8, 1}), 0, 0, -22},
        {ok, 3000, 0, -22},
    };
    for (auto &c : cases) {
        peer = {{}, c.reply, c.result, c.extra};
        Bytes request = encoded({Bytes(8)}, 28);
        auto *reply = reinterpret_cast<qelIpcArgBlock *>(&peer);
        int result = qelIpcSendRcv(
            peer_address, 77, reinterpret_cast<qelIpcArgBlock *>(request.data()), &reply, kTimeout);
        EXPECT_EQ(result, c.expected) << &c - cases;
        EXPECT_EQ(peer.request, request);
        ASSERT_EQ(reply != nullptr, result == 0);
        EXPECT_EQ(reply != nullptr ? utils::load_be32(qelIpcArgsData(reply)) : 0xCAFEF00D,
                  0xCAFEF00Du);
        free(reply);
    }
    unsigned char raw[4];
    uint32_t length = sizeof raw;
    peer = {{}, {1, 2}, 9, 0};
    EXPECT_EQ(qelIpcSendOne(peer_address, 77, peer_address, 5, raw, &length, kTimeout), 9);
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(Bytes(peer.request.begin() + 20, peer.request.end()),
              (Bytes{'p', 'e', 'e', 'r', 0, 0, 0, 0}));
    peer.request.clear();
    EXPECT_EQ(qelIpcSendOne(peer_address, 77, nullptr, 5, raw, &length, kTimeout), -22);
    EXPECT_TRUE(peer.request.empty());
}

}  // namespace
