#include "assist/static_entry.h"

#include "assist/report.h"
#include "assist/retry.h"

#include <cerrno>
#include <linux/mroute6.h>
#include <netinet/in.h>
#include <sys/socket.h>

static_entry StaticEntry{};

namespace {

// More than any tarnwick needs, which drops at most 128 groups at once. Only another program that insists on an entry
// of its own comes that far, and the two must not keep a processor busy.
constexpr std::int32_t most_repairs = 256;
constexpr std::int64_t repairs_window_ms = 1000;

static_assert(MAXMIFS == MOST_DOWNSTREAMS + 1 && MAXMIFS <= NIFBITS);

// Origin and group stay ::.
mf6cctl entry_request() {
  mf6cctl request{};
  request.mf6cc_origin.sin6_family = AF_INET6;
  request.mf6cc_mcastgrp.sin6_family = AF_INET6;
  request.mf6cc_parent = static_cast<mifi_t>(StaticEntry.index);
  if (StaticEntry.index < MAXMIFS) {
    request.mf6cc_ifset.ifs_bits[0] |= if_mask{1} << StaticEntry.index; // 32 MIFs fill the first word
  }
  return request;
}

bool request_entry(int option) {
  const mf6cctl request = entry_request();
  return setsockopt(StaticEntry.socket, IPPROTO_IPV6, option, &request, sizeof(request)) == 0;
}

void add_entry(const char *what_was_done) {
  if (!request_entry(MRT6_ADD_MFC)) {
    const int reason = errno;
    if (StaticEntry.refusal != reason) {
      say_refused(reason, "cannot add the static entry (::, ::) for MIF %u, %s", StaticEntry.index,
                  StaticEntry.upstream.data());
    }
    StaticEntry.refusal = reason;
    want_retry_after(reason);
    return;
  }
  StaticEntry.refusal = 0;
  StaticEntry.is_added = true;
  StaticEntry.awaits_own_message = true;
  say("%s the static entry (::, ::) for MIF %u, %s", what_was_done, StaticEntry.index, StaticEntry.upstream.data());
}

bool is_right(const notification &told) {
  return told.kind == notification_kind::entry_there && told.input == StaticEntry.index && told.output_count == 1 &&
         told.outputs == output_bit(StaticEntry.index);
}

bool may_repair_now() {
  const std::int64_t now_ms = monotonic_ms();
  if (now_ms - StaticEntry.second_began_ms >= repairs_window_ms) {
    StaticEntry.second_began_ms = now_ms;
    StaticEntry.repairs = 0;
  }
  ++StaticEntry.repairs;
  return StaticEntry.repairs <= most_repairs;
}

void repair_entry() {
  if (may_repair_now()) {
    add_entry("repaired");
    return;
  }
  if (StaticEntry.repairs == most_repairs + 1) {
    say("another program keeps changing the static entry (::, ::); the next repair waits");
  }
  want_retry();
}

} // namespace

void handle_mif_registered() {
  StaticEntry.is_mif_registered = true;
  add_entry("added");
}

void handle_mif_released() {
  if (StaticEntry.is_mif_registered) {
    say("%s is no longer registered for multicast routing; waiting for tarnwick", StaticEntry.upstream.data());
  }
  StaticEntry.is_mif_registered = false;
}

void handle_upstream_gone() {
  remove_static_entry();
  StaticEntry.is_mif_registered = false;
  StaticEntry.index = 0;
}

void handle_entry_notification(const notification &told) {
  if (StaticEntry.awaits_own_message) {
    // Whatever is read before the notification of our own request is older than the request, and settled by it. A
    // wrong entry may even be our own doing, if the MIF has gone meanwhile: answering it would never end.
    StaticEntry.awaits_own_message = !is_right(told);
    return;
  }
  if (StaticEntry.is_mif_registered && !is_right(told)) {
    repair_entry();
  }
}

void remove_static_entry() {
  if (!StaticEntry.is_added) {
    return;
  }
  StaticEntry.is_added = false;
  if (request_entry(MRT6_DEL_MFC)) {
    say("removed the static entry (::, ::)");
  } else {
    say_refused(errno, "cannot remove the static entry (::, ::)");
  }
}
