#include "utils/tnet_cmd.h"

#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <random>
#include <thread>

#include "support/heap.h"
#include "support/wire.h"
#include "utils/daemon_ctl.h"
#include "utils/identity.h"

namespace {

int control_result;        // of the requests to daemons
std::string control_call;  // what was asked
bool fail_select, fail_fdopen;

}  // namespace

int getMySwitch(void) {
    return 3;
}
int qelDRedirectOutput(const char *path, const char *daemon, int code) {
    control_call = std::string("path ") + path + " " + daemon + " " + std::to_string(code);
    return control_result;
}
int qelDRedirOutputToSocket(const char *host, int port, const char *daemon, int code) {
    control_call = std::string("host ") + host + " " + std::to_string(port) + " " + daemon + " " +
                   std::to_string(code);
    return control_result;
}
int qelDExitRequest(const char *daemon, int code, int mode) {
    control_call =
        std::string("exit ") + daemon + " " + std::to_string(code) + " " + std::to_string(mode);
    return control_result;
}

extern "C" int select(int n, fd_set *r, fd_set *w, fd_set *e, timeval *t) {
    auto real = reinterpret_cast<decltype(&select)>(dlsym(RTLD_NEXT, "select"));
    return fail_select ? (errno = EBADF, -1) : real(n, r, w, e, t);
}
extern "C" FILE *fdopen(int fd, const char *mode) noexcept {
    auto real = reinterpret_cast<decltype(&fdopen)>(dlsym(RTLD_NEXT, "fdopen"));
    return fail_fdopen ? nullptr : real(fd, mode);
}

namespace {

struct Connection {
    int client, daemon;
    Connection() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client = ends[0];
        daemon = ends[1];
    }
    ~Connection() {
        close(client);
        close(daemon);
    }
    void end(int &side) {
        close(side);
        side = -1;
    }
};

struct Pipe {
    int in, out;
    Pipe() {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        in = ends[0];
        out = ends[1];
    }
    ~Pipe() {
        close(in);
        close(out);
    }
};

std::string read_all(int fd) {
    std::string text;
    char part[4096];
    for (ssize_t n; (n = read(fd, part, sizeof part)) > 0;)
        text.append(part, static_cast<size_t>(n));
    return text;
}

void run(int socket, std::vector<std::string> arguments, int out) {
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    qelTnetCmd(socket, static_cast<int>(argv.size()), argv.data(), out);
}

// Shows its arguments as the daemon sees them.
int echo(int argc, char **argv, FILE *out) {
    fprintf(out, "%d", argc);
    for (int i = 0; i < argc; ++i)
        fprintf(out, "|%s", argv[i]);
    EXPECT_EQ(argv[argc], nullptr);
    EXPECT_TRUE(fcntl(fileno(out), F_GETFD) & FD_CLOEXEC);
    return -1;
}

// What the daemon writes back for the bytes of a message, after which the client hangs up.
std::string answer_to(const std::string &message) {
    Connection connection;
    std::thread sender([&] {
        for (size_t at = 0; at < message.size();) {
            ssize_t n =
                send(connection.client, message.data() + at, message.size() - at, MSG_NOSIGNAL);
            if (n < 0)
                break;
            at += static_cast<size_t>(n);
        }
        shutdown(connection.client, SHUT_WR);
    });
    qelTnetCmdDesc descriptor{0, echo, nullptr, 0};
    qelTnetCmdCBwrapper(connection.daemon, &descriptor);
    connection.end(connection.daemon);
    sender.join();
    return read_all(connection.client);
}

TEST(TnetCmd, MessagesAgreeWithAnIndependentEncoder) {
    std::mt19937 random(3);
    std::vector<std::vector<std::string>> commands{
        {}, {"ab", "c"}, {"", ""}, {std::string(60000, 'x')}};
    for (int i = 0; i < 40; ++i) {
        std::vector<std::string> command(random() % 20);
        for (std::string &argument : command)
            argument.assign(random() % 300, static_cast<char>('a' + random() % 26));
        commands.push_back(command);
    }
    for (auto &command : commands) {
        Connection connection;
        int size = 1 << 18;
        setsockopt(connection.client, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        shutdown(connection.daemon, SHUT_WR);
        run(connection.client, command, 1);
        connection.end(connection.client);
        std::string message = read_all(connection.daemon);
        ASSERT_EQ(message, support::command_message(command));
        std::string expected = std::to_string(command.size());
        for (std::string &argument : command)
            expected += "|" + argument;
        ASSERT_EQ(answer_to(message), expected);
    }
    EXPECT_EQ(support::command_message({"ab", "c"}),
              support::words({21, 2, 16, 19, 0}) + std::string("ab\0c\0", 5));
}

TEST(TnetCmd, RunsNothingThatIsNotAMessage) {
    using support::words;
    std::string texts("ab\0c\0", 5);
    std::string cases[] = {
        "",
        words({21}).substr(1),
        words({7, 0, 0}),
        words({21, 2, 16, 19, 0}) + texts.substr(1),  // ends early
        words({20, 2, 16, 19, 0}) + texts,            // the length cuts the last NUL
        words({22, 2, 16, 19, 0}) + texts + '\0',     // one byte too many
        words({21, 2, 16, 18, 0}) + texts,            // offset into another text
        words({21, 2, 0xFFFFFFF0, 19, 0}) + texts,
        words({21, 2, 16, 19, 1}) + texts,           // terminator
        words({21, 0x40000002, 16, 19, 0}) + texts,  // 4 x argc wraps
        words({21, 0xFFFFFFFF, 16, 19, 0}) + texts,
        words({8, 1, 0}),
        words({0xFFFFFFFF, 2, 16, 19, 0}) + texts,
        support::command_message({std::string(QEL_TNET_COMMAND_MAX - 12, 'x')}),
    };
    for (const std::string &message : cases)
        EXPECT_EQ(answer_to(message), "") << testing::PrintToString(message.substr(0, 40));
    EXPECT_NE(answer_to(support::command_message({std::string(QEL_TNET_COMMAND_MAX - 13, 'x')})),
              "");
#ifdef UTILS_FAKE_MALLOC
    Connection connection;
    std::string message = support::command_message({"ab"});
    EXPECT_EQ(write(connection.client, message.data(), message.size()),
              static_cast<ssize_t>(message.size()));
    support::refuse_after = 1;
    qelTnetCmdCB(connection.daemon, echo);
    support::refuse_after = -1;
    connection.end(connection.daemon);
    EXPECT_EQ(read_all(connection.client), "");
#endif
}

TEST(TnetCmd, ReportsItsOwnFailuresInTheOutput) {
    fail_fdopen = true;
    EXPECT_EQ(answer_to(support::command_message({})), "qelTcmdCB: unable to fdopen descriptor!\n");
    fail_fdopen = false;
    Connection connection;
    std::string message = support::command_message({"x"});
    EXPECT_EQ(write(connection.client, message.data(), message.size()),
              static_cast<ssize_t>(message.size()));
    rlimit before, none{0, 0};
    getrlimit(RLIMIT_NOFILE, &before);
    none.rlim_max = before.rlim_max;
    setrlimit(RLIMIT_NOFILE, &none);
    qelTnetCmdCB(connection.daemon, echo);
    setrlimit(RLIMIT_NOFILE, &before);
    connection.end(connection.daemon);
    EXPECT_EQ(read_all(connection.client), "qelTcmdCB: unable to dup socket!\n");
}

TEST(TnetCmd, ClientThatGoesAwayCostsTheDaemonOneConnection) {
    auto ending = support::in_child([] {
        Connection connection;
        std::string message = support::command_message({"x"});
        if (write(connection.client, message.data(), message.size()) < 0)
            return 1;
        connection.end(connection.client);
        qelTnetCmdCB(connection.daemon, [](int, char **, FILE *out) {
            for (int i = 0; i < 100; ++i)
                fprintf(out, "%2000d\n", i);
            return 0;
        });
        sigset_t pending, mask;
        sigpending(&pending);
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        return sigismember(&pending, SIGPIPE) + sigismember(&mask, SIGPIPE);
    });
    EXPECT_TRUE(ending.exited);
    EXPECT_EQ(ending.status, 0);
}

int megabyte(int, char **, FILE *out) {
    for (int i = 0; i < 1 << 17; ++i)
        fprintf(out, "%7d\n", i);
    return 0;
}

TEST(TnetCmd, RelaysAMegabytePastAFullPipe) {
    Connection connection;
    Pipe pipe;
    std::atomic<bool> daemon_done{false};
    std::string received;
    std::thread daemon([&] {
        qelTnetCmdCB(connection.daemon, megabyte);
        connection.end(connection.daemon);
        daemon_done = true;
    });
    std::thread client([&] {
        run(connection.client, {"megabyte"}, pipe.out);
        EXPECT_EQ(fcntl(pipe.out, F_GETFL) & O_NONBLOCK, 0);
        close(pipe.out);
    });
    // The reader is the slow one: it begins when the daemon is rid of all its output.
    EXPECT_TRUE(support::eventually([&] { return daemon_done.load(); }, 60000));
    received = read_all(pipe.in);
    daemon.join();
    client.join();
    pipe.out = -1;
    ASSERT_EQ(received.size(), 1u << 20);
    for (size_t i = 0; i < 1 << 17; ++i)
        ASSERT_EQ(atoi(&received[i * 8]), static_cast<int>(i));
}

TEST(TnetCmd, DaemonThatDiesEndsTheCommandWithWhatItHadWritten) {
    Connection connection;
    int out = open("/tmp/out", O_RDWR | O_CREAT | O_TRUNC, 0600);
    std::thread client([&] { run(connection.client, {"x"}, out); });
    auto ending = support::in_child([&] {
        qelTnetCmdCB(connection.daemon, [](int, char **, FILE *stream) {
            fprintf(stream, "%0*d", 100000, 7);
            fflush(stream);
            return kill(getpid(), SIGKILL);
        });
        return 0;
    });
    connection.end(connection.daemon);
    client.join();
    close(out);
    EXPECT_EQ(ending.status, SIGKILL);
    std::string expected(100000, '0');
    expected.back() = '7';
    EXPECT_EQ(support::read_file("/tmp/out"), expected);
}

TEST(TnetCmd, TwoHundredCommandsAtOnceEachGetTheirOwnOutput) {
    int count = support::emulated() ? 40 : 200;
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([i] {
            Connection connection;
            Pipe pipe;
            std::thread daemon([&] {
                qelTnetCmdCB(connection.daemon, echo);
                connection.end(connection.daemon);
            });
            run(connection.client, {"number", std::to_string(i)}, pipe.out);
            daemon.join();
            close(pipe.out);
            EXPECT_EQ(read_all(pipe.in), "2|number|" + std::to_string(i));
            pipe.out = -1;
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

TEST(TnetCmd, FailuresEndTheRelayQuietly) {
    signal(SIGPIPE, SIG_IGN);
    Pipe pipe;
    Connection gone;
    gone.end(gone.daemon);
    run(gone.client, {"x"}, pipe.out);  // cannot send
    fail_select = true;
    Connection connection;
    run(connection.client, {"x"}, pipe.out);
    fail_select = false;
    EXPECT_NE(fcntl(pipe.out, F_GETFL) & O_NONBLOCK, 0);  // left as it was then
    run(connection.client, {"x"}, 1024);
    run(1024, {"x"}, pipe.out);
    run(connection.client, {"x"}, -1);
    run(connection.client, {"x"}, 1000);  // not open
    close(pipe.in);
    Connection silent;
    EXPECT_EQ(write(silent.daemon, "output", 6), 6);
    std::thread client([&] { run(silent.client, {"x"}, pipe.out); });
    client.join();  // the write failed, so that it does not wait for the daemon
    pipe.in = open("/dev/null", O_RDONLY);
}

TEST(TnetCmd, HandlersSayWhatTheyDo) {
    qelTnetCmdDesc daemon{0, nullptr, "portd", 8};
    struct {
        qelTnetRedirArgs args;
        int asked, result;
        std::string call, out, err;
    } cases[] = {
        {{7, 1, 0, "/tmp/f"},
         0,
         0,
         "path /tmp/f portd 8",
         "Redirecting instance3 stdout/err to file /tmp/f...\n",
         ""},
        {{7, 1, 0, "/tmp/f"},
         -22,
         -1,
         "path /tmp/f portd 8",
         "Redirecting instance3 stdout/err to file /tmp/f...\n",
         "\nFailed to send output to file /tmp/f\n"},
        {{7, 1, 0, nullptr},
         0,
         0,
         "path /dev/null portd 8",
         "Redirecting instance7 stdout/err to terminal /dev/null...\n",
         ""},
        {{7, 1, 0, nullptr},
         -22,
         -22,
         "path /dev/null portd 8",
         "Redirecting instance7 stdout/err to terminal /dev/null...\n",
         "\nFailed to set tty\n"},
        {{7, 2, 99, "1.2.3.4"},
         0,
         0,
         "host 1.2.3.4 99 portd 8",
         "Redirecting instance7 stdout/err to server(1.2.3.4), port(99) ...\n",
         ""},
        {{7, 2, 99, "1.2.3.4"},
         -1,
         -1,
         "host 1.2.3.4 99 portd 8",
         "",
         "Failed to redirect instance7 output to server(1.2.3.4), port(99)\n"},
        {{7, 3, 99, "1.2.3.4"}, 0, -22, "", "", ""},
    };
    int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    for (auto &c : cases) {
        control_call.clear();
        control_result = c.asked;
        int result = 1;
        std::string out,
            err = support::captured(2, [&] {
                out = support::captured(1, [&] { result = qelTnetCmdRedirHdlr(&daemon, &c.args); });
            });
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(control_call, c.call);
        EXPECT_EQ(out, c.out);
        EXPECT_EQ(err, c.err);
    }
    EXPECT_EQ(support::captured(2,
                                [&] {
                                    close(0);
                                    EXPECT_EQ(qelTnetCmdRedirHdlr(&daemon, &cases[2].args), 0);
                                }),
              "\nFailed to get current terminal\n");
    dup2(null, 0);
    int mode = 2;
    control_result = -22;
    EXPECT_EQ(support::captured(2, [&] { EXPECT_EQ(qelTnetCmdExitHdlr(&daemon, &mode), -22); }),
              "Failed to request daemon to exit\n");
    EXPECT_EQ(control_call, "exit portd 8 2");
}

}  // namespace
