#include "status/network_visit.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

int begin_network_visit(const process_facts &daemon) {
  if (daemon.network == 0 || daemon.network == own_network_namespace()) {
    return NO_VISIT;
  }
  std::array<char, 64> path;
  std::snprintf(path.data(), path.size(), "/proc/%d/ns/net", static_cast<int>(daemon.pid));
  const int there = open(path.data(), O_RDONLY | O_CLOEXEC);
  const int home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  const bool is_entered = there >= 0 && home >= 0 && setns(there, CLONE_NEWNET) == 0;
  const int reason = errno;
  if (there >= 0) {
    close(there);
  }
  if (home >= 0 && !is_entered) {
    close(home);
  }
  errno = reason;
  return is_entered ? home : VISIT_REFUSED;
}

void end_network_visit(int home) {
  if (home < 0) {
    return;
  }
  if (setns(home, CLONE_NEWNET) != 0) {
    std::perror("tarnwick-status: cannot go back to its own network namespace");
    std::exit(EXIT_FAILURE);
  }
  close(home);
}
