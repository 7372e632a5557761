// Which process is the daemon, and whether it can be asked.
#pragma once

#include "status/text.h"

#include <array>
#include <cstdint>
#include <sys/types.h>

inline constexpr char DAEMON_NAME[] = "tarnwick";
inline constexpr char SUPERVISOR_NAME[] = "tarnwick-run";
inline constexpr char COMPANION_NAME[] = "tarnwick-assist"; // 15 characters, as many as the kernel keeps

// Whether a process holds a raw ICMPv6 socket: one of those is the routing socket.
enum class raw_socket_use : std::uint8_t {
  hidden, // the kernel does not say: another user's process, or one with more capabilities
  none,
  held
};

// What /proc says about one process.
struct process_facts {
  pid_t pid;
  pid_t parent;
  std::array<char, 16> name;        // TASK_COMM_LEN of the kernel
  std::uint64_t start_ticks;        // since boot, in clock ticks
  std::uint64_t network;            // inode of its network namespace; 0 if that may not be read
  bool catches_dump_signal;         // SIGUSR1 has a handler: without one it would kill the process
  std::uint64_t supervisor_network; // inode of the parent's network namespace if the parent is tarnwick-run, or 0
  uid_t user{};                     // of all its user numbers; NO_USER if they differ
  raw_socket_use raw_socket{};
};

inline constexpr uid_t NO_USER = static_cast<uid_t>(-1);

enum class daemon_search { found, none, several, not_ready };

// Reads what /proc says about a process. Returns false if there is none.
bool read_process(process_facts &facts, pid_t pid);

// Parses /proc/PID/stat into name, parent and start. Returns false if it makes no sense.
bool parse_process_stat(process_facts &facts, const char *stat);

// Whether /proc/PID/status says that the process handles SIGUSR1.
bool parse_catches_dump_signal(const char *status);

// Of /proc/PID/status: the user whose process it is, if its real, effective, saved and file system user are one and the
// same, or NO_USER: a setuid program runs on behalf of the user who started it.
uid_t parse_user(const char *status);

// Whether the process is root's or the caller's own: anybody may start a program of any name.
bool is_trusted(const process_facts &process);

// Whether the process is more than a name: it is trusted, and it holds a raw ICMPv6 socket, or a trusted tarnwick-run
// started it, or the kernel hides what it holds, as it hides root's processes from everybody else.
bool may_be_asked(const process_facts &process);

// All processes of a name.
void list_processes(rows_of<process_facts> &processes, const char *name);

// Picks the daemon among processes of its name: those of other users are passed over, children of another one are shell
// commands about to start, and of several those of this network namespace count, and if there are none, those in
// private networks of supervisors that run in it. `several` leaves them all in `daemons`.
daemon_search choose_daemon(process_facts &chosen, rows_of<process_facts> &daemons, std::uint64_t own_network);

// Inode of the calling process's network namespace.
std::uint64_t own_network_namespace();

// Seconds since the process was started; -1 if unknown.
long seconds_running(const process_facts &facts);
