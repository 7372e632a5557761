// The state files with both protocols in them.
#include "core/state_dump.h"

#include "fixture.h"
#include "mld/mld_router.h"

#include <cerrno>

namespace {

using namespace scripted;

constexpr char host_in_group[] = "/tmp/tarnwick_host_in_group";
constexpr char type_messages[] = "/tmp/tarnwick_type_messages";
constexpr char join_state[] = "/tmp/tarnwick_join_state";

struct igmp_state_dump : igmp_fixture {
  void when_dumped() {
    when([] { write_state_dump(); });
    then_anything();
  }

  std::string group_lines(const std::vector<std::pair<std::string, int>> &groups, const std::string &name = "br0") {
    std::string all;
    for (const auto &[group, average] : groups) {
      all += "ifname: " + name + " group: " + octets_text(group) + " average: " + std::to_string(average) + "\n";
    }
    return all;
  }
};

TEST_F(igmp_state_dump, every_interface_has_a_line_with_its_counters) {
  br0->query_count = 1;
  br0->join_count = 2;
  br0->leave_count = 3;
  br0->timeout_count = 4;
  when_dumped();
  EXPECT_EQ(file_contents(type_messages), "[IGMP]ifname: lan1 query: 0 join: 0 leave: 0 timeout: 0\n"
                                          "[IGMP]ifname: br0 query: 1 join: 2 leave: 3 timeout: 4\n"
                                          "[IGMP]ifname: wan0 query: 0 join: 0 leave: 0 timeout: 0\n");
  EXPECT_EQ(file_contents(join_state), "");
  EXPECT_EQ(file_contents(host_in_group), "");
}

TEST_F(igmp_state_dump, groups_are_listed_newest_first_with_their_seconds) {
  given_group(br0, "239.1.1.1")->active_seconds = 7;
  igmp_group *unreported = given_group(br0, "239.1.1.2");
  unreported->active_seconds = 9;
  unreported->report_count = 0;
  when_dumped();
  EXPECT_EQ(file_contents(join_state), group_lines({{"239.1.1.2", 0}, {"239.1.1.1", 7}}));
}

TEST_F(igmp_state_dump, each_of_three_words_ends_its_interfaces_groups) {
  for (const std::uint32_t native : {IgmpAllHosts, IgmpAllRouters, IgmpV3AllMcr}) {
    igmp_group *older = given_group(br0, "239.1.1.1");
    igmp_group *last = given_group(br0, wire_text(native));
    igmp_group *newer = given_group(br0, "239.1.1.2");
    given_group(lan1, "239.1.1.3");
    when_dumped();
    EXPECT_EQ(file_contents(join_state), group_lines({{"239.1.1.3", 0}}, "lan1") + group_lines({{"239.1.1.2", 0}}));
    for (igmp_group *group : {older, last, newer}) {
      list_remove_node(&br0->groups, &group->link);
      list_add(&IgmpRouter.free_groups, &group->link);
    }
    list_node *other = list_remove(&lan1->groups);
    list_add(&IgmpRouter.free_groups, other);
  }
}

TEST_F(igmp_state_dump, newest_group_that_ends_the_list_leaves_the_interfaces_line_only) {
  given_group(br0, "239.1.1.1");
  given_group(br0, wire_text(IgmpV3AllMcr));
  when_dumped();
  EXPECT_EQ(file_contents(join_state), "");
  EXPECT_NE(file_contents(type_messages)->find("[IGMP]ifname: br0"), std::string::npos);
}

TEST_F(igmp_state_dump, neighbouring_words_do_not_end_the_list) {
  given_group(br0, "239.1.1.1");
  for (const std::uint32_t native : {0xE0000003u, 0xE0000015u, 0xE0000017u}) {
    given_group(br0, wire_text(native));
  }
  when_dumped();
  EXPECT_EQ(
      file_contents(join_state),
      group_lines(
          {{wire_text(0xE0000017), 0}, {wire_text(0xE0000015), 0}, {wire_text(0xE0000003), 0}, {"239.1.1.1", 0}}));
}

TEST_F(igmp_state_dump, packet_group_ends_the_list_only_where_its_word_is_one_of_them) {
  given_group(br0, "239.1.1.1");
  given_group(br0, "224.0.0.22");
  when_dumped();
  const bool is_end = word("224.0.0.22") == IgmpV3AllMcr;
  EXPECT_EQ(file_contents(join_state), is_end ? "" : group_lines({{"224.0.0.22", 0}, {"239.1.1.1", 0}}));
}

TEST_F(igmp_state_dump, igmp_interfaces_come_before_mld_interfaces) {
  mld_interface mld{};
  mld.name = copy_interface_name("br9");
  mld.query_count = 5;
  mld_group groups[2]{};
  groups[0].group = scripted::address("ff0e::1");
  groups[0].report_count = 1;
  groups[0].active_seconds = 11;
  groups[1].group = scripted::address("ff02::16"); // no address ends this side's list
  given_group(br0, "239.1.1.1")->active_seconds = 7;
  run([&] {
    list_index index{};
    list_index_add(index, &mld.groups, &groups[0].link, 0);
    list_index_add(index, &mld.groups, &groups[1].link, 0);
    list_add(&MldRouter.interfaces, &mld.link);
    write_state_dump();
    MldRouter.interfaces.head = nullptr;
  });
  then_anything();
  EXPECT_EQ(file_contents(type_messages), "[IGMP]ifname: lan1 query: 0 join: 0 leave: 0 timeout: 0\n"
                                          "[IGMP]ifname: br0 query: 0 join: 0 leave: 0 timeout: 0\n"
                                          "[IGMP]ifname: wan0 query: 0 join: 0 leave: 0 timeout: 0\n"
                                          "[MLD]ifname: br9 query: 5 join: 0 leave: 0 timeout: 0\n");
  EXPECT_EQ(file_contents(join_state), group_lines({{"239.1.1.1", 7}}) + "ifname: br9 group: ff02::16 average: 0\n"
                                                                         "ifname: br9 group: ff0e::1 average: 11\n");
}

TEST_F(igmp_state_dump, join_state_that_cannot_be_opened_goes_unnoticed) {
  given_group(br0, "239.1.1.1");
  given_failure("open(/tmp/tarnwick_join_state", EACCES);
  when_dumped();
  EXPECT_NE(file_contents(type_messages)->find("[IGMP]ifname: br0"), std::string::npos);
  EXPECT_EQ(file_contents(join_state), std::nullopt);
}

} // namespace
