#include "assist/querier.h"

#include "assist/group_question.h"
#include "assist/heard_table.h"
#include "assist/interface_watch.h"
#include "assist/query.h"
#include "assist/remedy.h"
#include "assist/report.h"
#include "assist/retry.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr std::int64_t query_interval_ms = 125000; // RFC 3810, section 9.2
constexpr std::int64_t other_querier_ms = 130000;
constexpr std::int64_t spacing_ms = 100; // ten a second
constexpr std::int64_t first_retry_ms = 1000;

constexpr std::uint16_t general_response_ms = 2000; // as the daemon's
constexpr std::uint16_t group_response_ms = 1000;   // RFC 3810, section 9.8

void note_refusal(watched_interface &downstream, int reason) {
  if (downstream.querier.refusal != reason) {
    say_refused(reason, "cannot send a query on %s, index %u", downstream.name.data(), downstream.index);
  }
  downstream.querier.refusal = reason;
}

bool send(watched_interface &downstream, const ipv6_address &group, std::uint16_t max_response_ms) {
  downstream.querier.next_free_ms = monotonic_ms() + spacing_ms;
  if (!send_query(InterfaceWatch.mld_socket, downstream.index, group, max_response_ms)) {
    note_refusal(downstream, errno);
    return false;
  }
  downstream.querier.refusal = 0;
  return true;
}

void send_general(watched_interface &downstream) {
  lan_querier &querier = downstream.querier;
  if (send(downstream, In6AddrAny, general_response_ms)) {
    querier.general_due_ms = monotonic_ms() + query_interval_ms;
    querier.retry_ms = first_retry_ms;
    note_own_query(downstream.index);
    return;
  }
  querier.general_due_ms = monotonic_ms() + querier.retry_ms;
  querier.retry_ms = std::min(querier.retry_ms * 2, query_interval_ms);
}

std::int64_t general_due_ms(const lan_querier &querier) {
  return is_on(remedy::general_queries) ? querier.general_due_ms : NO_DEADLINE;
}

// False if the interface is not served.
bool is_served(const watched_interface &watched) {
  return !watched.is_upstream && watched.index != 0 && watched.querier.general_due_ms != 0;
}

void send_due(watched_interface &downstream) {
  const std::int64_t now_ms = monotonic_ms();
  if (!is_served(downstream) || now_ms < downstream.querier.next_free_ms) {
    return;
  }
  ipv6_address group;
  if (now_ms >= general_due_ms(downstream.querier)) {
    send_general(downstream);
  } else if (take_due_question(downstream.index, group)) {
    send(downstream, group, group_response_ms);
  }
}

} // namespace

void start_querier(watched_interface &downstream) {
  downstream.querier = {};
  downstream.querier.general_due_ms = monotonic_ms();
  downstream.querier.retry_ms = first_retry_ms;
}

void stop_querier(watched_interface &downstream) {
  downstream.querier = {};
  forget_questions_of(downstream.index);
}

void hurry_querier(watched_interface &downstream) {
  if (is_served(downstream) && downstream.querier.refusal != 0) {
    downstream.querier.retry_ms = first_retry_ms;
    downstream.querier.general_due_ms = std::min(downstream.querier.general_due_ms, monotonic_ms() + first_retry_ms);
  }
}

void hear_general_query(watched_interface &downstream, const mld_query_fields &query) {
  // Hosts that may take longer than the interval to answer would not keep their groups.
  if (is_served(downstream) && query.sources.empty() && query.max_response_ms <= query_interval_ms) {
    downstream.querier.general_due_ms = std::max(downstream.querier.general_due_ms, monotonic_ms() + other_querier_ms);
  }
}

std::int64_t next_query_ms() {
  std::int64_t earliest_ms = NO_DEADLINE;
  for (const watched_interface &watched : watched_interfaces()) {
    if (is_served(watched)) {
      const std::int64_t due_ms = std::min(general_due_ms(watched.querier), next_question_ms(watched.index));
      earliest_ms = std::min(earliest_ms, std::max(due_ms, watched.querier.next_free_ms));
    }
  }
  return earliest_ms;
}

void send_due_queries() {
  for (watched_interface &watched : watched_interfaces()) {
    send_due(watched);
  }
}
