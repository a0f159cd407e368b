// SPDX-License-Identifier: Apache-2.0
// One scenario a family, run with each of its allocations and system calls failing in turn, until it runs
// through undisturbed. Each time: a stated result, nothing left behind, and the next run as if nothing had been.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "support/wire.h"
#include "utils/platform/posix/ipc_server.h"
#include "utils/utils.h"

namespace {

const struct {
    int error;
    std::vector<const char *> functions;
} kFaults[] = {
    {EINTR,
     {"fcntl", "select", "poll", "open", "read", "write", "posix_fallocate", "connect", "accept4",
      "recv", "send", "recvmsg", "dup2", "flock", "getrandom", "close"}},
    {ENOMEM,
     {"malloc", "poll", "mmap", "shmget", "shmat", "pthread_cond_init", "pthread_condattr_init",
      "popen", "fdopen"}},
#ifndef __SANITIZE_THREAD__  // knows no mutex where another one stood
    {ENOMEM, {"pthread_mutex_init", "pthread_mutexattr_init"}},
#endif
    {EMFILE, {"open", "openat", "socket", "accept4", "popen", "fopen", "eventfd"}},
    {EACCES, {"fcntl", "open", "connect", "bind", "setpriority", "rename", "readlink"}},
    {ENOSPC,
     {"write", "fsync", "ftruncate", "posix_fallocate", "shmget", "mkdir", "mkdirat", "fclose"}},
    {EAGAIN, {"write", "connect", "recv", "send", "pthread_create", "fork"}},
    {ENOLCK, {"fcntl", "flock"}},
    {EIO, {"read", "lseek"}},
    {EADDRINUSE, {"listen"}},
};

// What fails; a scenario switches it off before it tries again, or sets back what it has used.
const char *failing;

void calm() {
    utils_testing_fail_call(failing, 1, 1, 0);
}

// A result that the interface states, for success or for a failure; a right one costs no memory.
template <typename... Stated>
int stated(const char *what, int result, Stated... results) {
    if (((result != results) && ...))
        ADD_FAILURE() << what << " gives " << result;
    return result;
}
#define STATED(call, ...) stated(#call, call, __VA_ARGS__)

// Lets the scenario run with the function's first, second, ... call failing. Gives their number.
int drive(void (*scenario)(), const char *function, int error) {
#ifdef UTILS_TESTING_SANITIZED
    // A sanitizer needs memory of its own where a thread starts.
    utils_testing_this_thread_only(strcmp(function, "malloc") == 0);
#endif
    scenario();  // makes what stays for good, and shows that the last failure did no harm
    for (int nth = 1;; ++nth) {
        support::Holdings before = support::held();
        utils_testing_fail_call(function, nth, error, 1);
        scenario();
        calm();
        if (utils_testing_failures() == 0)
            return nth - 1;
        // A thread that was asked to end may still be at it.
        support::eventually([&] { return support::held().blocks <= before.blocks; }, 2000);
        support::Holdings after = support::held();
        std::string where =
            "call " + std::to_string(nth) + " of " + function + ": " + strerror(error);
        EXPECT_LE(after.blocks, before.blocks) << where;
        EXPECT_EQ(after.descriptors, before.descriptors) << where;
        EXPECT_EQ(after.segments, before.segments) << where;
    }
}

// With each function's calls failing.
void drive_all(const char *family, void (*scenario)()) {
    support::leaves({.descriptors = 2, .threads = 1});  // a watch thread and its pipe, for good
    int points = 0;
    std::string printed = support::captured(1, [&] {
        for (auto &[error, functions] : kFaults) {
            for (const char *function : functions)
                points += drive(scenario, failing = function, error);
        }
    });
    if (testing::Test::HasFailure())
        puts(printed.c_str());
    printf("%s: %d points\n", family, points);
    EXPECT_GT(points, 0);
}

#define SCENARIO(family)                  \
    void use_##family();                  \
    TEST(FailingCalls, family) {          \
        drive_all(#family, use_##family); \
    }                                     \
    void use_##family()

SCENARIO(msgq) {
    msgQHandle queue = msgQCreate(2, 64, 0, "queue");
    if (queue == nullptr)
        return;
    char text[64];
    bool sent = STATED(msgQSend(queue, "message", 8), 0, -1) == 0;
    if (!sent) {
        calm();
        EXPECT_EQ(msgQSend(queue, "message", 8), 0);
    }
    EXPECT_EQ(msgQReceive(queue, text, sizeof text, 0), 0);
    EXPECT_STREQ(text, "message");
    EXPECT_EQ(msgQDelete(queue), 0);
}

SCENARIO(sema) {
    semaHandle sema = semaCreate(1);
    if (sema == nullptr)
        return;
    EXPECT_EQ(utils_testing_failures(), 0) << "a half made one: " << failing;
    EXPECT_EQ(semaTake(sema, 0), 0);
    EXPECT_EQ(semaGive(sema), 0);
    EXPECT_EQ(semaDelete(sema), 0);
}

SCENARIO(hash) {
    hash_table *table = create_hash_table(pid_hash, pid_cmp), *copy = nullptr;
    if (table == nullptr)
        return;
    int added = 0;
    for (uintptr_t key = 1; key <= 20; ++key)
        added += STATED(add_to_hash(key, key + 100, table), 0, -1) == 0;
    uintptr_t *headers = nullptr, *values = nullptr;
    if (STATED(get_all_headers(&headers, table), added, 0) == 0) {
        EXPECT_EQ(headers, nullptr);
    }
    free(headers);
    if (STATED(get_from_hash(20, &values, table), 1, 0, -1) != 1) {
        EXPECT_EQ(values, nullptr);
    }
    free(values);
    STATED(copy_hash_table(table, &copy), 0, -1);
    free_hash_handle(copy);
    calm();
    EXPECT_EQ(add_to_hash(7, 8, table), 0);
    free_hash_handle(table);
}

SCENARIO(qel_string) {
    qelString *string = qelStringInit(2, 0);
    if (string == nullptr)
        return;
    string->ops->append(string, "a long text");
    string->ops->appendf(string, "%0300d", 7);
    string->ops->appendChar(string, 'c');
    calm();
    EXPECT_STREQ(string->ops->set(string, "usable again"), "usable again");
    string->ops->free(string);
}

SCENARIO(timer) {
    msgQHandle queue = msgQCreate(2, TIMER_MESSAGE_LENGTH, 0, "timers");
    timerHandle timer = queue != nullptr ? timer_create_r(queue, nullptr, 1, 2) : nullptr;
    if (timer != nullptr) {
        EXPECT_EQ(timer_set_r(timer, 100000), 0);
        EXPECT_EQ(timer_delete_r(timer), 0);
    }
    timer_close_r();
    if (queue != nullptr)
        msgQDelete(queue);
}

void use_evlogs_of(int32_t platform) {
    static int32_t code;
    code = platform;
    support::replace_call("ioctl", [](int, unsigned long, int32_t *to) { return *to = code, 0; });
    FILE *sink = fopen("/dev/null", "w");
    qel_evlog_db db;
    STATED(qel_evlog_init(&db), 0, -1);
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 4, "a log", "l");
    if (log != nullptr) {
        EXPECT_NE(qel_evlog(log, "event %d", 1), nullptr);
        if (sink != nullptr) {
            EXPECT_EQ(qel_evlog_dump(sink, log, 0), 0);
        }
    } else {
        pthread_mutex_unlock(&db.lock);  // it stays locked
    }
    EXPECT_EQ(qel_evlog_free(&db), 0);
    if (sink != nullptr)
        fclose(sink);
    utils_testing_replace_call("ioctl", nullptr);
}

SCENARIO(evlogs_on_the_heap) {
    use_evlogs_of(26);
}

SCENARIO(evlogs_in_sections) {
    use_evlogs_of(1);
}

SCENARIO(log_cache) {
    static int once = log_cache_init("failing");
    EXPECT_EQ(once, 0);
    log_cache_write("a line of %s", "text");
    char text[100];
    STATED(log_cache_dump(), 0, LOG_CACHE_NO_FILE, LOG_CACHE_NOT_INSTANTIATED);
    if (STATED(log_cache_resize(40000), 0, LOG_CACHE_NO_MEMORY) != 0) {
        EXPECT_EQ(log_cache_dump_buf(text, 100), LOG_CACHE_NOT_INSTANTIATED);
        calm();
        EXPECT_EQ(log_cache_resize(40000), 0);
    }
    EXPECT_EQ(log_cache_reset(), 0);
}

SCENARIO(log_compress) {
    unsigned char bytes[1000];
    char line[] = "a line";
    log_compressor *out = log_createCompressor(bytes, sizeof bytes);
    if (out != nullptr) {
        EXPECT_EQ(log_compressLine(out, line), 0);
    }
    log_deleteCompressor(out);
    log_deleteDecompressor(log_createDecompressor(bytes, sizeof bytes));
}

SCENARIO(service_stat) {
    if (STATED(serviceStat_init(2), 0, -1) == 0)
        serviceStats[1].calls = 3;
    const char *names[] = {"A", "B", nullptr};
    serviceStat_stop("NS", names, 9);
    free(serviceStats);
    serviceStats = nullptr;
}

SCENARIO(register) {
    static const cb_ops ops{nullptr, [](void *) { return 1; }};
    cb_callback callback = [](void *) { return 0; };
    static int32_t id = 0;
    for (int more = 0; more < 5; ++more) {  // once in five an entry needs memory
        if (STATED(cb_register(99, 0, &ops, ++id, callback, nullptr), 0, UTILS_ENOMEM) == 0) {
            EXPECT_EQ(cb_unregister(99, 0, &ops, id), 0);
        }
    }
}

SCENARIO(proc_rwlock) {
    int fd = open("/tmp/lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    procrwlock_t lock;
    if (fd >= 0 && STATED(procrwlock_init(&lock, fd), 0, -1) == 0) {
        if (STATED(procrwlock_rdlock(&lock), 0, -1) == 0)
            STATED(procrwlock_rdunlock(&lock), 0, -1);
        STATED(procrwlock_wrlock(&lock), 0, -1);
        STATED(procrwlock_wrunlock(&lock), 0, -1);
        calm();
        EXPECT_EQ(procrwlock_wrlock_trylock(&lock), 0);
        EXPECT_EQ(procrwlock_wrunlock(&lock), 0);
    }
    if (fd >= 0)
        close(fd);
}

// The watch thread stays for good, and so does what it watches.
SCENARIO(iot) {
    static std::atomic<int> served{0};
    static int ends[2] = {-1, -1};
    if (ends[0] < 0) {
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        auto handler = [](int fd) {
            char byte;
            served += syscall(SYS_read, fd, &byte, 1) == 1;
            return 0;
        };
        ASSERT_EQ(iot_init(nullptr), 0);
        ASSERT_EQ(iot_add(ends[0], handler, 1), 0);
        ASSERT_EQ(iot_start(), 0);
    }
    int before = served;
    EXPECT_EQ(syscall(SYS_write, ends[1], "x", 1), 1);
    EXPECT_TRUE(support::eventually([&] { return served > before; }));
}

SCENARIO(ipc_args) {
    static std::string large(5000, 'x');
    for (uint32_t length : {100u, 5000u}) {
        qelIpcArg piece{large.data(), length};
        qelIpcArgs args{&piece, 1};
        qelIpcArgBlock *block = nullptr;
        if (STATED(qelIpcArgsEncode(&args, &block), length == 100 ? 120 : 28, UTILS_ENOMEM) < 0) {
            EXPECT_EQ(block, nullptr);
            continue;
        }
        if (STATED(qelIpcArgsDecode(block), 0, 0, UTILS_EINVAL) == 0) {
            EXPECT_EQ(qelIpcArgsDataLength(block), length);
        }
        STATED(qelIpcArgsDestroy(block), 0, UTILS_EINVAL);
        free(block);
    }
}

// A daemon in this process, asked by another thread's worth of calls.
SCENARIO(ipc) {
    ipc_address own{myNode(), static_cast<uint16_t>(getMySwitch()), "faulty"};
    ipc_register(5,
                 [](void *to, int code, void *) { return ipcSend(to, code, "yes", 4, nullptr); });
    char reply[10] = "";
    uint32_t length = sizeof reply, limit[2] = {0, 100000};
    bool is_open = ipc_open(&own) == 0;
    int result = ipcSendRcv(&own, 5, "ask", 4, reply, &length, limit);
    if (result == 0) {
        EXPECT_STREQ(reply, "yes");
    }
    calm();
    if (is_open) {
        uint32_t patient[2] = {20, 0};
        length = sizeof reply;
        EXPECT_EQ(ipcSendRcv(&own, 5, "ask", 4, reply, &length, patient), 0);
        EXPECT_STREQ(reply, "yes");
        ipc_close();
        EXPECT_NE(ipcSendRcv(&own, 5, "ask", 4, reply, &length, limit),
                  0);  // the kept connection goes
    }
    ipc_unregister(5);
}

SCENARIO(tnet_cmd) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return;
    static const std::string message = support::command_message({"command", "argument"});
    EXPECT_GT(syscall(SYS_write, ends[0], message.data(), message.size()), 0);
    shutdown(ends[0], SHUT_WR);
    qelTnetCmdDesc descriptor{
        0, [](int argc, char **, FILE *out) { return fprintf(out, "%d", argc); }, nullptr, 0};
    qelTnetCmdCBwrapper(ends[1], &descriptor);
    calm();
    for (int end : ends)
        close(end);
}

SCENARIO(files) {
    STATED(setSwitchStarttime(0), 0, -1);
    int fd = open("/tmp/lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) {
        STATED(fileLock(fd, FILE_LOCK_WRITE_TRY), 0, -1);
        close(fd);
    }
    stor_pid("failing", 1);
    STATED(check_config_onoff("failing"), 0, 1);
    STATED(qel_coreenv_set("failing"), 0, -1, 21);
    EXPECT_EQ(chdir("/tmp"), 0);
    console_printf("console\n");
    dateBootProm();
    getFirmwareVersion();
    ppnameGetInode(getpid());
}

}  // namespace
