#include "status/cure.h"

#include <algorithm>
#include <array>
#include <unistd.h>

namespace {

constexpr char init_script[] = "/etc/init.d/tarnwick";
constexpr std::array unit_files{"/etc/systemd/system/tarnwick.service", "/usr/local/lib/systemd/system/tarnwick.service",
                                "/lib/systemd/system/tarnwick.service"};

bool exists(const char *path) { return access(path, F_OK) == 0; }

bool is_service_of_systemd() {
  return exists("/run/systemd/system") && std::ranges::any_of(unit_files, exists); // the folder: sd_booted(3)
}

} // namespace

const char *restart_command() {
  if (is_service_of_systemd()) {
    return "systemctl restart tarnwick";
  }
  return exists(init_script) ? "/etc/init.d/tarnwick restart" : "end tarnwick-run and start it again";
}

const char *log_command() {
  if (is_service_of_systemd()) {
    return "journalctl -u tarnwick -n 20";
  }
  return exists(init_script) ? "logread -e tarnwick" : "look at what tarnwick-run prints";
}
