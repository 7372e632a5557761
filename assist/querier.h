// The companion as a querier on its downstream interfaces: in general every 125 seconds unless somebody else does, and
// about single groups as group_question.h has it. Never more than ten queries a second on one interface.
#pragma once

#include "assist/mld_message.h"

#include <cstdint>

// One for each downstream interface.
struct lan_querier {
  std::int64_t general_due_ms; // 0 = the interface is not served
  std::int64_t next_free_ms;   // no query before this
  std::int64_t retry_ms;       // after the next refused query; doubles each time
  std::int32_t refusal;        // errno of the last refused query, 0 = none since
};

struct watched_interface;

// The interface has been joined: a general query is due.
void start_querier(watched_interface &downstream);

// The interface is no longer there.
void stop_querier(watched_interface &downstream);

// Something has changed on the interface: a query that was refused is tried again soon.
void hurry_querier(watched_interface &downstream);

// Another querier's general query, which hosts answer, puts off the next one of our own.
void hear_general_query(watched_interface &downstream, const mld_query_fields &query);

// When the next query on any interface is due; NO_DEADLINE = never.
std::int64_t next_query_ms();

// Sends what is due: at most one query on each interface.
void send_due_queries();
