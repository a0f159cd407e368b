// SPDX-License-Identifier: Apache-2.0
#include "daemons.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>

#include "process.h"
#include "qelctl.h"
#include "text.h"
#include "utils/daemon.h"
#include "utils/identity.h"
#ifdef QELCTL_STAND_IN
#include "utils/platform/posix/ipc_server.h"
#endif
#include "utils/ppname.h"

namespace qelctl {
namespace {

namespace fs = std::filesystem;

// A process that started later than this many seconds after its pid file was written is another one
// that was given the same number.
constexpr time_t kStartSlack = 2;

std::vector<std::string> split(const std::string &text) {
    std::vector<std::string> words;
    std::istringstream stream(text);
    for (std::string word; std::getline(stream, word, '.');)
        words.push_back(word);
    return words;
}

std::optional<int> small_number(const std::string &word) {
    return number_in(word, 0, 65535);
}

time_t boot_time() {
    std::ifstream stat("/proc/stat");
    for (std::string line; std::getline(stat, line);) {
        long long seconds = 0;
        if (sscanf(line.c_str(), "btime %lld", &seconds) == 1)
            return static_cast<time_t>(seconds);
    }
    return 0;
}

// The paths of the sockets that listen or will: true for those that listen already.
std::map<std::string, bool> bound_sockets() {
    constexpr unsigned kListens = 0x10000;
    std::map<std::string, bool> sockets;
    std::ifstream table("/proc/net/unix");
    for (std::string line; std::getline(table, line);) {
        unsigned flags = 0;
        int path = 0;
        if (sscanf(line.c_str(), "%*x: %*x %*x %x %*x %*x %*u %n", &flags, &path) == 1 &&
            path > 0 && static_cast<size_t>(path) < line.size())
            sockets[line.substr(static_cast<size_t>(path))] |= (flags & kListens) != 0;
    }
    return sockets;
}

// Everything that is found, before it is put together.
struct Search {
    std::map<std::pair<int, std::string>, Daemon> daemons;
    std::map<std::string, bool> bound;

    Daemon &entry(int switch_no, const std::string &name) {
        Daemon &daemon = daemons[{switch_no, name}];
        daemon.switch_no = switch_no;
        daemon.name = name;
        return daemon;
    }
};

// A running trace outweighs an unknown one, and that a dead one.
void add_life(Daemon &daemon, Life life) {
    if (life == Life::kRunning || daemon.life == Life::kStale)
        daemon.life = life;
}

void add_file(Daemon &daemon, const char *kind, const fs::path &path, Life life) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0)
        return;
    daemon.owners.insert(status.st_uid);
    daemon.files.push_back({kind, path, status.st_uid, life});
    add_life(daemon, life);
}

void add_socket(Search &search, Daemon &daemon, const fs::path &path, int type) {
    int fd = connect_to(path, type), reason = errno;
    if (fd >= 0) {
        daemon.pid = peer_of(fd).pid;
        close(fd);
    }
    auto bound = search.bound.find(path);
    bool known = bound != search.bound.end();
    bool denied = fd < 0 && reason == EACCES;
    daemon.denied |= denied;
    // The same path may be a socket's in another system image, so that it says nothing against one
    // that can be asked.
    bool runs = fd >= 0 || reason == EAGAIN || (denied && known && bound->second);
    Life life = runs                               ? Life::kRunning
                : reason == ECONNREFUSED && !known ? Life::kStale
                                                   : Life::kUnknown;
    add_file(daemon, "socket", path, life);
}

// The process that holds the lock for its life; 0 when there is none. The file stays for ever, so
// that it says nothing by itself.
int lock_holder(const fs::path &path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    bool held = fd >= 0 && fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    if (fd >= 0)
        close(fd);
    return held && lock.l_pid > 0 ? lock.l_pid : 0;
}

void add_lock(Search &search, int switch_no, const std::string &name, const fs::path &path) {
    struct stat status {};
    int holder = lock_holder(path);
    if (holder == 0 || lstat(path.c_str(), &status) != 0)
        return;
    Daemon &daemon = search.entry(switch_no, name);
    daemon.owners.insert(status.st_uid);
    daemon.pid = holder;
    daemon.life = Life::kRunning;
}

// "NODE.SWITCH.NAME.ipc", "NAME.SWITCH.cmd" and "NAME.SWITCH.lock"; names hold no dot.
void add_run_file(Search &search, const fs::path &path) {
    std::vector<std::string> words = split(path.filename());
    if (words.size() == 4 && words[3] == "ipc") {
        std::optional<int> node = small_number(words[0]), switch_no = small_number(words[1]);
        if (!node || !switch_no)
            return;
        Daemon &daemon = search.entry(*switch_no, words[2]);
        daemon.node = *node;
        add_socket(search, daemon, path, SOCK_SEQPACKET);
    } else if (words.size() == 3) {
        std::optional<int> switch_no = small_number(words[1]);
        if (switch_no && words[2] == "cmd")
            add_socket(search, search.entry(*switch_no, words[0]), path, SOCK_STREAM);
        else if (switch_no && words[2] == "lock")
            add_lock(search, *switch_no, words[0], path);
    }
}

// "NAME.SWITCH.pid"; it comes last, when the sockets have told what process there is.
void add_pid_file(Search &search, const fs::path &path) {
    std::vector<std::string> words = split(path.filename());
    std::optional<int> switch_no = words.size() == 3 ? small_number(words[1]) : std::nullopt;
    struct stat status {};
    if (!switch_no || words[2] != "pid" || lstat(path.c_str(), &status) != 0 ||
        !S_ISREG(status.st_mode))
        return;
    std::ifstream file(path);
    std::string text;
    std::optional<int> pid = file >> text ? number_in(text, 1, INT_MAX) : std::nullopt;
    if (!pid)
        return;
    Daemon &daemon = search.entry(*switch_no, words[0]);
    bool another = daemon.pid != 0 && daemon.pid != *pid;
    Life life = another ? Life::kStale : writer_life(*pid, status.st_mtime);
    add_file(daemon, "pid file", path, life);
    daemon.pid_file = life == Life::kStale ? PidFile::kWrong : PidFile::kRight;
    if (daemon.pid == 0 && (life != Life::kStale || daemon.life == Life::kStale))
        daemon.pid = *pid;
}

template <typename Visit>
void each_entry(const char *directory, Visit visit) {
    std::error_code error;
    for (fs::directory_iterator file(directory, error), end; !error && file != end;
         file.increment(error))
        visit(file->path());
    if (error && error != std::errc::no_such_file_or_directory)
        throw Failure(std::string(directory) + ": " + error.message());
}

}  // namespace

time_t start_time(int pid) {
    std::optional<ProcessStatus> status = process_status(pid);
    return status ? boot_time() + static_cast<time_t>(status->start_ticks / sysconf(_SC_CLK_TCK))
                  : 0;
}

Life writer_life(int pid, time_t written) {
    time_t started = start_time(pid);
    if (started != 0)
        return started <= written + kStartSlack ? Life::kRunning : Life::kStale;
    return kill(pid, 0) != 0 && errno == ESRCH ? Life::kStale : Life::kUnknown;
}

std::vector<Daemon> find_daemons() {
    Search search{{}, bound_sockets()};
    each_entry(kSocketDirectory, [&](const fs::path &path) { add_run_file(search, path); });
    each_entry(kPidDirectory, [&](const fs::path &path) { add_pid_file(search, path); });
    std::vector<Daemon> daemons;
    for (auto &[key, daemon] : search.daemons) {
        if (daemon.life == Life::kRunning && daemon.pid != 0)
            daemon.since = start_time(daemon.pid);
        daemons.push_back(daemon);
    }
    return daemons;
}

std::map<int, std::string> daemon_names() {
    Search search;
    each_entry(kPidDirectory, [&](const fs::path &path) { add_pid_file(search, path); });
    std::map<int, std::string> names;
    for (const auto &[key, daemon] : search.daemons)
        names[daemon.pid] = daemon.name;
    return names;
}

Daemon find_daemon(const std::string &name) {
    for (const Daemon &daemon : find_daemons())
        if (daemon.switch_no == getMySwitch() && daemon.name == name)
            return daemon;
    return {};
}

#ifdef QELCTL_STAND_IN
std::string request_socket(const std::string &name) {
    char path[PATH_MAX];
    snprintf(path, sizeof path, IPC_SOCKET_FORMAT, myNode(), getMySwitch(), name.c_str());
    return path;
}
#endif

std::string command_socket(const std::string &name) {
    char path[PATH_MAX];
    snprintf(path, sizeof path, DAEMON_FILE_FORMAT, name.c_str(), getMySwitch(), "cmd");
    return path;
}

std::string pid_file(const std::string &name) {
    char path[PATH_MAX];
    snprintf(path, sizeof path, PID_FILE_FORMAT, name.c_str(), getMySwitch());
    return path;
}

int connect_to(const std::string &path, int type) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path, path.c_str(), path.size());
    // Non-blocking for the connection: a daemon whose backlog is full is there, and must not hold
    // us up.
    int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        int reason = errno;
        close(fd);
        errno = reason;
        return -1;
    }
    return fd;
}

Peer peer_of(int connection) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return {};
    return {peer.pid, peer.uid};
}

}  // namespace qelctl
