#include "proxy_fixture.h"

#include "core/memory.h"
#include "core/options.h"
#include "core/settings.h"
#include "core/signals.h"
#include "invariants.h"
#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_receive.h"
#include "mld/mld_timers.h"
#include "mld/mld_wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace scripted {

namespace {

int HostsDeleted = 0;     // records that left the host pool for good
bool HasMldPools = false; // the fixture filled them

void reset_daemon() {
  ProxyMode = PROXY_MODE_6TO6;
  ProxyDebugLevel = 0;
  ProxyIsADaemon = 0;
  UpstreamInterfacesName = nullptr;
  DownstreamInterfacesName = {};
  DownstreamInterfacesNum = 0;
  IgnoreInterfacesName = {};
  IgnoreInterfacesNum = 0;
  ForceNonQuerier = 0;
  ImmediateLeave = 0;
  LanMac = {};
  MldPrefix = {};
  InterfaceNameCounter = 0;
  timer_pipe = {-1, -1};
  ProxyIsRunning = 0;
  StateDumpIsWanted = 0;
  malloc_counter = 0;
  free_counter = 0;
  malloced_size = 0;
  MyInAddr = {};
  MldRouter = mld_router{};
  MldGroupIndex = list_index{};
  MldHostIndex = list_index{};
  MldBlock = 0;
  MldStartUpQueryIsSend = 0;
  mld_tmp_origin = {};
  optind = 0; // makes getopt start afresh
}

template <typename chooser> lines selected(const lines &all, chooser is_wanted) {
  lines kept;
  std::copy_if(all.begin(), all.end(), std::back_inserter(kept), is_wanted);
  return kept;
}

std::string joined(const lines &all) {
  std::string text;
  for (const std::string &line : all) {
    text += "  " + line + "\n";
  }
  return text;
}

mld_interface *make_interface(const char *name, std::uint32_t index, mld_role role, const std::string &link_local) {
  auto *intr = my_malloc_record<mld_interface>();
  intr->name = copy_interface_name(name);
  intr->ifindex = index;
  intr->vif_index = index;
  intr->role = role;
  intr->socket = static_cast<int>(1000 + index);
  intr->link_local = address(link_local);
  intr->saved_flags = 0x1003;
  intr->is_querier = 1;
  Kernel.names[intr->socket] = name;
  Kernel.interfaces.push_back({name, static_cast<int>(index), 0x1003, link_local});
  list_add(&MldRouter.interfaces, &intr->link);
  return intr;
}

} // namespace

ipv6_address address(const std::string &text) {
  ipv6_address parsed{};
  EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), parsed.data()), 1) << text;
  return parsed;
}

std::string log_text(const std::string &text) { return ADDRESS_TEXT(address(text)); }

std::string text(const ipv6_address &address) {
  char buffer[INET6_ADDRSTRLEN] = "";
  inet_ntop(AF_INET6, address.data(), buffer, sizeof(buffer));
  return buffer;
}

int length(const list &of) {
  int count = 0;
  for (const list_node *node = list_get_head(&of); node != nullptr; node = list_get_next(node)) {
    if (++count > 100000) {
      ADD_FAILURE() << "endless list";
      break;
    }
  }
  return count;
}

proxy_fixture::proxy_fixture() {
  HasMldPools = false;
  HostsDeleted = 0;
  reset();
  reset_daemon();
  constexpr mode_t private_folder = 0700;
  chmod(Kernel.directory.c_str(), private_folder);
}

proxy_fixture::~proxy_fixture() { reset_daemon(); }

void proxy_fixture::TearDown() {
  const lines forgotten = selected(take_transcript(), is_request);
  EXPECT_TRUE(forgotten.empty()) << "requests that nobody expected:\n" << joined(forgotten);
}

void proxy_fixture::when(const std::function<void()> &daemon_code) {
  run(daemon_code);
  const lines complaints = broken_mld_invariants();
  EXPECT_TRUE(complaints.empty()) << joined(complaints);
}

void proxy_fixture::then(const lines &expected) {
  const lines happened = take_transcript();
  EXPECT_EQ(happened, expected) << "happened:\n" << joined(happened);
}

void proxy_fixture::then_requests(const lines &expected) {
  const lines happened = selected(take_transcript(), is_request);
  EXPECT_EQ(happened, expected) << "happened:\n" << joined(happened);
}

void proxy_fixture::then_log(const lines &expected) {
  const lines happened = selected(take_transcript(), [](const std::string &line) { return !is_request(line); });
  EXPECT_EQ(happened, expected) << "happened:\n" << joined(happened);
}

void proxy_fixture::then_in_order(const lines &expected) {
  const lines happened = take_transcript();
  auto from = happened.begin();
  for (const std::string &line : expected) {
    from = std::find(from, happened.end(), line);
    if (from == happened.end()) {
      ADD_FAILURE() << "missing, or out of order: " << line << "\nhappened:\n" << joined(happened);
      return;
    }
    ++from;
  }
}

void proxy_fixture::then_anything() { take_transcript(); }

void proxy_fixture::given_failure(const std::string &request, int error, int times) {
  Kernel.failures.push_back({request, error, times});
}

void proxy_fixture::given_sticky_folder() {
  constexpr mode_t open_to_all = 0777;
  ASSERT_EQ(chmod(Kernel.directory.c_str(), open_to_all | S_ISVTX), 0);
}

void proxy_fixture::given_of_nobody(const std::string &path) {
  constexpr uid_t nobody = 65534;
  ASSERT_EQ(lchown(path.c_str(), nobody, nobody), 0);
}

mld_fixture::mld_fixture() {
  UpstreamInterfacesName = "wan0";
  run([] {
    init_mld_config();
    init_mld_group();
    init_mld_host();
    init_mld_query();
  });
  take_transcript();
  MldRouter.socket = MLD_SOCKET;
  wan0 = make_interface("wan0", 2, MLD_ROLE_UPSTREAM, "fe80::2");
  br0 = make_interface("br0", 3, MLD_ROLE_DOWNSTREAM, "fe80::3");
  lan1 = make_interface("lan1", 4, MLD_ROLE_DOWNSTREAM, "fe80::4");
  MldRouter.upstream_interface = wan0;
  HasMldPools = true;
}

mld_fixture::~mld_fixture() {
  // Without requests: what the daemon would undo in the kernel is another test's matter.
  const auto free_all = [](list *records) {
    while (list_node *record = list_remove(records)) {
      my_free(record);
    }
  };
  while (auto *intr = list_pop<mld_interface>(&MldRouter.interfaces)) {
    while (auto *group = list_pop<mld_group>(&intr->groups)) {
      free_all(&group->queries);
      my_free(group);
    }
    free_all(&intr->hosts);
    my_free(intr);
  }
  free_all(&MldRouter.free_groups);
  free_all(&MldRouter.free_hosts);
  free_all(&MldRouter.free_queries);
}

mld_group *mld_fixture::given_group(mld_interface *intr, const std::string &group, const lines &sources) {
  auto *made = list_pop<mld_group>(&MldRouter.free_groups);
  *made = mld_group{};
  made->owner = &MldRouter.upstream_name;
  made->group = address(group);
  made->group_timer = 350;
  made->state = MLD_GROUP_MEMBERS_PRESENT;
  made->report_count = 1;
  for (const std::string &source : sources) {
    mld_append_source(made, address(source), 1);
  }
  mld_link_group(intr, made);
  return made;
}

void mld_fixture::given_checking(mld_group *group, int queries, int retransmit_timer) {
  group->state = MLD_GROUP_CHECKING_MEMBERSHIP;
  group->retransmit_timer = retransmit_timer;
  for (int i = 0; i < queries; ++i) {
    auto *query = list_pop<mld_query>(&MldRouter.free_queries);
    *query = mld_query{};
    query->type = ICMPV6_MGM_QUERY;
    query->max_resp = 10;
    query->group = group->group;
    list_append(&group->queries, &query->link);
  }
}

void mld_fixture::given_pool_left(list *pool, int records_left) {
  HasMldPools = false; // the books no longer balance
  while (length(*pool) > records_left) {
    my_free(list_remove(pool));
  }
}

void mld_fixture::when_received(const std::vector<std::uint8_t> &bytes, const std::string &sender, int ifindex) {
  Kernel.messages.push_back({bytes, sender, ifindex});
  when([] { mld_network_socket_read_data(); });
}

void mld_fixture::when_ticked(int ticks) {
  for (int i = 0; i < ticks; ++i) {
    when([] { mld_router_timer_expired(); });
  }
}

int mld_fixture::hosts_deleted() const { return HostsDeleted; }

std::vector<std::uint8_t> mldv1_message(int type, const std::string &group) {
  std::vector<std::uint8_t> bytes(24, 0);
  bytes[0] = static_cast<std::uint8_t>(type);
  const ipv6_address parsed = address(group);
  std::copy(parsed.begin(), parsed.end(), bytes.begin() + 8);
  return bytes;
}

owned_record record(int type, const std::string &group, const lines &sources) {
  owned_record made;
  made.bytes = {static_cast<std::uint8_t>(type), 0, static_cast<std::uint8_t>(sources.size() >> 8),
                static_cast<std::uint8_t>(sources.size())};
  const ipv6_address parsed = address(group);
  made.bytes.insert(made.bytes.end(), parsed.begin(), parsed.end());
  for (const std::string &source : sources) {
    const ipv6_address bytes = address(source);
    made.bytes.insert(made.bytes.end(), bytes.begin(), bytes.end());
  }
  return made;
}

std::vector<std::uint8_t> mldv2_report(const std::vector<group_record> &records) {
  std::vector<std::uint8_t> bytes{
      143, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(records.size() >> 8), static_cast<std::uint8_t>(records.size())};
  for (const group_record &one : records) {
    const owned_record encoded = record(one.type, one.group, one.sources);
    bytes.insert(bytes.end(), encoded.bytes.begin(), encoded.bytes.end());
  }
  return bytes;
}

lines broken_mld_invariants() {
  lines complaints;
  record_count count;
  const std::string complaint = check_mld_records(count);
  if (!complaint.empty()) {
    complaints.push_back(complaint);
  }
  if (!HasMldPools) {
    return complaints;
  }
  if (count.groups != MLD_GROUP_POOL_SIZE) {
    complaints.push_back("groups in pool and lists: " + std::to_string(count.groups));
  }
  if (count.queries != MLD_QUERY_POOL_SIZE) {
    complaints.push_back("queries in pool and lists: " + std::to_string(count.queries));
  }
  const int deleted = MLD_HOST_POOL_SIZE - count.hosts;
  if (deleted < HostsDeleted) {
    complaints.push_back("deleted host records came back");
  }
  HostsDeleted = deleted;
  return complaints;
}

} // namespace scripted
