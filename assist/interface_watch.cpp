#include "assist/interface_watch.h"

#include "assist/group_question.h"
#include "assist/group_watch.h"
#include "assist/membership.h"
#include "assist/notification_socket.h"
#include "assist/report.h"
#include "assist/retry.h"
#include "assist/static_entry.h"

#include <cerrno>
#include <net/if.h>
#include <span>

interface_watch InterfaceWatch{};

namespace {

void watch(const interface_name &name, bool is_upstream) {
  watched_interface &added = InterfaceWatch.interfaces[InterfaceWatch.count++];
  added = {};
  added.name = name;
  added.is_upstream = is_upstream;
}

void join(watched_interface &downstream) {
  const bool was_joined = downstream.is_joined;
  downstream.is_joined = join_report_group(InterfaceWatch.routing_socket, downstream.index);
  if (downstream.is_joined) {
    downstream.refusal = 0;
    if (!was_joined) {
      say("joined ff02::16 on %s, index %u", downstream.name.data(), downstream.index);
      start_querier(downstream);
    }
    return;
  }
  const int reason = errno;
  if (downstream.refusal != reason) {
    say_refused(reason, "cannot join ff02::16 on %s, index %u", downstream.name.data(), downstream.index);
  }
  downstream.refusal = reason;
  want_retry_after(reason);
}

void leave(watched_interface &downstream) {
  leave_report_group(InterfaceWatch.routing_socket, downstream.index);
  if (downstream.is_joined) {
    say("left ff02::16 on %s, index %u", downstream.name.data(), downstream.index);
  }
  stop_querier(downstream);
  downstream.is_joined = false;
  downstream.refusal = 0;
}

// The daemon has ended or begins anew.
void forget_daemon() {
  handle_mif_released();
  forget_ends();
}

void handle_mc_forwarding(std::int32_t mc_forwarding) {
  if (mc_forwarding > 0) {
    handle_mif_registered();
    InterfaceWatch.is_table_due = true;
  } else if (mc_forwarding == 0) {
    InterfaceWatch.is_table_due = false;
    handle_groups_released();
    forget_daemon();
  }
}

void look_for_mif(const watched_interface &upstream) { handle_mc_forwarding(ask_mc_forwarding(upstream.index)); }

void read_table_if_due() {
  if (InterfaceWatch.is_table_due) {
    InterfaceWatch.is_table_due = false;
    handle_groups_upstream(StaticEntry.index);
  }
}

void handle_found(watched_interface &found, std::uint32_t index) {
  found.index = index;
  found.is_waited_for = false;
  if (!found.is_upstream) {
    join(found);
    return;
  }
  StaticEntry.index = index;
  look_for_mif(found);
  if (!StaticEntry.is_mif_registered) {
    say("%s, index %u, is not registered for multicast routing; waiting for tarnwick", found.name.data(), index);
  }
}

void wait_for(watched_interface &missing) {
  if (!missing.is_waited_for) {
    say("interface %s is not there; waiting for it", missing.name.data());
  }
  missing.is_waited_for = true;
}

void handle_lost(watched_interface &lost) {
  if (lost.is_upstream) {
    handle_groups_released();
    handle_upstream_gone();
  } else {
    forget_listeners_on(place_of(lost));
    leave(lost);
  }
  lost.index = 0;
}

void handle_link(watched_interface &watched, const notification &event) {
  if (watched.name == event.name) {
    if (watched.index != 0 && watched.index != event.index) {
      handle_lost(watched);
    }
    if (watched.index == 0) {
      handle_found(watched, event.index);
    } else {
      hurry_querier(watched);
    }
  } else if (watched.index == event.index) { // renamed
    handle_lost(watched);
    wait_for(watched);
  }
}

void handle_ipv6(watched_interface &watched, const notification &event) {
  if (!watched.is_upstream) {
    if (!watched.is_joined) {
      join(watched);
    }
  } else {
    handle_mc_forwarding(event.mc_forwarding);
  }
}

// Memberships end with the interface's IPv6 side; the MIF may stand on, but nothing is forwarded there.
void handle_ipv6_gone(watched_interface &watched) {
  if (watched.is_upstream) {
    forget_daemon();
  } else {
    leave(watched);
  }
}

void handle_for(watched_interface &watched, const notification &event) {
  const bool is_meant = watched.index != 0 && watched.index == event.index;
  if (event.kind == notification_kind::link_there) {
    handle_link(watched, event);
  } else if (is_meant && event.kind == notification_kind::link_gone) {
    handle_lost(watched);
    wait_for(watched);
  } else if (is_meant && event.kind == notification_kind::ipv6_there) {
    handle_ipv6(watched, event);
  } else if (is_meant && event.kind == notification_kind::ipv6_gone) {
    handle_ipv6_gone(watched);
  }
}

} // namespace

std::span<watched_interface> watched_interfaces() {
  return std::span{InterfaceWatch.interfaces}.first(InterfaceWatch.count);
}

watched_interface *find_downstream(std::uint32_t index) {
  for (watched_interface &watched : watched_interfaces()) {
    if (!watched.is_upstream && watched.index != 0 && watched.index == index) {
      return &watched;
    }
  }
  return nullptr;
}

const watched_interface *downstream_at(std::size_t place) {
  const std::size_t at = place + 1; // behind the upstream
  return at < InterfaceWatch.count ? &InterfaceWatch.interfaces[at] : nullptr;
}

std::size_t place_of(const watched_interface &downstream) {
  return static_cast<std::size_t>(&downstream - &InterfaceWatch.interfaces[1]);
}

void start_watch(const assist_options &options, int routing_socket, int mld_socket) {
  choose_remedies(options.without);
  InterfaceWatch = {};
  InterfaceWatch.routing_socket = routing_socket;
  InterfaceWatch.mld_socket = mld_socket;
  forget_questions();
  watch(options.upstream, true);
  for (const interface_name &name : std::span{options.downstreams}.first(options.downstream_count)) {
    watch(name, false);
  }
  start_group_watch(routing_socket);
  StaticEntry = {};
  StaticEntry.socket = routing_socket;
  StaticEntry.upstream = options.upstream;
  look_at_everything();
}

void look_at_everything() {
  for (watched_interface &watched : watched_interfaces()) {
    const std::uint32_t index = if_nametoindex(watched.name.data());
    if (watched.index != 0 && watched.index != index) {
      handle_lost(watched);
    }
    if (index == 0) {
      wait_for(watched);
    } else if (watched.index == 0) {
      handle_found(watched, index);
    } else if (watched.is_upstream) {
      look_for_mif(watched);
    } else {
      join(watched);
    }
  }
  read_table_if_due();
}

void handle_notification(const notification &event) {
  switch (event.kind) {
  case notification_kind::other:
    return;
  case notification_kind::entry_there:
  case notification_kind::entry_gone:
    if (is_static_entry(event)) {
      handle_entry_notification(event);
    } else if (notification change = event; watch_group_entry(change)) {
      handle_group_entry(change);
    }
    return;
  default:
    if (event.index != 0) {
      for (watched_interface &watched : watched_interfaces()) {
        handle_for(watched, event);
      }
    }
    read_table_if_due();
  }
}

void stop_watch() {
  stop_group_watch();
  remove_static_entry();
  for (watched_interface &watched : watched_interfaces()) {
    if (!watched.is_upstream && watched.index != 0) {
      leave(watched);
    }
  }
}
