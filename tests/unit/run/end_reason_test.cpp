#include "run/end_reason.h"
#include "run/log_reader.h"

#include <csignal>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr int ended_with_255 = 255 << 8; // as waitpid() gives it

interface_name name(const std::string &text) {
  interface_name copied{};
  text.copy(copied.data(), copied.size() - 1);
  return copied;
}

class end_reason_of : public testing::Test {
protected:
  void SetUp() override {
    clear_daemon_error();
    facts = {};
    facts.wait_status = ended_with_255;
    facts.names = {name("wan0"), name("br0")};
    facts.indexes = {3, 4};
    facts.count = 2;
    facts.has_rights = true;
    facts.can_route_multicast = true;
    facts.rivals = "";
  }

  std::string reason() const {
    end_text text;
    explain_end(facts, text);
    return text.data();
  }

  end_facts facts;
};

constexpr char init_refused[] = "E:mld :init_mld_socket                     #  40: setsockopt: MRT6_INIT fail!!!";
constexpr char mif_refused[] = "E:mld :mld_create_network_list             #  93: setsockopt: MRT6_ADD_MIF fail!!!";
constexpr char no_link_local[] =
    "E:mld :set_linklocal                       #  72: Couldn't find out link local address for interfaces: br-lan.10";
constexpr char no_socket[] = "E:mld :init_mld_socket                     #  33: Unable to open MLD Raw socket.";

} // namespace

TEST_F(end_reason_of, refused_routing_socket_names_who_may_hold_it) {
  note_daemon_error(init_refused);
  facts.rivals = "other (12)";
  EXPECT_EQ(reason(),
            "another multicast router holds the routing socket: other (12); end it, or use --network=private");
  facts.rivals = "";
  EXPECT_EQ(reason(), "another multicast router holds the routing socket: a process that cannot be seen from here; end "
                      "it, or use --network=private");
}

TEST_F(end_reason_of, kernel_without_multicast_routing_counts_before_missing_rights) {
  note_daemon_error(init_refused);
  facts.has_rights = false;
  EXPECT_EQ(reason(), "no permission: run it as root, or with CAP_NET_ADMIN and CAP_NET_RAW");
  facts.can_route_multicast = false;
  EXPECT_EQ(reason(),
            "not a kernel with IPv6 multicast routing (CONFIG_IPV6_MROUTE; /proc/net/ip6_mr_cache is missing)");
}

TEST_F(end_reason_of, refused_mif_names_the_index_above_31) {
  note_daemon_error(mif_refused);
  EXPECT_EQ(reason(), "the kernel refused one of the interfaces as multicast interface");
  facts.indexes[1] = 31;
  EXPECT_EQ(reason(), "the kernel refused one of the interfaces as multicast interface");
  facts.indexes[1] = 32;
  EXPECT_EQ(reason(), "index 32 of br0 is above 31: use --network=private");
}

TEST_F(end_reason_of, missing_link_local_address_blames_a_name_of_nine_characters) {
  note_daemon_error(no_link_local);
  facts.names[1] = name("br-lan.1");
  EXPECT_EQ(reason(), "no link-local address on br-lan.10");
  facts.names[1] = name("br-lan.10");
  EXPECT_EQ(reason(), "name br-lan.10 has 9 characters, above 8: use --network=private, or a shorter name");
}

TEST_F(end_reason_of, missing_raw_socket_is_a_matter_of_rights_or_of_ipv6) {
  note_daemon_error(no_socket);
  EXPECT_EQ(reason(), "the kernel gives no ICMPv6 socket: is IPv6 switched off?");
  facts.has_rights = false;
  EXPECT_EQ(reason(), "no permission: run it as root, or with CAP_NET_ADMIN and CAP_NET_RAW");
}

TEST_F(end_reason_of, first_fatal_line_counts_and_complaints_around_it_do_not) {
  note_daemon_error("E:mld :mld_create_network_list             #  66: Unable to get peer address for ppp0.");
  note_daemon_error(mif_refused);
  note_daemon_error("E:mld :mld_proxy_stop                      #  84: setsockopt: MRT6_DONE fail!!!");
  facts.indexes[0] = 40;
  EXPECT_EQ(reason(), "index 40 of wan0 is above 31: use --network=private");
}

TEST_F(end_reason_of, other_error_lines_are_quoted_without_their_place) {
  note_daemon_error("E:main:main                                # 103: Select failed Error Number:9.");
  EXPECT_EQ(reason(), "Select failed Error Number:9.");
}

TEST_F(end_reason_of, signal_counts_more_than_what_was_said_before) {
  note_daemon_error("E:mld :mld_create_network_list             #  66: Unable to get peer address for ppp0.");
  facts.wait_status = SIGKILL;
  EXPECT_EQ(reason(), "killed by signal 9 (Killed)");
}

TEST_F(end_reason_of, silent_end_shows_its_status) {
  EXPECT_EQ(reason(), "status 255 and no error line: are the options behind -- right?");
  facts.wait_status = 0;
  EXPECT_EQ(reason(), "status 0 and no error line");
}

TEST_F(end_reason_of, hostile_line_is_cut_and_changes_no_decision) {
  note_daemon_error("E:mld :x                                   #   1: " + std::string(5000, '%'));
  EXPECT_EQ(reason(), std::string(DaemonError.text.size() - 1, '%'));
  note_daemon_error(std::string(3, '#'));
  EXPECT_EQ(reason(), "###");
}
