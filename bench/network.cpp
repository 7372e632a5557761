#include "bench/network.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <unistd.h>

namespace {

int open_own() {
  const int descriptor = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    give_up("open /proc/thread-self/ns/net");
  }
  return descriptor;
}

void write_setting(const char *path, const char *value) {
  FILE *file = std::fopen(path, "w");
  if (file == nullptr || std::fputs(value, file) < 0 || std::fclose(file) != 0) {
    give_up(path);
  }
}

bool has_link_local(const std::string &link) {
  std::ifstream addresses("/proc/thread-self/net/if_inet6");
  std::string line;
  while (std::getline(addresses, line)) {
    if (line.starts_with("fe80") && line.ends_with(" " + link)) {
      return true;
    }
  }
  return false;
}

// The kernel assigns it once both ends of the link are up.
void wait_for_link_local(const std::string &link) {
  for (int tries = 0; tries < 500; ++tries) {
    if (has_link_local(link)) {
      return;
    }
    usleep(10'000);
  }
  give_up("no link-local address on " + link);
}

} // namespace

void give_up(const std::string &what) {
  std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(errno));
  std::_Exit(2);
}

network make_network() {
  const int home = open_own();
  if (unshare(CLONE_NEWNET) == -1) {
    give_up("unshare");
  }
  const network fresh{open_own()};
  // Links are usable at once: no search for duplicate addresses.
  write_setting("/proc/sys/net/ipv6/conf/default/accept_dad", "0");
  write_setting("/proc/sys/net/ipv6/conf/default/router_solicitations", "0");
  run_ip("link set lo up");
  enter_network(network{home});
  close(home);
  return fresh;
}

void enter_network(network inside) {
  if (setns(inside.descriptor, CLONE_NEWNET) == -1) {
    give_up("setns");
  }
}

void run_ip(const std::string &arguments) {
  if (std::system(("ip " + arguments).c_str()) != 0) {
    give_up("ip " + arguments);
  }
}

std::string path_of(network of) { return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(of.descriptor); }

void make_link(network here, const std::string &name, network peer, const std::string &peer_name) {
  enter_network(here);
  run_ip("link add " + name + " type veth peer name " + peer_name + " netns " + path_of(peer));
  run_ip("link set " + name + " up");
  enter_network(peer);
  run_ip("link set " + peer_name + " up");
  wait_for_link_local(peer_name);
  enter_network(here);
  wait_for_link_local(name);
}
