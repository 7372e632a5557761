#include "core/start_up.h"

#include "core/settings.h"
#include "fixture.h"
#include "mld/mld_router.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace {

using namespace scripted;

struct start_up_steps : core_fixture {
  start_up_steps() { Kernel.interfaces = {{"wan0", 2, 0x1003, "fe80::2"}, {"br0", 3, 0x1003, "fe80::3"}}; }

  int when_prepared_for_4to6() {
    ProxyMode = PROXY_MODE_4TO6;
    int result = 1;
    when([&] { result = init_nvram_proc(); });
    return result;
  }
};

const std::string enabling = logged_debug("main", "Enable mc_forwarding to forward IPv6 streaming.");
const std::string echo = "system(echo 1 > /proc/sys/net/ipv6/conf/all/mc_forwarding)";
const lines handlers = {"signal(SIGKILL)", "signal(SIGTERM)", "signal(SIGHUP)", "signal(SIGUSR1)"};

lines joined(lines first, const lines &second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

const lines until_handlers = joined({enabling, echo}, handlers);

TEST_F(start_up_steps, router_starts_step_by_step) {
  EXPECT_EQ(when_started({"-u", "wan0", "-d", "br0"}), 0);
  then_in_order(joined(until_handlers, {
                                           logged_debug("init_mld_config", "Initializing MLD configuration settings."),
                                           logged_debug("init_mld_socket", "Initializing socket for MLD proxy."),
                                           "socket(AF_INET6, SOCK_RAW, 58)",
                                           logged_debug("init_mld_group", "Initializing MLD group list."),
                                           logged_debug("init_mld_host", "Initializing MLD host list."),
                                           logged_debug("init_mld_query", "Initializing MLD query list."),
                                           "socket(AF_INET6, SOCK_DGRAM, 0)",
                                           logged_debug("mld_create_network_list", "Set wan0 as UPSTREAM interface."),
                                           logged_debug("mld_create_network_list", "Set br0 as DOWNSTREAM interface."),
                                       }));
  EXPECT_EQ(MldRouter.socket, FIRST_NEW_SOCKET);
  ASSERT_NE(MldRouter.upstream_interface, nullptr);
  EXPECT_STREQ(MldRouter.upstream_interface->name.data(), "wan0");
}

TEST_F(start_up_steps, upstream_name_alone_is_enough) {
  EXPECT_EQ(when_started({"-u", "wan0"}), 0);
  then_anything();
  EXPECT_EQ(scripted::length(MldRouter.interfaces), 1);
  EXPECT_EQ(ProxyMode, PROXY_MODE_6TO6);
}

TEST_F(start_up_steps, wrong_command_line_asks_nothing_of_the_kernel) {
  EXPECT_EQ(when_started({"-d", "br0"}), -1);
  then(usage_lines);
}

TEST_F(start_up_steps, first_failing_step_ends_the_start) {
  const auto malloc_of = [](std::size_t bytes) { return "malloc(" + std::to_string(bytes) + ")"; };
  const struct {
    std::string failing;
    std::string reached;
    std::string error;
    bool stops; // the step itself stops the proxy
  } rows[] = {
      {"socket(AF_INET6, SOCK_RAW", logged_debug("init_mld_socket", "Initializing socket for MLD proxy."),
       logged_error("init_mld_socket", "Unable to open MLD Raw socket."), false},
      {malloc_of(sizeof(mld_group)), logged_debug("init_mld_group", "Initializing MLD group list."),
       logged_error("init_mld_group", "Unable to allocate memory for MLD groups."), false},
      {malloc_of(sizeof(mld_host)), logged_debug("init_mld_host", "Initializing MLD host list."),
       logged_error("init_mld_host", "Unable to allocate memory for host."), true},
      {malloc_of(sizeof(mld_query)), logged_debug("init_mld_query", "Initializing MLD query list."),
       logged_error("init_mld_query", "Unable to allocate memory for MLD queries."), true},
      {"socket(AF_INET6, SOCK_DGRAM", "socket(AF_INET6, SOCK_DGRAM, 0)",
       logged_error("mld_create_network_list", "Unable to open MLD socket for net iface."), true},
  };
  for (const auto &row : rows) {
    given_failure(row.failing, ENOMEM);
    EXPECT_EQ(when_started({"-u", "wan0"}), -1) << row.error;
    const lines all = take_transcript();
    const auto error = std::find(all.begin(), all.end(), row.error);
    ASSERT_NE(error, all.end()) << row.error;
    EXPECT_EQ(std::count(all.begin(), error, row.reached), 1) << row.reached;
    const auto stop = std::find(error, all.end(), logged_debug("mld_proxy_stop", "Stop MLD Proxy."));
    EXPECT_EQ(stop != all.end(), row.stops) << row.error;
    EXPECT_EQ(error + 1 == all.end(), !row.stops) << "nothing is torn down by the start itself";
    when([] { MldRouter.socket = 0; });
    Kernel.failures.clear();
    for (list *pool : {&MldRouter.free_groups, &MldRouter.free_hosts, &MldRouter.free_queries}) {
      while (list_node *record = list_remove(pool)) {
        std::free(record); // what the ended process would have left to the kernel
      }
    }
  }
}

TEST_F(start_up_steps, shell_that_fails_is_ignored) {
  given_failure("system(", ENOMEM);
  EXPECT_EQ(when_started({"-u", "wan0"}), 0);
  then_in_order({enabling, echo});
}

TEST_F(start_up_steps, handler_that_the_kernel_refuses_is_ignored) {
  given_failure("signal(SIGKILL)", EINVAL);
  EXPECT_EQ(when_started({"-u", "wan0"}), 0);
  then_in_order(handlers);
  EXPECT_EQ(Kernel.handlers.count(SIGKILL), 0u);
  EXPECT_EQ(Kernel.handlers[SIGTERM], Kernel.handlers[SIGHUP]);
  EXPECT_NE(Kernel.handlers[SIGTERM], Kernel.handlers[SIGUSR1]);
}

TEST_F(start_up_steps, lan_address_comes_from_the_nvram) {
  given_nvram("et0macaddr=02:00:5e:10:00:01\n");
  EXPECT_EQ(when_started({"-u", "wan0"}), 0);
  then_anything();
  EXPECT_EQ(LanMac, (std::array<std::uint8_t, 6>{0x02, 0x00, 0x5e, 0x10, 0x00, 0x01}));
}

TEST_F(start_up_steps, lan_address_is_read_after_forwarding_is_enabled) {
  given_nvram("et0macaddr=02:00:5e:10:00:01\n");
  const std::array<std::uint8_t, 6> unread{9, 9, 9, 9, 9, 9};
  LanMac = unread;
  std::array<std::uint8_t, 6> at_echo{};
  Kernel.on_request = [&](const std::string &request) { at_echo = request == echo ? LanMac : at_echo; };
  EXPECT_EQ(when_started({"-u", "wan0"}), 0);
  then_anything();
  EXPECT_EQ(at_echo, unread);
  EXPECT_NE(LanMac, unread);
}

TEST_F(start_up_steps, shell_commands_run_with_a_path_that_only_root_can_write_to) {
  const std::string inherited = std::getenv("PATH");
  setenv("PATH", "/tmp:.", 1);
  std::string at_echo;
  Kernel.on_request = [&](const std::string &request) { at_echo = request == echo ? std::getenv("PATH") : at_echo; };
  EXPECT_EQ(when_started({"-u", "wan0"}), 0);
  then_anything();
  EXPECT_EQ(at_echo, "/usr/sbin:/usr/bin:/sbin:/bin");
  setenv("PATH", inherited.c_str(), 1);
}

TEST_F(start_up_steps, missing_or_malformed_lan_address_leaves_zeros) {
  for (const char *file : {"", "et0macaddr=\n", "et0macaddr=02:00:5e:10:00\n"}) {
    given_nvram(file);
    given_failure("socket(AF_INET6, SOCK_RAW", EPERM); // the rest of the start does not matter here
    EXPECT_EQ(when_started({"-u", "wan0"}), -1);
    then_anything();
    EXPECT_EQ(LanMac, (std::array<std::uint8_t, 6>{}));
  }
}

TEST_F(start_up_steps, immediate_leave_needs_exactly_one) {
  const struct {
    const char *file;
    int immediate;
  } rows[] = {
      {"immediate_leave_enable=1\n", 1},  {"immediate_leave_enable=1 \n", 0}, {"immediate_leave_enable= 1\n", 0},
      {"immediate_leave_enable=0\n", 0},  {"immediate_leave_enable=\n", 0},   {"", 0},
      {"immediate_leave_enable=11\n", 0},
  };
  for (const auto &row : rows) {
    given_nvram(row.file);
    given_failure("socket(AF_INET6, SOCK_RAW", EPERM);
    ImmediateLeave = 7;
    EXPECT_EQ(when_started({"-u", "wan0"}), -1);
    then_anything();
    EXPECT_EQ(ImmediateLeave, row.immediate) << row.file;
  }
}

TEST_F(start_up_steps, verbosity_changes_no_line) {
  given_failure("socket(AF_INET6, SOCK_RAW", EPERM, -1);
  EXPECT_EQ(when_started({"-u", "wan0"}), -1);
  const std::string quiet = Kernel.output;
  Kernel.output.clear();
  EXPECT_EQ(when_started({"-v", "-u", "wan0"}), -1);
  EXPECT_EQ(ProxyDebugLevel, 10);
  EXPECT_EQ(Kernel.output, quiet);
  then_anything();
}

TEST_F(start_up_steps, background_child_goes_on_in_a_session_of_its_own) {
  EXPECT_EQ(when_started({"-b", "-u", "wan0"}), 0);
  then_in_order(joined({enabling, echo, "fork()", "setsid()"}, handlers));
}

TEST_F(start_up_steps, background_child_goes_on_without_a_session) {
  given_failure("setsid()", EPERM);
  EXPECT_EQ(when_started({"-b", "-u", "wan0"}), 0);
  then_in_order(joined({"setsid()"}, handlers));
}

TEST_F(start_up_steps, background_parent_exits_with_success) {
  Kernel.fork_result = 4711;
  when_started({"-b", "-u", "wan0"});
  then({enabling, echo, "fork()", "exit(0)"});
  EXPECT_EQ(Kernel.exit_status, 0);
}

TEST_F(start_up_steps, failed_fork_ends_the_start) {
  given_failure("fork()", EAGAIN);
  EXPECT_EQ(when_started({"-b", "-u", "wan0"}), -1);
  then({enabling, echo, "fork()", logged_error("run_as_daemon", "Daemonizing failed.")});
}

TEST_F(start_up_steps, mode_4to4_is_refused_after_the_handlers_without_touching_forwarding) {
  given_nvram("et0macaddr=02:00:5e:10:00:01\nimmediate_leave_enable=1\n");
  ProxyMode = PROXY_MODE_4TO4;
  EXPECT_EQ(when_started({"-u", "wan0"}), -1);
  then(joined(handlers, {logged_error("main", "Unknown proxy mode!")}));
  EXPECT_EQ(LanMac, (std::array<std::uint8_t, 6>{}));
  EXPECT_EQ(ImmediateLeave, 1);
}

TEST_F(start_up_steps, mode_4to6_is_prepared_and_then_refused) {
  given_nvram("et0macaddr=02:00:5e:10:00:01\nmld_prefix=ff3e:20:2001:db8::\n");
  ProxyMode = PROXY_MODE_4TO6;
  EXPECT_EQ(when_started({"-u", "wan0"}), -1);
  then(joined(joined({"system(ifconfig natpt0 up)", "system(brctl addif br0 natpt0)", enabling, echo}, handlers),
              {logged_error("main", "Unknown proxy mode!")}));
  EXPECT_EQ(text(MldPrefix), "ff3e:20:2001:db8::");
  EXPECT_EQ(LanMac, (std::array<std::uint8_t, 6>{}));
}

TEST_F(start_up_steps, mode_4to6_without_a_prefix_ends_before_anything_is_changed) {
  ProxyMode = PROXY_MODE_4TO6;
  EXPECT_EQ(when_started({"-u", "wan0"}), -1);
  then({logged_error("init_nvram_proc", "MLD Prefix is not an IPv6 multicast address.")});
}

TEST_F(start_up_steps, prefix_must_be_a_multicast_address) {
  const std::string empty = "nvram value \"mld_prefix\" for MLD prefix is NULL";
  const std::string not_multicast = "MLD Prefix is not an IPv6 multicast address.";
  const struct {
    const char *file;
    std::string error;
  } rows[] = {
      {"mld_prefix=\n", empty},
      {"", not_multicast},
      {"mld_prefix=2001:db8::1\n", not_multicast},
      {"mld_prefix=fe80::1\n", not_multicast},
      {"mld_prefix=nonsense\n", not_multicast},
      {"mld_prefix=ff3e::/96\n", not_multicast},
  };
  for (const auto &row : rows) {
    given_nvram(row.file);
    MldPrefix.fill(0xff); // left over: cleared before the text is read
    EXPECT_EQ(when_prepared_for_4to6(), -1) << row.file;
    then({logged_error("init_nvram_proc", row.error)});
  }
}

TEST_F(start_up_steps, prefix_is_kept_and_the_translator_brought_up_even_if_its_tools_fail) {
  given_nvram("mld_prefix=ff05::\n");
  given_failure("system(", ENOENT, -1);
  EXPECT_EQ(when_prepared_for_4to6(), 0);
  then({"system(ifconfig natpt0 up)", "system(brctl addif br0 natpt0)"});
  EXPECT_EQ(MldPrefix, address("ff05::"));
}

} // namespace
