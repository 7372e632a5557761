#include "status/cure.h"

#include <unistd.h>

namespace {

bool has_systemd() { return access("/run/systemd/system", F_OK) == 0; } // sd_booted(3)

} // namespace

const char *restart_command() { return has_systemd() ? "systemctl restart tarnwick" : "/etc/init.d/tarnwick restart"; }

const char *log_command() { return has_systemd() ? "journalctl -u tarnwick -n 20" : "logread -e tarnwick"; }
