#include "run/network_namespace.h"

#include "run/namespace_visit.h"
#include "run/report.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace {

struct ipv6_setting {
  const char *name;
  const char *value;
};

// Some hosts hand their own settings on to new namespaces (net.core.devconf_inherit_init_net), so none is left to the
// kernel's defaults. autoconf is about addresses from advertisements; a link-local address comes without it.
constexpr std::array<ipv6_setting, 5> ipv6_settings{
    {{"disable_ipv6", "0"}, {"forwarding", "0"}, {"accept_ra", "0"}, {"autoconf", "0"}, {"accept_redirects", "0"}}};

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
  if (home < 0 || unshare(CLONE_NEWNET) != 0) {
    say_no_namespace(errno);
    if (home >= 0) {
      close(home);
    }
    return -1;
  }
  const int made = write_settings() ? open_own_namespace() : -1;
  end_visit(home);
  return made;
}
