#include "mld/mld_host.h"

#include "fixture.h"

namespace {

using namespace scripted;

struct mld_host_table : mld_report_fixture {
  mld_host *when_added(const std::string &group, const std::string &host, const std::string &source) {
    mld_host *added = nullptr;
    when([&] { added = mld_router_host_add(br0, address(group), address(host), address(source)); });
    return added;
  }

  int when_deleted(const std::string &group, const std::string &host, const std::string &source) {
    int result = 99;
    when([&] { result = mld_router_host_del(br0, address(group), address(host), address(source)); });
    return result;
  }

  // Two groups, two hosts, two sources.
  void given_five_hosts() {
    given_host(br0, "ff0e::1", "fe80::a", "2001:db8::1");
    given_host(br0, "ff0e::1", "fe80::b", "2001:db8::2");
    given_host(br0, "ff0e::2", "fe80::a", "2001:db8::1");
    given_host(br0, "ff0e::1", "fe80::b", "2001:db8::1");
    given_host(br0, "ff0e::1", "fe80::b", "::");
  }
};

TEST_F(mld_host_table, new_host_is_recorded_with_its_group_and_source) {
  const mld_host *added = when_added("ff0e::1", "fe80::a", "2001:db8::1");
  then(host_recorded("ff0e::1", "fe80::a", "2001:db8::1"));
  then_hosts(br0, {"ff0e::1 fe80::a 2001:db8::1"});
  EXPECT_EQ(added, list_first<mld_host>(&br0->hosts));
  EXPECT_EQ(length(MldRouter.free_hosts), MLD_HOST_POOL_SIZE - 1);
}

TEST_F(mld_host_table, same_triple_twice_is_one_record) {
  const mld_host *first = when_added("ff0e::1", "fe80::a", "2001:db8::1");
  then_anything();
  EXPECT_EQ(when_added("ff0e::1", "fe80::a", "2001:db8::1"), first);
  then(host_looked_up("fe80::a", "2001:db8::1"));
  then_hosts(br0, {"ff0e::1 fe80::a 2001:db8::1"});
}

TEST_F(mld_host_table, same_triple_on_another_interface_is_another_record) {
  given_host(lan1, "ff0e::1", "fe80::a", "2001:db8::1");
  const mld_host *added = when_added("ff0e::1", "fe80::a", "2001:db8::1");
  then(host_recorded("ff0e::1", "fe80::a", "2001:db8::1"));
  EXPECT_EQ(added, list_first<mld_host>(&br0->hosts));
  when_deleted("ff0e::1", "fe80::a", "2001:db8::1");
  when_deleted("ff0e::1", "fe80::a", "2001:db8::1");
  then_anything();
  then_hosts(br0, {});
  then_hosts(lan1, {"ff0e::1 fe80::a 2001:db8::1"});
}

TEST_F(mld_host_table, records_stand_in_the_order_of_their_reports) {
  when_added("ff0e::1", "fe80::b", "::");
  when_added("ff0e::1", "fe80::a", "::");
  when_added("ff0e::2", "fe80::b", "::");
  when_added("ff0e::1", "fe80::a", "2001:db8::1");
  then_anything();
  then_hosts(br0, {
                      "ff0e::1 fe80::b ::",
                      "ff0e::1 fe80::a ::",
                      "ff0e::2 fe80::b ::",
                      "ff0e::1 fe80::a 2001:db8::1",
                  });
  then_hosts(lan1, {});
}

TEST_F(mld_host_table, lookup_takes_a_named_host_exactly_and_the_unspecified_one_as_any) {
  given_five_hosts();
  std::vector<const mld_host *> records;
  for (auto *host = list_first<mld_host>(&br0->hosts); host != nullptr; host = list_after(host)) {
    records.push_back(host);
  }
  constexpr int none = -1;
  const struct {
    const char *group;
    const char *host;
    const char *source;
    int found; // index of the record
  } rows[] = {
      {"ff0e::1", "fe80::a", "2001:db8::1", 0},
      {"ff0e::1", "fe80::b", "2001:db8::1", 3},
      {"ff0e::1", "fe80::b", "::", 4},    // for a named host :: is a source like any other
      {"ff0e::1", "fe80::a", "::", none}, // and no wildcard
      {"ff0e::1", "fe80::a", "2001:db8::2", none},
      {"ff0e::1", "fe80::c", "2001:db8::1", none},
      {"ff0e::3", "fe80::a", "2001:db8::1", none},
      {"ff0e::1", "::", "::", 0}, // any host, any source
      {"ff0e::2", "::", "::", 2},
      {"ff0e::3", "::", "::", none},
      {"ff0e::1", "::", "2001:db8::2", 1}, // any host
      {"ff0e::1", "::", "2001:db8::3", none},
      {"ff0e::2", "::", "2001:db8::1", 2},
      {"ff0e::2", "::", "2001:db8::2", none},
  };
  for (const auto &given : rows) {
    SCOPED_TRACE(testing::Message() << given.group << " " << given.host << " " << given.source);
    const mld_host *found = nullptr;
    when(
        [&] { found = mld_router_host_lookup(br0, address(given.group), address(given.host), address(given.source)); });
    then(host_looked_up(given.host, given.source));
    EXPECT_EQ(found, given.found == none ? nullptr : records[static_cast<std::size_t>(given.found)]);
  }
}

TEST_F(mld_host_table, last_byte_of_each_address_counts) {
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::1");
  EXPECT_NE(when_added("ff0e::101", "fe80::a", "2001:db8::1"), nullptr);
  EXPECT_NE(when_added("ff0e::1", "fe80::b", "2001:db8::1"), nullptr);
  EXPECT_NE(when_added("ff0e::1", "fe80::a", "2001:db8::2"), nullptr);
  then_anything();
  EXPECT_EQ(length(br0->hosts), 4);
}

TEST_F(mld_host_table, unspecified_host_finds_any_record_and_adds_nothing) {
  given_five_hosts();
  const auto *first = list_first<mld_host>(&br0->hosts);
  EXPECT_EQ(when_added("ff0e::1", "::", "::"), first);
  then(host_looked_up("::", "::"));
  EXPECT_EQ(when_added("ff0e::1", "::", "2001:db8::2"), list_after(first));
  then(host_looked_up("::", "2001:db8::2"));
  EXPECT_EQ(length(br0->hosts), 5);
}

TEST_F(mld_host_table, unspecified_host_is_recorded_when_nothing_matches) {
  when_added("ff0e::1", "::", "2001:db8::1");
  then(host_recorded("ff0e::1", "::", "2001:db8::1"));
  then_hosts(br0, {"ff0e::1 :: 2001:db8::1"});
}

TEST_F(mld_host_table, deleted_record_leaves_the_table_for_good) {
  given_five_hosts();
  EXPECT_EQ(when_deleted("ff0e::2", "fe80::a", "2001:db8::1"), 0);
  then(host_looked_up("fe80::a", "2001:db8::1"));
  then_hosts(br0, {
                      "ff0e::1 fe80::a 2001:db8::1",
                      "ff0e::1 fe80::b 2001:db8::2",
                      "ff0e::1 fe80::b 2001:db8::1",
                      "ff0e::1 fe80::b ::",
                  });
  EXPECT_EQ(length(MldRouter.free_hosts), MLD_HOST_POOL_SIZE - 5);
  EXPECT_EQ(hosts_deleted, 1);
}

TEST_F(mld_host_table, deleting_any_source_of_any_host_takes_the_first_record_of_the_group) {
  given_five_hosts();
  when_deleted("ff0e::1", "::", "::");
  when_deleted("ff0e::1", "::", "::");
  then_anything();
  then_hosts(br0, {
                      "ff0e::2 fe80::a 2001:db8::1",
                      "ff0e::1 fe80::b 2001:db8::1",
                      "ff0e::1 fe80::b ::",
                  });
}

TEST_F(mld_host_table, deleting_a_source_of_any_host_takes_its_first_record) {
  given_five_hosts();
  when_deleted("ff0e::1", "::", "2001:db8::1");
  then_anything();
  then_hosts(br0, {
                      "ff0e::1 fe80::b 2001:db8::2",
                      "ff0e::2 fe80::a 2001:db8::1",
                      "ff0e::1 fe80::b 2001:db8::1",
                      "ff0e::1 fe80::b ::",
                  });
}

TEST_F(mld_host_table, deleting_an_unknown_triple_is_silent) {
  given_five_hosts();
  EXPECT_EQ(when_deleted("ff0e::1", "fe80::c", "2001:db8::1"), 0);
  then(host_looked_up("fe80::c", "2001:db8::1"));
  EXPECT_EQ(length(br0->hosts), 5);
}

TEST_F(mld_host_table, host_129_is_refused_whatever_was_deleted_between) {
  for (int i = 0; i < MLD_HOST_POOL_SIZE; ++i) {
    ASSERT_NE(when_added("ff0e::1", "fe80::a", "::"), nullptr) << i;
    when_deleted("ff0e::1", "fe80::a", "::");
  }
  then_anything();
  then_hosts(br0, {});
  EXPECT_EQ(when_added("ff0e::1", "fe80::a", "::"), nullptr);
  then(together(
      {host_looked_up("fe80::a", "::"), {logged_error("mld_router_host_add", "MLD Error:No more free host")}}));
  then_hosts(br0, {});
}

TEST_F(mld_host_table, known_host_is_found_when_the_pool_is_empty) {
  given_host(br0, "ff0e::1", "fe80::a", "::");
  given_hosts_left(0);
  EXPECT_EQ(when_added("ff0e::1", "fe80::a", "::"), list_first<mld_host>(&br0->hosts));
  then(host_looked_up("fe80::a", "::"));
}

} // namespace
