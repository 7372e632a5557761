#include "mld/mld_membership.h"

#include "mld/mld_group.h"
#include "proxy_test.h"

#include <cerrno>

namespace {

using namespace scripted;

struct mld_membership : mld_test {};

constexpr char add[] = "mld_proxy_add_membership";
constexpr char drop[] = "mld_proxy_drop_membership";

TEST_F(mld_membership, new_group_is_joined_upstream_and_forwarded_to_its_interface) {
  mld_group *group = given_group(br0, "ff0e::1:2:3");
  when([&] { mld_proxy_add_membership(group); });
  then({
      "setsockopt(wan0, IPV6_ADD_MEMBERSHIP) group=ff0e::1:2:3 ifindex=2",
      logged_debug(add, "setsockopt: IPV6_ADD_MEMBERSHIP"),
      logged_debug(add, "MFC Entry will be created for iface:br0."),
      "setsockopt(mld, MRT6_ADD_MFC) origin=:: group=ff0e::1:2:3 parent=2 outputs={3}",
      logged_debug(add, "mcastgrp: ff0e:0000:0000:0000:0000:0001:0002:0003"),
      logged_debug(add, "origin:   0000:0000:0000:0000:0000:0000:0000:0000"),
      logged_debug(add, "setsockopt: MRT6_ADD_MFC"),
  });
}

TEST_F(mld_membership, refused_join_is_refreshed_by_leaving_and_joining_again) {
  mld_group *group = given_group(br0, "ff0e::1");
  given_failure("setsockopt(wan0, IPV6_ADD_MEMBERSHIP)", EADDRINUSE);
  when([&] { mld_proxy_add_membership(group); });
  then_in_order({
      "setsockopt(wan0, IPV6_ADD_MEMBERSHIP) group=ff0e::1 ifindex=2",
      logged_error(add, "setsockopt: IPV6_ADD_MEMBERSHIP fail!!!"),
      "setsockopt(wan0, IPV6_DROP_MEMBERSHIP) group=ff0e::1 ifindex=2",
      logged_debug(add, "setsockopt: IPV6_ADD_MEMBERSHIP"),
      "setsockopt(wan0, IPV6_ADD_MEMBERSHIP) group=ff0e::1 ifindex=2",
      logged_debug(add, "setsockopt: IPV6_ADD_MEMBERSHIP"),
      "setsockopt(mld, MRT6_ADD_MFC) origin=:: group=ff0e::1 parent=2 outputs={3}",
  });
}

TEST_F(mld_membership, refused_join_and_refused_leave_end_without_forwarding) {
  mld_group *group = given_group(br0, "ff0e::1");
  given_failure("setsockopt(wan0, IPV6_ADD_MEMBERSHIP)", ENOBUFS);
  given_failure("setsockopt(wan0, IPV6_DROP_MEMBERSHIP)", EADDRNOTAVAIL);
  when([&] { mld_proxy_add_membership(group); });
  then({
      "setsockopt(wan0, IPV6_ADD_MEMBERSHIP) group=ff0e::1 ifindex=2",
      logged_error(add, "setsockopt: IPV6_ADD_MEMBERSHIP fail!!!"),
      "setsockopt(wan0, IPV6_DROP_MEMBERSHIP) group=ff0e::1 ifindex=2",
      logged_error(add, "setsockopt: IPV6_DROP_MEMBERSHIP fail!!!"),
  });
}

TEST_F(mld_membership, group_lost_by_one_of_two_interfaces_is_rewritten_with_its_bytes_misplaced) {
  given_group(lan1, "ff0e::1:2:3");
  mld_group *lost = given_group(br0, "ff0e::1:2:3");
  list_remove_node(&br0->groups, &lost->link);
  when([&] {
    mld_proxy_drop_membership(lost);
    mld_release_group(lost);
  });
  const std::string misplaced = " raw=" + std::string(56, '0') +
                                "ff0e000000000000000000010002000300000000000000000000"
                                "0000";
  const lines happened = Kernel.transcript;
  then_in_order({
      logged_debug(drop, "Group " + log_text("ff0e::1:2:3") + " on interface lan1 still there. Not dropping."),
      logged_debug(drop, "setsockopt: MRT6_DEL_MFC"),
      logged_debug(drop, "idx = 4, oifs_ttl[idx] = 1"),
      logged_debug(drop, "MldRouter.upstream_interface->vif_index = 2"),
      logged_debug(drop, "Add to MF6C with address 0000:0001:0002:0003:0000:0000:0000:0000, parent 2"),
      logged_debug(drop, "setsockopt: MRT6_ADD_MFC"),
  });
  const lines requests = [&] {
    lines only;
    std::copy_if(happened.begin(), happened.end(), std::back_inserter(only), is_request);
    return only;
  }();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(
      requests[0].rfind("setsockopt(mld, MRT6_DEL_MFC) origin=:: group=0:1:2:3:: parent=2 outputs={}" + misplaced, 0),
      0u)
      << requests[0];
  EXPECT_EQ(
      requests[1].rfind("setsockopt(mld, MRT6_ADD_MFC) origin=:: group=0:1:2:3:: parent=2 outputs={4}" + misplaced, 0),
      0u)
      << requests[1];
}

} // namespace
