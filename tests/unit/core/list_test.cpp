#include "core/list.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

struct list_of_records : testing::Test {
  list_node a{};
  list_node b{};
  list_node c{};
  list_node stranger{};
  list first{};
  list second{};

  void given(list &of, const std::vector<list_node *> &nodes) {
    of.head = nullptr;
    for (auto node = nodes.rbegin(); node != nodes.rend(); ++node) {
      list_add(&of, *node);
    }
  }
};

std::vector<const list_node *> nodes_of(const list &of) {
  std::vector<const list_node *> nodes;
  for (const list_node *node = list_get_head(&of); node != nullptr && nodes.size() < 100; node = list_get_next(node)) {
    nodes.push_back(node);
  }
  return nodes;
}

using nodes = std::vector<const list_node *>;

TEST_F(list_of_records, first_node_added_stands_alone) {
  a.next = &stranger;
  EXPECT_EQ(list_add(&first, &a), nullptr);
  EXPECT_EQ(a.next, nullptr);
  EXPECT_EQ(nodes_of(first), nodes({&a}));
}

TEST_F(list_of_records, nodes_are_added_at_the_front_and_the_former_head_is_returned) {
  list_add(&first, &a);
  EXPECT_EQ(list_add(&first, &b), &a);
  EXPECT_EQ(list_add(&first, &c), &b);
  EXPECT_EQ(nodes_of(first), nodes({&c, &b, &a}));
}

TEST_F(list_of_records, empty_list_has_no_head) { EXPECT_EQ(list_get_head(&first), nullptr); }

TEST_F(list_of_records, taking_from_an_empty_list_gives_null_and_changes_nothing) {
  EXPECT_EQ(list_remove(&first), nullptr);
  EXPECT_EQ(first.head, nullptr);
  EXPECT_EQ(list_remove(nullptr), nullptr);
}

TEST_F(list_of_records, taking_the_first_node_cuts_it_from_the_rest) {
  given(first, {&a, &b});
  EXPECT_EQ(list_remove(&first), &a);
  EXPECT_EQ(a.next, nullptr);
  EXPECT_EQ(nodes_of(first), nodes({&b}));
  EXPECT_EQ(list_remove(&first), &b);
  EXPECT_EQ(first.head, nullptr);
}

TEST_F(list_of_records, unlinking_the_only_node_empties_the_list) {
  given(first, {&a});
  EXPECT_EQ(list_remove_node(&first, &a), 0);
  EXPECT_EQ(first.head, nullptr);
  EXPECT_EQ(a.next, nullptr);
}

TEST_F(list_of_records, unlinking_head_middle_or_tail_leaves_the_others_in_order) {
  const struct {
    list_node *unlinked;
    nodes left;
  } rows[] = {{&a, {&b, &c}}, {&b, {&a, &c}}, {&c, {&a, &b}}};
  for (const auto &row : rows) {
    given(first, {&a, &b, &c});
    EXPECT_EQ(list_remove_node(&first, row.unlinked), 0);
    EXPECT_EQ(row.unlinked->next, nullptr);
    EXPECT_EQ(nodes_of(first), row.left);
  }
}

TEST_F(list_of_records, unlinking_from_no_list_or_an_empty_one_fails) {
  EXPECT_EQ(list_remove_node(nullptr, &a), -1);
  EXPECT_EQ(list_remove_node(&first, &a), -1);
}

TEST_F(list_of_records, unlinking_a_node_of_another_list_fails_and_touches_neither) {
  given(first, {&a, &b});
  given(second, {&stranger, &c});
  EXPECT_EQ(list_remove_node(&first, &stranger), -1);
  EXPECT_EQ(nodes_of(first), nodes({&a, &b}));
  EXPECT_EQ(nodes_of(second), nodes({&stranger, &c}));
}

TEST_F(list_of_records, appending_an_empty_list_changes_nothing) {
  given(first, {&a, &b});
  list_cat(&first, &second);
  EXPECT_EQ(nodes_of(first), nodes({&a, &b}));
  list empty{};
  list_cat(&empty, &second);
  EXPECT_EQ(empty.head, nullptr);
}

TEST_F(list_of_records, appending_to_an_empty_list_makes_both_headers_reach_the_same_nodes) {
  given(second, {&a, &b});
  list_cat(&first, &second);
  EXPECT_EQ(first.head, &a);
  EXPECT_EQ(second.head, &a);
}

TEST_F(list_of_records, appending_goes_to_the_tail_and_leaves_the_source_header) {
  given(first, {&a, &b});
  given(second, {&c, &stranger});
  list_cat(&first, &second);
  EXPECT_EQ(nodes_of(first), nodes({&a, &b, &c, &stranger}));
  EXPECT_EQ(second.head, &c);
}

TEST_F(list_of_records, moving_all_leaves_the_source_empty_so_that_it_can_be_moved_again) {
  given(first, {&a});
  given(second, {&b, &c});
  list_move_all(&first, &second);
  list_move_all(&first, &second);
  EXPECT_EQ(nodes_of(first), nodes({&a, &b, &c}));
  EXPECT_EQ(second.head, nullptr);
}

TEST_F(list_of_records, one_node_is_appended_at_the_tail_whatever_it_pointed_to) {
  given(first, {&a});
  b.next = &stranger;
  list_append(&first, &b);
  EXPECT_EQ(nodes_of(first), nodes({&a, &b}));
  EXPECT_EQ(b.next, nullptr);
}

struct numbered {
  list_node link;
  int number;
};

TEST(list_as_records, records_are_reached_through_their_first_member) {
  numbered one{{}, 1};
  numbered two{{}, 2};
  list both{};
  EXPECT_EQ(list_first<numbered>(&both), nullptr);
  list_add(&both, &two.link);
  list_add(&both, &one.link);
  EXPECT_EQ(list_first<numbered>(&both)->number, 1);
  EXPECT_EQ(list_after(&one)->number, 2);
  EXPECT_EQ(list_after(&two), nullptr);
  EXPECT_EQ(list_pop<numbered>(&both)->number, 1);
  EXPECT_EQ(list_pop<numbered>(&both)->number, 2);
  EXPECT_EQ(list_pop<numbered>(&both), nullptr);
}

struct numbered_record {
  list_node link;
  int number;
};

struct walk_over_records : testing::Test {
  numbered_record one{{}, 1};
  numbered_record two{{}, 2};
  numbered_record three{{}, 3};
  list records{};
  list taken{};

  walk_over_records() {
    for (numbered_record *record : {&three, &two, &one}) {
      list_add(&records, &record->link);
    }
  }
};

TEST_F(walk_over_records, meets_each_in_order) {
  std::vector<int> met;
  for (const numbered_record *record : list_records<const numbered_record>(&records)) {
    met.push_back(record->number);
  }
  EXPECT_EQ(met, std::vector({1, 2, 3}));
}

TEST_F(walk_over_records, does_not_begin_on_an_empty_list) {
  for (const numbered_record *record : list_records<const numbered_record>(&taken)) {
    FAIL() << record->number;
  }
}

TEST_F(walk_over_records, goes_on_behind_a_record_that_its_body_moved_to_another_list) {
  std::vector<int> met;
  for (numbered_record *record : list_records<numbered_record>(&records)) {
    met.push_back(record->number);
    list_remove_node(&records, &record->link);
    list_add(&taken, &record->link);
  }
  EXPECT_EQ(met, std::vector({1, 2, 3}));
  EXPECT_EQ(records.head, nullptr);
  EXPECT_EQ(nodes_of(taken), nodes({&three.link, &two.link, &one.link}));
}

} // namespace
