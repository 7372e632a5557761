#include "assist/static_entry.h"

#include "assist/group_entry.h"
#include "assist/remedy.h"
#include "assist/report.h"
#include "assist/retry.h"

#include <cerrno>

static_entry StaticEntry{};

namespace {

constexpr std::int64_t second_ms = 1000;
constexpr std::int32_t most_said_repairs = 16; // in a second; a host can make the daemon change the entry at any rate
constexpr int most_copies = 8;                 // more were never seen; bounds the asking
// Processor time of this process within a second after which repairs wait for the next one. Whoever changes the entry
// faster must not keep a processor busy through us.
constexpr std::int64_t most_repair_us = 100'000;

bool put_static_entry() {
  const mif_set outputs = output_bit(StaticEntry.index);
  if (!is_on(remedy::shield_static_entry)) {
    return put_newest_entry(StaticEntry.socket, In6AddrAny, In6AddrAny, StaticEntry.index, outputs);
  }
  if (!put_entry(StaticEntry.socket, In6AddrAny, In6AddrAny, StaticEntry.index, outputs)) {
    return false;
  }
  StaticEntry.has_shield = put_shield(StaticEntry.socket, In6AddrAny);
  return true;
}

bool delete_static_entry() {
  return delete_newest_entry(StaticEntry.socket, In6AddrAny, In6AddrAny, StaticEntry.index);
}

void add_static_entry(const char *what_was_done) {
  StaticEntry.has_shield = false;
  if (!put_static_entry()) {
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
  if (StaticEntry.repairs_said < most_said_repairs) {
    say("%s the static entry (::, ::) for MIF %u, %s", what_was_done, StaticEntry.index, StaticEntry.upstream.data());
  }
}

bool is_right(const notification &event) {
  return event.kind == notification_kind::entry_there && event.input == StaticEntry.index && event.output_count == 1 &&
         event.outputs == output_bit(StaticEntry.index);
}

bool is_shield(const notification &event) {
  return event.kind == notification_kind::entry_there && event.input == 0 && event.output_count == 0;
}

bool is_own_message(const notification &event) { return StaticEntry.has_shield ? is_shield(event) : is_right(event); }

bool may_repair_now() {
  const std::int64_t now_ms = monotonic_ms();
  if (now_ms - StaticEntry.second_began_ms >= second_ms) {
    StaticEntry.second_began_ms = now_ms;
    StaticEntry.used_before_us = processor_us();
    StaticEntry.is_waiting = false;
    StaticEntry.repairs_said = 0;
  }
  return processor_us() - StaticEntry.used_before_us <= most_repair_us;
}

void repair_entry() {
  if (may_repair_now()) {
    add_static_entry("repaired");
    ++StaticEntry.repairs_said;
    return;
  }
  if (!StaticEntry.is_waiting) {
    say("another program keeps changing the static entry (::, ::); the next repair waits");
  }
  StaticEntry.is_waiting = true;
  want_retry();
}

} // namespace

void handle_mif_registered() {
  StaticEntry.is_mif_registered = true;
  add_static_entry("added");
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

void handle_entry_notification(const notification &event) {
  if (StaticEntry.awaits_own_message) {
    // Whatever is read before the notification of our own request is older than the request, and settled by it. A
    // wrong entry may even be our own doing, if the MIF has gone meanwhile: answering it would never end.
    StaticEntry.awaits_own_message = !is_own_message(event);
    return;
  }
  const bool is_shielded = StaticEntry.has_shield && event.kind == notification_kind::entry_there;
  if (StaticEntry.is_mif_registered && !is_shielded && !is_right(event)) {
    repair_entry();
  }
}

void remove_static_entry() {
  if (!StaticEntry.is_added) {
    return;
  }
  StaticEntry.is_added = false;
  const bool is_removed = delete_static_entry();
  if (StaticEntry.has_shield) {
    // Whatever changes the shield has taken.
    for (int i = 0; i < most_copies && delete_static_entry(); ++i) {
    }
  }
  StaticEntry.has_shield = false;
  if (is_removed) {
    say("removed the static entry (::, ::)");
  } else {
    say_refused(errno, "cannot remove the static entry (::, ::)");
  }
}
