// Fixture for the IGMP side, and its words. Expectations hold on both byte orders: a group is given as text, and what
// the daemon makes of it is computed from the word that its four bytes load to.
#pragma once

#include "igmp/igmp_router.h"
#include "tests/support/proxy_fixture.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace scripted {

inline constexpr int IGMP_SOCKET = 2000; // given to the proxy's routing socket by the fixture

// The four bytes of "239.1.2.3" loaded as a native word, as the daemon keeps groups and addresses.
std::uint32_t word(const std::string &dotted);

// The bytes of a native word as they lie in memory: what goes out on the wire, "%u.%u.%u.%u" in log lines.
std::string wire_text(std::uint32_t native);

// The octets of a native word from the most significant one down: "%s" in log lines.
std::string octets_text(std::uint32_t native);
std::string octets_text(const std::string &dotted);

// Lines of the IGMP side at information level.
std::string logged_information(const std::string &function, const std::string &message);

// Datagrams as the raw socket delivers them.
struct igmp_datagram {
  int type;
  std::string group;
  std::string sender = "198.51.100.50";
  int header_words = 5; // IP header length in 32-bit words
  int message_bytes = 8;
  int protocol = 2;
};
std::vector<std::uint8_t> encoded(const igmp_datagram &datagram);

// A running IGMP proxy without start-up, in mode 4to4: wan0 (index 2) upstream, br0 (index 3) and lan1 (index 4)
// downstream, pools full, all sockets numbered; the device index table holds their indexes in slots 0, 1 and 2. The
// interface list is in the order of discovery's front insertion: lan1, br0, wan0.
struct igmp_fixture : proxy_fixture {
  igmp_fixture();
  ~igmp_fixture() override;

  igmp_interface *wan0;
  igmp_interface *br0;
  igmp_interface *lan1;

  // Pools and lists together hold every record.
  lines broken_invariants() override;

  // Mode 4to6 with the prefix ff0e:1:2:3:4:5::/96; "wan0/6", "br0/6" and "lan1/6" are the IPv6 sockets.
  void given_mode_4to6();

  // Makes a group as reports make it, without any request: timer 350, on the interface's list.
  igmp_group *given_group(igmp_interface *intr, const std::string &group,
                          igmp_group_state state = IGMP_GROUP_MEMBERS_PRESENT);

  // Queues that many queries for the group and sets state 3.
  void given_checking(igmp_group *group, int queries, int retransmit_timer);

  // Takes that many records out of a pool, so that it is soon empty.
  void given_pool_left(list *pool, int records_left);

  // One datagram through the socket, from an interface; the handlers run as in the daemon.
  void when_received(const igmp_datagram &datagram, int ifindex = 3);

  void when_ticked(int ticks = 1);

  // Gives every record back, as a stop does, but without any request.
  void free_everything();

  bool has_whole_pools = true; // false: records were taken away on purpose
};

// A fresh process for start-up tests: nothing initialised, no interfaces, NVRAM empty.
struct igmp_start_fixture : proxy_fixture {
  igmp_start_fixture();
  ~igmp_start_fixture() override;
};

// What NVRAM holds, as lines "key=value".
void given_nvram(const lines &entries);

// The line that discovery, reception and the rest write before a datagram is looked at.
std::string received_line(const std::string &sender, const std::string &destination, int ifindex);

// Parts of an expected transcript, one behind the other.
lines joined(std::initializer_list<lines> parts);

} // namespace scripted
