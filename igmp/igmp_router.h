// Records, pools and settings of the IGMP proxy. Everything the IGMP side knows hangs off `IgmpRouter`. Start-up and
// main loop enter none of it: the daemon runs in mode 6to6 only.
//
// Byte order: every IPv4 word of this side (groups, addresses, the constants in core/address.h) is the address field
// loaded as a native 32-bit word and is never swapped, neither for comparing nor for masking nor on its way into a
// socket address. On a big-endian router 0xE0000001 is therefore 224.0.0.1 everywhere; on a little-endian one it goes
// out as 1.0.0.224 and no group from a packet equals it, while groups and addresses that came from outside go back as
// they came.
#pragma once

#include "core/address.h"
#include "core/list.h"
#include "core/settings.h"

#include <array>
#include <cstdint>

inline constexpr int IGMP_GROUP_POOL_SIZE = 128;
inline constexpr int IGMP_QUERY_POOL_SIZE = 100;

enum igmp_role : std::int32_t { IGMP_ROLE_UPSTREAM = 1, IGMP_ROLE_DOWNSTREAM = 2 };

// A group in state NO_MEMBERS never stands on an interface's list: whoever sets that state unlinks the group first.
enum igmp_group_state : std::int32_t {
  IGMP_GROUP_NO_MEMBERS = 0,
  IGMP_GROUP_MEMBERS_PRESENT = 1,
  IGMP_GROUP_V1_MEMBERS_PRESENT = 2,  // a version 1 host is there: leaves are ignored
  IGMP_GROUP_CHECKING_MEMBERSHIP = 3, // last-member queries are pending or being answered
  IGMP_GROUP_STATE_COUNT              // first number that is not a state
};

// Durations are seconds, counted down once per tick.

struct igmp_query {
  list_node link;
  std::int32_t type;     // IGMP type, always 0x11
  std::int32_t max_resp; // tenths of a second; the low byte is sent
  std::uint32_t group;
};

struct igmp_group {
  list_node link;
  const interface_name *owner; // `upstream_name` of IgmpRouter, for every group in use
  std::uint32_t group;
  std::int32_t group_timer;      // seconds of membership left
  std::int32_t v1_host_timer;    // seconds until version 1 hosts are presumed gone
  std::int32_t retransmit_timer; // seconds to the next pending query, while membership is checked
  std::int32_t state;            // igmp_group_state
  list queries;                  // igmp_query records waiting to be sent
  std::int32_t active_seconds;   // one per tick on which the group timer counts down
  std::int32_t report_count;     // 1 at creation, one more for each version 2 refresh
};

struct igmp_interface {
  list_node link;
  std::int32_t role;    // igmp_role
  std::int32_t socket;  // raw IGMP socket of this interface; queries go out and upstream groups are joined through it
  std::int32_t socket6; // 4to6 only: raw ICMPv6 socket of this interface
  interface_name name;
  std::int32_t ifindex;
  std::uint32_t address;    // own address; the peer's on a point-to-point interface
  std::int16_t saved_flags; // as found, before promiscuous and all-multicast were set
  std::int32_t vif_index;   // VIF and MIF number, equal to `ifindex`; -1: refused by the kernel; 0: never asked for
  std::int32_t is_querier;
  std::int32_t query_timer;         // seconds to the next general query; 0: on the next tick
  std::int32_t other_querier_timer; // seconds until the querier role is taken back
  std::int32_t version;             // kept, not consulted
  list groups;                      // igmp_group, newest first
  std::int32_t query_count;         // queries received
  std::int32_t join_count;          // version 1 and 2 reports received, those that are filtered out included
  std::int32_t leave_count;         // leaves received
  std::int32_t timeout_count;       // kept for the dump; nothing changes it
};

struct igmp_router {
  list interfaces; // newest first
  interface_name upstream_name;
  std::array<interface_name, INTERFACE_NAME_SLOTS> ignore_names; // an empty name ends the table
  std::int32_t other_querier_interval;
  std::int32_t query_interval;
  std::int32_t query_response_interval;
  std::int32_t group_membership_interval;
  std::int32_t unsolicited_report_interval; // kept, not consulted
  std::int32_t last_member_query_interval;
  std::int32_t last_member_query_count;
  std::int32_t robustness; // kept, not consulted
  std::int32_t startup_query_interval;
  std::int32_t startup_query_count;       // kept, not consulted
  std::int32_t v1_router_present_timeout; // kept, not consulted
  std::int32_t reserved_word;             // always 0
  std::int32_t v1_host_interval;          // kept, not consulted
  std::int32_t non_querier;               // option -q; 1: stay querier whatever is heard
  igmp_interface *upstream_interface;     // null until discovery has found it
  std::int32_t socket; // raw IGMP socket with the MRT and MRT6 options; receives all IGMP messages. -1 after a failure
  list free_groups;
  list free_queries;
  std::array<std::uint8_t, 512> scratch; // always 0
};

extern igmp_router IgmpRouter;
extern std::uint32_t IgmpStartUpQueryIsSend; // 1 once the first general query is out

// Zeroes IgmpRouter and writes the protocol constants, the option -q and the interface names.
void init_igmp_config();

// Fill the pools. Each returns 0, or -1 after logging; the query pool stops the proxy when it fails, the group pool
// leaves that to the caller. Records made before a failure stay in the pool.
int init_igmp_group();
int init_igmp_query();
