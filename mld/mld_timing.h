// Every duration and count of the MLD side, and what each costs a viewer. The names are RFC 3810's (section 9); a note
// says where the value is not its default. The documents quote these figures, and a lint test compares them.
#pragma once

#include <cstdint>

// ---- Queries -------------------------------------------------------------------------------------------------------

// Between general queries, and what a query itself announces. A listener that was not heard is asked again this late.
inline constexpr std::uint32_t MLD_QUERY_INTERVAL_S = 125;

// After the first general query of the daemon's life, on the interface that sends it. RFC 3810 repeats it on every
// interface, after a quarter of the query interval.
inline constexpr std::uint32_t MLD_STARTUP_QUERY_INTERVAL_S = 30;

// Asked for in every query, so a listener answers within two seconds. RFC 3810 has 10000 for general queries and 1000
// for the others.
inline constexpr std::uint16_t MLD_MAX_RESPONSE_MS = 2000;

// Announced in every query; the daemon itself does not consult it.
inline constexpr std::uint8_t MLD_ROBUSTNESS = 2;

// After a query from a lower address the proxy sends none for this long: if that querier goes away, nobody asks
// until then. With RFC 3810's formula it would be 255.
inline constexpr std::uint32_t MLD_OTHER_QUERIER_INTERVAL_S = 300;

// ---- How long a stream goes on -------------------------------------------------------------------------------------

// After a group's last report. A viewer who goes away silently, as every MLDv1 listener does here, keeps the group
// joined for this long. With RFC 3810's formula it would be 260.
inline constexpr std::uint32_t MLD_GROUP_MEMBERSHIP_INTERVAL_S = 350;

// The same for one source, or for all of them in a slot with source ::.
inline constexpr std::uint32_t MLD_SOURCE_INTERVAL_S = 360;

// After a leave or a block: queries this far apart, and the wait for answers behind the last one. The last viewer's
// group is left upstream when that wait is over.
inline constexpr std::uint32_t MLD_LAST_MEMBER_QUERY_INTERVAL_S = 1;
inline constexpr std::uint32_t MLD_LAST_MEMBER_QUERY_COUNT = 2; // one fewer is sent
inline constexpr std::int32_t MLD_LAST_ANSWER_S = 10;

// A slot with source :: and this much left covers every listed source of its group: they are neither joined nor blocked
// for themselves.
inline constexpr std::int32_t MLD_LASTING_ANY_SOURCE_S = MLD_LAST_ANSWER_S + 1;

// ---- How much is kept ----------------------------------------------------------------------------------------------

inline constexpr int MLD_GROUP_POOL_SIZE = 128; // on all interfaces together; a further group is not forwarded
inline constexpr int MLD_HOST_POOL_SIZE = 128;  // additions in all: deleted ones do not come back; no viewer notices
inline constexpr int MLD_QUERY_POOL_SIZE = 100; // pending at once; with none left a leave is passed over
inline constexpr int MLD_MAX_SOURCES = 10;      // of a group; a further source is not forwarded

// ---- Without effect ------------------------------------------------------------------------------------------------

// Kept in MldRouter, not consulted, or handed to where it is not used.
inline constexpr std::uint32_t MLD_QUERY_RESPONSE_INTERVAL_S = 10;
inline constexpr std::uint32_t MLD_UNSOLICITED_REPORT_INTERVAL_S = 10;
inline constexpr std::uint32_t MLD_STARTUP_QUERY_COUNT = 2;
inline constexpr std::uint32_t MLD_V1_ROUTER_PRESENT_TIMEOUT_S = 400;

// `max_resp` of a query record, which is not put in the frame either, counts in these.
inline constexpr std::uint32_t MLD_TENTHS_PER_SECOND = 10;
