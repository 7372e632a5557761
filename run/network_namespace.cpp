#include "run/network_namespace.h"

#include "run/netlink_exchange.h"
#include "run/report.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace {

constexpr char own_namespace[] = "/proc/self/ns/net";

struct ipv6_setting {
  const char *name;
  const char *value;
};

// Some hosts hand their own settings on to new namespaces (net.core.devconf_inherit_init_net), so none is left to the
// kernel's defaults. autoconf is about addresses from advertisements; a link-local address comes without it.
constexpr std::array<ipv6_setting, 5> ipv6_settings{
    {{"disable_ipv6", "0"}, {"forwarding", "0"}, {"accept_ra", "0"}, {"autoconf", "0"}, {"accept_redirects", "0"}}};

int open_own_namespace() {
  const int opened = open(own_namespace, O_RDONLY | O_CLOEXEC);
  if (opened < 0) {
    say_refused(errno, "cannot open %s", own_namespace);
  }
  return opened;
}

// In the wrong namespace everything that follows would be wrong.
void go_home(int home) {
  if (setns(home, CLONE_NEWNET) != 0) {
    say_refused(errno, "cannot return to the host's network namespace");
    std::exit(EXIT_FAILURE);
  }
}

bool write_setting(const char *scope, const ipv6_setting &setting) {
  std::array<char, 64> path;
  std::snprintf(path.data(), path.size(), "/proc/sys/net/ipv6/conf/%s/%s", scope, setting.name);
  const int file = open(path.data(), O_WRONLY | O_CLOEXEC);
  const std::size_t length = std::strlen(setting.value);
  const bool is_written = file >= 0 && write(file, setting.value, length) == static_cast<ssize_t>(length);
  if (!is_written) {
    say_refused(errno, "cannot write %s of the private network", path.data());
  }
  if (file >= 0) {
    close(file);
  }
  return is_written;
}

bool write_settings() {
  for (const ipv6_setting &setting : ipv6_settings) {
    if (!write_setting("all", setting) || !write_setting("default", setting)) {
      return false;
    }
  }
  return true;
}

void say_no_namespace(int reason) {
  if (reason == EPERM) {
    say_refused(reason, "cannot make a network namespace, CAP_SYS_ADMIN is needed");
  } else if (reason == EINVAL) {
    say_refused(reason, "this kernel has no network namespaces (CONFIG_NET_NS); use --network=host");
  } else {
    say_refused(reason, "cannot make a network namespace");
  }
}

} // namespace

int make_network_namespace() {
  const int home = open_own_namespace();
  if (home < 0) {
    return -1;
  }
  int made = -1;
  if (unshare(CLONE_NEWNET) != 0) {
    say_no_namespace(errno);
  } else {
    made = write_settings() ? open_own_namespace() : -1;
    go_home(home);
  }
  close(home);
  return made;
}

int open_netlink_inside(int network_namespace, int protocol) {
  const int home = open_own_namespace();
  if (home < 0) {
    return -1;
  }
  int opened = -1;
  if (setns(network_namespace, CLONE_NEWNET) == 0) {
    opened = open_netlink(protocol);
    const int reason = errno;
    go_home(home);
    errno = reason;
  }
  if (opened < 0) {
    say_refused(errno, "cannot have a netlink socket in the private network");
  }
  close(home);
  return opened;
}
