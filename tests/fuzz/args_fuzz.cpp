// Argument blocks for a fuzzer: the input is a received block in the memory that a handler gets.
// Blocks in shared memory are passed over, since the fuzzer would name other programs' segments.
// Run it inside the test sandbox.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "utils/ipc_args.h"
#include "utils/platform/posix/ipc_server.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > IPC_REQUEST_MAX || (size >= 4 && (data[3] & QEL_IPC_ARGS_SHM) != 0))
        return -1;
    auto *memory = static_cast<unsigned char *>(calloc(1, IPC_MESSAGE_SIZE));
    if (memory == nullptr)
        return -1;
    memcpy(memory, data, size);
    auto *block = reinterpret_cast<qelIpcArgBlock *>(memory);
    qelIpcArgsReceived(block);
    if (qelIpcArgsDecode(block) == 0) {
        // Sums up the payload; the result must not be thrown away by the compiler.
        static volatile uint32_t total;
        auto *bytes = static_cast<const unsigned char *>(qelIpcArgsData(block));
        for (uint32_t i = 0; i < qelIpcArgsDataLength(block); ++i)
            total = total + bytes[i];
        qelIpcArgsDestroy(block);
    }
    free(memory);
    return 0;
}
