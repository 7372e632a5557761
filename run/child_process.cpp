#include "run/child_process.h"

#include "run/interface_state.h"
#include "run/report.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int cannot_start = 126; // as a shell's
constexpr std::array kept_capabilities{CAP_NET_ADMIN, CAP_NET_RAW};

using capability_words = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

__user_cap_header_struct own_process() { return {_LINUX_CAPABILITY_VERSION_3, 0}; }

bool read_capabilities(capability_words &words) {
  __user_cap_header_struct header = own_process();
  return syscall(SYS_capget, &header, words.data()) == 0;
}

bool is_kept(int capability) { return capability == CAP_NET_ADMIN || capability == CAP_NET_RAW; }

// A program that root starts gets what the bounding set allows, so the set is what counts. False with errno.
bool narrow_bounding_set() {
  for (int capability = 0; prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability) {
    const bool is_bounded_already = prctl(PR_CAPBSET_READ, capability, 0, 0, 0) == 0;
    if (!is_kept(capability) && !is_bounded_already && prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0 &&
        geteuid() == 0) {
      return false;
    }
  }
  return true;
}

// The ambient set hands the two to a program that another user starts; a kernel without it refuses, which root does
// not mind. False with errno.
bool keep_two_capabilities() {
  capability_words words{};
  if (!narrow_bounding_set() || !read_capabilities(words)) {
    return false;
  }
  const std::uint32_t kept = words[0].permitted & (1U << CAP_NET_ADMIN | 1U << CAP_NET_RAW);
  words = {};
  words[0] = {kept, kept, kept};
  __user_cap_header_struct header = own_process();
  if (syscall(SYS_capset, &header, words.data()) != 0) {
    return false;
  }
  for (const int capability : kept_capabilities) {
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, capability, 0, 0);
  }
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

[[noreturn]] void give_up(const char *what) {
  dprintf(STDERR_FILENO, "cannot %s: %s\n", what, std::strerror(errno));
  _exit(cannot_start);
}

// Source address of the daemon's queries. An interface without one leaves the file empty.
bool write_nvram(const char *path, const interface_name &lan) {
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
  std::array<std::uint8_t, 6> mac{};
  if (file < 0) {
    return false;
  }
  const bool has_mac = read_mac(lan, mac);
  const bool is_written = !has_mac || dprintf(file, "et0macaddr=%02x:%02x:%02x:%02x:%02x:%02x\n", mac[0], mac[1],
                                              mac[2], mac[3], mac[4], mac[5]) > 0;
  return close(file) == 0 && is_written;
}

// The parent may have ended before the kernel was asked to watch for it.
void die_with_parent(pid_t parent) {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) != 0) {
    give_up("be bound to the supervisor's life");
  }
  if (getppid() != parent) {
    _exit(cannot_start);
  }
}

void place_streams(const child_plan &plan) {
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (nothing < 0 || dup2(nothing, STDIN_FILENO) < 0 || dup2(plan.standard_output, STDOUT_FILENO) < 0 ||
      dup2(plan.standard_error, STDERR_FILENO) < 0) {
    give_up("place the standard streams");
  }
}

void default_signals() {
  sigset_t none;
  sigemptyset(&none);
  std::signal(SIGPIPE, SIG_DFL);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void become(const child_plan &plan, pid_t parent) {
  die_with_parent(parent);
  place_streams(plan);
  setsid();
  if (plan.network_namespace >= 0 && setns(plan.network_namespace, CLONE_NEWNET) != 0) {
    give_up("enter the private network");
  }
  if (plan.nvram_file != nullptr && !write_nvram(plan.nvram_file, *plan.lan)) {
    give_up("write the settings");
  }
  if (!keep_two_capabilities()) {
    give_up("give up capabilities (this needs CAP_SETPCAP)");
  }
  die_with_parent(parent); // anew: a change of capabilities may end the watch
  default_signals();
  execve(plan.program, plan.arguments, plan.environment);
  give_up(plan.program);
}

} // namespace

pid_t start_child(const child_plan &plan) {
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    become(plan, parent);
  }
  if (child < 0) {
    say_refused(errno, "cannot start %s", plan.program);
  }
  return child;
}

bool has_capability(int capability) {
  capability_words words{};
  const auto number = static_cast<unsigned>(capability);
  return read_capabilities(words) && (words[number / 32].effective >> (number % 32) & 1U) != 0;
}
