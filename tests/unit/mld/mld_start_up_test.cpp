#include "mld/mld_start_up.h"

#include "mld/mld_group.h"
#include "start_fixture.h"
#include "tests/support/request_text.h"

#include <cerrno>

namespace {

using namespace scripted;

struct mld_router_settings : mld_start_fixture {
  void when_configured() {
    when([&] { result = init_mld_config(); });
    EXPECT_EQ(result, 0);
    then({logged_debug("init_mld_config", "Initializing MLD configuration settings.")});
  }

  int result = -1;
};

lines copied_names() {
  lines names;
  for (const interface_name &name : MldRouter.downstream_names) {
    names.emplace_back(name.data());
  }
  return names;
}

TEST_F(mld_router_settings, configuration_holds_the_protocol_constants) {
  when_configured();
  EXPECT_EQ(MldRouter.other_querier_interval, 300u);
  EXPECT_EQ(MldRouter.query_interval, 125u);
  EXPECT_EQ(MldRouter.query_response_interval, 10u);
  EXPECT_EQ(MldRouter.group_membership_interval, 350u);
  EXPECT_EQ(MldRouter.unsolicited_report_interval, 10u);
  EXPECT_EQ(MldRouter.last_member_query_interval, 1u);
  EXPECT_EQ(MldRouter.last_member_query_count, 2u);
  EXPECT_EQ(MldRouter.robustness, 2u);
  EXPECT_EQ(MldRouter.startup_query_interval, 30u);
  EXPECT_EQ(MldRouter.startup_query_count, 2u);
  EXPECT_EQ(MldRouter.v1_router_present_timeout, 400u);
  EXPECT_EQ(MldRouter.source_interval, 360u);
  EXPECT_EQ(MldRouter.non_querier, 0u);
}

TEST_F(mld_router_settings, configuration_forgets_everything_of_an_earlier_run) {
  mld_interface interface {};
  mld_group group{};
  mld_host host{};
  mld_query query{};
  MldRouter.interfaces.head = &interface.link;
  MldRouter.upstream_interface = &interface;
  MldRouter.free_groups.head = &group.link;
  MldRouter.free_hosts.head = &host.link;
  MldRouter.free_queries.head = &query.link;
  MldRouter.non_querier = 1;
  run([] { init_mld_config(); });
  then_anything();
  EXPECT_EQ(MldRouter.interfaces.head, nullptr);
  EXPECT_EQ(MldRouter.upstream_interface, nullptr);
  EXPECT_EQ(MldRouter.free_groups.head, nullptr);
  EXPECT_EQ(MldRouter.free_hosts.head, nullptr);
  EXPECT_EQ(MldRouter.free_queries.head, nullptr);
  EXPECT_EQ(MldRouter.non_querier, 0u);
}

TEST_F(mld_router_settings, option_for_non_queriers_does_not_reach_the_mld_side) {
  ForceNonQuerier = 1;
  when_configured();
  EXPECT_EQ(MldRouter.non_querier, 0u);
}

TEST_F(mld_router_settings, names_are_copied_in_order) {
  DownstreamInterfacesName = {"br0", "lan1"};
  DownstreamInterfacesNum = 2;
  when_configured();
  EXPECT_STREQ(MldRouter.upstream_name.data(), "wan0");
  EXPECT_EQ(copied_names(), (lines{"br0", "lan1", "", "", "", "", "", ""}));
}

TEST_F(mld_router_settings, without_downstream_names_the_table_is_empty) {
  DownstreamInterfacesName = {"br0"}; // not counted, so not an option's
  when_configured();
  EXPECT_EQ(copied_names(), (lines{"", "", "", "", "", "", "", ""}));
}

TEST_F(mld_router_settings, slots_without_a_name_are_passed_over) {
  DownstreamInterfacesName = {nullptr, "br0", "", "lan1"};
  DownstreamInterfacesNum = 4;
  when_configured();
  EXPECT_EQ(copied_names(), (lines{"br0", "lan1", "", "", "", "", "", ""}));
}

TEST_F(mld_router_settings, a_count_beyond_the_slots_copies_eight_names) {
  DownstreamInterfacesName = {"a", "b", "c", "d", "e", "f", "g", "h"};
  DownstreamInterfacesNum = 9;
  when_configured();
  EXPECT_EQ(copied_names(), (lines{"a", "b", "c", "d", "e", "f", "g", "h"}));
}

TEST_F(mld_router_settings, long_names_are_cut_to_fifteen_characters) {
  UpstreamInterfacesName = "wan0123456789abcdef";
  DownstreamInterfacesName = {"lan0123456789abcdef"};
  DownstreamInterfacesNum = 1;
  when_configured();
  EXPECT_STREQ(MldRouter.upstream_name.data(), "wan0123456789ab");
  EXPECT_EQ(copied_names()[0], "lan0123456789ab");
}

TEST_F(mld_router_settings, a_missing_upstream_name_is_copied_as_none) {
  UpstreamInterfacesName = nullptr;
  when_configured();
  EXPECT_STREQ(MldRouter.upstream_name.data(), "");
}

// One row for each pool.
struct pool_row {
  const char *name;
  int (*initialise)();
  list mld_router::*pool;
  int size;
  std::size_t record_bytes;
  const char *start;
  const char *failure;
  bool stops_proxy;
};

const pool_row pool_rows[] = {
    {"init_mld_group", init_mld_group, &mld_router::free_groups, 128, sizeof(mld_group), "Initializing MLD group list.",
     "Unable to allocate memory for MLD groups.", false},
    {"init_mld_host", init_mld_host, &mld_router::free_hosts, 128, sizeof(mld_host), "Initializing MLD host list.",
     "Unable to allocate memory for host.", true},
    {"init_mld_query", init_mld_query, &mld_router::free_queries, 100, sizeof(mld_query),
     "Initializing MLD query list.", "Unable to allocate memory for MLD queries.", true},
};

struct mld_router_pool : mld_start_fixture, testing::WithParamInterface<pool_row> {
  const pool_row &row = GetParam();
  list &pool = MldRouter.*row.pool;
  int result = 1;

  void when_filled() {
    when([&] { result = row.initialise(); });
  }
};

INSTANTIATE_TEST_SUITE_P(pools, mld_router_pool, testing::ValuesIn(pool_rows),
                         [](const auto &given) { return std::string(given.param.name); });

TEST_P(mld_router_pool, is_filled_with_counted_records) {
  when_filled();
  then({logged_debug(row.name, row.start)});
  EXPECT_EQ(result, 0);
  EXPECT_EQ(length(pool), row.size);
  EXPECT_EQ(malloc_counter, row.size);
  EXPECT_EQ(malloced_size, row.size * static_cast<int>(row.record_bytes));
}

TEST_P(mld_router_pool, holds_records_that_are_all_zero_but_their_links) {
  when_filled();
  then_anything();
  const std::string zeros =
      hex_text(std::string(row.record_bytes - sizeof(list_node), '\0').data(), row.record_bytes - sizeof(list_node));
  for (const list_node *node = list_get_head(&pool); node != nullptr; node = list_get_next(node)) {
    ASSERT_EQ(hex_text(node + 1, row.record_bytes - sizeof(list_node)), zeros);
  }
}

TEST_P(mld_router_pool, out_of_memory_ends_start_up) {
  for (const int made : {0, 1, row.size - 1}) {
    Kernel.failures = {{"malloc(" + std::to_string(row.record_bytes) + ")", ENOMEM, 1, made}};
    when_filled();
    EXPECT_EQ(result, -1);
    const lines failed{logged_debug(row.name, row.start), logged_error(row.name, row.failure)};
    if (row.stops_proxy) {
      then(failed + stopped_without_interfaces());
      EXPECT_EQ(length(pool), 0);
      EXPECT_EQ(malloc_counter, free_counter + 1) << "the failed allocation counts, too";
    } else {
      then(failed);
      EXPECT_EQ(length(pool), made) << "the records made so far are left to the caller";
    }
    while (list_node *record = list_remove(&pool)) {
      my_free(record);
    }
    malloc_counter = free_counter = malloced_size = 0;
  }
}

struct mld_router_records : mld_fixture {
  mld_group *when_taken() {
    mld_group *taken = nullptr;
    run([&] { taken = mld_take_group(MLD_STEP_OF("mld_taker"), address("ff0e::1")); });
    return taken;
  }
};

TEST_F(mld_router_records, are_taken_from_the_head_of_the_pool_and_returned_to_it) {
  const list_node *head = list_get_head(&MldRouter.free_groups);
  const list_node *second = list_get_next(head);
  mld_group *taken = when_taken();
  EXPECT_EQ(&taken->link, head);
  EXPECT_EQ(list_get_head(&MldRouter.free_groups), second);
  when([&] { mld_release_group(taken); });
  EXPECT_EQ(list_get_head(&MldRouter.free_groups), head);
  then({});
}

TEST_F(mld_router_records, a_taken_group_has_members_an_owner_and_a_full_timer) {
  auto *used_before = list_first<mld_group>(&MldRouter.free_groups);
  used_before->retransmit_timer = 7;
  used_before->active_seconds = 99;
  used_before->source_count = 3;
  mld_group *taken = when_taken();
  EXPECT_EQ(taken, used_before);
  EXPECT_EQ(taken->owner, &MldRouter.upstream_name);
  EXPECT_EQ(text(taken->group), "ff0e::1");
  EXPECT_EQ(taken->state, MLD_GROUP_MEMBERS_PRESENT);
  EXPECT_EQ(taken->group_timer, 350);
  EXPECT_EQ(taken->retransmit_timer, 0);
  EXPECT_EQ(taken->active_seconds, 0);
  EXPECT_EQ(taken->source_count, 0);
  EXPECT_EQ(taken->report_count, 1);
  EXPECT_EQ(taken->queries.head, nullptr);
  when([&] { mld_release_group(taken); });
  then({});
}

TEST_F(mld_router_records, an_empty_group_pool_costs_the_one_request) {
  given_pool_left(&MldRouter.free_groups, 0);
  EXPECT_EQ(when_taken(), nullptr);
  then({logged_error("mld_taker", "No more free group available. Dropping membership request.")});
}

TEST_F(mld_router_records, a_released_group_gives_its_queries_back_in_any_state) {
  for (const std::uint32_t state : {MLD_GROUP_MEMBERS_PRESENT, MLD_GROUP_CHECKING_MEMBERSHIP}) {
    mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
    given_checking(group, 2, 1);
    group->state = state;
    EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE - 2);
    mld_unlink_group(br0, group);
    when([&] { mld_release_group(group); });
    EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE);
    EXPECT_EQ(group->state, MLD_GROUP_NO_MEMBERS);
    EXPECT_EQ(group->source_count, 0);
  }
  then({});
}

} // namespace
