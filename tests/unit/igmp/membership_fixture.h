// Groups on their way upstream and back, and what every mode leaves in the transcript.
#pragma once

#include "fixture.h"
#include "igmp/igmp_group.h"
#include "igmp/igmp_membership.h"

namespace scripted {
inline namespace igmp_words { // the MLD side has words of the same names

inline constexpr char add[] = "igmp_proxy_add_membership";
inline constexpr char drop[] = "igmp_proxy_drop_membership";
inline constexpr char group_address[] = "239.1.2.3";

// What a walk over the interfaces leaves for one that has the group.
inline lines output_lines(const std::string &name, int slot, int vif_index) {
  return {
      logged_debug(add, "MFC Entry will be created for iface:" + name + "."),
      logged_debug(add, "index_tmp = " + std::to_string(slot)),
      logged_debug(add, "intr->vif_index = " + std::to_string(vif_index)),
  };
}

inline std::string still_there_line(const std::string &name, const std::string &group = group_address) {
  return logged_debug(drop, "Group " + octets_text(group) + " on Interface: " + name + " still there. Not dropping.");
}

struct igmp_membership_fixture : igmp_fixture {
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

} // namespace igmp_words
} // namespace scripted
