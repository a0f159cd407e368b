// SPDX-License-Identifier: Apache-2.0
#include "utils/tnet_cmd.h"

#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <thread>
#include <tuple>
#include <utility>

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
    void end(int side) { close(std::exchange(fd[side], -1)); }
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

int megabyte(int, char **, FILE *out) {
    for (int i = 0; i < 1 << 17; ++i)
        fprintf(out, "%7d\n", i);
    return 0;
}

int die(int, char **, FILE *out) {
    fprintf(out, "%0100000d", 7);
    fflush(out);
    return kill(getpid(), SIGKILL);
}

// What a command gives its client, which reads nothing before the daemon is rid of all its output.
std::string relayed(qelTnetCommand function, const Command &command, bool in_process = true,
                    int output_flags = 0) {
    Ends connection, output(true);
    fcntl(output.fd[1], F_SETFL, output_flags);
    alarm(100);
    std::thread client([&] {
        run(connection.fd[0], command, output.fd[1]);
        EXPECT_EQ(fcntl(output.fd[1], F_GETFL) & O_NONBLOCK, output_flags);
        output.end(1);
    });
    auto serve = [&] { return qelTnetCmdCB(connection.fd[1], function), 0; };
    EXPECT_EQ(in_process ? serve() : support::in_child(serve).status, in_process ? 0 : SIGKILL);
    connection.end(1);
    std::string text = read_all(output.fd[0]);
    client.join();
    return text;
}

// What the daemon writes back for the bytes of a message, after which the client hangs up. It may
// make so many allocations, and copies of the socket or not.
std::string answer_to(const std::string &message, int granted = INT32_MAX - 1,
                      bool no_copy = false) {
    Ends connection;
    EXPECT_EQ(write(connection.fd[0], message.data(), message.size()),
              static_cast<ssize_t>(message.size()));
    shutdown(connection.fd[0], SHUT_WR);
    qelTnetCmdDesc descriptor{0, echo, nullptr, 0};
    rlimit descriptors;
    getrlimit(RLIMIT_NOFILE, &descriptors);
    rlimit limited{no_copy ? 0 : descriptors.rlim_cur, descriptors.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limited);
    auto serve = [&] { return qelTnetCmdCBwrapper(connection.fd[1], &descriptor), 0; };
    support::without_memory(serve, granted);
    setrlimit(RLIMIT_NOFILE, &descriptors);
    connection.end(1);
    return read_all(connection.fd[0]);
}

// The answer to a message of which every byte is consumed, and followed by a signal, before the
// next one is sent.
std::string answer_to_bytes(const std::string &message, int socket_flags) {
    Ends connection;
    fcntl(connection.fd[1], F_SETFL, socket_flags);
    support::let_interrupt(SIGUSR1);
    std::thread daemon([&] { qelTnetCmdCB(connection.fd[1], echo); });
    for (const char &byte : message) {
        EXPECT_EQ(send(connection.fd[0], &byte, 1, MSG_NOSIGNAL), 1);
        if (!support::eventually([&] {
                int unread = -1;
                return ioctl(connection.fd[1], FIONREAD, &unread) == 0 && unread == 0;
            }))
            break;
        pthread_kill(daemon.native_handle(), SIGUSR1);
    }
    daemon.join();
    connection.end(1);
    return read_all(connection.fd[0]);
}

const std::string kLongest(QEL_TNET_COMMAND_MAX - 13, 'x');

TEST(TnetCmd, MessagesAgreeWithAnIndependentEncoder) {
    Command commands[] = {{}, {"ab", "c"}, {"", ""}, {kLongest}, Command(99, "abc")};
    for (const Command &command : commands) {
        Ends connection;
        shutdown(connection.fd[1], SHUT_WR);
        run(connection.fd[0], command, 1);
        connection.end(0);
        ASSERT_EQ(read_all(connection.fd[1]), command_message(command));
        std::string expected = std::to_string(command.size());
        for (const std::string &argument : command)
            expected += "|" + argument;
        ASSERT_EQ(answer_to(command_message(command)), expected);
    }
    EXPECT_EQ(command_message({"ab", "c"}),
              support::words({21, 2, 16, 19, 0}) + std::string("ab\0c\0", 5));
    for (int flags : {0, O_NONBLOCK})
        EXPECT_EQ(answer_to_bytes(command_message({"ab", "c"}), flags), "2|ab|c");
    Ends unused;
    run(unused.fd[0], {kLongest + 'x'}, 1);
    unused.end(0);
    EXPECT_EQ(read_all(unused.fd[1]), "");  // what no receiver takes is not sent
}

TEST(TnetCmd, RunsEveryMessageWhoseTextsEndInsideAndNothingElse) {
    std::string texts("ab\0c\0", 5);
    std::tuple<std::vector<uint32_t>, std::string, std::string> cases[] = {
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
        {{}, command_message({kLongest}), "1|" + kLongest},
        {{}, command_message({kLongest + 'x'}), ""},
    };
    for (auto &[header, rest, answer] : cases)
        EXPECT_EQ(answer_to(support::words(header) + rest), answer)
            << testing::PrintToString(header);
    std::string message = command_message({"x"});
    EXPECT_EQ(answer_to(message, INT32_MAX - 1, true), "qelTcmdCB: unable to dup socket!\n");
    std::string answers[] = {"", "", "qelTcmdCB: unable to fdopen descriptor!\n"};
    for (int granted = 0; granted < 3; ++granted)
        EXPECT_EQ(answer_to(message, granted), answers[granted]);
}

TEST(TnetCmd, OutputArrivesWholeFromSlowDyingAndTwoHundredDaemonsAtOnce) {
    for (int flags : {0, O_NONBLOCK}) {
        std::string received = relayed(megabyte, {"megabyte"}, true, flags);
        ASSERT_EQ(received.size(), 1u << 20);
        for (size_t i = 0; i < 1 << 17; ++i)
            ASSERT_EQ(atoi(&received[i * 8]), static_cast<int>(i));
    }
    std::string zeros(99999, '0');
    EXPECT_EQ(relayed(die, {"die"}, false), zeros + "7");
    std::vector<std::thread> threads;
    for (int i = 0; i < (support::emulated() ? 40 : 200); ++i) {
        threads.emplace_back([number = std::to_string(i)] {
            EXPECT_EQ(relayed(echo, {"number", number}), "2|number|" + number);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
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
    EXPECT_EQ(sigismember(&pending, SIGPIPE) + sigismember(&mask, SIGPIPE), 0);
    daemon_gone.end(1);
    run(daemon_gone.fd[0], {"x"}, output.fd[1]);
    for (int closed : {-1, 1000, 1024}) {
        run(silent.fd[0], {"x"}, closed);
        run(closed, {"x"}, output.fd[1]);
    }
    signal(SIGPIPE, SIG_IGN);
    output.end(0);
    EXPECT_EQ(write(silent.fd[1], "output", 6), 6);
    run(silent.fd[0], {"x"}, output.fd[1]);  // the write fails, so that it does not wait for more
}

TEST(TnetCmd, HandlersSayWhatTheyDo) {
    std::string file = "Redirecting instance3 stdout/err to file /tmp/f...\n";
    std::string tty = "Redirecting instance7 stdout/err to terminal /dev/null...\n";
    std::string server = "Redirecting instance7 stdout/err to server(1.2.3.4), port(99) ...\n";
    std::string no_file = "\nFailed to send output to file /tmp/f\n";
    std::string no_tty = "\nFailed to set tty\n", no_stdin = "\nFailed to get current terminal\n";
    std::string no_server = "Failed to redirect instance7 output to server(1.2.3.4), port(99)\n";
    std::string no_exit = "Failed to request daemon to exit\n";
    std::string to_file = asking(QELD_REDIRECT_PATH, "/tmp/f", 0);
    std::string to_tty = asking(QELD_REDIRECT_PATH, "/dev/null", 0);
    std::string to_server = asking(QELD_REDIRECT_SERVER, "1.2.3.4", 99);
    std::string to_exit = "portd 8 " + support::words({2});
    support::write_file("/config/haconfig", std::string(12, 0));
    setMySwitch(3);
    std::tuple<int, const char *, int, int, std::string, std::string, std::string> cases[] = {
        {1, "/tmp/f", 0, 0, to_file, file, ""},
        {1, "/tmp/f", -22, -1, to_file, file, no_file},
        {1, nullptr, 0, 0, to_tty, tty, ""},
        {1, nullptr, -22, -22, to_tty, tty, no_tty},
        {2, "1.2.3.4", 0, 0, to_server, server, ""},
        {2, "1.2.3.4", -1, -1, to_server, "", no_server},
        {3, "1.2.3.4", 0, -22, "", "", ""},
        {0, nullptr, -22, -22, to_exit, "", no_exit},
        {0, nullptr, 0, 0, to_exit, "", ""},
        {1, nullptr, 0, 0, "", "", no_stdin},
    };
    qelTnetCmdDesc daemon{0, nullptr, "portd", 8};
    int null = open("/dev/null", O_RDONLY), mode = 2;
    for (auto &[kind, text, asked, result, call, out, err] : cases) {
        qelTnetRedirArgs args{7, kind, 99, text};
        auto handler = kind != 0 ? qelTnetCmdRedirHdlr : qelTnetCmdExitHdlr;
        void *argument = kind != 0 ? static_cast<void *>(&args) : &mode;
        dup2(null, 0);
        control_call.clear();
        control_result = asked;
        int returned = 1;
        bool no_input = err == no_stdin;
        std::string said, complained = support::captured(2, [&] {
                              said = support::captured(1, [&] {
                                  if (no_input)
                                      close(0);
                                  returned = handler(&daemon, argument);
                              });
                          });
        EXPECT_EQ(std::tie(returned, control_call, said, complained),
                  std::tie(result, call, out, err));
    }
}

}  // namespace
