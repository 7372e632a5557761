#include "core/memory.h"

#include "fixture.h"

#include <cerrno>
#include <cstring>
#include <limits>

namespace {

using namespace scripted;

struct memory : core_fixture {};

TEST_F(memory, allocation_of_nothing_counts_once_and_adds_no_bytes) {
  void *block = my_malloc(0);
  EXPECT_EQ(malloc_counter, 1);
  EXPECT_EQ(malloced_size, 0);
  my_free(block);
}

TEST_F(memory, failed_allocation_counts_and_adds_its_bytes) {
  given_failure("malloc(48)", ENOMEM);
  void *block = &block;
  when([&] { block = my_malloc(48); });
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(malloc_counter, 1);
  EXPECT_EQ(malloced_size, 48);
}

TEST_F(memory, release_of_null_counts) {
  my_free(nullptr);
  EXPECT_EQ(free_counter, 1);
}

TEST_F(memory, bytes_asked_for_never_decrease) {
  my_free(my_malloc(100));
  my_free(my_malloc(20));
  EXPECT_EQ(malloced_size, 120);
  EXPECT_EQ(malloc_counter, 2);
  EXPECT_EQ(free_counter, 2);
}

TEST_F(memory, sum_of_bytes_wraps_after_years_of_ticks) {
  malloced_size = std::numeric_limits<std::int32_t>::max();
  my_free(my_malloc(36));
  EXPECT_EQ(malloced_size, std::numeric_limits<std::int32_t>::min() + 35);
}

struct sample {
  list_node link;
  std::array<std::uint8_t, 40> bytes;
};

TEST_F(memory, record_is_counted_once_by_its_size_and_all_zero) {
  auto *record = my_malloc_record<sample>();
  ASSERT_NE(record, nullptr);
  const sample zero{};
  EXPECT_EQ(std::memcmp(record, &zero, sizeof(zero)), 0);
  EXPECT_EQ(malloc_counter, 1);
  EXPECT_EQ(malloced_size, static_cast<std::int32_t>(sizeof(sample)));
  my_free(record);
}

TEST_F(memory, record_that_cannot_be_had_is_null) {
  given_failure("malloc(", ENOMEM);
  const sample *record = reinterpret_cast<sample *>(&record);
  when([&] { record = my_malloc_record<sample>(); });
  EXPECT_EQ(record, nullptr);
}

constexpr char stop[] = "mld_proxy_stop";

TEST_F(memory, report_of_balanced_counts_says_no_leak_even_if_other_blocks_came_back) {
  void *kept = my_malloc(10);
  my_free(nullptr);
  when([] { log_memory_report(log_site{"mld", stop, 1}, "MLD"); });
  then({
      logged_debug(stop, "No memory leaks detected."),
      logged_debug(stop, "MLD Proxy was using 10 bytes."),
  });
  my_free(kept);
}

TEST_F(memory, report_of_unbalanced_counts_is_an_error_with_both_counts) {
  malloc_counter = 3;
  free_counter = 2;
  malloced_size = 72;
  when([] { log_memory_report(log_site{"igmp", "igmp_proxy_stop", 1}, "IGMP"); });
  then({
      logged_error("igmp_proxy_stop", "Memory leaks. Malloc:3 Free:2."),
      logged_debug("igmp_proxy_stop", "IGMP Proxy was using 72 bytes."),
  });
}

TEST_F(memory, more_releases_than_allocations_are_reported_alike) {
  free_counter = 1;
  when([] { log_memory_report(log_site{"mld", stop, 1}, "MLD"); });
  then({
      logged_error(stop, "Memory leaks. Malloc:0 Free:1."),
      logged_debug(stop, "MLD Proxy was using 0 bytes."),
  });
}

} // namespace
