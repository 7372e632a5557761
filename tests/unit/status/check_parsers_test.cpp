// What --check reads: /proc, netlink and packets.
#include "status/check_list.h"
#include "status/group_capture.h"
#include "status/json_text.h"
#include "status/memberships.h"
#include "status/network_tables.h"
#include "status/process_room.h"
#include "status/raw_socket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netinet/ip6.h>
#include <string>
#include <vector>

namespace {

// Netlink bytes under construction.
using bytes = std::vector<std::byte>;

template <typename record> bytes bytes_of_record(const record &value) {
  const auto *first = reinterpret_cast<const std::byte *>(&value);
  return {first, first + sizeof(value)};
}

bytes joined(std::initializer_list<bytes> pieces) {
  bytes all;
  for (const bytes &piece : pieces) {
    all.insert(all.end(), piece.begin(), piece.end());
  }
  return all;
}

bytes attribute(std::uint16_t type, const bytes &payload) {
  constexpr std::size_t alignment = NLA_ALIGNTO;
  const nlattr header{static_cast<std::uint16_t>(sizeof(nlattr) + payload.size()), type};
  bytes made = joined({bytes_of_record(header), payload});
  made.resize((made.size() + alignment - 1) / alignment * alignment);
  return made;
}

template <typename number> bytes number_attribute(std::uint16_t type, number value) {
  return attribute(type, bytes_of_record(value));
}

bytes text_attribute(std::uint16_t type, const std::string &value) {
  const auto *first = reinterpret_cast<const std::byte *>(value.c_str());
  return attribute(type, {first, first + value.size() + 1});
}

bytes message(std::uint16_t type, const bytes &payload) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(sizeof(nlmsghdr) + payload.size());
  header.nlmsg_type = type;
  return joined({bytes_of_record(header), payload});
}

in6_addr address(const char *text) {
  in6_addr made{};
  inet_pton(AF_INET6, text, &made);
  return made;
}

bytes bridge_message() {
  ifinfomsg header{};
  header.ifi_index = 2;
  header.ifi_flags = 0x10043;
  const bytes querier = joined({attribute(BRIDGE_QUERIER_IPV6_ADDRESS, bytes_of_record(address("fe80::5"))),
                                number_attribute<std::uint64_t>(BRIDGE_QUERIER_IPV6_OTHER_TIMER, 12000)});
  const bytes data = joined({number_attribute<std::uint8_t>(IFLA_BR_MCAST_SNOOPING, 1),
                             number_attribute<std::uint8_t>(IFLA_BR_MCAST_MLD_VERSION, 2),
                             number_attribute<std::uint64_t>(IFLA_BR_MCAST_QUERIER_INTVL, 25500),
                             attribute(IFLA_BR_MCAST_QUERIER_STATE, querier)});
  return message(RTM_NEWLINK, joined({bytes_of_record(header), text_attribute(IFLA_IFNAME, "br0"),
                                      attribute(IFLA_ADDRESS, bytes_of_record(mac_address{2, 0, 0, 0, 1, 0xfe})),
                                      attribute(IFLA_LINKINFO, joined({text_attribute(IFLA_INFO_KIND, "bridge"),
                                                                       attribute(IFLA_INFO_DATA, data)}))}));
}

TEST(network_tables, bridge_is_read_with_its_querier) {
  rows_of<link_row> links;
  parse_links(links, bridge_message());
  ASSERT_EQ(links.count, 1U);
  const link_row &link = links.first[0];
  EXPECT_STREQ(link.name.data(), "br0");
  EXPECT_EQ(link.index, 2U);
  EXPECT_EQ(link.mac, (mac_address{2, 0, 0, 0, 1, 0xfe}));
  EXPECT_TRUE(link.is_bridge);
  EXPECT_EQ(link.snooping, 1);
  EXPECT_EQ(link.mld_version, 2);
  EXPECT_STREQ(link.querier.data(), "fe80::5");
  EXPECT_EQ(link.querier_left_centiseconds, 12000U);
  EXPECT_EQ(link.querier_total_centiseconds, 25500U);
  EXPECT_EQ(link.bridge, 0U);
  free_rows(links);
}

TEST(network_tables, message_that_is_cut_anywhere_is_survived) {
  const bytes whole = bridge_message();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    rows_of<link_row> links;
    parse_links(links, cut);
    EXPECT_EQ(links.count, 0U) << length;
    free_rows(links);
  }
}

TEST(network_tables, port_is_read_with_its_bridge_and_state) {
  ifinfomsg header{};
  header.ifi_index = 4;
  const bytes data = number_attribute<std::uint8_t>(IFLA_BRPORT_STATE, BR_STATE_BLOCKING);
  rows_of<link_row> links;
  parse_links(links, message(RTM_NEWLINK,
                             joined({bytes_of_record(header), text_attribute(IFLA_IFNAME, "lan-a"),
                                     number_attribute<std::uint32_t>(IFLA_MASTER, 2),
                                     attribute(IFLA_LINKINFO, joined({text_attribute(IFLA_INFO_SLAVE_KIND, "bridge"),
                                                                      attribute(IFLA_INFO_SLAVE_DATA, data)}))})));
  ASSERT_EQ(links.count, 1U);
  EXPECT_EQ(links.first[0].bridge, 2U);
  EXPECT_EQ(links.first[0].port_state, BR_STATE_BLOCKING);
  free_rows(links);
}

TEST(network_tables, tentative_address_is_not_usable) {
  ifaddrmsg header{AF_INET6, 64, 0, RT_SCOPE_LINK, 2};
  const ifa_cacheinfo times{0, 0, 12345, 0};
  const auto with_flags = [&](std::uint32_t flags) {
    return message(RTM_NEWADDR,
                   joined({bytes_of_record(header), attribute(IFA_ADDRESS, bytes_of_record(address("fe80::1"))),
                           number_attribute(IFA_FLAGS, flags), attribute(IFA_CACHEINFO, bytes_of_record(times))}));
  };
  rows_of<link_local_row> rows;
  parse_link_locals(rows, joined({with_flags(IFA_F_PERMANENT), with_flags(IFA_F_TENTATIVE)}));
  header.ifa_scope = RT_SCOPE_UNIVERSE;
  parse_link_locals(rows, with_flags(IFA_F_PERMANENT));
  ASSERT_EQ(rows.count, 2U);
  EXPECT_TRUE(rows.first[0].is_usable);
  EXPECT_DOUBLE_EQ(rows.first[0].created_at_seconds, 123.45);
  EXPECT_FALSE(rows.first[1].is_usable);
  free_rows(rows);
}

TEST(network_tables, groups_and_router_ports_of_a_bridge_are_read) {
  br_port_msg header{AF_BRIDGE, 2};
  br_mdb_entry entry{};
  entry.ifindex = 4;
  entry.addr.u.ip6 = address("ff0e::1");
  entry.addr.proto = htons(ETH_P_IPV6);
  const bytes groups =
      attribute(MDBA_MDB, attribute(MDBA_MDB_ENTRY, attribute(MDBA_MDB_ENTRY_INFO, bytes_of_record(entry))));
  const bytes routers = attribute(MDBA_ROUTER, number_attribute<std::uint32_t>(MDBA_ROUTER_PORT, 5));
  network_tables tables{};
  parse_bridge_groups(tables, message(RTM_GETMDB, joined({bytes_of_record(header), groups, routers})));
  ASSERT_EQ(tables.groups.count, 1U);
  EXPECT_STREQ(tables.groups.first[0].group.data(), "ff0e::1");
  EXPECT_EQ(tables.groups.first[0].bridge, 2U);
  EXPECT_EQ(tables.groups.first[0].port, 4U);
  ASSERT_EQ(tables.routers.count, 1U);
  EXPECT_EQ(tables.routers.first[0].port, 5U);
  free_network_tables(tables);
}

TEST(memberships, tables_are_read_by_index_and_their_headings_passed_over) {
  rows_of<membership_row> memberships;
  parse_memberships(memberships, "3    wan0            ff0e0000000000000000000000000001     2 00000004 0\nnonsense\n");
  ASSERT_EQ(memberships.count, 1U);
  EXPECT_EQ(memberships.first[0].interface, 3U);
  EXPECT_STREQ(memberships.first[0].group.data(), "ff0e::1");
  EXPECT_EQ(memberships.first[0].users, 2U);
  rows_of<group_source_row> sources;
  parse_group_sources(sources,
                      "Idx Device                Multicast Address                   Source Address    INC    EXC\n"
                      " 12 upstre ff3e0000000000000000000000000001 20010db8000000000000000000000001      1      0\n");
  ASSERT_EQ(sources.count, 1U);
  EXPECT_EQ(sources.first[0].interface, 12U);
  EXPECT_STREQ(sources.first[0].source.data(), "2001:db8::1");
  EXPECT_EQ(sources.first[0].included, 1U);
  free_rows(memberships);
  free_rows(sources);
}

TEST(process_room, limit_state_and_settings_are_read) {
  EXPECT_EQ(parse_descriptor_limit("Max cpu time  unlimited\nMax open files            1024  524288  files\n"), 1024);
  EXPECT_EQ(parse_descriptor_limit("nothing"), -1);
  EXPECT_TRUE(parse_is_stopped("Name:\ttarnwick\nState:\tT (stopped)\n"));
  EXPECT_FALSE(parse_is_stopped("Name:\ttarnwick\nState:\tS (sleeping)\n"));
  text value;
  parse_setting(value, "# et0macaddr=no\net0macaddr=first\nxet0macaddr=no\net0macaddr=last", "et0macaddr");
  EXPECT_STREQ(text_of(value), "last");
  parse_setting(value, "other=1\n", "et0macaddr");
  EXPECT_STREQ(text_of(value), "");
  text environment;
  add_bytes(environment, "A=1\0TARNWICK_NVRAM=/tmp/nvram", sizeof("A=1\0TARNWICK_NVRAM=/tmp/nvram") - 1);
  EXPECT_STREQ(find_variable(environment, "TARNWICK_NVRAM"), "/tmp/nvram");
  EXPECT_EQ(find_variable(environment, "TARNWICK"), nullptr);
  free_rows(value);
  free_rows(environment);
}

TEST(group_capture, least_hop_limit_of_what_arrived_is_kept) {
  group_capture capture{2, -1, 0, 0, -1, {}};
  std::array<char, sizeof(ip6_hdr)> packet{};
  const auto note = [&](char hop_limit, bool is_sent) {
    packet[7] = hop_limit;
    note_packet(capture, packet, is_sent);
  };
  note(9, false);
  note(3, false);
  note(1, true);
  note_packet(capture, std::span{packet}.first(39), false);
  EXPECT_EQ(capture.arrived, 2U);
  EXPECT_EQ(capture.sent, 1U);
  EXPECT_EQ(capture.least_hop_limit, 3);
}

TEST(raw_socket, sockets_of_icmpv6_alone_are_taken) {
  rows_of<std::uint64_t> inodes;
  parse_raw_icmpv6_sockets(
      inodes, "  sl  local_address remote_address st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
              "   58: 00000000000000000000000000000000:003A 00000000000000000000000000000000:0000 07 00000000:00000000 "
              "00:00000000 00000000     0        0 22143 2 0 0\n"
              "   17: 00000000000000000000000000000000:0011 00000000000000000000000000000000:0000 07 00000000:00000000 "
              "00:00000000 00000000     0        0 22144 2 0 0\n");
  ASSERT_EQ(inodes.count, 1U);
  EXPECT_EQ(inodes.first[0], 22143U);
  free_rows(inodes);
}

TEST(process_room, interfaces_stand_behind_their_options) {
  rows_of<interface_text> names;
  text line;
  for (const std::string &word : std::vector<std::string>{"tarnwick", "-u", "wan0", "-dbr0,,lan1", "-m", "6to6", "-d",
                                                          "a-name-that-is-too-long,br7", "-d"}) {
    add_bytes(line, word.c_str(), word.size() + 1);
  }
  parse_served_names(names, line);
  ASSERT_EQ(names.count, 4U);
  EXPECT_STREQ(names.first[0].data(), "wan0");
  EXPECT_STREQ(names.first[1].data(), "br0");
  EXPECT_STREQ(names.first[2].data(), "lan1");
  EXPECT_STREQ(names.first[3].data(), "br7");
  free_rows(names);
  free_rows(line);
}

TEST(check_list, unknown_steps_are_counted_on_the_last_line) {
  check_list list;
  add_check(list, check_result::ok, "kernel", "fine");
  page page;
  add_check_page(page, list);
  EXPECT_STREQ(line_text(page, page.lines.first[page.lines.count - 1]), "ok: nothing was found that stops a stream");
  add_check(list, check_result::unknown, "LAN", "dark");
  clear_page(page);
  add_check_page(page, list);
  EXPECT_STREQ(line_text(page, page.lines.first[page.lines.count - 1]),
               "unknown: nothing was found that stops a stream, but 1 of 2 steps could not be looked at");
  EXPECT_EQ(result_of(list), check_result::unknown);
  text json;
  add_check_json(json, list);
  EXPECT_EQ(std::string(text_of(json)).find(R"({"result":"unknown")"), 0U);
  free_page(page);
  free_rows(json);
  free_checks(list);
}

TEST(check_list, first_no_is_the_verdict_and_the_last_line) {
  check_list list;
  add_check(list, check_result::ok, "kernel", "fine");
  add_check(list, check_result::no, "LAN", "broken %d", 1);
  add_cure(list, "mend %s", "it");
  add_check(list, check_result::no, "output", "broken 2");
  page page;
  add_check_page(page, list);
  EXPECT_STREQ(line_text(page, page.lines.first[page.lines.count - 1]), "NO: broken 1 # mend it");
  text json;
  add_check_json(json, list);
  EXPECT_NE(std::string(text_of(json))
                .find(R"("verdict":{"result":"no","place":"LAN","finding":"broken 1","cure":"mend it"}})"),
            std::string::npos);
  check_list other;
  EXPECT_FALSE(is_same_verdict(list, other));
  add_check(other, check_result::no, "LAN", "broken %d", 7);
  EXPECT_FALSE(is_same_verdict(list, other)) << "another cure";
  add_cure(other, "mend %s", "it");
  EXPECT_TRUE(is_same_verdict(list, other)) << "the figures do not count";
  free_page(page);
  free_rows(json);
  free_checks(list);
  free_checks(other);
}

TEST(json_text, bytes_that_are_not_utf8_are_replaced) {
  text json;
  add_json_text(json, "a\"\x1b\xff\xc3\xa4");
  EXPECT_STREQ(text_of(json), "\"a\\\"\\u001b\xef\xbf\xbd\xc3\xa4\"");
  free_rows(json);
}

} // namespace
