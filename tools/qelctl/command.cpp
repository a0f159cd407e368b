// qelctl cmd, redirect and exit: what makes a daemon do something.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "daemons.h"
#include "qelctl.h"
#include "utils/daemon_codes.h"
#include "utils/daemon_ctl.h"
#include "utils/identity.h"
#include "utils/tnet_cmd.h"

namespace qelctl {
namespace {

constexpr int kDefaultTimeout = 20;

class Socket {
  public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket() { close(); }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int get() const { return fd_; }
    void close() {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }

  private:
    int fd_;
};

Failure no_such_daemon(const std::string &name) {
    return Failure("no daemon " + name + " serves switch " + std::to_string(getMySwitch()),
                   kNoSuchDaemon);
}

// A failed request reads like a success, so the daemon is looked for first.
void require_daemon(const std::string &name) {
    Socket socket(connect_to(request_socket(name), SOCK_SEQPACKET));
    if (socket.get() < 0 && errno != EAGAIN)
        throw no_such_daemon(name);
}

bool send_all(int fd, const char *bytes, size_t count) {
    while (count > 0) {
        ssize_t sent = send(fd, bytes, count, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0 && errno == EAGAIN) {
            pollfd room{fd, POLLOUT, 0};
            poll(&room, 1, -1);
            continue;
        }
        if (sent <= 0)
            return false;
        bytes += sent;
        count -= static_cast<size_t>(sent);
    }
    return true;
}

// Carries bytes between the command channel and the daemon until one of them ends, or until the
// daemon has been silent for `timeout_ms`. Whether it ended in time.
bool carry(int channel, int daemon, int timeout_ms) {
    bool asking = true;
    while (true) {
        pollfd ends[2] = {{daemon, POLLIN, 0}, {asking ? channel : -1, POLLIN, 0}};
        int ready = poll(ends, 2, timeout_ms);
        if (ready == 0)
            return false;
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            return true;
        }
        char bytes[4096];
        if (ends[1].revents != 0) {
            ssize_t count = recv(channel, bytes, sizeof bytes, 0);
            if (count > 0 && !send_all(daemon, bytes, static_cast<size_t>(count)))
                return true;
            asking = count > 0;
        }
        if (ends[0].revents != 0) {
            ssize_t count = recv(daemon, bytes, sizeof bytes, 0);
            if (count < 0 && (errno == EAGAIN || errno == EINTR))
                continue;
            if (count <= 0 || !send_all(channel, bytes, static_cast<size_t>(count)))
                return true;
        }
    }
}

struct CommandLine {
    std::string daemon;
    std::vector<std::string> words;
    int timeout = kDefaultTimeout;
};

void run_command(const CommandLine &line) {
    Socket daemon(connect_to(command_socket(line.daemon), SOCK_STREAM));
    if (daemon.get() < 0 && errno == EAGAIN)
        throw Failure(line.daemon + " takes no more connections", kNoAnswer);
    if (daemon.get() < 0)
        throw no_such_daemon(line.daemon);
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
        throw system_failure("cannot make a channel");
    Socket ours(pair[0]), theirs(pair[1]);

    bool in_time = true;
    std::thread carrier([&] {
        in_time = carry(theirs.get(), daemon.get(), line.timeout * 1000);
        shutdown(theirs.get(), SHUT_RDWR);
    });
    std::vector<char *> words;
    for (const std::string &word : line.words)
        words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    qelTnetCmd(ours.get(), static_cast<int>(line.words.size()), words.data(), STDOUT_FILENO);
    shutdown(ours.get(), SHUT_RDWR);
    carrier.join();
    if (!in_time)
        throw Failure(line.daemon + " did not answer within " + std::to_string(line.timeout) + " s",
                      kNoAnswer);
}

// "HOST:PORT" for a word without '/', with the host as a dotted address. False for a path.
bool server_of(const std::string &target, std::string &host, int &port) {
    size_t colon = target.rfind(':');
    if (target.find('/') != std::string::npos || colon == std::string::npos)
        return false;
    char *end = nullptr;
    long number = strtol(target.c_str() + colon + 1, &end, 10);
    if (*end != '\0' || number < 1 || number > 65535)
        throw Failure("not a port: " + target.substr(colon + 1), kUsage);
    addrinfo wanted{}, *found = nullptr;
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    if (int error = getaddrinfo(target.substr(0, colon).c_str(), nullptr, &wanted, &found);
        error != 0)
        throw Failure(target.substr(0, colon) + ": " + gai_strerror(error));
    char text[INET_ADDRSTRLEN];
    getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    freeaddrinfo(found);
    host = text;
    port = static_cast<int>(number);
    return true;
}

void redirect(const std::string &daemon, const std::string &target) {
    require_daemon(daemon);
    std::string text = target;
    qelTnetRedirArgs arguments{getMySwitch(), QELD_REDIRECT_PATH, 0, nullptr};
    if (target.empty()) {
        if (isatty(STDIN_FILENO) == 0)
            throw Failure("standard input is not a terminal; name a path or HOST:PORT", kUsage);
    } else if (server_of(target, text, arguments.port)) {
        arguments.kind = QELD_REDIRECT_SERVER;
        arguments.text = text.c_str();
    } else {
        text = std::filesystem::absolute(target);
        arguments.text = text.c_str();
    }
    qelTnetCmdDesc description{0, nullptr, daemon.c_str(), IPC_CODE_REDIRECT_OUTPUT};
    if (int status = qelTnetCmdRedirHdlr(&description, &arguments); status < 0)
        throw Failure(daemon + " refused to redirect its output (" + std::to_string(status) + ")");
}

void request_exit(const std::string &daemon, bool abort) {
    require_daemon(daemon);
    if (int status = qelDExitRequest(daemon.c_str(), IPC_CODE_EXIT,
                                     abort ? QELD_EXIT_ABORT : QELD_EXIT_NORMAL);
        status < 0)
        throw Failure(daemon + " refused to exit (" + std::to_string(status) + ")");
}

}  // namespace

void add_commands(CLI::App &app) {
    static CommandLine line;
    CLI::App *cmd =
        add_subcommand(app, "cmd", "Run a command inside a daemon and print what it writes");
    add_switch_option(*cmd);
    cmd->add_option("--timeout", line.timeout, "Longest silence of the daemon, in seconds")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str()
        ->type_name("SECONDS");
    cmd->add_option("DAEMON", line.daemon, "The daemon's name")->required();
    // Everything behind DAEMON is the daemon's, options included.
    cmd->prefix_command();
    cmd->footer(
        "Then COMMAND [ARG...]: the command and its arguments go to the daemon as they are; 'help' "
        "lists\nthe commands.");
    cmd->callback([cmd] {
        line.words = cmd->remaining();
        if (line.words.empty())
            throw Failure("COMMAND is required (see qelctl cmd --help)", kUsage);
        run_command(line);
    });

    static std::string redirected, target;
    CLI::App *redir =
        add_subcommand(app, "redirect", "Send a daemon's output to a file, a terminal or a server");
    add_switch_option(*redir);
    redir->add_option("DAEMON", redirected, "The daemon's name")->required();
    redir->add_option("TARGET", target,
                      "A path, or HOST:PORT of a TCP server (default: this terminal)");
    redir->callback([] { redirect(redirected, target); });

    static std::string ended;
    static bool abort = false;
    CLI::App *exit = add_subcommand(app, "exit", "Ask a daemon to end");
    add_switch_option(*exit);
    exit->add_flag("--abort", abort, "Let it abort, so that it leaves a core file");
    exit->add_option("DAEMON", ended, "The daemon's name")->required();
    exit->callback([] { request_exit(ended, abort); });
}

}  // namespace qelctl
