// SPDX-License-Identifier: Apache-2.0
// How daemons are found: their sockets and locks under /run/korin and their pid files.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "utils/daemon.h"

namespace qelctl {

inline constexpr const char *kSocketDirectory = DAEMON_DIRECTORY;
inline constexpr const char *kPidDirectory = "/var/run";

enum class Life {
    kRunning,  // a socket of it listens, its lock is held, or its pid file names the process
    kStale,    // all that is left is a dead process's
    kUnknown,  // it may not be asked
};

enum class PidFile { kNone, kRight, kWrong };

// A socket or pid file.
struct DaemonFile {
    const char *kind;
    std::string path;
    uid_t owner;
    Life life;
};

struct Daemon {
    std::string name;
    int switch_no = 0;
    int node = 0;      // 0: no request socket, so not known
    int pid = 0;       // 0: not known
    time_t since = 0;  // when the process started; 0: not known
    Life life = Life::kStale;
    bool denied = false;  // a socket of it may not be connected to
    PidFile pid_file = PidFile::kNone;
    std::set<uid_t> owners;  // of its files
    std::vector<DaemonFile> files;
};

// Every daemon that has left a trace, by switch and name.
std::vector<Daemon> find_daemons();

// The one of this name on this process's switch; without any trace it is a stale one.
Daemon find_daemon(const std::string &name);

// The names of daemons by the processes in their pid files; nobody is asked.
std::map<int, std::string> daemon_names();

// Whether process `pid` has written a file of that time: it must be as old, since a number alone
// proves nothing.
Life writer_life(int pid, time_t written);

// When process `pid` started; 0 when there is none, or it is hidden.
time_t start_time(int pid);

// Paths of the two sockets of a daemon of this process's node and switch.
std::string request_socket(const std::string &name);  // of the stand-in
std::string command_socket(const std::string &name);
std::string pid_file(const std::string &name);

// A connection to a Unix socket, or -1 (see errno).
int connect_to(const std::string &path, int type);

// The process at the other end of a connection; 0 when it cannot be seen from here.
struct Peer {
    int pid = 0;
    uid_t user = 0;
    // Daemons hear root and their own user.
    bool refuses_us() const { return geteuid() != 0 && user != geteuid(); }
};
Peer peer_of(int connection);

}  // namespace qelctl
