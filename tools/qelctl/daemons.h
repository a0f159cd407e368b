// How daemons are found: their sockets under /run/korin and their pid files.
#pragma once

#include <ctime>
#include <string>
#include <vector>

namespace qelctl {

inline constexpr const char *kSocketDirectory = "/run/korin";
inline constexpr const char *kPidDirectory = "/var/run";

struct Daemon {
    std::string name;
    int switch_no = 0;
    int node = 0;        // 0: no request socket, so not known
    int pid = 0;         // 0: no pid file
    time_t since = 0;    // when the process started; 0: not known
    bool alive = false;  // a socket of it answers, or its pid file names a process that wrote it
};

// Every daemon that has left a trace, by switch and name.
std::vector<Daemon> find_daemons();

// Paths of the two sockets of a daemon of this process's node and switch.
std::string request_socket(const std::string &name);
std::string command_socket(const std::string &name);

// A connection to a Unix socket, or -1 (see errno).
int connect_to(const std::string &path, int type);

}  // namespace qelctl
