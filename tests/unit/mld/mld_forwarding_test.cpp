#include "mld/mld_forwarding.h"

#include "fixture.h"

#include <cerrno>

namespace {

using namespace scripted;

constexpr char site[] = "mld_forwarder";

const std::string request = "setsockopt(mld, MRT6_ADD_MFC) origin=2001:db8::1 group=ff0e::1 parent=2 outputs={3,4}";

struct mld_forwarding : mld_fixture {
  mld_outputs outputs{};
  bool is_accepted = false;

  mld_forwarding() {
    mld_set_output(outputs, 3);
    mld_set_output(outputs, 4);
  }

  void when_added() {
    when([&] { is_accepted = mld_add_entry(MLD_STEP_OF(site), address("2001:db8::1"), address("ff0e::1"), outputs); });
  }

  void when_added_unlogged() {
    when([&] { is_accepted = mld_add_entry_unlogged(address("2001:db8::1"), address("ff0e::1"), outputs); });
  }
};

std::vector<unsigned int> numbers_of(const mld_outputs &outputs) {
  std::vector<unsigned int> numbers;
  for (unsigned int i = 0; i < outputs.size(); ++i) {
    if (outputs[i] != 0) {
      numbers.push_back(i);
    }
  }
  return numbers;
}

// MIF numbers end at 31; a refused MIF is all ones.
TEST_F(mld_forwarding, mifs_from_32_on_are_not_outputs) {
  struct row {
    std::uint32_t vif_index;
    std::vector<unsigned int> outputs;
  };
  const row rows[] = {{0, {0}}, {31, {31}}, {32, {}}, {255, {}}, {256, {}}, {UINT32_MAX, {}}};
  for (const row &one : rows) {
    mld_outputs made{};
    mld_set_output(made, one.vif_index);
    EXPECT_EQ(numbers_of(made), one.outputs) << one.vif_index;
  }
}

TEST_F(mld_forwarding, entry_is_added_towards_all_outputs) {
  when_added();
  then({request, logged_debug(site, "setsockopt: MRT6_ADD_MFC")});
  EXPECT_TRUE(is_accepted);
}

TEST_F(mld_forwarding, first_and_last_output_are_in_the_request) {
  outputs = {};
  mld_set_output(outputs, 0);
  mld_set_output(outputs, 31);
  when_added_unlogged();
  then({"setsockopt(mld, MRT6_ADD_MFC) origin=2001:db8::1 group=ff0e::1 parent=2 outputs={0,31}"});
}

TEST_F(mld_forwarding, refused_entry_is_logged_as_a_failure_alone) {
  given_failure(request, ENOBUFS);
  when_added();
  then({request, logged_error(site, "setsockopt: MRT6_ADD_MFC fail!!!")});
  EXPECT_FALSE(is_accepted);
}

TEST_F(mld_forwarding, unlogged_entry_leaves_the_log_to_its_caller) {
  when_added_unlogged();
  EXPECT_TRUE(is_accepted);
  given_failure(request, ENOBUFS);
  when_added_unlogged();
  EXPECT_FALSE(is_accepted);
  then({request, request});
}

TEST_F(mld_forwarding, parent_is_the_mif_and_not_the_interface_index) {
  wan0->vif_index = 7;
  outputs = {};
  when_added_unlogged();
  then({"setsockopt(mld, MRT6_ADD_MFC) origin=2001:db8::1 group=ff0e::1 parent=7 outputs={}"});
}

TEST_F(mld_forwarding, deleting_an_entry_logs_both_lines_when_refused) {
  given_failure("setsockopt(mld, MRT6_DEL_MFC)", ENOENT);
  const auto delete_twice = [] {
    mld_delete_entry(MLD_STEP_OF(site), address("2001:db8::1"), address("ff0e::1"));
    mld_delete_entry(MLD_STEP_OF(site), address("2001:db8::1"), address("ff0e::1"));
  };
  when(delete_twice);
  const std::string deletion = "setsockopt(mld, MRT6_DEL_MFC) origin=2001:db8::1 group=ff0e::1 parent=2 outputs={}";
  then({
      deletion,
      logged_error(site, "setsockopt: MRT6_DEL_MFC fail!!!"),
      logged_debug(site, "setsockopt: MRT6_DEL_MFC"),
      deletion,
      logged_debug(site, "setsockopt: MRT6_DEL_MFC"),
  });
}

} // namespace
