// Records, pools and settings of the MLD proxy. `MldRouter` is the root of the records; three small globals stand
// beside it here, and the indexes of groups and hosts in mld_group.h and mld_host.h.
#pragma once

#include "core/address.h"
#include "core/list_index.h"
#include "core/settings.h"
#include "mld/mld_timing.h"

#include <array>
#include <cstdint>

enum mld_role : std::uint32_t { MLD_ROLE_UPSTREAM = 1, MLD_ROLE_DOWNSTREAM = 2 };

// A group in state NO_MEMBERS never stands on an interface's list: whoever sets that state unlinks the group first.
enum mld_group_state : std::uint32_t {
  MLD_GROUP_NO_MEMBERS = 0,
  MLD_GROUP_MEMBERS_PRESENT = 1,
  MLD_GROUP_CHECKING_MEMBERSHIP = 2 // last-listener queries are pending or being answered
};

// Durations are seconds, counted down once per tick. Addresses are in network order.

struct mld_source {
  std::uint32_t forward;     // 1: wanted; 0: blocked
  std::int32_t source_timer; // seconds left
  ipv6_address address;      // :: in a slot that stands for any source
};

struct mld_query {
  list_node link;
  std::uint32_t type;     // ICMPv6 type, always 130
  std::uint32_t max_resp; // tenths of a second; kept, not put in the frame
  ipv6_address group;
};

struct mld_group {
  list_node link;
  const interface_name *owner; // `upstream_name` of MldRouter, for every group in use
  ipv6_address group;
  std::int32_t group_timer;      // seconds of membership left
  std::uint32_t retransmit_word; // always 0; cleared wherever `retransmit_timer` is armed
  std::int32_t retransmit_timer; // seconds to the next pending query
  std::uint32_t reserved_word;   // always 0
  std::uint32_t state;           // mld_group_state
  list queries;                  // mld_query records waiting to be sent
  std::int32_t source_count;     // used slots, 0..10; 0: a listener for all sources
  std::array<mld_source, MLD_MAX_SOURCES> sources;
  std::int32_t active_seconds; // one per tick and source slot in state 1
  std::int32_t report_count;   // 1 at creation, one more for each MLDv1 refresh
};

struct mld_host {
  list_node link;
  ipv6_address group;
  ipv6_address source; // :: means all sources
  ipv6_address host;   // who reported
  std::uint32_t host_state;
};

struct mld_interface {
  list_node link;
  std::uint32_t role;  // mld_role
  std::int32_t socket; // raw ICMPv6 socket of this interface
  interface_name name;
  std::uint32_t ifindex;
  ipv6_address link_local;   // querier address, and what elections compare
  std::uint32_t saved_flags; // as found, before promiscuous and all-multicast were set
  std::uint32_t vif_index;   // MIF number, equal to `ifindex`; all ones when the kernel refused the MIF
  std::uint32_t is_querier;
  std::int32_t query_timer;         // seconds to the next general query; 0: on the next tick
  std::int32_t other_querier_timer; // seconds until the querier role is taken back
  indexed_list hosts;               // mld_host, oldest first
  indexed_list groups;              // mld_group, newest first
  std::uint32_t query_count;        // queries received
  std::uint32_t join_count;         // MLDv2 group updates
  std::uint32_t leave_count;        // leaves of hosts
  std::uint32_t timeout_count;      // group and source timers that ran out
};

struct mld_router {
  list interfaces; // upstream last, since it is linked first
  interface_name upstream_name;
  std::array<interface_name, INTERFACE_NAME_SLOTS> downstream_names; // an empty name ends the table
  std::uint32_t other_querier_interval;
  std::uint32_t query_interval;
  std::uint32_t query_response_interval;
  std::uint32_t group_membership_interval;
  std::uint32_t unsolicited_report_interval; // kept, not consulted
  std::uint32_t last_member_query_interval;
  std::uint32_t last_member_query_count;
  std::uint32_t robustness; // kept, not consulted
  std::uint32_t startup_query_interval;
  std::uint32_t startup_query_count;       // kept, not consulted
  std::uint32_t v1_router_present_timeout; // kept, not consulted
  std::uint32_t source_interval;
  std::uint32_t non_querier; // 1: stay querier whatever is heard; option -q does not set it
  mld_interface *upstream_interface;
  std::int32_t socket; // raw ICMPv6 socket with the MRT6 options; receives all MLD messages. -1 after a failure
  list free_groups;
  list free_hosts;
  list free_queries;
};

extern mld_router MldRouter;
extern std::uint32_t MldBlock;              // 1 from an exclude record with sources until the next one begins
extern std::uint32_t MldStartUpQueryIsSend; // 1 once the first general query is out
extern ipv6_address mld_tmp_origin;         // source that expired last; replaces sources of records sent from ::

// The upstream interface. Where there is none, a record that stands in for it: the kernel refuses its socket.
const mld_interface &mld_upstream();

// A setting, number or count as a timer or a "%d" takes it; the MIF number of a refused MIF becomes -1.
template <typename number> constexpr std::int32_t to_int32(number value) { return static_cast<std::int32_t>(value); }
