#include "igmp/igmp_membership.h"

#include "core/index_table.h"
#include "igmp/igmp_group.h"
#include "igmp/igmp_napt.h"
#include "igmp_proxy_test.h"
#include "request_text.h"

#include <cerrno>
#include <cstring>

namespace {

using namespace scripted;

constexpr char add[] = "igmp_proxy_add_membership";
constexpr char drop[] = "igmp_proxy_drop_membership";
constexpr char group_address[] = "239.1.2.3";

lines joined(std::initializer_list<lines> parts) {
  lines all;
  for (const lines &part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

// What a walk over the interfaces leaves for one that has the group.
lines output_lines(const std::string &name, int slot, int vif_index) {
  return {
      logged_debug(add, "MFC Entry will be created for iface:" + name + "."),
      logged_debug(add, "index_tmp = " + std::to_string(slot)),
      logged_debug(add, "intr->vif_index = " + std::to_string(vif_index)),
  };
}

std::string still_there_line(const std::string &name, const std::string &group = group_address) {
  return logged_debug(drop, "Group " + octets_text(group) + " on Interface: " + name + " still there. Not dropping.");
}

struct igmp_membership : igmp_test {
  void when_added(const igmp_group *group) {
    when([&] { igmp_proxy_add_membership(group); });
  }

  // As every caller does: unlinked first, given back afterwards.
  void when_dropped(igmp_interface *intr, igmp_group *group) {
    when([&] {
      list_remove_node(&intr->groups, &group->link);
      igmp_proxy_drop_membership(group);
      igmp_release_group(group);
    });
  }
};

std::string join4(const char *option, const std::string &group = group_address) {
  return std::string("setsockopt(wan0, ") + option + ") group=" + group + " address=192.0.2.2 ifindex=2";
}

std::string mfc4(const char *option, const std::string &ttls, int parent = 2) {
  return std::string("setsockopt(igmp, ") + option + ") origin=0.0.0.0 group=" + group_address +
         " parent=" + std::to_string(parent) + " ttls={" + ttls + "}";
}

// A request to delete carries no outputs: all 32 bytes are zero.
std::string all_zero_ttls() {
  std::string text;
  for (int i = 0; i < 32; ++i) {
    text += (i == 0 ? "" : ",") + std::to_string(i) + ":0";
  }
  return text;
}

std::string mfc4_line(const char *function, const char *option, int parent = 2) {
  return logged_debug(function, std::string(option) + ": origin=0.0.0.0, mcastgrp=" + group_address +
                                    ", parent=" + std::to_string(parent));
}

TEST_F(igmp_membership, new_group_is_joined_upstream_and_forwarded_to_its_interface) {
  when_added(given_group(br0, group_address));
  then(joined({
      {join4("IP_ADD_MEMBERSHIP")},
      output_lines("br0", 1, 3),
      {mfc4_line(add, "MRT_ADD_MFC"), mfc4("MRT_ADD_MFC", "1:1")},
  }));
}

TEST_F(igmp_membership, outputs_stand_at_table_slots_and_the_parent_is_an_interface_index) {
  index_table = {};
  index_table[20] = 4;
  index_table[31] = 3;
  given_group(lan1, group_address);
  when_added(given_group(br0, group_address));
  then(joined({
      {join4("IP_ADD_MEMBERSHIP")},
      output_lines("lan1", 20, 4),
      output_lines("br0", 31, 3),
      {mfc4_line(add, "MRT_ADD_MFC"), mfc4("MRT_ADD_MFC", "20:1,31:1")},
  }));
}

TEST_F(igmp_membership, interface_without_vif_or_slot_is_no_output) {
  br0->vif_index = -1;
  index_table[2] = 0; // lan1's
  given_group(lan1, group_address);
  when_added(given_group(br0, group_address));
  then(joined({
      {join4("IP_ADD_MEMBERSHIP")},
      output_lines("lan1", -1, 4),
      {
          logged_debug(add, "MFC Entry will be created for iface:br0."),
          logged_debug("find_used_index", "illegal dev index: -1"),
          logged_debug(add, "index_tmp = -1"),
          logged_debug(add, "intr->vif_index = -1"),
      },
      {mfc4_line(add, "MRT_ADD_MFC"), mfc4("MRT_ADD_MFC", "")},
  }));
}

TEST_F(igmp_membership, refused_join_is_left_and_tried_again_without_forwarding) {
  given_failure("setsockopt(wan0, IP_ADD_MEMBERSHIP)", EADDRINUSE);
  when_added(given_group(br0, group_address));
  then({
      join4("IP_ADD_MEMBERSHIP"),
      logged_error(add,
                   "Unable to add membership for Group: 239.1.2.3 on upstream Error:" + std::to_string(EADDRINUSE)),
      join4("IP_DROP_MEMBERSHIP"),
      join4("IP_ADD_MEMBERSHIP"),
  });
}

TEST_F(igmp_membership, second_refusal_of_a_join_is_not_looked_at) {
  given_failure("setsockopt(wan0, IP_ADD_MEMBERSHIP)", ENOBUFS, -1);
  when_added(given_group(br0, group_address));
  then({
      join4("IP_ADD_MEMBERSHIP"),
      logged_error(add, "Unable to add membership for Group: 239.1.2.3 on upstream Error:" + std::to_string(ENOBUFS)),
      join4("IP_DROP_MEMBERSHIP"),
      join4("IP_ADD_MEMBERSHIP"),
  });
}

TEST_F(igmp_membership, refused_join_and_refused_leave_end_there) {
  given_failure("setsockopt(wan0, IP_ADD_MEMBERSHIP)", ENOBUFS);
  given_failure("setsockopt(wan0, IP_DROP_MEMBERSHIP)", EADDRNOTAVAIL);
  when_added(given_group(br0, group_address));
  then({
      join4("IP_ADD_MEMBERSHIP"),
      logged_error(add, "Unable to add membership for Group: 239.1.2.3 on upstream Error:" + std::to_string(ENOBUFS)),
      join4("IP_DROP_MEMBERSHIP"),
      "| can not drop.",
  });
}

TEST_F(igmp_membership, refused_forwarding_entry_is_logged) {
  given_failure("setsockopt(igmp, MRT_ADD_MFC)", ENOMEM);
  when_added(given_group(br0, group_address));
  then(joined({
      {join4("IP_ADD_MEMBERSHIP")},
      output_lines("br0", 1, 3),
      {mfc4_line(add, "MRT_ADD_MFC"), mfc4("MRT_ADD_MFC", "1:1"),
       logged_error(add, "Unable to add MFC entry for group: " + octets_text(group_address) + ".")},
  }));
}

TEST_F(igmp_membership, parent_of_a_refused_upstream_vif_shows_as_minus_one_in_the_log) {
  wan0->vif_index = -1;
  when_added(given_group(br0, group_address));
  then(joined({
      {join4("IP_ADD_MEMBERSHIP")},
      output_lines("br0", 1, 3),
      {mfc4_line(add, "MRT_ADD_MFC", -1), mfc4("MRT_ADD_MFC", "1:1", 65535)},
  }));
}

TEST_F(igmp_membership, last_interface_to_lose_a_group_leaves_upstream_and_deletes_the_entry) {
  when_dropped(br0, given_group(br0, group_address));
  then({
      logged_debug(drop, "Drop membership for Group: 239.1.2.3 on upstream"),
      join4("IP_DROP_MEMBERSHIP"),
      mfc4_line(drop, "MRT_DEL_MFC"),
      mfc4("MRT_DEL_MFC", all_zero_ttls()),
  });
}

TEST_F(igmp_membership, group_lost_by_one_of_two_interfaces_keeps_its_membership_and_one_output) {
  given_group(lan1, group_address);
  when_dropped(br0, given_group(br0, group_address));
  then({
      still_there_line("lan1"),
      mfc4_line(drop, "MRT_DEL_MFC"),
      mfc4("MRT_DEL_MFC", all_zero_ttls()),
      mfc4_line(drop, "MRT_ADD_MFC"),
      mfc4("MRT_ADD_MFC", "2:1"),
  });
}

TEST_F(igmp_membership, two_interfaces_share_one_upstream_join_request_each) {
  when_added(given_group(lan1, group_address));
  then_anything();
  when_added(given_group(br0, group_address)); // the kernel refuses a second join on the socket; here it does not
  then_in_order({join4("IP_ADD_MEMBERSHIP"), mfc4("MRT_ADD_MFC", "1:1,2:1")});
}

TEST_F(igmp_membership, interface_without_vif_keeps_the_group_upstream) {
  lan1->vif_index = -1;
  given_group(lan1, group_address);
  when_dropped(br0, given_group(br0, group_address));
  then({
      still_there_line("lan1"),
      logged_debug("find_used_index", "illegal dev index: -1"),
      mfc4_line(drop, "MRT_DEL_MFC"),
      mfc4("MRT_DEL_MFC", all_zero_ttls()),
      mfc4_line(drop, "MRT_ADD_MFC"),
      mfc4("MRT_ADD_MFC", ""),
  });
}

TEST_F(igmp_membership, refused_deletion_ends_the_rewrite) {
  given_group(lan1, group_address);
  given_failure("setsockopt(igmp, MRT_DEL_MFC)", ENOENT);
  when_dropped(br0, given_group(br0, group_address));
  then({
      still_there_line("lan1"),
      mfc4_line(drop, "MRT_DEL_MFC"),
      mfc4("MRT_DEL_MFC", all_zero_ttls()),
      logged_error(drop, "Unable to del MFC entry for group: 239.1.2.3"),
  });
}

TEST_F(igmp_membership, refused_rewrite_is_logged) {
  given_group(lan1, group_address);
  given_failure("setsockopt(igmp, MRT_ADD_MFC)", ENOMEM);
  when_dropped(br0, given_group(br0, group_address));
  then_in_order({
      mfc4("MRT_ADD_MFC", "2:1"),
      logged_error(drop, "Updation of MFC entry for group: " + octets_text(group_address) + " failed."),
  });
}

TEST_F(igmp_membership, refused_leave_upstream_keeps_the_entry) {
  given_failure("setsockopt(wan0, IP_DROP_MEMBERSHIP)", EADDRNOTAVAIL);
  when_dropped(br0, given_group(br0, group_address));
  then({
      logged_debug(drop, "Drop membership for Group: 239.1.2.3 on upstream"),
      join4("IP_DROP_MEMBERSHIP"),
      logged_error(drop,
                   "Unable to drop membership for Group: 239.1.2.3 on upstream Error:" + std::to_string(EADDRNOTAVAIL)),
  });
}

TEST_F(igmp_membership, refused_deletion_after_the_leave_is_logged) {
  given_failure("setsockopt(igmp, MRT_DEL_MFC)", ENOENT);
  when_dropped(br0, given_group(br0, group_address));
  then_in_order({
      mfc4("MRT_DEL_MFC", all_zero_ttls()),
      logged_error(drop, "Unable to del MFC entry for group: 239.1.2.3"),
  });
}

TEST_F(igmp_membership, without_upstream_interface_the_kernel_refuses_everything) {
  IgmpRouter.upstream_interface = nullptr;
  Kernel.names[-1] = "nothing";
  given_failure("setsockopt(nothing", EBADF, -1);
  igmp_group *group = given_group(br0, group_address);
  when_added(group);
  then_in_order(
      {"setsockopt(nothing, IP_ADD_MEMBERSHIP) group=239.1.2.3 address=0.0.0.0 ifindex=0", "| can not drop."});
  when_dropped(br0, group);
  then_anything();
  IgmpRouter.upstream_interface = wan0;
}

TEST_F(igmp_membership, mode_6to6_makes_no_request) {
  ProxyMode = PROXY_MODE_6TO6;
  igmp_group *group = given_group(br0, group_address);
  when_added(group);
  when_dropped(br0, group);
  then_requests({});
}

constexpr char mapped[] = "ff0e:1:2:3:4:5:ef01:203";

struct igmp_membership_4to6 : igmp_membership {
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

TEST_F(igmp_membership_4to6, lan_interface_is_no_output_and_every_other_one_is) {
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

TEST_F(igmp_membership_4to6, parent_and_join_name_the_translator_for_an_upstream_that_is_the_lan) {
  LanIndex = 2;
  NatptIndex = 9;
  when_added(given_group(br0, group_address));
  then_in_order({join6("IPV6_ADD_MEMBERSHIP", 9), vif_line(add), add_line(add, 9), mfc6("MRT6_ADD_MFC", "3", 9)});
}

TEST_F(igmp_membership_4to6, interface_number_beyond_the_kernels_is_no_output) {
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

TEST_F(igmp_membership_4to6, group_lost_by_one_of_two_interfaces_keeps_membership_and_map) {
  given_group(lan1, group_address);
  when_dropped(br0, given_group(br0, group_address));
  then({
      still_there_line("lan1"),
      vif_line(drop),
      delete_line("Delete from MF6C with address"),
      mfc6("MRT6_DEL_MFC", ""),
      index_line(drop, 4),
      add_line(drop),
      mfc6("MRT6_ADD_MFC", "4"),
  });
}

TEST_F(igmp_membership_4to6, refused_deletion_ends_the_rewrite) {
  given_group(lan1, group_address);
  given_failure("setsockopt(igmp, MRT6_DEL_MFC)", ENOENT);
  when_dropped(br0, given_group(br0, group_address));
  then({
      still_there_line("lan1"),
      vif_line(drop),
      delete_line("Delete from MF6C with address"),
      mfc6("MRT6_DEL_MFC", ""),
      logged_error(drop,
                   "Unable to del MF6C entry for group:" + log_text(mapped) + " Error:" + std::to_string(ENOENT) + "."),
  });
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
