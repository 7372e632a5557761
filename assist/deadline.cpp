#include "assist/deadline.h"

#include "assist/group_watch.h"
#include "assist/interface_watch.h"
#include "assist/querier.h"
#include "assist/retry.h"

#include <algorithm>

namespace {

constexpr std::int64_t longest_wait_ms = 3600000;

// The earliest of all parts but the retry.
std::int64_t next_deadline_ms() { return std::min(next_query_ms(), next_group_deadline_ms()); }

} // namespace

int ms_until_next_deadline() {
  const std::int64_t deadline_ms = next_deadline_ms();
  const int retry_wait_ms = ms_until_retry();
  if (deadline_ms == NO_DEADLINE) {
    return retry_wait_ms;
  }
  const int wait_ms = static_cast<int>(std::clamp<std::int64_t>(deadline_ms - monotonic_ms(), 0, longest_wait_ms));
  return retry_wait_ms < 0 ? wait_ms : std::min(wait_ms, retry_wait_ms);
}

void handle_deadlines() {
  if (take_due_retry()) {
    look_at_everything();
  }
  handle_group_deadlines();
  send_due_queries();
}
