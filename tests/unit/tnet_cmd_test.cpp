// SPDX-License-Identifier: Apache-2.0
// The remote command channel: its messages, the relay of output, peers that go away, and the
// redirections that it asks daemons for.
#include "utils/tnet_cmd.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "support/wire.h"
#include "utils/daemon_ctl.h"
#include "utils/identity.h"
#include "utils/platform/ipc.h"

namespace {

int control_result;        // of the requests to daemons
std::string control_call;  // what was asked: the daemon, the message's code and its payload

std::string asking(uint32_t kind, const std::string &text, uint32_t port) {
    auto length = static_cast<uint32_t>(text.size() + 1);
    std::string padding(4 - text.size() % 4, 0);
    return "portd 8 " + support::words({kind, 16, length, port}) + text + padding;
}

}  // namespace

int ipcSendRcv(void *address, int code, const void *request, uint32_t length, void *reply,
               uint32_t *, const uint32_t *) {
    control_call = static_cast<ipc_address *>(address)->name + (" " + std::to_string(code)) + " " +
                   std::string(static_cast<const char *>(request) + 20, length - 20);
    memcpy(reply, &control_result, sizeof control_result);
    return 0;
}

namespace {

using support::captured;
using support::command_message;
using Command = std::vector<std::string>;

// A connection, whose first end is the client's, or a pipe, whose first end is to be read.
struct Ends {
    int fd[2];
    explicit Ends(bool is_pipe = false) {
        EXPECT_EQ(is_pipe ? pipe(fd) : socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0);
        int size = 1 << 18;
        setsockopt(fd[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
    ~Ends() {
        end(0);
        end(1);
    }
    void end(int side) {
        if (int own = std::exchange(fd[side], -1); own >= 0)
            close(own);
    }
};

std::string read_all(int fd) {
    std::string text;
    char part[4096];
    for (ssize_t n; (n = read(fd, part, sizeof part)) > 0;)
        text.append(part, static_cast<size_t>(n));
    return text;
}

void run(int socket, Command arguments, int out) {
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

// A line for each number below 2^17: a megabyte.
const std::string kMegabyte = [] {
    std::string lines;
    for (int i = 0; i < 1 << 17; ++i)
        lines += std::to_string(i + 1000000) + "\n";
    return lines;
}();

int megabyte(int, char **, FILE *out) {
    return fputs(kMegabyte.c_str(), out);
}

int die(int, char **, FILE *out) {
    fprintf(out, "%0100000d", 7);
    fflush(out);
    return kill(getpid(), SIGKILL);
}

// What a command gives its client, which reads nothing before the daemon is rid of all its output,
// and meets two interruptions of a function.
std::string relayed(qelTnetCommand function, const Command &command, int output_flags = 0,
                    const char *interrupted = nullptr) {
    Ends connection, output(true);
    fcntl(output.fd[1], F_SETFL, output_flags);
    alarm(100);
    std::thread client([&] {
        utils_testing_this_thread_only(interrupted != nullptr);
        if (interrupted != nullptr)
            utils_testing_fail_call(interrupted, 1, EINTR, 2);
        run(connection.fd[0], command, output.fd[1]);
        EXPECT_EQ(fcntl(output.fd[1], F_GETFL) & O_NONBLOCK, output_flags);
        output.end(1);
    });
    auto serve = [&] { return qelTnetCmdCB(connection.fd[1], function), 0; };
    if (function == die)
        EXPECT_EQ(support::signal_of(serve), SIGKILL);
    else
        serve();
    connection.end(1);
    std::string text = read_all(output.fd[0]);
    client.join();
    return text;
}

// What the daemon writes back for the bytes of a message, after which the client hangs up; calls
// may fail as `prepare` says.
std::string answer_to(
    const std::string &message, const std::function<void()> &prepare = [] {}) {
    Ends connection;
    EXPECT_EQ(write(connection.fd[0], message.data(), message.size()),
              static_cast<ssize_t>(message.size()));
    shutdown(connection.fd[0], SHUT_WR);
    qelTnetCmdDesc descriptor{0, echo, nullptr, 0};
    prepare();
    qelTnetCmdCBwrapper(connection.fd[1], &descriptor);
    utils_testing_reset();
    connection.end(1);
    return read_all(connection.fd[0]);
}

const std::string kLongest(QEL_TNET_COMMAND_MAX - 13, 'x');

TEST(TnetCmd, MessagesAgreeWithAnIndependentEncoder) {
    close(0);  // so that the client's end is descriptor 0
    for (const Command &command : {Command{},
                                   {"ab", "c"},
                                   {"", ""},
                                   {kLongest},
                                   Command(99, "abc"),
                                   Command(3000, ""),
                                   Command(QEL_TNET_COMMAND_MAX / 4 + 1, ""),
                                   {kLongest + 'x'}}) {
        Ends connection;
        shutdown(connection.fd[1], SHUT_WR);
        EXPECT_EQ(connection.fd[0], 0);
        run(0, command, 1);
        connection.end(0);
        std::string expected = std::to_string(command.size()), sent = command_message(command);
        for (const std::string &argument : command)
            expected += "|" + argument;
        bool fits = sent.size() <= 4 + QEL_TNET_COMMAND_MAX;  // what no receiver takes is not sent
        ASSERT_EQ(read_all(connection.fd[1]), fits ? sent : "");
        ASSERT_EQ(answer_to(sent), fits ? expected : "");
    }
    EXPECT_EQ(open("/dev/null", O_RDONLY), 0);
    std::string message = command_message({"ab", "c"});
    EXPECT_EQ(message, support::words({21, 2, 16, 19, 0}) + std::string("ab\0c\0", 5));
    static int error, calls;
    for (int each : {EINTR, EAGAIN}) {
        error = each;
        auto one_byte_at_every_second_call = [] {
            support::replace_call("recv", [](int fd, void *to, size_t, int flags) {
                errno = error;
                return ++calls % 2 == 0 ? recv(fd, to, 1, flags) : ssize_t{-1};
            });
        };
        EXPECT_EQ(answer_to(message, one_byte_at_every_second_call), "2|ab|c");
    }
}

TEST(TnetCmd, RunsEveryMessageWhoseTextsEndInsideAndNothingElse) {
    std::string texts("ab\0c\0", 5);
    const struct {
        std::vector<uint32_t> header;
        std::string rest, answer;
    } cases[] = {
        {{}, std::string(3, 0), ""},
        {{8, 1, 0}, "", ""},
        {{21, 2, 16, 19, 0}, texts.substr(1), ""},  // ends early
        {{20, 2, 16, 19, 0}, texts, ""},            // the length cuts the last NUL
        {{22, 2, 16, 19, 0}, texts + '\0', "2|ab|c"},
        {{21, 2, 19, 16, 0}, texts, "2|c|ab"},
        {{21, 2, 16, 16, 0}, texts, "2|ab|ab"},
        {{21, 2, 17, 20, 0}, texts, "2|b|"},
        {{21, 2, 16, 21, 0}, texts, ""},  // offset outside
        {{21, 2, 0xFFFFFFF0, 19, 0}, texts, ""},
        {{21, 2, 16, 19, 1}, texts, ""},           // terminator
        {{21, 0x40000002, 16, 19, 0}, texts, ""},  // 4 x argc wraps
        {{0xFFFFFFFF, 2, 16, 19, 0}, texts, ""},
    };
    for (auto &c : cases)
        EXPECT_EQ(answer_to(support::words(c.header) + c.rest), c.answer)
            << testing::PrintToString(c.header);
    std::string message = command_message({"x"});
    auto no_descriptor = [] { utils_testing_fail_call("fcntl", 1, EMFILE, 1); };
    EXPECT_EQ(answer_to(message, no_descriptor), "qelTcmdCB: unable to dup socket!\n");
    std::string answers[] = {"", "", "qelTcmdCB: unable to fdopen descriptor!\n"};
    for (int granted = 0; granted < 3; ++granted) {
        auto no_memory = [=] {
            utils_testing_fail_allocation(granted + 1, UTILS_TESTING_FROM_THEN_ON);
        };
        EXPECT_EQ(answer_to(message, no_memory), answers[granted]);
    }
}

TEST(TnetCmd, OutputArrivesWholeFromSlowInterruptedDyingAndManyDaemonsAtOnce) {
    std::string zeros(99999, '0');
    for (int flags : {0, O_NONBLOCK}) {
        for (const char *interrupted : {"select", "recv", "write", flags != 0 ? "poll" : "fsync"})
            EXPECT_TRUE(relayed(megabyte, {}, flags, interrupted) == kMegabyte) << interrupted;
    }
    utils_testing_reset();
    EXPECT_EQ(relayed(die, {"die"}), zeros + "7");
    // Two threads each, whose stacks must find room among 32-bit addresses.
    support::in_threads(support::emulated() || sizeof(void *) == 4 ? 40 : 200, [](int i) {
        std::string number = std::to_string(i);
        EXPECT_EQ(relayed(echo, {"number", number}), "2|number|" + number);
    });
}

// What was relayed so far stays; what passes by is waited for.
TEST(TnetCmd, ARelayEndsWithTheFirstCallThatFailsForGood) {
    support::leaves({.blocks = 1});  // kept: of a failed select()
    const std::string output(99, 'o');
    char word[] = "x", *argv[] = {word};
    for (auto [function, error] : {std::pair("fcntl", EBADF),
                                   {"select", EBADF},
                                   {"select", EINTR},
                                   {"recv", ECONNRESET},
                                   {"write", EIO},
                                   {"write", EAGAIN},
                                   {"malloc", ENOMEM},
                                   {"send", EPIPE}}) {
        for (int nth = 1, failures = 1; failures > 0; ++nth) {
            Ends connection, reader(true);
            EXPECT_EQ(write(connection.fd[1], output.data(), 99), 99);
            shutdown(connection.fd[1], SHUT_WR);
            support::replace_call("write", [](int fd, const void *from, size_t size) {
                return write(fd, from, std::min<size_t>(size, 40));
            });
            utils_testing_fail_call(function, nth, error, 1);
            qelTnetCmd(connection.fd[0], 1, argv, reader.fd[1]);
            failures = utils_testing_failures();
            utils_testing_reset();
            reader.end(1);
            std::string text = read_all(reader.fd[0]);
            bool passes = failures == 0 || error == EINTR || error == EAGAIN;
            EXPECT_EQ(text, passes ? output : output.substr(0, text.size())) << function << nth;
        }
    }
}

TEST(TnetCmd, PeerThatGoesAwayCostsOneConnection) {
    Ends client_gone, daemon_gone, silent, output(true);
    std::string message = command_message({"x"});
    EXPECT_GT(write(client_gone.fd[0], message.data(), message.size()), 0);
    client_gone.end(0);
    qelTnetCmdCB(client_gone.fd[1], megabyte);
    sigset_t pending, mask;
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
    daemon_gone.end(1);
    run(daemon_gone.fd[0], {"x"}, output.fd[1]);
    for (int closed : {-1, 1000, 1024}) {
        run(silent.fd[0], {"x"}, closed);
        run(closed, {"x"}, output.fd[1]);
    }
    qelTnetCmd(silent.fd[0], -1, nullptr, output.fd[1]);
    qelTnetCmd(silent.fd[0], 1, nullptr, output.fd[1]);
    qelTnetCmdCB(silent.fd[1], nullptr);
    qelTnetCmdCBwrapper(silent.fd[1], nullptr);
    signal(SIGPIPE, SIG_IGN);
    output.end(0);
    EXPECT_EQ(write(silent.fd[1], "output", 6), 6);
    run(silent.fd[0], {"x"}, output.fd[1]);  // the write fails, so that it does not wait for more
    silent.end(0);
    EXPECT_EQ(read_all(silent.fd[1]), message + message) << "to the closed 1000, and now";
}

TEST(TnetCmd, HandlersSayWhatTheyDo) {
    std::string file = "Redirecting instance3 stdout/err to file /tmp/f...\n";
    std::string tty = "Redirecting instance7 stdout/err to terminal /dev/null...\n";
    std::string server = "Redirecting instance7 stdout/err to server(1.2.3.4), port(99) ...\n";
    std::string no_stdin = "\nFailed to get current terminal\n";
    std::string no_server = "Failed to redirect instance7 output to server(";
    std::string to_file = asking(QELD_REDIRECT_PATH, "/tmp/f", 0);
    std::string to_tty = asking(QELD_REDIRECT_PATH, "/dev/null", 0);
    std::string to_server = asking(QELD_REDIRECT_SERVER, "1.2.3.4", 99);
    std::string to_exit = "portd 8 " + support::words({2});
    support::write_file("/config/haconfig", std::string(12, 0));
    setMySwitch(3);
    const struct {
        int kind;
        const char *text;
        int asked, result;
        std::string call, out, err;
    } cases[] = {
        {1, "/tmp/f", 0, 0, to_file, file, ""},
        {1, "/tmp/f", -22, -1, to_file, file, "\nFailed to send output to file /tmp/f\n"},
        {1, nullptr, 0, 0, to_tty, tty, ""},
        {1, nullptr, -22, -22, to_tty, tty, "\nFailed to set tty\n"},
        {2, "1.2.3.4", 0, 0, to_server, server, ""},
        {2, "1.2.3.4", -1, -1, to_server, "", no_server + "1.2.3.4), port(99)\n"},
        {2, nullptr, 0, -22, "", "", no_server + "(null)), port(99)\n"},
        {3, "1.2.3.4", 0, -22, "", "", ""},
        {0, nullptr, -22, -22, to_exit, "", "Failed to request daemon to exit\n"},
        {0, nullptr, 0, 0, to_exit, "", ""},
        {1, nullptr, 0, 0, "", "", no_stdin},
    };
    qelTnetCmdDesc daemon{0, nullptr, "portd", 8};
    int null = open("/dev/null", O_RDONLY), mode = 2;
    for (auto &c : cases) {
        qelTnetRedirArgs args{7, c.kind, 99, c.text};
        auto handler = c.kind != 0 ? qelTnetCmdRedirHdlr : qelTnetCmdExitHdlr;
        void *argument = c.kind != 0 ? static_cast<void *>(&args) : &mode;
        dup2(null, 0);
        control_call.clear();
        control_result = c.asked;
        auto call = [&] {
            if (c.err == no_stdin)
                close(0);
            EXPECT_EQ(handler(&daemon, argument), c.result);
        };
        auto complain = [&] { EXPECT_EQ(captured(1, call), c.out); };
        EXPECT_EQ(captured(2, complain), c.err);
        EXPECT_EQ(control_call, c.call);
    }
    dup2(null, 0);
    close(null);
    for (auto handler : {qelTnetCmdRedirHdlr, qelTnetCmdExitHdlr}) {
        EXPECT_EQ(handler(nullptr, &mode), -22);
        EXPECT_EQ(handler(&daemon, nullptr), -22);
    }
}

TEST(TnetCmd, AServerGetsTheOutputThatWaitsForNobody) {
    int server = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *name = reinterpret_cast<sockaddr *>(&address);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(server, name, size), 0);
    ASSERT_EQ(listen(server, 1), 0);
    getsockname(server, name, &size);
    int port = ntohs(address.sin_port);
    EXPECT_TRUE(support::passes_in_child([=] {
        EXPECT_EQ(qelDRedirOutputToSocket_impl("127.0.0.1", port), 0);
        EXPECT_TRUE(fcntl(1, F_GETFL) & O_NONBLOCK);
        EXPECT_TRUE(fcntl(2, F_GETFL) & O_NONBLOCK);
    }));
    EXPECT_TRUE(support::passes_in_child([=] {
        for (const char *function : {"socket", "connect", "dup2"}) {
            utils_testing_fail_call(function, 1, EMFILE, 1);
            EXPECT_EQ(qelDRedirOutputToSocket_impl("127.0.0.1", port), -1) << function;
        }
        utils_testing_fail_call("dup2", 2, EMFILE, 1);
        EXPECT_EQ(qelDRedirectOutput_impl("/dev/null"), -1);
    }));
    int connection = accept(server, nullptr, nullptr);
    EXPECT_THAT(read_all(connection),
                testing::HasSubstr("output redirected to host(127.0.0.1), port(" +
                                   std::to_string(port) + ")\n"));
    close(connection);
    close(server);
}

}  // namespace
