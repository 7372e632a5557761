// The index agrees with what a walk over the list finds: in named cases first, at random at the end.
#include "core/list_index.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

struct numbered {
  list_node link;
  std::uint32_t key;
};

template <typename list_type>
concept is_changed_without_an_index = requires(list_type *changed, list_node *node) {
  list_add(changed, node);
}
|| requires(list_type *changed, list_node *node) { list_append(changed, node); }
|| requires(list_type *changed) { list_remove(changed); }
|| requires(list_type *changed, list *other) { list_move_all(changed, other); }
|| requires(list_type *changed, list *other) { list_move_all(other, changed); }
|| requires(list_type *changed, list_node *node) { list_remove_node(changed, node); };
static_assert(is_changed_without_an_index<list> && !is_changed_without_an_index<indexed_list>);

struct index_of_lists : testing::Test {
  list_index index{};
  indexed_list first{};
  indexed_list second{};
  std::vector<numbered> records = std::vector<numbered>(LIST_INDEX_PLACES);

  index_of_lists() {
    for (std::uint32_t i = 0; i < records.size(); ++i) {
      records[i].key = i;
    }
  }

  void add(indexed_list &into, std::uint32_t number) {
    list_index_add(index, &into, &records[number].link, records[number].key);
  }

  void append(indexed_list &into, std::uint32_t number) {
    list_index_append(index, &into, &records[number].link, records[number].key);
  }

  int remove(indexed_list &from, std::uint32_t number) {
    return list_index_remove(index, &from, &records[number].link, records[number].key);
  }

  const list_place *find(std::uint32_t number) const {
    const list_place *place = list_index_first(index, records[number].key);
    while (place != nullptr && place->node != &records[number].link) {
      place = list_index_next(index, place);
    }
    return place;
  }

  // "1 2 3" when the list holds them in this order, in the list's own links and in the index alike.
  std::string shown(const indexed_list &of) const {
    std::string text;
    for (const list_node *node = list_get_head(&of); node != nullptr; node = node->next) {
      const auto number = static_cast<std::uint32_t>(reinterpret_cast<const numbered *>(node) - records.data());
      const list_place *place = find(number);
      text += (text.empty() ? "" : " ") + std::to_string(number);
      text += place == nullptr ? "?" : place->on != &of ? "@" : "";
    }
    return text;
  }

  std::size_t places_taken() const {
    return static_cast<std::size_t>(std::count_if(index.places.begin(), index.places.end(),
                                                  [](const list_place &place) { return place.node != nullptr; }));
  }
};

TEST_F(index_of_lists, newest_record_stands_in_front) {
  add(first, 1);
  add(first, 2);
  add(first, 3);
  EXPECT_EQ(shown(first), "3 2 1");
}

TEST_F(index_of_lists, appended_record_stands_at_the_end) {
  append(first, 1);
  append(first, 2);
  append(second, 3);
  append(first, 4);
  EXPECT_EQ(shown(first), "1 2 4");
  EXPECT_EQ(shown(second), "3");
}

TEST_F(index_of_lists, record_is_appended_although_the_last_one_left) {
  append(first, 1);
  append(first, 2);
  append(first, 3);
  EXPECT_EQ(remove(first, 3), 0);
  append(first, 4);
  EXPECT_EQ(remove(first, 4), 0);
  EXPECT_EQ(remove(first, 2), 0);
  EXPECT_EQ(remove(first, 1), 0);
  append(first, 5);
  EXPECT_EQ(shown(first), "5");
}

TEST_F(index_of_lists, record_leaves_from_the_front_the_middle_and_the_end) {
  for (const std::uint32_t number : {5u, 4u, 3u, 2u, 1u}) {
    add(first, number);
  }
  EXPECT_EQ(remove(first, 3), 0);
  EXPECT_EQ(shown(first), "1 2 4 5");
  EXPECT_EQ(remove(first, 5), 0);
  EXPECT_EQ(shown(first), "1 2 4");
  EXPECT_EQ(remove(first, 1), 0);
  EXPECT_EQ(shown(first), "2 4");
  EXPECT_EQ(find(3), nullptr);
  EXPECT_EQ(records[3].link.next, nullptr);
  EXPECT_EQ(places_taken(), 2u);
}

TEST_F(index_of_lists, record_of_another_list_stays_there) {
  add(first, 1);
  add(second, 2);
  EXPECT_EQ(remove(first, 2), -1);
  EXPECT_EQ(remove(second, 1), -1);
  EXPECT_EQ(remove(first, 3), -1);
  EXPECT_EQ(shown(first), "1");
  EXPECT_EQ(shown(second), "2");
}

TEST_F(index_of_lists, first_record_is_popped_until_none_is_left) {
  add(first, 1);
  add(first, 2);
  EXPECT_EQ(list_index_pop(index, &first, records[2].key), &records[2].link);
  EXPECT_EQ(shown(first), "1");
  EXPECT_EQ(list_index_pop(index, &first, records[1].key), &records[1].link);
  EXPECT_EQ(list_index_pop(index, &first, records[1].key), nullptr);
  EXPECT_EQ(places_taken(), 0u);
}

TEST_F(index_of_lists, records_of_the_same_key_are_distinguished) {
  for (const std::uint32_t number : {1u, 2u, 3u}) {
    records[number].key = 7;
    add(number == 2 ? second : first, number);
  }
  EXPECT_EQ(shown(first), "3 1");
  EXPECT_EQ(shown(second), "2");
  EXPECT_EQ(remove(first, 1), 0);
  EXPECT_EQ(shown(first), "3");
  EXPECT_EQ(shown(second), "2");
}

TEST_F(index_of_lists, every_record_of_a_pool_has_a_place) {
  for (std::uint32_t number = 0; number < records.size(); ++number) {
    add(first, number);
  }
  EXPECT_EQ(places_taken(), LIST_INDEX_PLACES);
  EXPECT_EQ(shown(first).find_first_of("?@"), std::string::npos);
}

// As groups and hosts are numbered: a byte of their addresses counts up.
TEST_F(index_of_lists, keys_that_count_up_meet_at_most_one_other) {
  for (const unsigned shift : {0u, 8u, 16u, 24u}) {
    index = {};
    first = {};
    for (std::uint32_t number = 0; number < records.size(); ++number) {
      records[number].key = number << shift;
      add(first, number);
    }
    for (std::uint32_t number = 0; number < records.size(); ++number) {
      const list_place *place = list_index_next(index, list_index_first(index, number << shift));
      EXPECT_TRUE(place == nullptr || list_index_next(index, place) == nullptr) << number << " << " << shift;
    }
  }
}

// A plain copy of both lists, changed beside them.
TEST_F(index_of_lists, agrees_with_a_walk_after_a_hundred_thousand_random_changes) {
  std::mt19937 random(20'261'121);
  std::vector<std::uint32_t> free(records.size());
  std::array<std::vector<std::uint32_t>, 2> copies;
  for (std::uint32_t number = 0; number < free.size(); ++number) {
    free[number] = number;
    records[number].key = number / 3; // some share a key
  }
  for (int step = 0; step < 100'000; ++step) {
    const std::size_t side = random() % 2;
    indexed_list &changed = side == 0 ? first : second;
    std::vector<std::uint32_t> &copy = copies[side];
    const std::size_t what = random() % 8;
    if (what < 4 && !free.empty()) {
      const std::uint32_t number = free.back();
      free.pop_back();
      what < 2 ? add(changed, number) : append(changed, number);
      copy.insert(what < 2 ? copy.begin() : copy.end(), number);
    } else if (what < 7 && !copy.empty()) {
      const auto left = copy.begin() + static_cast<std::ptrdiff_t>(random() % copy.size());
      ASSERT_EQ(remove(changed, *left), 0);
      free.insert(free.begin(), *left);
      copy.erase(left);
    } else if (!copy.empty()) {
      ASSERT_EQ(list_index_pop(index, &changed, records[copy.front()].key), &records[copy.front()].link);
      free.insert(free.begin(), copy.front());
      copy.erase(copy.begin());
    }
    std::string expected;
    for (const std::uint32_t number : copy) {
      expected += (expected.empty() ? "" : " ") + std::to_string(number);
    }
    ASSERT_EQ(shown(changed), expected) << "in step " << step;
    ASSERT_EQ(places_taken(), copies[0].size() + copies[1].size());
  }
}

} // namespace
