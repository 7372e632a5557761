#include "status/prometheus_report.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct status_metrics : testing::Test {
  ~status_metrics() override {
    free_rows(state.interfaces);
    free_rows(state.groups);
    free_rows(now.mifs);
    free_rows(now.entries);
    free_snapshot(joined);
  }

  std::string metrics() {
    join_snapshot(joined, daemon, state, now, now);
    text built;
    add_metrics(built, joined);
    const std::string result = text_of(built);
    free_rows(built);
    return result;
  }

  daemon_state state;
  traffic_sample now{};
  snapshot joined{};
  process_facts daemon{4711, 1, {"tarnwick"}, UINT64_MAX, 0, true, 0};
};

std::size_t count(const std::string &all, const std::string &part) {
  std::size_t found = 0;
  for (std::size_t at = all.find(part); at != std::string::npos; at = all.find(part, at + 1)) {
    ++found;
  }
  return found;
}

TEST_F(status_metrics, router_without_groups_still_has_every_metric) {
  const std::string all = metrics();
  EXPECT_NE(all.find("# TYPE tarnwick_groups gauge\ntarnwick_groups 0\n"), std::string::npos) << all;
  EXPECT_EQ(count(all, "# HELP "), 12U);
  EXPECT_EQ(count(all, "# TYPE "), 12U);
}

TEST_F(status_metrics, label_cannot_be_left) {
  parse_type_messages(state.interfaces, "[MLD]ifname: a\"b\\c\033 query: 1 join: 2 leave: 3 timeout: -1\n");
  const std::string all = metrics();
  EXPECT_NE(all.find(R"(tarnwick_interface_joins_total{interface="a\"b\\c?",protocol="MLD",role="upstream"} 2)"
                     "\n"),
            std::string::npos)
      << all;
  EXPECT_NE(all.find("} 4294967295\n"), std::string::npos) << all;
}

TEST_F(status_metrics, number_of_series_is_bounded_and_the_rest_counted) {
  for (std::size_t i = 0; i < MOST_STREAM_SERIES + 3; ++i) {
    cache_row entry{};
    std::snprintf(entry.group.data(), entry.group.size(), "ff0e::%zx", i + 1);
    std::snprintf(entry.origin.data(), entry.origin.size(), "2001:db8::1");
    add_row(now.entries, entry);
  }
  const std::string all = metrics();
  EXPECT_EQ(count(all, "\ntarnwick_stream_packets_total{"), MOST_STREAM_SERIES);
  EXPECT_NE(all.find("tarnwick_stream_series_omitted 3\n"), std::string::npos);
}

TEST_F(status_metrics, interfaces_that_are_gone_are_left_out) {
  parse_type_messages(state.interfaces, "[MLD]ifname: (gone) query: 1 join: 2 leave: 3 timeout: 1\n"
                                        "[MLD]ifname: (gone) query: 1 join: 2 leave: 3 timeout: 1\n");
  EXPECT_EQ(metrics().find("gone"), std::string::npos);
}

} // namespace
