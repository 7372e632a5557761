#include "igmp/igmp_membership.h"

#include "core/index_table.h"
#include "membership_fixture.h"

#include <cerrno>

namespace {

using namespace scripted;

using igmp_membership = igmp_membership_fixture;

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

TEST_F(igmp_membership, outputs_are_at_table_slots_and_the_parent_is_an_interface_index) {
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

TEST_F(igmp_membership, interface_without_vif_or_slot_is_not_an_output) {
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

TEST_F(igmp_membership, outputs_and_parent_go_by_the_vif_and_the_join_by_the_index) {
  wan0->vif_index = 7;
  br0->vif_index = 4; // lan1's slot
  when_added(given_group(br0, group_address));
  then(joined({
      {join4("IP_ADD_MEMBERSHIP")}, // ifindex=2
      output_lines("br0", 2, 4),
      {mfc4_line(add, "MRT_ADD_MFC", 7), mfc4("MRT_ADD_MFC", "2:1", 7)},
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

} // namespace
