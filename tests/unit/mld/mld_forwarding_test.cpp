#include "mld/mld_forwarding.h"

#include "fixture.h"
#include "mld/mld_group.h"

#include <cerrno>
#include <cstring>

namespace {

using namespace scripted;

struct mld_forwarding : mld_fixture {
  collected_outputs collected(const mld_group *group, outputs_purpose purpose = outputs_purpose::add_entry) {
    collected_outputs outputs{};
    when([&] { outputs = mld_collect_outputs(MLD_STEP_OF("mld_collector"), group, purpose); });
    return outputs;
  }
};

std::vector<unsigned int> numbers_of(const mld_outputs &oifs) {
  std::vector<unsigned int> numbers;
  for (unsigned int i = 0; i < oifs.size(); ++i) {
    if (oifs[i] != 0) {
      numbers.push_back(i);
    }
  }
  return numbers;
}

TEST_F(mld_forwarding, outputs_are_the_downstream_interfaces_that_have_the_group) {
  const mld_group *group = given_group(br0, "ff0e::1");
  given_group(lan1, "ff0e::2");
  given_group(wan0, "ff0e::1"); // upstream: never an output
  const collected_outputs outputs = collected(group);
  EXPECT_EQ(numbers_of(outputs.oifs), std::vector<unsigned int>{3});
  EXPECT_TRUE(outputs.is_wanted);
  then({logged_debug("mld_collector", "MFC Entry will be created for iface:br0.")});
}

TEST_F(mld_forwarding, group_of_no_interface_has_no_outputs) {
  mld_group *group = given_group(br0, "ff0e::1");
  mld_unlink_group(br0, group);
  run([&] {
    const collected_outputs outputs =
        mld_collect_outputs(MLD_STEP_OF("mld_collector"), group, outputs_purpose::drop_membership);
    EXPECT_TRUE(numbers_of(outputs.oifs).empty());
    EXPECT_FALSE(outputs.is_wanted);
  });
  mld_release_group(group);
  then({});
}

// MIF numbers end at 31; a refused MIF is all ones.
TEST_F(mld_forwarding, mifs_from_32_on_are_no_outputs_but_want_the_group) {
  struct row {
    std::uint32_t vif_index;
    std::vector<unsigned int> outputs;
  };
  const row rows[] = {{0, {0}}, {31, {31}}, {32, {}}, {255, {}}, {256, {}}, {UINT32_MAX, {}}};
  const mld_group *group = given_group(br0, "ff0e::1");
  for (const row &one : rows) {
    SCOPED_TRACE(one.vif_index);
    br0->vif_index = one.vif_index;
    const collected_outputs outputs = collected(group);
    EXPECT_EQ(numbers_of(outputs.oifs), one.outputs);
    EXPECT_TRUE(outputs.is_wanted);
    mf6cctl request = mld_mfc_request(In6AddrAny, group->group);
    mld_set_output(request, one.vif_index);
    for (unsigned int i = 0; i < IF_SETSIZE; ++i) {
      const bool is_output = !one.outputs.empty() && one.outputs[0] == i;
      EXPECT_EQ(IF_ISSET(i, &request.mf6cc_ifset) != 0, is_output) << i;
    }
  }
  then_anything();
}

TEST_F(mld_forwarding, request_names_origin_group_and_parent_and_nothing_else) {
  const mf6cctl request = mld_mfc_request(address("2001:db8::1"), address("ff0e::1"));
  mf6cctl expected;
  std::memset(&expected, 0, sizeof(expected)); // families 0, too
  expected.mf6cc_origin.sin6_addr = to_in6_addr(address("2001:db8::1"));
  expected.mf6cc_mcastgrp.sin6_addr = to_in6_addr(address("ff0e::1"));
  expected.mf6cc_parent = 2;
  EXPECT_EQ(std::memcmp(&request, &expected, sizeof(expected)), 0);
  EXPECT_EQ(request.mf6cc_origin.sin6_family, 0);
  EXPECT_EQ(request.mf6cc_mcastgrp.sin6_family, 0);
}

TEST_F(mld_forwarding, parent_is_the_mif_and_not_the_interface_index) {
  wan0->vif_index = 7;
  EXPECT_EQ(mld_mfc_request(In6AddrAny, address("ff0e::1")).mf6cc_parent, 7);
}

TEST_F(mld_forwarding, all_collected_outputs_go_into_the_request) {
  mf6cctl request = mld_mfc_request(In6AddrAny, address("ff0e::1"));
  mld_outputs oifs{};
  oifs[0] = oifs[3] = oifs[31] = 1;
  mld_set_outputs(request, oifs);
  for (unsigned int i = 0; i < IF_SETSIZE; ++i) {
    EXPECT_EQ(IF_ISSET(i, &request.mf6cc_ifset) != 0, i == 0 || i == 3 || i == 31) << i;
  }
}

TEST_F(mld_forwarding, deleting_an_entry_logs_both_lines_when_refused) {
  given_failure("setsockopt(mld, MRT6_DEL_MFC)", ENOENT);
  const auto delete_twice = [] {
    mld_delete_mfc(MLD_STEP_OF("mld_deleter"), address("2001:db8::1"), address("ff0e::1"));
    mld_delete_mfc(MLD_STEP_OF("mld_deleter"), address("2001:db8::1"), address("ff0e::1"));
  };
  when(delete_twice);
  const std::string request = "setsockopt(mld, MRT6_DEL_MFC) origin=2001:db8::1 group=ff0e::1 parent=2 outputs={}";
  then({
      request,
      logged_error("mld_deleter", "setsockopt: MRT6_DEL_MFC fail!!!"),
      logged_debug("mld_deleter", "setsockopt: MRT6_DEL_MFC"),
      request,
      logged_debug("mld_deleter", "setsockopt: MRT6_DEL_MFC"),
  });
}

TEST_F(mld_forwarding, group_is_found_by_all_sixteen_bytes) {
  mld_group *second = given_group(br0, "ff0e::2");
  mld_group *first = given_group(br0, "ff0e::1");
  given_group(lan1, "ff0e::4");
  EXPECT_EQ(mld_find_group(br0, address("ff0e::1")), first);
  EXPECT_EQ(mld_find_group(br0, address("ff0e::2")), second);
  for (const char *unknown : {"ff0e::3", "ff0e::4", "ff0f::1", "ff0e:0:0:0:1::1", "::"}) {
    EXPECT_EQ(mld_find_group(br0, address(unknown)), nullptr) << unknown;
  }
}

} // namespace
