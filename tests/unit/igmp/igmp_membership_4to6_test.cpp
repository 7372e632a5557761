// Mode 4to6: IPv6 groups in place of IPv4 groups, and the translator's maps.
#include "core/index_table.h"
#include "igmp/igmp_napt.h"
#include "membership_fixture.h"
#include "tests/support/request_text.h"

#include <cerrno>

namespace {

using namespace scripted;

constexpr char mapped[] = "ff0e:1:2:3:4:5:ef01:203";

struct igmp_membership_4to6 : igmp_membership_fixture {
  igmp_membership_4to6() { given_mode_4to6(); }
};

std::string join6(const char *option, int ifindex = 2) {
  return std::string("setsockopt(wan0/6, ") + option + ") group=" + mapped + " ifindex=" + std::to_string(ifindex);
}

std::string mfc6(const char *option, const std::string &outputs, int parent = 2) {
  return std::string("setsockopt(igmp, ") + option + ") origin=:: group=" + mapped +
         " parent=" + std::to_string(parent) + " outputs={" + outputs + "}";
}

std::string vif_line(const char *function, int vif_index = 2) {
  return logged_debug(function, "IgmpRouter.upstream_interface->vif_index = " + std::to_string(vif_index));
}

std::string index_line(const char *function, int index) {
  return logged_debug(function, "idx = " + std::to_string(index) + ", oifs_ttl[idx] = 1");
}

std::string add_line(const char *function, int parent = 2) {
  return logged_debug(function, "Add to MF6C with address " + log_text(mapped) + ", parent " + std::to_string(parent));
}

// Group, twelve prefix bytes, group again, 1000000 in host order.
std::string map_record() {
  const std::uint32_t last = 1000000;
  return hex_text(&last, sizeof(last))
      .insert(0, "ef010203"
                 "ff0e00010002000300040005"
                 "ef010203");
}

lines map_lines(const char *request) {
  return {
      "socket(AF_INET, SOCK_RAW, 255)",
      std::string("ioctl(fd 1100, ") + request + ") natpt0 record=" + map_record(),
      "close(fd 1100)",
  };
}

TEST_F(igmp_membership_4to6, new_group_is_joined_as_ipv6_forwarded_and_mapped) {
  when_added(given_group(br0, group_address));
  then(joined({
      {join6("IPV6_ADD_MEMBERSHIP")},
      output_lines("br0", 1, 3),
      {index_line(add, 3), vif_line(add), add_line(add), mfc6("MRT6_ADD_MFC", "3")},
      map_lines("NATPTMAPADD"),
  }));
}

TEST_F(igmp_membership_4to6, lan_interface_is_not_an_output_and_every_other_one_is) {
  LanIndex = 3;
  NatptIndex = 9;
  given_group(lan1, group_address);
  when_added(given_group(br0, group_address));
  then_in_order({index_line(add, 4), vif_line(add), mfc6("MRT6_ADD_MFC", "4")});
}

TEST_F(igmp_membership_4to6, highest_interface_number_is_an_output) {
  br0->vif_index = 31;
  when_added(given_group(br0, group_address));
  then_in_order({index_line(add, 31), mfc6("MRT6_ADD_MFC", "31")});
}

TEST_F(igmp_membership_4to6, lowest_interface_number_is_an_output) {
  LanIndex = 9;
  br0->vif_index = 0;
  when_added(given_group(br0, group_address));
  then_in_order({index_line(add, 0), mfc6("MRT6_ADD_MFC", "0")});
}

TEST_F(igmp_membership_4to6, parent_and_join_name_the_translator_for_an_upstream_that_is_the_lan) {
  LanIndex = 2;
  NatptIndex = 9;
  when_added(given_group(br0, group_address));
  then_in_order({join6("IPV6_ADD_MEMBERSHIP", 9), vif_line(add), add_line(add, 9), mfc6("MRT6_ADD_MFC", "3", 9)});
}

// With a refused VIF the index still names the interface of the join; the parent is what the kernel refused.
TEST_F(igmp_membership_4to6, refused_upstream_vif_shows_in_the_parent_and_not_in_the_join) {
  LanIndex = 2;
  NatptIndex = 9;
  wan0->vif_index = -1;
  when_added(given_group(br0, group_address));
  then_in_order({join6("IPV6_ADD_MEMBERSHIP", 9), vif_line(add, -1), add_line(add, -1), //
                 mfc6("MRT6_ADD_MFC", "3", 65535)});
}

TEST_F(igmp_membership_4to6, lan_is_recognised_by_its_vif_among_the_outputs) {
  LanIndex = 3;
  NatptIndex = 9;
  br0->vif_index = 7; // index 3, but not under that number
  lan1->vif_index = 3;
  given_group(lan1, group_address);
  when_added(given_group(br0, group_address));
  then_in_order({index_line(add, 7), vif_line(add), mfc6("MRT6_ADD_MFC", "7")});
}

TEST_F(igmp_membership_4to6, interface_number_beyond_the_kernels_is_not_an_output) {
  br0->vif_index = 32;
  lan1->vif_index = -1;
  given_group(lan1, group_address);
  when_added(given_group(br0, group_address));
  then_in_order({vif_line(add), mfc6("MRT6_ADD_MFC", "")});
}

TEST_F(igmp_membership_4to6, refused_join_is_left_and_tried_again_without_forwarding) {
  given_failure("setsockopt(wan0/6, IPV6_ADD_MEMBERSHIP)", EADDRINUSE);
  when_added(given_group(br0, group_address));
  then({
      join6("IPV6_ADD_MEMBERSHIP"),
      logged_error(add, "Unable to add membership for Group:" + log_text(mapped) +
                            " on upstream Error:" + std::to_string(EADDRINUSE)),
      join6("IPV6_DROP_MEMBERSHIP"),
      join6("IPV6_ADD_MEMBERSHIP"),
  });
}

TEST_F(igmp_membership_4to6, refused_join_and_refused_leave_end_there) {
  given_failure("setsockopt(wan0/6, IPV6_", ENOBUFS, 2);
  when_added(given_group(br0, group_address));
  then({
      join6("IPV6_ADD_MEMBERSHIP"),
      logged_error(add, "Unable to add membership for Group:" + log_text(mapped) +
                            " on upstream Error:" + std::to_string(ENOBUFS)),
      join6("IPV6_DROP_MEMBERSHIP"),
      "| can not drop.",
  });
}

TEST_F(igmp_membership_4to6, refused_entry_is_logged_and_not_mapped) {
  given_failure("setsockopt(igmp, MRT6_ADD_MFC)", ENOPROTOOPT);
  when_added(given_group(br0, group_address));
  then(joined({
      {join6("IPV6_ADD_MEMBERSHIP")},
      output_lines("br0", 1, 3),
      {index_line(add, 3), vif_line(add), add_line(add), mfc6("MRT6_ADD_MFC", "3"),
       logged_error(add, "Unable to add MF6C entry for group:" + log_text(mapped) +
                             " Error:" + std::to_string(ENOPROTOOPT) + ".")},
  }));
}

TEST_F(igmp_membership_4to6, routers_groups_are_not_mapped) {
  for (const std::uint32_t native : {IgmpAllRouters, IgmpV3AllMcr}) {
    igmp_group *group = given_group(br0, wire_text(native));
    when_added(group);
    const lines after_join = take_transcript();
    EXPECT_NE(after_join.back().find("MRT6_ADD_MFC"), std::string::npos);
    when_dropped(br0, group);
    const lines after_leave = take_transcript();
    EXPECT_NE(after_leave.back().find("MRT6_DEL_MFC"), std::string::npos);
  }
}

std::string delete_line(const std::string &words) {
  return logged_debug(drop, words + " 239.1.2.3 group: " + log_text(mapped));
}

TEST_F(igmp_membership_4to6, last_interface_to_lose_a_group_leaves_deletes_and_unmaps) {
  when_dropped(br0, given_group(br0, group_address));
  then(joined({
      {
          join6("IPV6_DROP_MEMBERSHIP"),
          delete_line("Delete from MF6C with address:"),
          mfc6("MRT6_DEL_MFC", ""),
      },
      map_lines("NATPTMAPDEL"),
  }));
}

TEST_F(igmp_membership_4to6, refused_leave_upstream_keeps_entry_and_map) {
  given_failure("setsockopt(wan0/6, IPV6_DROP_MEMBERSHIP)", EADDRNOTAVAIL);
  when_dropped(br0, given_group(br0, group_address));
  then({
      join6("IPV6_DROP_MEMBERSHIP"),
      logged_error(drop, "Unable to drop membership for Group: " + log_text(mapped) +
                             " on upstream Error:" + std::to_string(EADDRNOTAVAIL)),
  });
}

TEST_F(igmp_membership_4to6, refused_deletion_after_the_leave_keeps_the_map) {
  given_failure("setsockopt(igmp, MRT6_DEL_MFC)", ENOENT);
  when_dropped(br0, given_group(br0, group_address));
  then({
      join6("IPV6_DROP_MEMBERSHIP"),
      delete_line("Delete from MF6C with address:"),
      mfc6("MRT6_DEL_MFC", ""),
      logged_error(drop, "Unable to del MF6C entry for group:239.1.2.3 Error:" + std::to_string(ENOENT)),
  });
}

// The first half of a rewrite: lan1 still has the group that br0 has lost.
lines entry_taken_away_for_lan1() {
  return {
      still_there_line("lan1"),
      vif_line(drop),
      delete_line("Delete from MF6C with address"),
      mfc6("MRT6_DEL_MFC", ""),
  };
}

TEST_F(igmp_membership_4to6, group_lost_by_one_of_two_interfaces_keeps_membership_and_map) {
  given_group(lan1, group_address);
  when_dropped(br0, given_group(br0, group_address));
  then(joined({entry_taken_away_for_lan1(), {index_line(drop, 4), add_line(drop), mfc6("MRT6_ADD_MFC", "4")}}));
}

// The LAN is fed by the translator, so it is not an output; but its hosts still want the group.
TEST_F(igmp_membership_4to6, group_that_only_the_lan_still_has_stays_joined_without_an_output) {
  LanIndex = 4;
  NatptIndex = 9;
  given_group(lan1, group_address);
  when_dropped(br0, given_group(br0, group_address));
  then(joined({entry_taken_away_for_lan1(), {add_line(drop), mfc6("MRT6_ADD_MFC", "")}}));
}

TEST_F(igmp_membership_4to6, refused_deletion_ends_the_rewrite) {
  given_group(lan1, group_address);
  given_failure("setsockopt(igmp, MRT6_DEL_MFC)", ENOENT);
  when_dropped(br0, given_group(br0, group_address));
  then(joined({entry_taken_away_for_lan1(),
               {logged_error(drop, "Unable to del MF6C entry for group:" + log_text(mapped) +
                                       " Error:" + std::to_string(ENOENT) + ".")}}));
}

TEST_F(igmp_membership_4to6, refused_rewrite_is_logged) {
  given_group(lan1, group_address);
  given_failure("setsockopt(igmp, MRT6_ADD_MFC)", ENOMEM);
  when_dropped(br0, given_group(br0, group_address));
  then_in_order({
      mfc6("MRT6_ADD_MFC", "4"),
      logged_error(drop, "Updation of MFC entry for group:" + log_text(mapped) +
                             " failed. Error:" + std::to_string(ENOMEM) + "."),
  });
}

TEST_F(igmp_membership_4to6, translator_that_cannot_be_reached_is_logged) {
  given_failure("socket(AF_INET, SOCK_RAW, 255)", EPERM, -1);
  when([] {
    add_napt_map(word(group_address));
    del_napt_map(word(group_address));
  });
  const std::string message = "Create socket for set NAPT map by ioctl failed!";
  then({
      "socket(AF_INET, SOCK_RAW, 255)",
      logged_error("add_napt_map", message),
      "socket(AF_INET, SOCK_RAW, 255)",
      logged_error("del_napt_map", message),
  });
  EXPECT_NE(Kernel.output.find("E:igmp:add_napt_map"), std::string::npos);
}

TEST_F(igmp_membership_4to6, refused_map_is_logged_and_its_socket_stays_open) {
  given_failure("ioctl(", ENODEV, -1);
  when([] {
    add_napt_map(word(group_address));
    del_napt_map(word(group_address));
  });
  then({
      "socket(AF_INET, SOCK_RAW, 255)",
      "ioctl(fd 1100, NATPTMAPADD) natpt0 record=" + map_record(),
      logged_error("add_napt_map", "1. Set NATPTMAPADD by ioctl failed!"),
      "socket(AF_INET, SOCK_RAW, 255)",
      "ioctl(fd 1101, NATPTMAPDEL) natpt0 record=" + map_record(),
      logged_error("del_napt_map", "1. Set NATPTMAPDEL by ioctl failed!"),
  });
}

} // namespace
