// SPDX-License-Identifier: Apache-2.0
// Argument blocks: carried inline and in segments, bad ones, failures.
#include "utils/ipc_args.h"

#include <sys/shm.h>

#include "support/wire.h"

namespace {

using support::segments;
using support::words;

// A block as it arrives in a handler: with the memory behind it that the platform grants.
qelIpcArgBlock *arrived(std::string &block) {
    block.resize(2048);
    return reinterpret_cast<qelIpcArgBlock *>(block.data());
}

std::string encoded(std::vector<std::string> pieces, int expected) {
    std::vector<qelIpcArg> entries;
    for (std::string &piece : pieces)
        entries.push_back({piece.data(), static_cast<uint32_t>(piece.size())});
    qelIpcArgs args{entries.data(), static_cast<uint32_t>(entries.size())};
    qelIpcArgBlock *block = reinterpret_cast<qelIpcArgBlock *>(&args);
    EXPECT_EQ(qelIpcArgsEncode(&args, &block), expected);
    EXPECT_EQ(block == nullptr, expected < 0);
    std::string bytes(reinterpret_cast<char *>(block),
                      static_cast<size_t>(expected < 0 ? 0 : expected));
    free(block);
    return bytes;
}

TEST(IpcArgs, CarriesEveryPayloadAndLeavesNoSegment) {
    std::pair<size_t, int> cases[] = {{0, 20},    {1, 24},    {8, 28},     {2024, 2044},
                                      {2025, 28}, {2028, 28}, {100001, 28}};
    for (auto [size, sent] : cases) {
        std::string payload(size, '\0');
        for (size_t i = 0; i < size; ++i)
            payload[i] = static_cast<char>(i * 7 % 251);
        std::string block = encoded({payload.substr(0, size / 3), payload.substr(size / 3)}, sent);
        payload.resize((size + 3) / 4 * 4);
        block.replace(4, 8, 8, '\0');  // the words of one process
        EXPECT_EQ(block == support::inline_block(payload), size <= QEL_IPC_ARGS_INLINE_MAX);
        ASSERT_EQ(qelIpcArgsDecode(arrived(block)), 0);
        std::string decoded = block;
        EXPECT_EQ(qelIpcArgsDecode(arrived(block)), 0);
        EXPECT_EQ(block, decoded);
        auto *data = static_cast<char *>(qelIpcArgsData(arrived(block)));
        EXPECT_EQ(std::string(data, qelIpcArgsDataLength(arrived(block))), payload);
        EXPECT_EQ(data == nullptr, size == 0);
        uint64_t address = reinterpret_cast<uintptr_t>(data), length = payload.size();
        uint64_t value = sizeof data == 4 ? address << 32 | length : address;
        EXPECT_EQ(block.substr(4, 8),
                  words({static_cast<uint32_t>(value >> 32), static_cast<uint32_t>(value)}));
        EXPECT_EQ(qelIpcArgsDestroy(arrived(block)), 0);
        EXPECT_EQ(qelIpcArgsDestroy(arrived(block)), 0);
        EXPECT_EQ(segments(), 0);
    }
}

TEST(IpcArgs, AnswersBadBlocksAndDisposesOfTheirSegments) {
    constexpr uint32_t kId = 0xFFFFFFFF;  // stands for the id of a segment of 100 bytes
    // The block, the results of decoding and destroying it, segments left.
    std::tuple<std::vector<uint32_t>, int, int, int> cases[] = {
        {{0, 0, 0, 20, 4}, -22, -22, 1},
        {{3, 0, 0, 20, 4}, -22, -22, 1},
        {{1, 0, 0, 24, 4}, -22, 0, 1},     // body elsewhere
        {{1, 0, 0, 20, 2028}, -22, 0, 1},  // body longer than a request
        {{9, 0, 0, 20, 4}, -11, -22, 1},
        {{8, 0, 0, 20, 4}, -11, 0, 1},
        {{2, 0, 0, 20, 4, kId, 100}, -22, 0, 1},  // no room for id and size
        {{2, 0, 0, 20, 8, 0x7FFFFFFF, 100}, -22, 0, 1},
        {{2, 0, 0, 20, 8, kId, 101}, -22, 0, 0},  // smaller than the block says
        {{2, 0, 0, 20, 8, kId, 100}, 0, 0, 0},
    };
    for (auto &[block, decoded, destroyed, left] : cases) {
        SCOPED_TRACE(testing::PrintToString(block));
        int id = shmget(IPC_PRIVATE, 100, 01666);
        if (block.size() > 5 && block[5] == kId)
            block[5] = static_cast<uint32_t>(id);
        std::string bytes = words(block);
        EXPECT_EQ(qelIpcArgsDecode(arrived(bytes)), decoded);
        EXPECT_EQ(qelIpcArgsDestroy(arrived(bytes)), destroyed);
        EXPECT_EQ(segments(), left);
        shmctl(id, IPC_RMID, nullptr);
    }
    EXPECT_EQ(qelIpcArgsDecode(nullptr), -22);
    EXPECT_EQ(qelIpcArgsDestroy(nullptr), -22);
}

TEST(IpcArgs, RefusesWhatCannotBeEncoded) {
    qelIpcArgBlock *block;
    qelIpcArg pieces[2] = {{&block, 0x80000000u}, {&block, 0x80000000u}};
    qelIpcArgs huge{pieces, 2};
    EXPECT_EQ(qelIpcArgsEncode(&huge, &block), -12);
    encoded({}, -22);
    std::string large = words({1, 0, 0, 20, 2028}), small = words({1, 0, 0, 20, 8, 0, 0});
    auto ask = [&](std::string &of) { return qelIpcSendRcv(&of, 1, arrived(of), &block, nullptr); };
    EXPECT_EQ(ask(large), -22);
    arrived(small);  // its memory is there
    EXPECT_EQ(support::without_memory([&] { return ask(small); }), -12);
    EXPECT_EQ(qelIpcSendOne(&large, 1, nullptr, 4, nullptr, nullptr, nullptr), -22);
    utils_testing_fail_call("shmat", 1, ENOMEM, 1);
    encoded({std::string(3000, 'x')}, -12);
    EXPECT_EQ(segments(), 0);
    for (uint32_t length : {8u, 4000u}) {
        std::string piece(length, 'x');
        pieces[0] = {piece.data(), length};
        qelIpcArgs args{pieces, 1};
        auto encode = [&] { return qelIpcArgsEncode(&args, &block); };
        EXPECT_EQ(support::without_memory(encode), -12);
    }
}

}  // namespace
