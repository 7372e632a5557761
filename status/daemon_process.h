// Which process is the daemon, and whether it can be asked.
#pragma once

#include "status/text.h"

#include <array>
#include <cstdint>
#include <sys/types.h>

inline constexpr char DAEMON_NAME[] = "tarnwick";
inline constexpr char SUPERVISOR_NAME[] = "tarnwick-run";
inline constexpr char COMPANION_NAME[] = "tarnwick-assist"; // 15 characters, as many as the kernel keeps

// What /proc tells of one process.
struct process_facts {
  pid_t pid;
  pid_t parent;
  std::array<char, 16> name;        // TASK_COMM_LEN of the kernel
  std::uint64_t start_ticks;        // since boot, in clock ticks
  std::uint64_t network;            // inode of its network namespace; 0 if that may not be read
  bool catches_dump_signal;         // SIGUSR1 has a handler: without one it would kill the process
  std::uint64_t supervisor_network; // inode of the parent's network namespace if the parent is tarnwick-run, or 0
};

enum class daemon_search { found, none, several, not_ready };

// Reads what /proc tells of a process. Returns false if there is none.
bool read_process(process_facts &facts, pid_t pid);

// Parses /proc/PID/stat into name, parent and start. Returns false if it makes no sense.
bool parse_process_stat(process_facts &facts, const char *stat);

// Whether /proc/PID/status says that the process handles SIGUSR1.
bool parse_catches_dump_signal(const char *status);

// All processes of a name.
void list_processes(rows_of<process_facts> &processes, const char *name);

// Picks the daemon among processes of its name: children of another one are shell commands about to start, and of
// several those of this network namespace count, and if there are none, those in private networks of supervisors that
// run in it. `several` leaves them all in `daemons`.
daemon_search choose_daemon(process_facts &chosen, rows_of<process_facts> &daemons, std::uint64_t own_network);

// Inode of the calling process's network namespace.
std::uint64_t own_network_namespace();

// Seconds since the process was started; -1 if unknown.
long seconds_running(const process_facts &facts);
