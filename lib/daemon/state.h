// SPDX-License-Identifier: Apache-2.0
// What the parts of the companion share. There is one daemon in a process, so its state is plain
// variables; each part owns its own and says which lock guards them.
#pragma once

#include <cstdint>
#include <cstdio>

#include "utils/daemon.h"

namespace utils::service {

// ---- daemon.cpp: written at start-up, before other threads run.

extern const daemon_table *table;
extern char name[DAEMON_NAME_MAX + 1];

// ---- instance.cpp: the lock, the pid file and the socket's name.

// Takes the name's lock for life. 0, or the exit status, with the reason printed.
int lock_instance();
bool write_pid_file();
// A listening command socket, or -1.
int open_command_socket();
void remove_command_socket();
// The request socket is the platform's, which removes it on exit() only. Null: there is none.
void note_request_socket(const char *path);
// Removes sockets and pid file, if this process made them. Async-signal-safe.
void remove_files();

// ---- endings.cpp: the signals.

void prepare_signals();
bool stop_requested();
int stop_status();

// ---- loop.cpp: the queue, the descriptors and the thread that watches them.

bool open_loop();
bool start_watching(int listener);
void stop_watching();
void stop_accepting();
void run_deferred();
void refuse_deferred();
// Lets the watching thread look again; async-signal-safe.
void kick_watcher();

// ---- commands.cpp: clients of the command socket.

bool prepare_commands();
// Takes one connection. False when there was no descriptor for it.
bool accept_client(int listener);
// Waits for running commands until the monotonic millisecond `end`, and serves the loop meanwhile.
void end_clients(int64_t end);

// ---- builtins.cpp: the commands that every daemon has.

void forget_timers();

// ---- requests.cpp: what comes through the platform's IPC.

bool open_requests();
void close_requests();

// ---- notify.cpp: the service manager.

void prepare_notify();
void notify(const char *text);
// Milliseconds until the watchdog wants to hear from the loop, -1: never; says so when it is time.
int feed_watchdog();

}  // namespace utils::service
