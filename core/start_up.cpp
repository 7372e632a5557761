#include "core/start_up.h"

#include "core/log.h"
#include "core/options.h"
#include "core/settings.h"
#include "core/signals.h"
#include "mld/mld_interface.h"
#include "mld/mld_socket.h"
#include "mld/mld_start_up.h"
#include "platform/nvram.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <unistd.h>

namespace {

// A daemon that is started by hand or by sudo may get another PATH, with folders in it that others can write to.
constexpr char command_path[] = "/usr/sbin:/usr/bin:/sbin:/bin";

void enable_multicast_forwarding() {
  log_debug(MAIN_STEP_OF("main"), "Enable mc_forwarding to forward IPv6 streaming.");
  // Refused where the file is read-only. There MRT6_INIT sets it, so the shell's complaint does no harm.
  std::ignore = std::system("echo 1 > /proc/sys/net/ipv6/conf/all/mc_forwarding");
}

// Forks; the parent exits with 0, the child starts a session and goes on. Returns 0 in the child, -1 after logging.
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

int init_mld_proxy() {
  init_mld_config();
  if (init_mld_socket() == -1 || init_mld_group() == -1 || init_mld_host() == -1 || init_mld_query() == -1 ||
      mld_create_network_list() == -1 || mld_check_upstream_interface() == -1) {
    return -1;
  }
  return 0;
}

} // namespace

int start_up(int argc, char **argv) {
  setenv("PATH", command_path, 1);
  if (parse_arguments(argc, argv) == -1) {
    return -1;
  }
  if (ProxyMode == PROXY_MODE_4TO6 && init_nvram_proc() == -1) {
    return -1;
  }
  if (ProxyMode == PROXY_MODE_4TO6 || ProxyMode == PROXY_MODE_6TO6) {
    enable_multicast_forwarding();
  }
  if (ProxyMode == PROXY_MODE_6TO6) {
    ether_atoe(nvram_text("et0macaddr"), LanMac.data());
  }
  ImmediateLeave = std::strcmp(nvram_text("immediate_leave_enable"), "1") == 0 ? 1 : 0;
  if (ProxyIsADaemon == 1 && run_as_daemon() == -1) {
    return -1;
  }
  install_signal_handlers();
  if (ProxyMode != PROXY_MODE_6TO6) {
    log_error(MAIN_STEP_OF("main"), "Unknown proxy mode!");
    return -1;
  }
  return init_mld_proxy();
}

int init_nvram_proc() {
  const char *configured = nvram_get("mld_prefix");
  if (configured != nullptr && configured[0] == '\0') {
    log_error(MAIN_HERE, "nvram value \"mld_prefix\" for MLD prefix is NULL");
    return -1;
  }
  MldPrefix = In6AddrAny;
  inet_pton(AF_INET6, configured != nullptr ? configured : "", MldPrefix.data());
  if (MldPrefix[0] != IPV6_MULTICAST_FIRST_BYTE) {
    log_error(MAIN_HERE, "MLD Prefix is not an IPv6 multicast address.");
    return -1;
  }
  std::ignore = std::system("ifconfig natpt0 up");
  std::ignore = std::system("brctl addif br0 natpt0");
  return 0;
}

void install_signal_handlers() {
  std::signal(SIGKILL, router_stop); // always refused; kept for compatibility
  std::signal(SIGTERM, router_stop);
  std::signal(SIGHUP, router_stop);
  std::signal(SIGUSR1, router_dump);
}
