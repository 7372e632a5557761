#include "status/cure.h"

#include <unistd.h>

const char *restart_command() {
  const bool has_systemd = access("/run/systemd/system", F_OK) == 0; // sd_booted(3)
  return has_systemd ? "systemctl restart tarnwick" : "/etc/init.d/tarnwick restart";
}
