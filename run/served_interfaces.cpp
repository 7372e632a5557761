#include "run/served_interfaces.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>

namespace {

constexpr std::int64_t never = -1;
// Duplicate address detection takes a second or two; who has no address then has lost it.
constexpr std::int64_t address_grace_ms = 3000;

std::span<const served_interface> every(const served_interfaces &served) {
  return std::span{served.all}.first(served.count);
}

std::span<served_interface> every(served_interfaces &served) { return std::span{served.all}.first(served.count); }

const char *what_is_missing(const served_interface &one) {
  if (one.now.index == 0) {
    return "not there";
  }
  return is_up(one.now) ? "no link-local address" : "down";
}

} // namespace

void fill_served_interfaces(const run_options &options, served_interfaces &served) {
  served = {};
  served.network = options.network;
  served.all[0].name = options.upstream;
  for (std::size_t i = 0; i < options.downstream_count; ++i) {
    served.all[i + 1].name = options.downstreams[i];
  }
  served.count = options.downstream_count + 1;
  for (served_interface &one : every(served)) {
    one.not_ready_since_ms = never;
  }
}

bool look_at_served_interfaces(served_interfaces &served, std::int64_t now_ms) {
  bool is_every_answer_there = true;
  for (served_interface &one : every(served)) {
    is_every_answer_there = look_at_interface(one.name, one.given.link_local, one.now) && is_every_answer_there;
    const bool lacks_address = is_up(one.now) && !is_ready(served, one);
    if (!lacks_address) {
      one.not_ready_since_ms = never;
    } else if (one.not_ready_since_ms == never) {
      one.not_ready_since_ms = now_ms;
    }
  }
  return is_every_answer_there;
}

bool is_ready(const served_interfaces &served, const served_interface &one) {
  return is_up(one.now) && (one.now.has_link_local || served.network == network_mode::own);
}

bool can_start(const served_interfaces &served) {
  const auto lan = every(served).subspan(1);
  return is_ready(served, served.all[0]) &&
         std::any_of(lan.begin(), lan.end(), [&](const served_interface &one) { return is_ready(served, one); });
}

bool is_everything_ready(const served_interfaces &served) {
  const auto all = every(served);
  return std::all_of(all.begin(), all.end(), [&](const served_interface &one) { return is_ready(served, one); });
}

void give_ready_interfaces(served_interfaces &served) {
  for (served_interface &one : every(served)) {
    one.given = is_ready(served, one) ? one.now : interface_state{};
  }
}

void forget_given_interfaces(served_interfaces &served) {
  for (served_interface &one : every(served)) {
    one.given = {};
  }
}

difference find_difference(const served_interfaces &served, const served_interface &one, std::int64_t now_ms,
                           std::int64_t &until_ms) {
  if (!is_up(one.now)) {
    return difference::none;
  }
  if (!is_ready(served, one)) {
    const std::int64_t lost_at_ms = one.not_ready_since_ms + address_grace_ms;
    if (one.given.index == 0) {
      return difference::none;
    }
    if (now_ms >= lost_at_ms) {
      return difference::address;
    }
    until_ms = std::min(until_ms, lost_at_ms);
    return difference::none;
  }
  if (one.given.index == 0) {
    return difference::new_here;
  }
  if (one.given.index != one.now.index) {
    return difference::index;
  }
  const bool has_other_address =
      served.network == network_mode::host && !is_same_address(one.given.link_local, one.now.link_local);
  return has_other_address ? difference::address : difference::none;
}

bool would_end_set_wrong_flags(const served_interfaces &served) {
  const auto all = every(served);
  return served.network == network_mode::host && std::any_of(all.begin(), all.end(), [](const served_interface &one) {
           return one.given.index != 0 && (one.given.index != one.now.index || !is_up(one.now));
         });
}

void describe_missing(const served_interfaces &served, waiting_text &text) {
  text = {};
  std::size_t length = 0;
  for (const served_interface &one : every(served)) {
    if (!is_ready(served, one) && length < text.size() - 1) {
      std::snprintf(&text[length], text.size() - length, "%s%s (%s)", length > 0 ? ", " : "", one.name.data(),
                    what_is_missing(one));
      length = std::strlen(text.data());
    }
  }
}
