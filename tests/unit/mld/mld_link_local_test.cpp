#include "mld/mld_link_local.h"

#include "start_fixture.h"

#include <cerrno>

namespace {

using namespace scripted;

constexpr char function[] = "set_linklocal";
const std::string not_found = logged_error(function, "Couldn't find out link local address for interfaces: br0");
const std::string broken_line = logged_debug(function, "/proc/net/if_inet6 has a broken line, ignoring");

struct mld_link_local : mld_start_fixture {
  mld_link_local() {
    given_name("br0");
    intr.link_local = address("::dead");
  }

  void given_name(const char *name) { intr.name = copy_interface_name(name); }
  void given_table(const std::string &table) { Kernel.if_inet6 = table; }

  void then_found(const std::string &link_local) {
    when_read();
    then({"fopen(/proc/net/if_inet6, r)"});
    EXPECT_EQ(result, 0);
    EXPECT_EQ(text(intr.link_local), link_local);
  }

  void then_failed(const lines &log) {
    when_read();
    then(lines{"fopen(/proc/net/if_inet6, r)"} + log);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(text(intr.link_local), "::dead") << "nothing is copied on a failure";
  }

  void when_read() {
    when([&] { result = set_linklocal(&intr); });
  }

  mld_interface intr{};
  int result = 1;
};

TEST_F(mld_link_local, is_found_by_the_name_of_the_interface) {
  given_table("00000000000000000000000000000001 01 80 10 80       lo\n"
              "fe800000000000000000000000000002 02 40 20 80     wan0\n"
              "20010db8000000000000000000000003 03 40 00 80      br0\n"
              "fe800000000000000200ff00fe000003 03 40 20 80      br0\n");
  then_found("fe80::200:ff00:fe00:3");
}

TEST_F(mld_link_local, first_matching_line_wins) {
  given_table("fe800000000000000000000000000031 03 40 20 80      br0\n"
              "fe800000000000000000000000000032 03 40 20 80      br0\n");
  then_found("fe80::31");
}

TEST_F(mld_link_local, whole_of_fe80_with_ten_bits_matches) {
  given_table("febf0000000000000000000000000001 03 40 20 80      br0\n");
  then_found("febf::1");
  given_table("feb00000000000000000000000000001 03 40 20 80      br0\n");
  then_found("feb0::1");
}

TEST_F(mld_link_local, addresses_beside_the_prefix_do_not_match) {
  given_table("fec00000000000000000000000000001 03 40 20 80      br0\n"
              "fe7f0000000000000000000000000001 03 40 20 80      br0\n"
              "ff800000000000000000000000000001 03 40 20 80      br0\n");
  then_failed({not_found});
}

TEST_F(mld_link_local, scope_column_is_not_asked) {
  given_table("fe800000000000000000000000000003 03 40 00 80      br0\n");
  then_found("fe80::3");
  given_table("20010db8000000000000000000000003 03 40 20 80      br0\n");
  intr.link_local = address("::dead");
  then_failed({not_found});
}

TEST_F(mld_link_local, name_must_match_as_a_whole) {
  given_table("fe800000000000000000000000000003 03 40 20 80    br0.7\n"
              "fe800000000000000000000000000004 04 40 20 80       br\n");
  then_failed({not_found});
}

TEST_F(mld_link_local, name_of_eight_characters_is_found) {
  given_name("lan45678");
  given_table("fe800000000000000000000000000003 03 40 20 80 lan45678\n");
  then_found("fe80::3");
}

TEST_F(mld_link_local, name_of_nine_characters_is_never_found) {
  given_name("lan456789");
  given_table("fe800000000000000000000000000003 03 40 20 80 lan456789\n");
  then_failed({logged_error(function, "Couldn't find out link local address for interfaces: lan456789")});
}

TEST_F(mld_link_local, broken_lines_are_reported_and_skipped) {
  given_table("\n"
              "fe80 garbage\n"
              "fe800000000000000000000000000003 03 40 20 80\n"
              "fe800000000000000000000000000003 03 40 20 80      br0\n");
  when_read();
  then({"fopen(/proc/net/if_inet6, r)", broken_line, broken_line, broken_line});
  EXPECT_EQ(result, 0);
  EXPECT_EQ(text(intr.link_local), "fe80::3");
}

TEST_F(mld_link_local, line_longer_than_the_buffer_is_read_in_pieces) {
  std::string table(1500, 'x');
  table += "\nfe800000000000000000000000000003 03 40 20 80      br0\n";
  given_table(table);
  when_read();
  then({"fopen(/proc/net/if_inet6, r)", broken_line, broken_line});
  EXPECT_EQ(result, 0);
}

TEST_F(mld_link_local, empty_table_is_a_failure) {
  given_table("");
  then_failed({not_found});
}

TEST_F(mld_link_local, table_that_cannot_be_opened_is_a_failure) {
  given_failure("fopen(/proc/net/if_inet6, r)", ENOENT);
  then_failed({logged_error(function, "Couldn't open /proc/net/if_inet6 for figuring out local interfaces")});
}

} // namespace
