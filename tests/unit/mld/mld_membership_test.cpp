#include "mld/mld_membership.h"

#include "fixture.h"
#include "mld/mld_group.h"
#include "mld/mld_options.h"
#include "tests/support/request_text.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

using namespace scripted;

struct mld_membership : mld_fixture {
  // A group that this interface has just lost, as the callers hand it over.
  mld_group *given_lost(mld_interface *intr, const std::string &group, const lines &sources = {}) {
    mld_group *lost = given_group(intr, group, sources);
    mld_unlink_group(intr, lost);
    return lost;
  }

  void when_dropped(mld_group *group) {
    when([&] {
      mld_proxy_drop_membership(group);
      mld_release_group(group);
    });
  }
};

constexpr char add[] = "mld_proxy_add_membership";
constexpr char add_source[] = "mldv2_add_src_membership";
constexpr char drop[] = "mld_proxy_drop_membership";

const std::string join = "setsockopt(wan0, IPV6_ADD_MEMBERSHIP) group=ff0e::1 ifindex=2";
const std::string leave = "setsockopt(wan0, IPV6_DROP_MEMBERSHIP) group=ff0e::1 ifindex=2";
const std::string joined = logged_debug(add, "setsockopt: IPV6_ADD_MEMBERSHIP");
const std::string join_failed = logged_error(add, "setsockopt: IPV6_ADD_MEMBERSHIP fail!!!");

const lines forwarded{
    logged_debug(add, "MFC Entry will be created for iface:br0."),
    "setsockopt(mld, MRT6_ADD_MFC) origin=:: group=ff0e::1 parent=2 outputs={3}",
    logged_debug(add, "mcastgrp: ff0e:0000:0000:0000:0000:0000:0000:0001"),
    logged_debug(add, "origin:   0000:0000:0000:0000:0000:0000:0000:0000"),
    logged_debug(add, "setsockopt: MRT6_ADD_MFC"),
};

lines after(lines first, const lines &second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TEST_F(mld_membership, new_group_is_joined_upstream_and_forwarded_to_its_interface) {
  mld_group *group = given_group(br0, "ff0e::1");
  when([&] { mld_proxy_add_membership(group); });
  then(after({join, joined}, forwarded));
}

TEST_F(mld_membership, every_interface_that_has_the_group_becomes_an_output) {
  given_group(lan1, "ff0e::1");
  given_group(lan1, "ff0e::2");
  mld_group *group = given_group(br0, "ff0e::1");
  when([&] { mld_proxy_add_membership(group); });
  then_in_order({
      logged_debug(add, "MFC Entry will be created for iface:lan1."),
      logged_debug(add, "MFC Entry will be created for iface:br0."),
      "setsockopt(mld, MRT6_ADD_MFC) origin=:: group=ff0e::1 parent=2 outputs={3,4}",
  });
}

TEST_F(mld_membership, upstream_interface_is_never_an_output) {
  given_group(wan0, "ff0e::1");
  mld_group *group = given_group(br0, "ff0e::1");
  when([&] { mld_proxy_add_membership(group); });
  then(after({join, joined}, forwarded));
}

// The rewrite shows that the group is wanted, the request that the MIF is not an output.
TEST_F(mld_membership, interface_beyond_the_outputs_still_wants_its_group) {
  given_group(lan1, "ff0e::1");
  for (const std::uint32_t vif_index : {32u, UINT32_MAX}) {
    lan1->vif_index = vif_index;
    when_dropped(given_lost(br0, "ff0e::1"));
    then_in_order({logged_debug(drop, "Group " + log_text("ff0e::1") + " on interface lan1 still there. Not dropping."),
                   logged_debug(drop, "MldRouter.upstream_interface->vif_index = 2")});
  }
}

TEST_F(mld_membership, retired_group_is_left_upstream_and_back_in_the_pool) {
  mld_group *lost = given_lost(br0, "ff0e::1");
  when([&] { mld_retire_group(lost); });
  then({leave, logged_debug(drop, "setsockopt: IPV6_DROP_MEMBERSHIP")});
  EXPECT_EQ(lost->state, MLD_GROUP_NO_MEMBERS);
  EXPECT_EQ(list_first<mld_group>(&MldRouter.free_groups), lost);
}

TEST_F(mld_membership, refused_join_is_refreshed_by_leaving_and_joining_again) {
  mld_group *group = given_group(br0, "ff0e::1");
  given_failure(join, EADDRINUSE);
  when([&] { mld_proxy_add_membership(group); });
  then(after({join, join_failed, leave, joined, join, joined}, forwarded));
}

TEST_F(mld_membership, refused_join_and_refused_leave_end_without_forwarding) {
  mld_group *group = given_group(br0, "ff0e::1");
  given_failure(join, ENOBUFS);
  given_failure(leave, EADDRNOTAVAIL);
  when([&] { mld_proxy_add_membership(group); });
  then({join, join_failed, leave, logged_error(add, "setsockopt: IPV6_DROP_MEMBERSHIP fail!!!")});
}

TEST_F(mld_membership, join_refused_twice_ends_without_forwarding) {
  mld_group *group = given_group(br0, "ff0e::1");
  given_failure(join, ENOBUFS, 2);
  when([&] { mld_proxy_add_membership(group); });
  then({join, join_failed, leave, joined, join, join_failed});
}

TEST_F(mld_membership, refused_forwarding_is_logged_like_an_accepted_one_behind_its_failure) {
  mld_group *group = given_group(br0, "ff0e::1");
  given_failure("setsockopt(mld, MRT6_ADD_MFC)", ENFILE);
  when([&] { mld_proxy_add_membership(group); });
  lines expected = after({join, joined}, forwarded);
  expected.insert(expected.begin() + 4, logged_error(add, "setsockopt: MRT6_ADD_MFC fail!!!"));
  then(expected);
}

// Sources.

const std::string join_source = "setsockopt(wan0, MCAST_JOIN_SOURCE_GROUP) group=ff0e::1 source=2001:db8::1 ifindex=2";
const std::string block_source = "setsockopt(wan0, MCAST_BLOCK_SOURCE) group=ff0e::1 source=2001:db8::1 ifindex=2";
const std::string forward_source =
    "setsockopt(mld, MRT6_ADD_MFC) origin=2001:db8::1 group=ff0e::1 parent=2 outputs={3}";

TEST_F(mld_membership, source_is_joined_upstream_and_forwarded_to_its_interface) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  when([&] { mldv2_add_src_membership(group, address("2001:db8::1")); });
  then({
      logged_debug(add_source, "MldBlock = 0"),
      join_source,
      logged_debug(add_source, "setsockopt MCAST_JOIN_SOURCE_GROUP"),
      logged_debug(add_source, "MFC Entry will be created for iface:br0."),
      forward_source,
      logged_debug(add_source, "setsockopt: MRT6_ADD_MFC"),
  });
}

TEST_F(mld_membership, group_that_is_not_a_multicast_address_is_refused_without_a_request) {
  mld_group *group = given_group(br0, "fe0e::1", {"2001:db8::1"});
  when([&] { mldv2_add_src_membership(group, address("2001:db8::1")); });
  then({logged_error(add_source, "Group address is not IPv6 multicast address: " + log_text("fe0e::1"))});
}

TEST_F(mld_membership, blocked_source_is_blocked_upstream_before_it_is_joined) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  group->sources[0].forward = 0;
  group->sources[1].forward = 0; // another source: not blocked here
  when([&] { mldv2_add_src_membership(group, address("2001:db8::1")); });
  then({
      logged_debug(add_source, "MldBlock = 0"),
      block_source,
      logged_debug(add_source, "setsockopt: MCAST_BLOCK_SOURCE"),
      join_source,
      logged_debug(add_source, "setsockopt MCAST_JOIN_SOURCE_GROUP"),
      logged_debug(add_source, "MFC Entry will be created for iface:br0."),
      forward_source,
      logged_debug(add_source, "setsockopt: MRT6_ADD_MFC"),
  });
}

TEST_F(mld_membership, refused_block_does_not_keep_the_source_from_being_joined) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  group->sources[0].forward = 0;
  given_failure(block_source, EINVAL);
  when([&] { mldv2_add_src_membership(group, address("2001:db8::1")); });
  then_in_order(
      {block_source, logged_error(add_source, "setsockopt: MCAST_BLOCK_SOURCE fail!!!"), join_source, forward_source});
}

TEST_F(mld_membership, while_sources_are_being_blocked_they_are_joined_without_a_block) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  group->sources[0].forward = 0;
  MldBlock = 1;
  when([&] { mldv2_add_src_membership(group, address("2001:db8::1")); });
  then({
      logged_debug(add_source, "MldBlock = 1"),
      join_source,
      logged_debug(add_source, "setsockopt MCAST_JOIN_SOURCE_GROUP"),
      logged_debug(add_source, "MFC Entry will be created for iface:br0."),
      forward_source,
      logged_debug(add_source, "setsockopt: MRT6_ADD_MFC"),
  });
}

TEST_F(mld_membership, refused_source_join_ends_without_forwarding) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  given_failure(join_source, EADDRNOTAVAIL);
  when([&] { mldv2_add_src_membership(group, address("2001:db8::1")); });
  then({logged_debug(add_source, "MldBlock = 0"), join_source,
        logged_error(add_source, "setsockopt MCAST_JOIN_SOURCE_GROUP fail!!!")});
}

TEST_F(mld_membership, refused_forwarding_of_a_source_shows_only_in_the_level) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  given_failure("setsockopt(mld, MRT6_ADD_MFC)", ENFILE);
  when([&] { mldv2_add_src_membership(group, address("2001:db8::1")); });
  then({
      logged_debug(add_source, "MldBlock = 0"),
      join_source,
      logged_debug(add_source, "setsockopt MCAST_JOIN_SOURCE_GROUP"),
      logged_debug(add_source, "MFC Entry will be created for iface:br0."),
      forward_source,
      logged_error(add_source, "setsockopt: MRT6_ADD_MFC"),
  });
}

TEST_F(mld_membership, source_is_left_in_the_callers_style_of_logging) {
  const std::string leave_source =
      "setsockopt(wan0, MCAST_LEAVE_SOURCE_GROUP) group=ff0e::1 source=2001:db8::1 ifindex=2";
  const std::string done = logged_debug("mld_leaver", "setsockopt: MCAST_LEAVE_SOURCE_GROUP");
  const std::string failed = logged_error("mld_leaver", "setsockopt: MCAST_LEAVE_SOURCE_GROUP fail!!!");
  const auto when_left = [&](request_log style) {
    bool is_left = false;
    when([&] {
      is_left = mld_leave_source(MLD_STEP_OF("mld_leaver"), style, address("ff0e::1"), address("2001:db8::1"));
    });
    return is_left;
  };
  EXPECT_TRUE(when_left(request_log::either));
  then({leave_source, done});
  given_failure(leave_source, EADDRNOTAVAIL, 2);
  EXPECT_FALSE(when_left(request_log::either));
  then({leave_source, failed});
  EXPECT_FALSE(when_left(request_log::both));
  then({leave_source, failed, done});
}

// Dropping.

std::string delete_entry(const std::string &source) {
  return "setsockopt(mld, MRT6_DEL_MFC) origin=" + source + " group=ff0e::1 parent=2 outputs={}";
}

TEST_F(mld_membership, group_without_sources_is_left_upstream_and_its_entry_stays) {
  when_dropped(given_lost(br0, "ff0e::1"));
  then({leave, logged_debug(drop, "setsockopt: IPV6_DROP_MEMBERSHIP")});
}

TEST_F(mld_membership, entries_of_sources_are_deleted_in_slot_order) {
  when_dropped(given_lost(br0, "ff0e::1", {"2001:db8::2", "::", "2001:db8::1"}));
  then({
      leave,
      logged_debug(drop, "setsockopt: IPV6_DROP_MEMBERSHIP"),
      delete_entry("2001:db8::2"),
      logged_debug(drop, "setsockopt: MRT6_DEL_MFC"),
      delete_entry("::"),
      logged_debug(drop, "setsockopt: MRT6_DEL_MFC"),
      delete_entry("2001:db8::1"),
      logged_debug(drop, "setsockopt: MRT6_DEL_MFC"),
  });
}

TEST_F(mld_membership, refusals_of_a_drop_are_logged_and_change_nothing) {
  given_failure(leave, EADDRNOTAVAIL);
  given_failure("setsockopt(mld, MRT6_DEL_MFC)", ENOENT);
  when_dropped(given_lost(br0, "ff0e::1", {"2001:db8::1"}));
  then({
      leave,
      logged_error(drop, "setsockopt: IPV6_DROP_MEMBERSHIP fail!!!"),
      logged_debug(drop, "setsockopt: IPV6_DROP_MEMBERSHIP"),
      delete_entry("2001:db8::1"),
      logged_error(drop, "setsockopt: MRT6_DEL_MFC fail!!!"),
      logged_debug(drop, "setsockopt: MRT6_DEL_MFC"),
  });
}

TEST_F(mld_membership, drop_with_an_empty_interface_list_leaves_upstream) {
  mld_group *lost = given_lost(br0, "ff0e::1");
  const list interfaces = MldRouter.interfaces;
  MldRouter.interfaces.head = nullptr;
  run([&] { mld_proxy_drop_membership(lost); });
  MldRouter.interfaces = interfaces;
  mld_release_group(lost);
  then({leave, logged_debug(drop, "setsockopt: IPV6_DROP_MEMBERSHIP")});
}

TEST_F(mld_membership, without_an_upstream_interface_requests_go_nowhere) {
  mld_group *lost = given_lost(br0, "ff0e::1", {"2001:db8::1"});
  MldRouter.upstream_interface = nullptr;
  run([&] { mld_proxy_drop_membership(lost); });
  MldRouter.upstream_interface = wan0;
  mld_release_group(lost);
  then_requests({"setsockopt(fd -1, IPV6_DROP_MEMBERSHIP) group=ff0e::1 ifindex=0",
                 "setsockopt(mld, MRT6_DEL_MFC) origin=2001:db8::1 group=ff0e::1 parent=0 outputs={}"});
}

// The entry of a group that one of two interfaces lost is rewritten by a request that carries the group's bytes from
// the first byte of its socket address on. Built here byte by byte, so that the transcript can be compared.
std::string rewrite_request(int option, const std::string &group, int output = -1) {
  mf6cctl request;
  std::memset(&request, 0, sizeof(request));
  auto *bytes = reinterpret_cast<std::uint8_t *>(&request);
  const ipv6_address misplaced = address(group);
  std::memcpy(bytes + offsetof(mf6cctl, mf6cc_mcastgrp), misplaced.data(), misplaced.size());
  request.mf6cc_parent = 2;
  if (output >= 0) {
    request.mf6cc_ifset.ifs_bits[0] = if_mask{1} << output;
  }
  return setsockopt_text(MLD_SOCKET, IPPROTO_IPV6, option, &request, sizeof(request));
}

TEST_F(mld_membership, group_lost_by_one_of_two_interfaces_is_rewritten_with_its_bytes_misplaced) {
  given_group(lan1, "ff0e::1:2:3");
  when_dropped(given_lost(br0, "ff0e::1:2:3"));
  then({
      logged_debug(drop, "Group ff0e:0000:0000:0000:0000:0001:0002:0003 on interface lan1 still there. Not dropping."),
      rewrite_request(MRT6_DEL_MFC, "ff0e::1:2:3"),
      logged_debug(drop, "setsockopt: MRT6_DEL_MFC"),
      logged_debug(drop, "idx = 4, oifs_ttl[idx] = 1"),
      logged_debug(drop, "MldRouter.upstream_interface->vif_index = 2"),
      logged_debug(drop, "Add to MF6C with address 0000:0001:0002:0003:0000:0000:0000:0000, parent 2"),
      rewrite_request(MRT6_ADD_MFC, "ff0e::1:2:3", 4),
      logged_debug(drop, "setsockopt: MRT6_ADD_MFC"),
  });
}

TEST_F(mld_membership, refusals_of_a_rewrite_are_logged_in_front_of_the_plain_lines) {
  given_group(lan1, "ff0e::1");
  given_failure("setsockopt(mld, MRT6_DEL_MFC)", ENOENT);
  given_failure("setsockopt(mld, MRT6_ADD_MFC)", EINVAL);
  when_dropped(given_lost(br0, "ff0e::1"));
  then_in_order({
      rewrite_request(MRT6_DEL_MFC, "ff0e::1"),
      logged_error(drop, "setsockopt: MRT6_DEL_MFC fail!!!"),
      logged_debug(drop, "setsockopt: MRT6_DEL_MFC"),
      rewrite_request(MRT6_ADD_MFC, "ff0e::1", 4),
      logged_error(drop, "setsockopt: MRT6_ADD_MFC fail!!!"),
      logged_debug(drop, "setsockopt: MRT6_ADD_MFC"),
  });
}

TEST_F(mld_membership, interface_beyond_the_mifs_keeps_the_membership_without_an_output) {
  lan1->vif_index = 32;
  given_group(lan1, "ff0e::1");
  when_dropped(given_lost(br0, "ff0e::1"));
  then({
      logged_debug(drop, "Group " + log_text("ff0e::1") + " on interface lan1 still there. Not dropping."),
      rewrite_request(MRT6_DEL_MFC, "ff0e::1"),
      logged_debug(drop, "setsockopt: MRT6_DEL_MFC"),
      logged_debug(drop, "MldRouter.upstream_interface->vif_index = 2"),
      logged_debug(drop, "Add to MF6C with address 0000:0000:0000:0001:0000:0000:0000:0000, parent 2"),
      rewrite_request(MRT6_ADD_MFC, "ff0e::1"),
      logged_debug(drop, "setsockopt: MRT6_ADD_MFC"),
  });
}

} // namespace
