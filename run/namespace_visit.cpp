#include "run/namespace_visit.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

int open_own_namespace() { return open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC); }

int begin_visit(int network_namespace) {
  const int home = open_own_namespace();
  if (home >= 0 && setns(network_namespace, CLONE_NEWNET) != 0) {
    const int reason = errno;
    close(home);
    errno = reason;
    return -1;
  }
  return home;
}

void end_visit(int home) {
  const int reason = errno;
  if (setns(home, CLONE_NEWNET) != 0) {
    std::perror("cannot return to the own network namespace");
    std::exit(EXIT_FAILURE);
  }
  close(home);
  errno = reason;
}
