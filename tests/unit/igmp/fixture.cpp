#include "fixture.h"

#include "core/index_table.h"
#include "core/memory.h"
#include "igmp/igmp_group.h"
#include "igmp/igmp_receive.h"
#include "igmp/igmp_timers.h"
#include "igmp/igmp_wire.h"
#include "platform/nvram_file.h"
#include "tests/support/invariants.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace scripted {

namespace {

void reset_igmp() {
  IgmpRouter = igmp_router{};
  IgmpStartUpQueryIsSend = 0;
  index_table = {};
  LanIndex = 0;
  NatptIndex = 0;
}

// Every key is absent, no matter what NVRAM file the machine has that runs the tests.
void empty_nvram() {
  setenv(NVRAM_PATH_VARIABLE, (Kernel.directory + "/no-nvram").c_str(), 1);
  nvram_file_forget();
}

void forget_nvram() {
  unsetenv(NVRAM_PATH_VARIABLE);
  nvram_file_forget();
}

igmp_interface *make_interface(const char *name, int index, igmp_role role, const std::string &address) {
  auto *intr = my_malloc_record<igmp_interface>();
  intr->name = copy_interface_name(name);
  intr->ifindex = index;
  intr->vif_index = index;
  intr->role = role;
  intr->socket = IGMP_SOCKET + index;
  intr->address = word(address);
  intr->saved_flags = 0x1003;
  intr->is_querier = 1;
  intr->version = 2;
  Kernel.names[intr->socket] = name;
  Kernel.interfaces.push_back({name, index, 0x1003, "", address});
  list_add(&IgmpRouter.interfaces, &intr->link);
  add_dev_index(index);
  return intr;
}

void free_all(list *records) {
  while (list_node *record = list_remove(records)) {
    my_free(record);
  }
}

} // namespace

std::uint32_t word(const std::string &dotted) {
  in_addr parsed{};
  EXPECT_EQ(inet_pton(AF_INET, dotted.c_str(), &parsed), 1) << dotted;
  return parsed.s_addr;
}

std::string wire_text(std::uint32_t native) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &native, text, sizeof(text));
  return text;
}

std::string octets_text(std::uint32_t native) {
  std::string text = std::to_string(native >> 24);
  for (const int shift : {16, 8, 0}) {
    text += "." + std::to_string((native >> shift) & 0xff);
  }
  return text;
}

std::string octets_text(const std::string &dotted) { return octets_text(word(dotted)); }

std::string logged_information(const std::string &function, const std::string &message) {
  return logged('I', function, message);
}

std::vector<std::uint8_t> encoded(const igmp_datagram &datagram) {
  const auto header_bytes = static_cast<std::size_t>(datagram.header_words) * 4;
  std::vector<std::uint8_t> bytes(header_bytes + static_cast<std::size_t>(datagram.message_bytes), 0);
  bytes.resize(std::max<std::size_t>(bytes.size(), IP_HEADER_BYTES));
  bytes[0] = static_cast<std::uint8_t>(0x40 | datagram.header_words);
  bytes[9] = static_cast<std::uint8_t>(datagram.protocol);
  const std::uint32_t sender = word(datagram.sender);
  std::memcpy(&bytes[12], &sender, sizeof(sender));
  bytes.resize(header_bytes + 8);
  bytes[header_bytes] = static_cast<std::uint8_t>(datagram.type);
  const std::uint32_t group = word(datagram.group);
  std::memcpy(&bytes[header_bytes + 4], &group, sizeof(group));
  bytes.resize(header_bytes + static_cast<std::size_t>(datagram.message_bytes));
  return bytes;
}

std::string received_line(const std::string &sender, const std::string &destination, int ifindex) {
  return logged_information("igmp_network_socket_read_data", "Received packet src: " + octets_text(sender) +
                                                                 ", dst: " + octets_text(destination) +
                                                                 ", interface: " + std::to_string(ifindex));
}

igmp_fixture::igmp_fixture() {
  reset_igmp();
  empty_nvram();
  ProxyMode = PROXY_MODE_4TO4;
  UpstreamInterfacesName = "wan0";
  run([] {
    init_igmp_config();
    init_igmp_group();
    init_igmp_query();
  });
  take_transcript();
  IgmpRouter.socket = IGMP_SOCKET;
  Kernel.names[IGMP_SOCKET] = "igmp";
  wan0 = make_interface("wan0", 2, IGMP_ROLE_UPSTREAM, "192.0.2.2");
  br0 = make_interface("br0", 3, IGMP_ROLE_DOWNSTREAM, "198.51.100.3");
  lan1 = make_interface("lan1", 4, IGMP_ROLE_DOWNSTREAM, "203.0.113.4");
  IgmpRouter.upstream_interface = wan0;
}

igmp_fixture::~igmp_fixture() {
  free_everything();
  reset_igmp();
  forget_nvram();
}

void igmp_fixture::free_everything() {
  while (auto *intr = list_pop<igmp_interface>(&IgmpRouter.interfaces)) {
    while (auto *group = list_pop<igmp_group>(&intr->groups)) {
      free_all(&group->queries);
      my_free(group);
    }
    my_free(intr);
  }
  free_all(&IgmpRouter.free_groups);
  free_all(&IgmpRouter.free_queries);
  IgmpRouter.upstream_interface = nullptr;
}

void igmp_fixture::given_mode_4to6() {
  ProxyMode = PROXY_MODE_4TO6;
  MldPrefix = scripted::address("ff0e:1:2:3:4:5::");
  for (igmp_interface *intr : {wan0, br0, lan1}) {
    intr->socket6 = IGMP_SOCKET + 100 + intr->ifindex;
    Kernel.names[intr->socket6] = std::string(intr->name.data()) + "/6";
  }
}

igmp_group *igmp_fixture::given_group(igmp_interface *intr, const std::string &group, igmp_group_state state) {
  auto *made = list_pop<igmp_group>(&IgmpRouter.free_groups);
  *made = igmp_group{};
  made->owner = &IgmpRouter.upstream_name;
  made->group = word(group);
  made->group_timer = 350;
  made->v1_host_timer = state == IGMP_GROUP_V1_MEMBERS_PRESENT ? 350 : 0;
  made->state = state;
  made->report_count = 1;
  list_add(&intr->groups, &made->link);
  return made;
}

void igmp_fixture::given_checking(igmp_group *group, int queries, int retransmit_timer) {
  group->state = IGMP_GROUP_CHECKING_MEMBERSHIP;
  group->retransmit_timer = retransmit_timer;
  for (int i = 0; i < queries; ++i) {
    auto *query = list_pop<igmp_query>(&IgmpRouter.free_queries);
    *query = igmp_query{};
    query->type = IGMP_MEMBERSHIP_QUERY;
    query->max_resp = 10;
    query->group = group->group;
    list_append(&group->queries, &query->link);
  }
}

void igmp_fixture::given_pool_left(list *pool, int records_left) {
  has_whole_pools = false;
  while (length(*pool) > records_left) {
    my_free(list_remove(pool));
  }
}

void igmp_fixture::when_received(const igmp_datagram &datagram, int ifindex) {
  Kernel.messages.push_back({encoded(datagram), datagram.sender, ifindex, "224.0.0.1"});
  when([] { igmp_network_socket_read_data(); });
}

void igmp_fixture::when_ticked(int ticks) {
  for (int i = 0; i < ticks; ++i) {
    when([] { igmp_router_timer_expired(); });
  }
}

igmp_start_fixture::igmp_start_fixture() {
  reset_igmp();
  empty_nvram();
  ProxyMode = PROXY_MODE_4TO4;
}

igmp_start_fixture::~igmp_start_fixture() {
  reset_igmp();
  forget_nvram();
}

void given_nvram(const lines &entries) {
  const std::string path = Kernel.directory + "/nvram";
  std::ofstream file(path);
  for (const std::string &entry : entries) {
    file << entry << '\n';
  }
  setenv(NVRAM_PATH_VARIABLE, path.c_str(), 1);
  nvram_file_forget();
}

lines joined(std::initializer_list<lines> parts) {
  lines all;
  for (const lines &part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

lines igmp_fixture::broken_invariants() {
  lines complaints = proxy_fixture::broken_invariants();
  record_count count;
  const std::string complaint = check_igmp_records(count);
  if (!complaint.empty()) {
    complaints.push_back(complaint);
  }
  if (has_whole_pools && count.groups != IGMP_GROUP_POOL_SIZE) {
    complaints.push_back("groups in pool and lists: " + std::to_string(count.groups));
  }
  if (has_whole_pools && count.queries != IGMP_QUERY_POOL_SIZE) {
    complaints.push_back("queries in pool and lists: " + std::to_string(count.queries));
  }
  return complaints;
}

} // namespace scripted
