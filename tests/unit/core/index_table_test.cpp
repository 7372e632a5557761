#include "core/index_table.h"

#include "tests/unit/igmp/fixture.h"

namespace {

using namespace scripted;

struct index_table_slots : igmp_start_fixture {
  int add(std::int32_t ifindex) {
    int slot = 0;
    when([&] { slot = add_dev_index(ifindex); });
    return slot;
  }
  int find(std::int32_t ifindex) {
    int slot = 0;
    when([&] { slot = find_used_index(ifindex); });
    return slot;
  }
  int del(std::int32_t ifindex) {
    int slot = 0;
    when([&] { slot = del_dev_index(ifindex); });
    return slot;
  }
};

TEST_F(index_table_slots, thirty_two_indexes_fill_the_slots_in_order_and_the_next_finds_the_table_full) {
  for (int i = 0; i < 32; ++i) {
    EXPECT_EQ(add(100 + i), i);
  }
  EXPECT_EQ(find_free_index(), -1);
  then({});
  EXPECT_EQ(add(200), -1);
  then({"| index table full!"});
}

TEST_F(index_table_slots, index_below_one_is_illegal_to_look_for) {
  EXPECT_EQ(find(0), -1);
  EXPECT_EQ(find(-1), -1);
  then({
      logged_debug("find_used_index", "illegal dev index: 0"),
      logged_debug("find_used_index", "illegal dev index: -1"),
  });
  EXPECT_NE(Kernel.output.find("D:igmp:find_used_index"), std::string::npos);
}

TEST_F(index_table_slots, deleting_an_illegal_index_also_says_not_found) {
  EXPECT_EQ(del(0), -1);
  then({
      logged_debug("find_used_index", "illegal dev index: 0"),
      "| device index: [0] not found!",
  });
}

TEST_F(index_table_slots, deleting_an_unknown_index_says_not_found) {
  EXPECT_EQ(del(7), -1);
  then({"| device index: [7] not found!"});
}

TEST_F(index_table_slots, freed_slot_is_the_next_one_used) {
  for (int i = 0; i < 6; ++i) {
    add(10 + i);
  }
  EXPECT_EQ(del(13), 3);
  EXPECT_EQ(find(13), -1);
  EXPECT_EQ(find_free_index(), 3);
  EXPECT_EQ(add(77), 3);
  EXPECT_EQ(add(78), 6);
  then({});
}

TEST_F(index_table_slots, same_index_may_take_two_slots_and_the_lower_one_is_found) {
  EXPECT_EQ(add(5), 0);
  EXPECT_EQ(add(5), 1);
  EXPECT_EQ(find(5), 0);
  EXPECT_EQ(del(5), 0);
  EXPECT_EQ(find(5), 1);
}

TEST_F(index_table_slots, freeing_returns_the_slot_and_leaves_other_memory_alone) {
  add(5);
  const auto before = index_table;
  EXPECT_EQ(free_used_index(-1), -1);
  EXPECT_EQ(free_used_index(32), 32);
  EXPECT_EQ(index_table, before);
  EXPECT_EQ(free_used_index(0), 0);
  EXPECT_EQ(index_table[0], 0);
}

TEST_F(index_table_slots, shown_table_lists_the_used_slots) {
  add(5);
  add(6);
  del(5);
  when([] { show_index_table(); });
  then({"| ", "| ----------- show index_table --------------", "| i: 1, index: 6"});
}

TEST_F(index_table_slots, lan_interface_is_named_by_the_translator_and_no_other) {
  LanIndex = 3;
  NatptIndex = 9;
  EXPECT_EQ(natpt_index_for(3), 9);
  EXPECT_EQ(natpt_index_for(4), 4);
  EXPECT_EQ(natpt_index_for(9), 9);
}

} // namespace
