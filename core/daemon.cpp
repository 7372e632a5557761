#include "core/daemon.h"

#include "core/log.h"

#include <cstdlib>
#include <unistd.h>

int run_as_daemon() {
  const pid_t child = fork();
  if (child < 0) {
    log_error(MAIN_HERE, "Daemonizing failed.");
    return -1;
  }
  if (child > 0) {
    std::exit(EXIT_SUCCESS);
  }
  setsid();
  return 0;
}
