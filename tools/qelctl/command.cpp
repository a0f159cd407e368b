// SPDX-License-Identifier: Apache-2.0
// qelctl cmd, redirect and exit: what makes a daemon do something.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>

#include "daemons.h"
#include "process.h"
#include "qelctl.h"
#include "text.h"
#include "utils/daemon_codes.h"
#include "utils/daemon_ctl.h"
#include "utils/identity.h"
#include "utils/ipc_args.h"
#include "utils/platform/ipc.h"
#include "utils/tnet_cmd.h"

namespace qelctl {
namespace {

constexpr int kDefaultTimeout = 20;
constexpr int kResultSeconds = 2;

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

// Why the socket of a daemon does not take a connection; `reason` is what the system says.
Failure no_connection(const std::string &name, const char *socket, int reason) {
    if (reason == EAGAIN)
        return Failure(name + " takes no more connections", kNoAnswer);
    if (reason == EACCES || reason == EPERM)
        return Failure(name + ": permission denied: its " + socket + " is another user's");
    Daemon daemon = find_daemon(name);
    if (daemon.life != Life::kRunning)
        return no_such_daemon(name);
    std::string process = daemon.pid != 0 ? ", process " + std::to_string(daemon.pid) + "," : "";
    return Failure(name + process + " runs and has no " + socket);
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

bool send_all(int fd, const std::string &text) {
    return send_all(fd, text.data(), text.size());
}

// Carries bytes between the command channel and the daemon until one of them ends, or until the
// daemon has been silent for `timeout_ms`; checks what it says when that goes to a terminal.
// Whether it ended in time; `answered` when it has said anything.
bool carry(int channel, int daemon, int timeout_ms, bool to_terminal, bool &answered) {
    bool asking = true, heard = true;
    TextFilter filter;
    // A daemon that ends the connection at once must not keep the command from being sent.
    pollfd asked{channel, POLLIN, 0};
    poll(&asked, 1, timeout_ms);
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
            asking = count > 0;
            // One that hears nothing more may have said why.
            if (asking && heard)
                heard = send_all(daemon, bytes, static_cast<size_t>(count));
        }
        if (ends[0].revents != 0) {
            ssize_t count = recv(daemon, bytes, sizeof bytes, 0);
            if (count < 0 && (errno == EAGAIN || errno == EINTR))
                continue;
            std::string_view text(bytes, count > 0 ? static_cast<size_t>(count) : 0);
            answered |= count > 0;
            bool sent = !to_terminal   ? send_all(channel, text.data(), text.size())
                        : text.empty() ? send_all(channel, filter.end())
                                       : send_all(channel, filter.pass(text));
            if (text.empty() || !sent)
                return true;
        }
    }
}

struct CommandLine {
    std::string daemon;
    std::vector<std::string> words;
    int timeout = kDefaultTimeout;
};

// Who can write to the sockets' directory can stand there in a daemon's place. Trusted are root,
// our own user, and the one that root lets write the daemon's pid file.
void require_trusted(const std::string &daemon, const Peer &peer) {
    struct stat owned {};
    if (peer.user != 0 && peer.user != geteuid() &&
        (lstat(pid_file(daemon).c_str(), &owned) != 0 || owned.st_uid != peer.user))
        throw Failure(daemon + " is served by " + user_name(peer.user) + ", who is not trusted");
}

// Sends the words to the daemon and copies what it says to `out`; whether it has said anything.
bool relay(const Socket &daemon, const CommandLine &line, int out) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
        throw system_failure("cannot make a channel");
    Socket ours(pair[0]), theirs(pair[1]);

    std::vector<char *> words;
    for (const std::string &word : line.words)
        words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    bool in_time = true, answered = false, to_terminal = isatty(out) == 1;
    std::exception_ptr failure;
    std::thread carrier([&] {
        try {
            in_time = carry(theirs.get(), daemon.get(), line.timeout * 1000, to_terminal, answered);
        } catch (...) {
            failure = std::current_exception();
        }
        shutdown(theirs.get(), SHUT_RDWR);
    });
    qelTnetCmd(ours.get(), static_cast<int>(line.words.size()), words.data(), out);
    shutdown(ours.get(), SHUT_RDWR);
    carrier.join();
    if (failure)
        std::rethrow_exception(failure);
    if (!in_time)
        throw Failure(line.daemon + " did not answer within " + std::to_string(line.timeout) + " s",
                      kNoAnswer);
    return answered;
}

// Asks for what this process's last command gave, by the daemon's own word: 0 from one that keeps
// no results and from one that has ended, nothing from one that has no room for us now.
std::optional<int> kept_result(const CommandLine &line, const Peer &first) {
    Socket daemon(connect_to(command_socket(line.daemon), SOCK_STREAM));
    if (daemon.get() < 0 && errno == EAGAIN)
        return std::nullopt;
    if (daemon.get() < 0 || peer_of(daemon.get()).pid != first.pid)
        return 0;
    Socket answer(memfd_create("result", MFD_CLOEXEC));
    relay(daemon, {line.daemon, {"result"}, line.timeout}, answer.get());
    char text[16] = {};
    char *end = text;
    if (pread(answer.get(), text, sizeof text - 1, 0) <= 0)
        return 0;
    long result = strtol(text, &end, 10);
    if (strncmp(text, "too many", 8) == 0)
        return std::nullopt;
    return end != text && *end == '\n' ? static_cast<int>(result) : 0;
}

int command_result(const CommandLine &line, const Peer &first) {
    std::optional<int> result;
    if (!holds_before(deadline_in(kResultSeconds),
                      [&] { return (result = kept_result(line, first)).has_value(); }))
        throw Failure(line.daemon + " takes no more connections", kNoAnswer);
    return *result;
}

void run_command(const CommandLine &line) {
    Socket daemon(connect_to(command_socket(line.daemon), SOCK_STREAM));
    if (daemon.get() < 0)
        throw no_connection(line.daemon, "command socket", errno);
    Peer peer = peer_of(daemon.get());
    require_trusted(line.daemon, peer);
    if (!relay(daemon, line, STDOUT_FILENO) && peer.refuses_us())
        throw Failure(line.daemon + ": permission denied: it runs as " + user_name(peer.user) +
                      " and says nothing to others");
    daemon.close();
    if (int result = command_result(line, peer); result != 0)
        throw Failure(line.daemon + ": " + line.words[0] + " gave " + std::to_string(result),
                      result > 0 && result <= 255 ? result : kFailed);
}

// "HOST:PORT" for a word without '/', with the host as a dotted address. False for a path.
bool server_of(const std::string &target, std::string &host, int &port) {
    size_t colon = target.rfind(':');
    if (target.find('/') != std::string::npos || colon == std::string::npos)
        return false;
    std::optional<int> number = number_in(target.substr(colon + 1), 1, 65535);
    if (!number)
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
    port = *number;
    return true;
}

// The process that serves the daemon's requests. A failed request reads like a success, so it is
// found first, and looked at afterwards.
Process serving_process(const std::string &name, Deadline end) {
    learn_node();
#ifdef QELCTL_STAND_IN
    int fd = -1;
    auto connected = [&] {
        fd = connect_to(request_socket(name), SOCK_SEQPACKET);
        return fd >= 0 || errno != EAGAIN;
    };
    if (name.size() >= IPC_NAME_SIZE)
        throw no_such_daemon(name);
    if (!holds_before(end, connected) || fd < 0)
        throw no_connection(name, "request socket", errno);
    Socket socket(fd);
    int pid = peer_of(fd).pid;
    if (pid <= 0)
        throw Failure("the process of " + name + " cannot be seen from here");
    return Process(pid);
#else
    // How a product's platform finds a daemon is its own; lock and pid file name the process.
    (void)end;
    Daemon daemon = find_daemon(name);
    if (daemon.life == Life::kStale || daemon.pid <= 0)
        throw no_such_daemon(name);
    return Process(daemon.pid);
#endif
}

// Where a daemon's output shall go.
struct Target {
    std::string text;
    int port = 0;  // 0: a path

    std::string name() const { return port != 0 ? text + ":" + std::to_string(port) : text; }
};

Target target_of(const std::string &word) {
    Target target;
    if (word.empty()) {
        if (isatty(STDIN_FILENO) == 0)
            throw Failure("standard input is not a terminal; name a path or HOST:PORT", kUsage);
        target.text = std::filesystem::read_symlink("/proc/self/fd/0");
    } else if (!server_of(word, target.text, target.port)) {
        std::error_code error;
        target.text = std::filesystem::absolute(word, error);
        if (error)
            throw Failure("cannot tell where " + word + " is: " + error.message());
    }
    return target;
}

// Whether the process's socket `inode` is connected to the server.
bool is_connected(int pid, uint64_t inode, const Target &server) {
    std::ifstream table("/proc/" + std::to_string(pid) + "/net/tcp");
    for (std::string line; std::getline(table, line);) {
        unsigned address = 0, port = 0;
        uint64_t found = 0;
        if (sscanf(line.c_str(), " %*d: %*x:%*x %x:%x %*x %*x:%*x %*x:%*x %*x %*u %*u %" SCNu64,
                   &address, &port, &found) == 3 &&
            found == inode)
            return address == inet_addr(server.text.c_str()) &&
                   port == static_cast<unsigned>(server.port);
    }
    return false;
}

// A daemon that cannot open its target stays as it was and says nothing, so its output is looked
// at.
void require_output(const std::string &daemon, const Process &process, const Target &target) {
    std::string link = "/proc/" + std::to_string(process.pid()) + "/fd/1";
    struct stat output {};
    struct stat wanted {};
    char name[PATH_MAX + 1] = "";
    if (stat(link.c_str(), &output) != 0 || readlink(link.c_str(), name, PATH_MAX) < 0)
        throw system_failure("cannot tell where the output of " + daemon + " goes");
    bool right =
        target.port != 0
            ? S_ISSOCK(output.st_mode) && is_connected(process.pid(), output.st_ino, target)
            : stat(target.text.c_str(), &wanted) == 0 && wanted.st_dev == output.st_dev &&
                  wanted.st_ino == output.st_ino;
    if (!right)
        throw Failure(daemon + " still writes to " + name + ", not to " + target.name());
}

void redirect(const std::string &daemon, const std::string &word) {
    Process process = serving_process(daemon, deadline_in(kDefaultTimeout));
    Target target = target_of(word);
    int status =
        target.port != 0
            ? qelDRedirOutputToSocket(target.text.c_str(), target.port, daemon.c_str(),
                                      IPC_CODE_REDIRECT_OUTPUT)
            : qelDRedirectOutput(target.text.c_str(), daemon.c_str(), IPC_CODE_REDIRECT_OUTPUT);
    if (status < 0)
        throw Failure(daemon + " refused to redirect its output (" + std::to_string(status) + ")");
    require_output(daemon, process, target);
    std::string to = visible_name(target.text);
    if (target.port != 0)
        to = "server(" + to + "), port(" + std::to_string(target.port) + ") ";
    else
        to = (word.empty() ? "terminal " : "file ") + to;
    printf("Redirecting instance%d stdout/err to %s...\n", getMySwitch(), to.c_str());
}

struct Ending {
    std::string daemon;
    bool abort = false;
    int timeout = kDefaultTimeout;
};

// Asks for the end and watches it come.
void request_exit(const Ending &ending) {
    Deadline end = deadline_in(ending.timeout);
    Process process = serving_process(ending.daemon, end);
    ipc_address address{};
    address.node = myNode();
    address.switch_no = static_cast<uint16_t>(getMySwitch());
    ending.daemon.copy(address.name, sizeof address.name - 1);
    uint32_t mode = htonl(ending.abort ? QELD_EXIT_ABORT : QELD_EXIT_NORMAL);
    int32_t status = 0;
    uint32_t length = sizeof status;
    auto left = static_cast<uint32_t>(milliseconds_to(end));
    const uint32_t timeout[2] = {left / 1000, left % 1000 * 1000};
    qelIpcSendOne(&address, IPC_CODE_EXIT, &mode, sizeof mode, &status, &length, timeout);
    if (status < 0)
        throw Failure(ending.daemon + " refused to exit (" + std::to_string(status) + ")");
    std::string who = ending.daemon + ", process " + std::to_string(process.pid()) + ",";
    if (!holds_before(end, [&] { return process.gone(); }))
        throw Failure(who + " has not ended within " + std::to_string(ending.timeout) + " s",
                      kNoAnswer);
    printf("%s has ended\n", visible_name(who).c_str());
}

void add_timeout_option(CLI::App &command, int &seconds, const std::string &description) {
    command.add_option("--timeout", seconds, description)
        ->check(CLI::Range(1, 86400))
        ->capture_default_str()
        ->type_name("SECONDS");
}

}  // namespace

void add_commands(CLI::App &app) {
    static CommandLine line;
    CLI::App *cmd =
        add_subcommand(app, "cmd", "Run a command inside a daemon and print what it writes");
    add_switch_option(*cmd);
    add_timeout_option(*cmd, line.timeout, "Longest silence of the daemon, in seconds");
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

    static Ending ending;
    CLI::App *exit = add_subcommand(app, "exit", "Ask a daemon to end, and wait until it has");
    add_switch_option(*exit);
    exit->add_flag("--abort", ending.abort, "Let it abort, so that it leaves a core file");
    add_timeout_option(*exit, ending.timeout, "Longest time until its process is gone, in seconds");
    exit->add_option("DAEMON", ending.daemon, "The daemon's name")->required();
    exit->callback([] { request_exit(ending); });
}

}  // namespace qelctl
