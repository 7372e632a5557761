// What the companion notes of its LANs for tarnwick-status.
#include "assist/heard_table.h"

#include "fixture.h"

namespace {

class heard_table_of : public watch_fixture {
protected:
  void SetUp() override {
    watch_fixture::SetUp();
    given_quiet_companion();
    if (heard_rows().empty()) {
      open_heard_table();
    }
    note(v1_bytes(ICMPV6_MGM_REDUCTION, "ff0e::1"), "fe80::101");
    note(v1_bytes(ICMPV6_MGM_REDUCTION, "ff0e::1"), "fe80::102");
  }

  void note(const mld_bytes &bytes, const std::string &sender, unsigned index = 4) {
    scripted_mld message;
    message.bytes = bytes;
    message.sender = sender;
    message.index = index;
    hear(message);
    requests(); // questions about groups that are left
  }

  // Kind of what is noted; `nothing` if there is none.
  static heard_kind kind_of(const std::string &group, const std::string &host, unsigned index = 4) {
    for (const heard_row &row : heard_rows()) {
      if (row.kind != heard_kind::nothing && row.index == index && row.group == address(group) &&
          row.host == address(host)) {
        return row.kind;
      }
    }
    return heard_kind::nothing;
  }
};

TEST_F(heard_table_of, reports_of_both_versions_are_noted_by_host_and_interface) {
  note(report_bytes({record_bytes(MLD2_CHANGE_TO_EXCLUDE, "ff0e::1")}), "fe80::101");
  note(v1_bytes(ICMPV6_MGM_REPORT, "ff0e::1"), "fe80::102");
  EXPECT_EQ(kind_of("ff0e::1", "fe80::101"), heard_kind::mldv2_report);
  EXPECT_EQ(kind_of("ff0e::1", "fe80::102"), heard_kind::mldv1_report);
  EXPECT_EQ(kind_of("ff0e::1", "fe80::101", 5), heard_kind::nothing);
}

TEST_F(heard_table_of, newest_version_of_a_host_counts) {
  note(v1_bytes(ICMPV6_MGM_REPORT, "ff0e::1"), "fe80::101");
  note(report_bytes({record_bytes(MLD2_MODE_IS_INCLUDE, "ff0e::1", {"2001:db8::1"})}), "fe80::101");
  EXPECT_EQ(kind_of("ff0e::1", "fe80::101"), heard_kind::mldv2_report);
}

TEST_F(heard_table_of, host_that_leaves_is_forgotten) {
  note(v1_bytes(ICMPV6_MGM_REPORT, "ff0e::1"), "fe80::101");
  note(v1_bytes(ICMPV6_MGM_REDUCTION, "ff0e::1"), "fe80::101");
  EXPECT_EQ(kind_of("ff0e::1", "fe80::101"), heard_kind::nothing);
  note(report_bytes({record_bytes(MLD2_ALLOW_NEW_SOURCES, "ff0e::1", {"2001:db8::1"})}), "fe80::101");
  note(report_bytes({record_bytes(MLD2_BLOCK_OLD_SOURCES, "ff0e::1", {"2001:db8::1"})}), "fe80::101");
  EXPECT_EQ(kind_of("ff0e::1", "fe80::101"), heard_kind::mldv2_report) << "it may have others";
  note(report_bytes({record_bytes(MLD2_CHANGE_TO_INCLUDE, "ff0e::1")}), "fe80::101");
  EXPECT_EQ(kind_of("ff0e::1", "fe80::101"), heard_kind::nothing);
}

TEST_F(heard_table_of, general_queries_are_noted_and_others_are_not) {
  note(query_bytes("ff0e::1"), "fe80::5");
  EXPECT_EQ(kind_of("::", "fe80::5"), heard_kind::nothing);
  note(query_bytes("::"), "fe80::5");
  note_own_query(4);
  EXPECT_EQ(kind_of("::", "fe80::5"), heard_kind::other_query);
  EXPECT_EQ(kind_of("::", "::"), heard_kind::own_query);
}

TEST_F(heard_table_of, flood_of_hosts_stays_within_the_table) {
  for (int host = 1; host <= 2000; ++host) {
    note(v1_bytes(ICMPV6_MGM_REPORT, "ff0e::1"), "fe80::" + std::to_string(host));
  }
  EXPECT_EQ(heard_rows().size(), HEARD_ROWS);
  EXPECT_EQ(kind_of("ff0e::1", "fe80::2000"), heard_kind::mldv1_report);
}

} // namespace
