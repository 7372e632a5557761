#include "run/end_reason.h"

#include "run/log_reader.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <linux/mroute6.h>
#include <sys/wait.h>

daemon_error DaemonError{};

namespace {

constexpr std::size_t longest_daemon_name = 8; // what the daemon reads of a name in /proc/net/if_inet6
constexpr int options_refused = 255;

constexpr std::string_view no_routing_socket = "setsockopt: MRT6_INIT fail!!!";
constexpr std::string_view no_mif = "setsockopt: MRT6_ADD_MIF fail!!!";
constexpr std::string_view no_raw_socket = "Unable to open MLD Raw socket";
constexpr std::string_view no_link_local = "Couldn't find out link local address for interfaces: ";
constexpr std::string_view no_address_table = "Couldn't open /proc/net/if_inet6";

// Lines after which a start fails or the loop ends; all others are complaints that it survives.
constexpr std::array fatal_lines{no_routing_socket,
                                 no_mif,
                                 no_raw_socket,
                                 no_link_local,
                                 no_address_table,
                                 std::string_view{"Unknown proxy mode!"},
                                 std::string_view{"Unable to allocate memory."},
                                 std::string_view{"Unable to locate upstream interface."},
                                 std::string_view{"Unable to open MLD socket for net iface."},
                                 std::string_view{"Select failed"},
                                 std::string_view{"Exiting Application"},
                                 std::string_view{"Read on timer pipe failed."},
                                 std::string_view{"Unable to create"}};

bool is_fatal(std::string_view message) {
  for (const std::string_view fatal : fatal_lines) {
    if (message.starts_with(fatal)) {
      return true;
    }
  }
  return false;
}

// "E:mld :mld_create_network_list             # 105: setsockopt: ..." -> "setsockopt: ...".
std::string_view message_of(std::string_view line) {
  const std::size_t number = line.find('#');
  const std::size_t colon = number == std::string_view::npos ? number : line.find(": ", number);
  if (colon != std::string_view::npos) {
    line.remove_prefix(colon + 2);
  }
  return line;
}

constexpr char no_rights[] = "no permission: run it as root, or with CAP_NET_ADMIN and CAP_NET_RAW";

void explain_no_routing_socket(const end_facts &facts, end_text &reason) {
  if (!facts.can_route_multicast) {
    std::snprintf(reason.data(), reason.size(),
                  "not a kernel with IPv6 multicast routing (CONFIG_IPV6_MROUTE; /proc/net/ip6_mr_cache is missing)");
  } else if (!facts.has_rights) {
    std::snprintf(reason.data(), reason.size(), "%s", no_rights);
  } else {
    std::snprintf(reason.data(), reason.size(),
                  "another multicast router holds the routing socket: %s; end it, or use --network=private",
                  facts.rivals[0] != '\0' ? facts.rivals : "a process that cannot be seen from here");
  }
}

void explain_no_mif(const end_facts &facts, end_text &reason) {
  for (std::size_t i = 0; i < facts.count; ++i) {
    if (facts.indexes[i] >= MAXMIFS) {
      std::snprintf(reason.data(), reason.size(), "index %u of %s is above %d: use --network=private", facts.indexes[i],
                    facts.names[i].data(), MAXMIFS - 1);
      return;
    }
  }
  std::snprintf(reason.data(), reason.size(), "the kernel refused one of the interfaces as multicast interface");
}

void explain_no_link_local(const end_facts &facts, end_text &reason) {
  for (std::size_t i = 0; i < facts.count; ++i) {
    const std::size_t length = std::strlen(facts.names[i].data());
    if (length > longest_daemon_name) {
      std::snprintf(reason.data(), reason.size(),
                    "name %s has %zu characters, above %zu: use --network=private, or a shorter name",
                    facts.names[i].data(), length, longest_daemon_name);
      return;
    }
  }
  std::snprintf(reason.data(), reason.size(), "no link-local address on %s", &DaemonError.text[no_link_local.size()]);
}

void explain_raw_socket(const end_facts &facts, end_text &reason) {
  std::snprintf(reason.data(), reason.size(), "%s",
                facts.has_rights ? "the kernel gives no ICMPv6 socket: is IPv6 switched off?" : no_rights);
}

void explain_status(int wait_status, end_text &reason) {
  if (WIFSIGNALED(wait_status)) {
    std::snprintf(reason.data(), reason.size(), "killed by signal %d (%s)", WTERMSIG(wait_status),
                  strsignal(WTERMSIG(wait_status)));
  } else if (WEXITSTATUS(wait_status) == options_refused) {
    std::snprintf(reason.data(), reason.size(), "status 255 and no error line: are the options behind -- right?");
  } else {
    std::snprintf(reason.data(), reason.size(), "status %d and no error line", WEXITSTATUS(wait_status));
  }
}

} // namespace

void clear_daemon_error() { DaemonError = {}; }

void note_daemon_error(std::string_view line) {
  const std::string_view message = message_of(line);
  const bool is_new_fatal = is_fatal(message);
  if (DaemonError.is_fatal) {
    return;
  }
  DaemonError.is_fatal = is_new_fatal;
  std::snprintf(DaemonError.text.data(), DaemonError.text.size(), "%.*s", static_cast<int>(message.size()),
                message.data());
}

void explain_end(const end_facts &facts, end_text &reason) {
  const std::string_view said = DaemonError.text.data();
  if (WIFSIGNALED(facts.wait_status) || said.empty()) {
    explain_status(facts.wait_status, reason);
  } else if (said.starts_with(no_routing_socket)) {
    explain_no_routing_socket(facts, reason);
  } else if (said.starts_with(no_mif)) {
    explain_no_mif(facts, reason);
  } else if (said.starts_with(no_link_local)) {
    explain_no_link_local(facts, reason);
  } else if (said.starts_with(no_raw_socket)) {
    explain_raw_socket(facts, reason);
  } else if (said.starts_with(no_address_table)) {
    std::snprintf(reason.data(), reason.size(), "no IPv6 addresses: is IPv6 switched off?");
  } else {
    std::snprintf(reason.data(), reason.size(), "%s", said.data());
  }
}
