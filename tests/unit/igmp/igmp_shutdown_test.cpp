#include "igmp/igmp_shutdown.h"

#include "core/index_table.h"
#include "core/memory.h"
#include "fixture.h"

#include <cerrno>

namespace {

using namespace scripted;

constexpr char stopping[] = "igmp_proxy_stop";
constexpr char cleaning[] = "igmp_proxy_clean_interface";

struct igmp_shutdown : igmp_fixture {
  igmp_shutdown() { free_counter = 0; }

  void when_stopped() {
    has_whole_pools = false; // everything is freed
    when([] { igmp_proxy_stop(); });
  }
};

std::string delete_vif(int vif) {
  return "setsockopt(igmp, MRT_DEL_VIF) vifi=" + std::to_string(vif) +
         " flags=0 threshold=0 rate=0 local=0.0.0.0 remote=0.0.0.0";
}

std::string delete_mif(int mif) {
  return "setsockopt(igmp, MRT6_DEL_MIF) mifi=" + std::to_string(mif) + " flags=0 threshold=0 pifi=0 rate=0";
}

lines clean_lines(const std::string &name, int index, const std::string &flag_socket) {
  return {
      logged_debug(cleaning, "Cleaning interface: " + name),
      "socket(AF_INET, SOCK_DGRAM, 0)",
      "ioctl(" + flag_socket + ", SIOCSIFFLAGS) " + name + " flags=0x1003",
      delete_vif(index),
      "close(" + flag_socket + ")",
      "close(" + name + ")",
  };
}

lines report_lines() {
  return {
      logged_debug(stopping, "No memory leaks detected."),
      logged_debug(stopping, "IGMP Proxy was using " + std::to_string(malloced_size) + " bytes."),
  };
}

TEST_F(igmp_shutdown, idle_proxy_is_undone_upstream_last_and_every_record_freed) {
  when_stopped();
  then(joined({
      {logged_debug(stopping, "Stopping IGMP Proxy.")},
      clean_lines("lan1", 4, "fd 1100"),
      clean_lines("br0", 3, "fd 1101"),
      clean_lines("wan0", 2, "fd 1102"),
      {"setsockopt(igmp, MRT_DONE) length=0"},
      report_lines(),
  }));
  EXPECT_EQ(malloc_counter, free_counter);
  EXPECT_EQ(malloc_counter, 128 + 100 + 3);
  EXPECT_EQ(IgmpRouter.upstream_interface, nullptr);
  EXPECT_EQ(IgmpRouter.socket, IGMP_SOCKET); // the process's end closes it
  EXPECT_EQ(index_table, (std::array<std::int32_t, INDEX_TABLE_SLOTS>{}));
  EXPECT_TRUE(Kernel.commands.empty());
}

TEST_F(igmp_shutdown, second_stop_finds_nothing_to_do) {
  when_stopped();
  then_anything();
  when_stopped();
  then(joined({
      {logged_debug(stopping, "Stopping IGMP Proxy."), "setsockopt(igmp, MRT_DONE) length=0"},
      report_lines(),
  }));
}

TEST_F(igmp_shutdown, shared_group_is_rewritten_by_the_first_interface_and_left_by_the_last) {
  given_group(lan1, "239.1.2.3");
  given_group(br0, "239.1.2.3");
  when_stopped();
  const lines happened = take_transcript();
  lines memberships;
  for (const std::string &line : happened) {
    if (line.find("MEMBERSHIP") != std::string::npos || line.find(", MRT_ADD_MFC)") != std::string::npos ||
        line.find(", MRT_DEL_MFC)") != std::string::npos || line.find("Cleaning") != std::string::npos) {
      memberships.push_back(line.substr(0, line.find(" origin=")));
    }
  }
  EXPECT_EQ(memberships, (lines{
                             logged_debug(cleaning, "Cleaning interface: lan1"),
                             "setsockopt(igmp, MRT_DEL_MFC)",
                             "setsockopt(igmp, MRT_ADD_MFC)",
                             logged_debug(cleaning, "Cleaning interface: br0"),
                             "setsockopt(wan0, IP_DROP_MEMBERSHIP) group=239.1.2.3 address=192.0.2.2 ifindex=2",
                             "setsockopt(igmp, MRT_DEL_MFC)",
                             logged_debug(cleaning, "Cleaning interface: wan0"),
                         }));
}

TEST_F(igmp_shutdown, groups_and_queries_of_any_state_are_freed) {
  given_checking(given_group(br0, "239.1.2.3"), 2, 0);
  given_checking(given_group(br0, "239.1.2.4"), 3, 5);
  given_group(lan1, "239.1.2.5", IGMP_GROUP_V1_MEMBERS_PRESENT);
  igmp_group *leftover = given_group(lan1, "239.1.2.6");
  given_checking(leftover, 1, 0);
  leftover->state = IGMP_GROUP_MEMBERS_PRESENT;
  when_stopped();
  then_in_order({logged_debug(stopping, "No memory leaks detected.")});
  EXPECT_EQ(malloc_counter, free_counter);
}

TEST_F(igmp_shutdown, groups_are_dropped_between_opening_the_flag_socket_and_using_it) {
  given_group(br0, "239.1.2.3");
  when([&] { igmp_proxy_clean_interface(br0); });
  then_in_order({
      "socket(AF_INET, SOCK_DGRAM, 0)",
      "setsockopt(wan0, IP_DROP_MEMBERSHIP) group=239.1.2.3 address=192.0.2.2 ifindex=2",
      "ioctl(fd 1100, SIOCSIFFLAGS) br0 flags=0x1003",
      delete_vif(3),
  });
  EXPECT_EQ(length(br0->groups), 0);
}

TEST_F(igmp_shutdown, proxy_without_upstream_interface_stops_without_it) {
  // As after a discovery that did not find it.
  list_remove_node(&IgmpRouter.interfaces, &wan0->link);
  my_free(wan0);
  IgmpRouter.upstream_interface = nullptr;
  when_stopped();
  then(joined({
      {logged_debug(stopping, "Stopping IGMP Proxy.")},
      clean_lines("lan1", 4, "fd 1100"),
      clean_lines("br0", 3, "fd 1101"),
      {"setsockopt(igmp, MRT_DONE) length=0"},
      report_lines(),
  }));
}

TEST_F(igmp_shutdown, flag_socket_that_cannot_be_opened_shows_in_the_flags_request_and_nowhere_else) {
  Kernel.names[-1] = "no socket";
  given_failure("socket(AF_INET, SOCK_DGRAM, 0)", EMFILE);
  given_failure("ioctl(no socket", EBADF);
  when([&] { igmp_proxy_clean_interface(br0); });
  then({
      logged_debug(cleaning, "Cleaning interface: br0"),
      "socket(AF_INET, SOCK_DGRAM, 0)",
      logged_error(cleaning, "Unable to open socket for restore interface flags"),
      "ioctl(no socket, SIOCSIFFLAGS) br0 flags=0x1003",
      logged_error(cleaning, "Unable to restore interface flags for br0."),
      delete_vif(3),
      "close(no socket)",
      "close(br0)",
  });
}

// Descriptor 0 stands for "no socket" here: an interface keeps its flags if standard input was closed.
TEST_F(igmp_shutdown, flag_socket_with_number_0_is_taken_for_none_and_stays_open) {
  Kernel.next_socket = 0;
  when([&] { igmp_proxy_clean_interface(br0); });
  then({
      logged_debug(cleaning, "Cleaning interface: br0"),
      "socket(AF_INET, SOCK_DGRAM, 0)",
      delete_vif(3),
      "close(br0)",
  });
}

TEST_F(igmp_shutdown, refused_steps_are_logged_and_the_rest_is_done) {
  given_failure("ioctl(fd 1100, SIOCSIFFLAGS)", EPERM);
  given_failure("setsockopt(igmp, MRT_DEL_VIF)", EADDRNOTAVAIL);
  when([&] { igmp_proxy_clean_interface(br0); });
  then({
      logged_debug(cleaning, "Cleaning interface: br0"),
      "socket(AF_INET, SOCK_DGRAM, 0)",
      "ioctl(fd 1100, SIOCSIFFLAGS) br0 flags=0x1003",
      logged_error(cleaning, "Unable to restore interface flags for br0."),
      delete_vif(3),
      logged_error(cleaning, "Deleting VIF failed for interface br0."),
      "close(fd 1100)",
      "close(br0)",
  });
}

TEST_F(igmp_shutdown, interface_whose_vif_was_refused_has_no_slot_to_give_back) {
  br0->vif_index = -1;
  when([&] { igmp_proxy_clean_interface(br0); });
  then_in_order({
      logged_debug("find_used_index", "illegal dev index: -1"),
      "| device index: [-1] not found!",
      delete_vif(65535),
  });
}

TEST_F(igmp_shutdown, refused_end_of_routing_is_logged_with_its_reason) {
  given_failure("setsockopt(igmp, MRT_DONE)", EACCES);
  when_stopped();
  then_in_order({
      "setsockopt(igmp, MRT_DONE) length=0",
      logged_error(stopping, "Unable to close multicast socket. Error:" + std::to_string(EACCES) + "."),
      logged_debug(stopping, "No memory leaks detected."),
  });
}

TEST_F(igmp_shutdown, lost_record_is_reported) {
  ++malloc_counter;
  when_stopped();
  then_in_order({logged_error(stopping, "Memory leaks. Malloc:" + std::to_string(malloc_counter) +
                                            " Free:" + std::to_string(free_counter) + ".")});
}

TEST_F(igmp_shutdown, mode_6to6_unregisters_nothing) {
  ProxyMode = PROXY_MODE_6TO6;
  when([&] { igmp_proxy_clean_interface(br0); });
  then({
      logged_debug(cleaning, "Cleaning interface: br0"),
      "socket(AF_INET, SOCK_DGRAM, 0)",
      "ioctl(fd 1100, SIOCSIFFLAGS) br0 flags=0x1003",
      "close(fd 1100)",
      "close(br0)",
  });
}

struct igmp_shutdown_4to6 : igmp_shutdown {
  igmp_shutdown_4to6() { given_mode_4to6(); }
};

TEST_F(igmp_shutdown_4to6, vif_of_upstream_and_every_mif_are_deleted_and_the_translator_is_taken_down) {
  LanIndex = 3;
  NatptIndex = 9;
  when_stopped();
  const auto flags = [](const std::string &name, const std::string &socket) {
    return lines{
        logged_debug(cleaning, "Cleaning interface: " + name),
        "socket(AF_INET, SOCK_DGRAM, 0)",
        "ioctl(" + socket + ", SIOCSIFFLAGS) " + name + " flags=0x1003",
    };
  };
  then(joined({
      {logged_debug(stopping, "Stopping IGMP Proxy.")},
      flags("lan1", "fd 1100"),
      {delete_mif(4), "close(fd 1100)", "close(lan1)", "close(lan1/6)"},
      flags("br0", "fd 1101"),
      {delete_mif(9), "close(fd 1101)", "close(br0)", "close(br0/6)"},
      flags("wan0", "fd 1102"),
      {delete_vif(2), delete_mif(2), "close(fd 1102)", "close(wan0)", "close(wan0/6)"},
      {
          "setsockopt(igmp, MRT_DONE) length=0",
          logged_debug(stopping, "Close multicast socket: IgmpRouter.socket"),
          "setsockopt(igmp, MRT6_DONE) length=0",
          "system(brctl delif br0 natpt0)",
          "system(ifconfig natpt0 down)",
      },
      report_lines(),
  }));
  EXPECT_EQ(index_table[1], 3); // deleting a MIF leaves the table alone
  EXPECT_EQ(index_table[2], 4);
  EXPECT_EQ(index_table[0], 0);
}

TEST_F(igmp_shutdown_4to6, refused_mif_is_deleted_by_its_number_and_not_by_the_interfaces_index) {
  LanIndex = 3;
  NatptIndex = 9;
  br0->vif_index = -1;
  when([&] { igmp_proxy_clean_interface(br0); });
  then_in_order({delete_mif(65535)});
}

TEST_F(igmp_shutdown_4to6, refusals_are_logged_and_the_rest_is_done) {
  given_failure("setsockopt(igmp, MRT6_DEL_MIF)", EADDRNOTAVAIL);
  given_failure("setsockopt(igmp, MRT6_DONE)", EACCES);
  given_failure("system(brctl", ENOMEM);
  when_stopped();
  then_in_order({
      logged_error(cleaning, "Deleting MIF failed for interface lan1."),
      logged_error(stopping, "Unable to close multicast socket. Error:" + std::to_string(EACCES) + "."),
      "system(brctl delif br0 natpt0)",
      "system(ifconfig natpt0 down)",
  });
}

} // namespace
