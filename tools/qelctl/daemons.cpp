#include "daemons.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "process.h"
#include "qelctl.h"
#include "utils/identity.h"

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

bool number(const std::string &word, int &value) {
    char *end = nullptr;
    long parsed = strtol(word.c_str(), &end, 10);
    value = static_cast<int>(parsed);
    return !word.empty() && *end == '\0' && parsed >= 0 && parsed <= 65535;
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

// When process `pid` started; 0 when there is none.
time_t start_time(int pid) {
    std::optional<ProcessStatus> status = process_status(pid);
    return status ? boot_time() + static_cast<time_t>(status->start_ticks / sysconf(_SC_CLK_TCK))
                  : 0;
}

bool answers(const std::string &path, int type) {
    int fd = connect_to(path, type);
    if (fd >= 0)
        close(fd);
    return fd >= 0 || errno == EAGAIN;
}

using Table = std::map<std::pair<int, std::string>, Daemon>;

Daemon &entry(Table &table, int switch_no, const std::string &name) {
    Daemon &daemon = table[{switch_no, name}];
    daemon.switch_no = switch_no;
    daemon.name = name;
    return daemon;
}

// "NODE.SWITCH.NAME.ipc" and "NAME.SWITCH.cmd"; names hold no dot.
void add_socket(Table &table, const fs::path &path) {
    std::vector<std::string> words = split(path.filename());
    int node = 0, switch_no = 0;
    if (words.size() == 4 && words[3] == "ipc" && number(words[0], node) &&
        number(words[1], switch_no)) {
        Daemon &daemon = entry(table, switch_no, words[2]);
        daemon.node = node;
        daemon.alive |= answers(path, SOCK_SEQPACKET);
    } else if (words.size() == 3 && words[2] == "cmd" && number(words[1], switch_no)) {
        Daemon &daemon = entry(table, switch_no, words[0]);
        daemon.alive |= answers(path, SOCK_STREAM);
    }
}

// "NAME.SWITCH.pid". A pid alone proves nothing: the process must be as old as the file.
void add_pid_file(Table &table, const fs::path &path) {
    std::vector<std::string> words = split(path.filename());
    int switch_no = 0, pid = 0;
    std::ifstream file(path);
    if (words.size() != 3 || words[2] != "pid" || !number(words[1], switch_no) || !(file >> pid) ||
        pid <= 0)
        return;
    struct stat status {};
    Daemon &daemon = entry(table, switch_no, words[0]);
    daemon.pid = pid;
    time_t started = start_time(pid);
    if (started != 0 && stat(path.c_str(), &status) == 0 &&
        started <= status.st_mtime + kStartSlack) {
        daemon.since = started;
        daemon.alive = true;
    }
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

std::vector<Daemon> find_daemons() {
    Table table;
    each_entry(kSocketDirectory, [&](const fs::path &path) { add_socket(table, path); });
    each_entry(kPidDirectory, [&](const fs::path &path) { add_pid_file(table, path); });
    std::vector<Daemon> daemons;
    for (auto &[key, daemon] : table)
        daemons.push_back(daemon);
    return daemons;
}

std::string request_socket(const std::string &name) {
    return std::string(kSocketDirectory) + "/" + std::to_string(myNode()) + "." +
           std::to_string(getMySwitch()) + "." + name + ".ipc";
}

std::string command_socket(const std::string &name) {
    return std::string(kSocketDirectory) + "/" + name + "." + std::to_string(getMySwitch()) +
           ".cmd";
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

}  // namespace qelctl
