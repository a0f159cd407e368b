// Command messages for a fuzzer: the input is what a client sends before it hangs up. Run it inside
// the test sandbox.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "utils/tnet_cmd.h"

namespace {

// Reads every text that the message claims to hold.
int touch(int argc, char **argv, FILE *out) {
    size_t length = 0;
    for (int i = 0; i < argc; ++i)
        length += strlen(argv[i]);
    if (argv[argc] != nullptr)
        abort();
    fprintf(out, "%zu", length);
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    int ends[2];
    if (size > QEL_TNET_COMMAND_MAX || socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return -1;
    bool sent =
        send(ends[0], data, size, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(size);
    shutdown(ends[0], SHUT_WR);
    if (sent)
        qelTnetCmdCB(ends[1], touch);
    close(ends[0]);
    close(ends[1]);
    return 0;
}
