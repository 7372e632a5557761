#include "mld/mld_shutdown.h"

#include "core/memory.h"
#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_start_up.h"
#include "start_fixture.h"
#include "tests/support/failing_unlink.h"

#include <cerrno>

namespace {

using namespace scripted;

constexpr char clean[] = "mld_proxy_clean_interface";
constexpr char stop[] = "mld_proxy_stop";
constexpr char drop[] = "mld_proxy_drop_membership";

struct mld_shutdown : mld_fixture {
  // Not `when`: no record is left to be checked.
  void when_stopped() {
    run([] { mld_proxy_stop(); });
  }
};

// Cleaning an interface behind its groups; `ioctl_socket` is the one opened for it.
lines cleaned(const std::string &name, int mif, const std::string &ioctl_socket) {
  return {
      "socket(AF_INET, SOCK_DGRAM, 0)",
      "ioctl(" + ioctl_socket + ", SIOCSIFFLAGS) " + name + " flags=0x1003",
      "setsockopt(mld, MRT6_DEL_MIF) mifi=" + std::to_string(mif) + " flags=0 threshold=0 pifi=0 rate=0",
      logged_debug(clean, "setsockopt: MRT6_DEL_MIF"),
      "close(" + ioctl_socket + ")",
      "close(" + name + ")",
  };
}

lines started(const std::string &name) { return {logged_debug(clean, "Cleaning interface: " + name + ".")}; }

lines dropped(const std::string &group) {
  return {
      logged_debug(clean, "group address: " + log_text(group)),
      "setsockopt(wan0, IPV6_DROP_MEMBERSHIP) group=" + group + " ifindex=2",
      logged_debug(drop, "setsockopt: IPV6_DROP_MEMBERSHIP"),
  };
}

const lines stopping{logged_debug(stop, "Stop MLD Proxy.")};
const lines routing_released{"setsockopt(mld, MRT6_DONE) length=0", logged_debug(stop, "setsockopt: MRT6_DONE")};

TEST_F(mld_shutdown, undoes_everything_and_the_upstream_interface_last) {
  given_group(br0, "ff0e::2");
  given_group(br0, "ff0e::1");
  when_stopped();
  then(stopping + started("lan1") + cleaned("lan1", 4, "fd 1100") + started("br0") + dropped("ff0e::1") +
       dropped("ff0e::2") + cleaned("br0", 3, "fd 1101") + started("wan0") + cleaned("wan0", 2, "fd 1102") +
       routing_released +
       lines{logged_debug(stop, "No memory leaks detected."),
             logged_debug(stop, "MLD Proxy was using " + std::to_string(malloced_size) + " bytes.")});
}

TEST_F(mld_shutdown, frees_every_record_and_leaves_empty_lists) {
  given_group(br0, "ff0e::1", {"2001:db8::1"});
  when([&] { mld_router_host_add(br0, address("ff0e::1"), address("fe80::99"), address("2001:db8::1")); });
  when_stopped();
  EXPECT_EQ(malloc_counter, 128 + 128 + 100 + 3);
  EXPECT_EQ(free_counter, malloc_counter);
  for (const list *records :
       {&MldRouter.interfaces, &MldRouter.free_groups, &MldRouter.free_hosts, &MldRouter.free_queries}) {
    EXPECT_EQ(records->head, nullptr);
  }
  EXPECT_EQ(MldRouter.upstream_interface, nullptr);
  then_anything();
}

TEST_F(mld_shutdown, hosts_of_every_interface_go_back_the_upstream_ones_too) {
  for (mld_interface *intr : {wan0, br0, lan1}) {
    when([&] { mld_router_host_add(intr, address("ff0e::1"), address("fe80::99"), In6AddrAny); });
  }
  EXPECT_EQ(length(MldRouter.free_hosts), MLD_HOST_POOL_SIZE - 3);
  when_stopped();
  then_in_order({logged_debug(stop, "No memory leaks detected.")});
  EXPECT_EQ(free_counter, malloc_counter);
}

TEST_F(mld_shutdown, memory_report_names_all_bytes_ever_used) {
  when_stopped();
  const std::size_t used =
      128 * sizeof(mld_group) + 128 * sizeof(mld_host) + 100 * sizeof(mld_query) + 3 * sizeof(mld_interface);
  then_in_order({logged_debug(stop, "MLD Proxy was using " + std::to_string(used) + " bytes.")});
}

TEST_F(mld_shutdown, host_that_was_deleted_before_is_reported_as_leaked) {
  mld_host *deleted = nullptr;
  when([&] {
    deleted = mld_router_host_add(br0, address("ff0e::1"), address("fe80::99"), In6AddrAny);
    mld_router_host_del(br0, address("ff0e::1"), address("fe80::99"), In6AddrAny);
  });
  when_stopped();
  then_in_order({logged_error(stop, "Memory leaks. Malloc:359 Free:358."),
                 logged_debug(stop, "MLD Proxy was using " + std::to_string(malloced_size) + " bytes.")});
  my_free(deleted);
}

TEST_F(mld_shutdown, group_of_two_interfaces_is_left_with_the_second) {
  given_group(lan1, "ff0e::1");
  given_group(br0, "ff0e::1");
  when_stopped();
  then_in_order(started("lan1") +
                lines{logged_debug(clean, "group address: " + log_text("ff0e::1")),
                      logged_debug(drop, "Group " + log_text("ff0e::1") +
                                             " on interface br0 still there. "
                                             "Not dropping."),
                      logged_debug(drop, "idx = 3, oifs_ttl[idx] = 1"),
                      logged_debug(drop, "setsockopt: MRT6_ADD_MFC")} +
                started("br0") + dropped("ff0e::1") + started("wan0"));
}

// A stop does not check whether unlinking works: a group that stayed would be lost with its record and its queries.
TEST_F(mld_shutdown, groups_are_left_upstream_although_unlinking_fails) {
  given_group(br0, "ff0e::2");
  given_group(br0, "ff0e::1");
  UnlinksToFail = 1;
  when_stopped();
  UnlinksToFail = 0;
  then_in_order(dropped("ff0e::1") + dropped("ff0e::2") + lines{logged_debug(stop, "No memory leaks detected.")});
}

TEST_F(mld_shutdown, queries_of_groups_in_any_state_are_freed_with_their_pool) {
  given_checking(given_group(br0, "ff0e::1"), 3, 1);
  mld_group *present = given_group(br0, "ff0e::2");
  given_checking(present, 2, 0);
  present->state = MLD_GROUP_MEMBERS_PRESENT;
  when_stopped();
  then_in_order({logged_debug(stop, "No memory leaks detected.")});
}

TEST_F(mld_shutdown, cleaned_group_goes_to_the_head_of_the_pool_with_its_state) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  given_checking(group, 2, 1);
  when([&] { mld_proxy_clean_interface(br0); });
  EXPECT_EQ(list_get_head(&MldRouter.free_groups), &group->link);
  EXPECT_EQ(group->state, MLD_GROUP_CHECKING_MEMBERSHIP);
  EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE);
  then_anything();
}

TEST_F(mld_shutdown, upstream_record_is_cleaned_but_not_freed_by_cleaning) {
  const int freed = free_counter;
  when([&] { mld_proxy_clean_interface(wan0); });
  then(started("wan0") + cleaned("wan0", 2, "fd 1100"));
  EXPECT_EQ(free_counter, freed);
  EXPECT_EQ(MldRouter.upstream_interface, wan0);
}

TEST_F(mld_shutdown, without_an_ioctl_socket_flags_mif_and_socket_stay_but_the_record_is_freed) {
  given_group(br0, "ff0e::1");
  given_failure("socket(AF_INET, SOCK_DGRAM, 0)", EMFILE, -1);
  when_stopped();
  const lines gives_up{"socket(AF_INET, SOCK_DGRAM, 0)", logged_error(clean, "Unable to open socket for cleaning up.")};
  then(stopping + started("lan1") + gives_up + started("br0") + dropped("ff0e::1") + gives_up + started("wan0") +
       gives_up + routing_released +
       lines{logged_debug(stop, "No memory leaks detected."),
             logged_debug(stop, "MLD Proxy was using " + std::to_string(malloced_size) + " bytes.")});
}

TEST_F(mld_shutdown, refusals_are_logged_and_the_shutdown_goes_on) {
  given_failure("ioctl(", ENODEV, -1);
  given_failure("setsockopt(mld, MRT6_DEL_MIF)", EADDRNOTAVAIL, -1);
  given_failure("setsockopt(mld, MRT6_DONE)", EACCES);
  when_stopped();
  const auto refused = [](const std::string &name, int mif, const std::string &ioctl_socket) {
    lines expected = cleaned(name, mif, ioctl_socket);
    expected.insert(expected.begin() + 3, logged_error(clean, "setsockopt: MRT6_DEL_MIF fail!!!"));
    expected.insert(expected.begin() + 2, logged_error(clean, "Unable to restore interface flags for " + name + "."));
    return started(name) + expected;
  };
  then(stopping + refused("lan1", 4, "fd 1100") + refused("br0", 3, "fd 1101") + refused("wan0", 2, "fd 1102") +
       lines{"setsockopt(mld, MRT6_DONE) length=0", logged_error(stop, "setsockopt: MRT6_DONE fail!!!"),
             logged_debug(stop, "setsockopt: MRT6_DONE"), logged_debug(stop, "No memory leaks detected."),
             logged_debug(stop, "MLD Proxy was using " + std::to_string(malloced_size) + " bytes.")});
}

TEST_F(mld_shutdown, flags_above_the_sign_bit_are_restored_as_found) {
  br0->saved_flags = 0x9003;
  when_stopped();
  then_in_order({"ioctl(fd 1101, SIOCSIFFLAGS) br0 flags=0x9003"});
}

TEST_F(mld_shutdown, routing_socket_is_not_closed) {
  when_stopped();
  for (const std::string &line : take_transcript()) {
    EXPECT_NE(line, "close(mld)");
  }
}

TEST_F(mld_shutdown, second_stop_finds_nothing_to_do) {
  when_stopped();
  then_anything();
  when_stopped();
  then(stopping + routing_released + memory_report());
  EXPECT_EQ(free_counter, malloc_counter);
}

struct mld_early_shutdown : mld_start_fixture {};

TEST_F(mld_early_shutdown, skips_the_upstream_interface_that_was_not_found_yet) {
  run([] {
    init_mld_config();
    init_mld_group();
    init_mld_host();
  });
  then_anything();
  MldRouter.socket = MLD_SOCKET;
  when([] { mld_proxy_stop(); });
  then(stopping + routing_released +
       lines{logged_debug(stop, "No memory leaks detected."),
             logged_debug(stop, "MLD Proxy was using " + std::to_string(malloced_size) + " bytes.")});
}

} // namespace
