// A kernel that answers by script. The linker sends the daemon's requests here (see CMakeLists.txt); each becomes one
// line of the transcript, in order with the lines that the daemon logs. Outside `run` everything goes to the real
// system, so the test program itself works as usual.
//
// Lines of the transcript
//   requests   "setsockopt(wan0, IPV6_ADD_MEMBERSHIP) group=ff0e::1 ifindex=2"    (request_text.h)
//   log lines  "D mld_proxy_stop: Stop MLD Proxy."      level, function and message; see `logged`
//   others     "| text"                                 a line without log prefix
#pragma once

#include "core/address.h"

#include <csignal>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace scripted {

inline constexpr int MLD_SOCKET = 1000;       // given to the proxy's routing socket by the fixtures
inline constexpr int FIRST_NEW_SOCKET = 1100; // what socket() returns first, then one more each time
inline constexpr int PIPE_READ_END = 901;     // below FD_SETSIZE, as select needs it
inline constexpr int PIPE_WRITE_END = 902;

struct interface {
  std::string name;
  int index;
  unsigned int flags;
  std::string ipv6;      // for /proc/net/if_inet6; empty: none
  std::string ipv4 = ""; // for SIOCGIFCONF; empty: not listed
  std::string ipv4_peer = "";
};

// One message for recvmsg.
struct message {
  std::vector<std::uint8_t> bytes;
  std::string sender;                     // IPv6 or IPv4 text; empty: the kernel fills no name
  std::optional<int> ifindex;             // none: no packet information
  std::string destination = "";           // IPv4 packet information only
  int error = 0;                          // not 0: recvmsg fails with it
  std::vector<std::uint8_t> control = {}; // ancillary data as it stands, instead of packet information
};

// One return of select.
struct wake_up {
  std::vector<int> ready; // descriptors left in the set; of a failed wait: if there are none, the set stays as it was
  int result = 0;         // count to report; 0: as many as are ready; -1: fails with `error`
  int error = 0;
  std::vector<int> signals = {}; // handlers run before select returns
};

// A request whose text begins with `request` fails with `error`, `times` times (-1: always), after `passes` of them
// have gone through.
struct failure {
  std::string request;
  int error;
  int times = 1;
  int passes = 0;
};

struct kernel {
  // Set by the test.
  std::vector<interface> interfaces;
  std::optional<std::string> if_inet6; // contents of the table; none: made from `interfaces`
  std::vector<failure> failures;
  std::deque<message> messages;
  std::deque<wake_up> wake_ups;
  std::deque<int> signals_in_blocked_read; // a read of the empty pipe runs these handlers until something is there
  int next_socket = FIRST_NEW_SOCKET;      // what socket() returns; tests that select on it give one that fits a set
  bool may_wait_for_ever = false;          // a script that ends with the daemon waiting is not a failure
  int fork_result = 0;
  std::map<int, std::string> names;                    // of descriptors, for the transcript
  std::function<void(const std::string &)> on_request; // sees each request before it is answered
  std::string directory;                               // stands for /tmp: files the daemon opens land here

  // For sweeps: fail request number `fail_at` (counted from 1 over requests, allocations, opens and commands) and,
  // if `fail_rest`, all later ones.
  int fail_at = 0;
  bool fail_rest = false;
  std::function<void()> on_disarm; // of a sweep, when its scenario is over
  int fail_error = 0;

  // What the daemon did.
  std::vector<std::string> transcript;
  std::vector<std::vector<std::uint8_t>> frames; // bytes of each sendto
  std::vector<std::string> commands;             // of system()
  std::vector<std::string> closed_files;         // names of the files closed, in order
  std::vector<std::uint8_t> receive_buffer;      // of the last recvmsg, as the daemon offered it
  std::map<int, sighandler_t> handlers;
  std::string output;             // standard output as it was written, log prefixes included
  std::vector<std::string> made;  // all that a sweep can fail: the requests, and "malloc(36)"
  int allocations_refused = 0;    // counted by the daemon all the same
  int select_limit = 0;           // highest descriptor plus one, of the last select
  std::optional<int> exit_status; // of exit()
};

extern kernel Kernel;

// Resets everything and makes a fresh directory for files.
void reset();

// Runs daemon code under the script. Returns early when the daemon calls exit, or when it would wait for ever.
void run(const std::function<void()> &daemon_code);

// The transcript line of a log line: `logged('D', "mld_proxy_stop", "Stop MLD Proxy.")`. The module tag is checked by
// the function's name: "mld", "igmp" or "main".
std::string logged(char level, const std::string &function, const std::string &message);
std::string logged_debug(const std::string &function, const std::string &message);
std::string logged_error(const std::string &function, const std::string &message);

// Contents of a file that the daemon wrote, by its path; none if it does not exist.
std::optional<std::string> file_contents(const std::string &path);

// Path in the test's directory that stands for a path under /tmp.
std::string redirected(const std::string &path);

// Takes the transcript out, for one assertion.
std::vector<std::string> take_transcript();

// Whether a line of the transcript is a request (neither a log line nor other output).
bool is_request(const std::string &line);

} // namespace scripted
