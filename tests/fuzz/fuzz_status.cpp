// What tarnwick-status reads: the daemon's files, the kernel's tables and netlink answers, /proc of a process, captured
// packets, the firewall's rules, and names on their way out. The first byte chooses the parser.
#include "mute_kernel.h"
#include "status/daemon_process.h"
#include "status/group_capture.h"
#include "status/json_reader.h"
#include "status/json_text.h"
#include "status/kernel_tables.h"
#include "status/memberships.h"
#include "status/network_tables.h"
#include "status/printable.h"
#include "status/process_room.h"
#include "status/raw_socket.h"
#include "status/state_files.h"

#include <string>

namespace {

enum class parser : std::uint8_t { state_files, tables, devices, process, texts, netlink, packet, rules };
constexpr std::size_t parsers = 8;

void require(bool holds, const char *what) {
  if (!holds) {
    mute::fail(what);
  }
}

void read_state_files(const char *file) {
  rows_of<interface_counters> interfaces;
  rows_of<group_line> groups;
  parse_type_messages(interfaces, file);
  parse_join_state(groups, file);
  confirm_interfaces(interfaces, groups, file);
  for (const group_line &line : all_rows(groups)) {
    require(line.group.back() == '\0' && std::strpbrk(line.group.data(), "0123456789") != nullptr, "not a group");
  }
  free_rows(interfaces);
  free_rows(groups);
}

void read_tables(const char *file) {
  rows_of<mif_row> mifs;
  rows_of<cache_row> entries;
  rows_of<std::uint64_t> inodes;
  parse_mif_table(mifs, file);
  parse_cache_table(entries, file);
  parse_raw_icmpv6_sockets(inodes, file);
  for (const cache_row &entry : all_rows(entries)) {
    require(std::strchr(entry.group.data(), ':') != nullptr, "an entry without address");
  }
  rows_of<membership_row> memberships;
  rows_of<group_source_row> sources;
  parse_memberships(memberships, file);
  parse_group_sources(sources, file);
  for (const membership_row &membership : all_rows(memberships)) {
    require(std::strchr(membership.group.data(), ':') != nullptr, "a membership without address");
  }
  free_rows(mifs);
  free_rows(entries);
  free_rows(inodes);
  free_rows(memberships);
  free_rows(sources);
}

void read_devices(const char *file) {
  rows_of<device_row> devices;
  parse_device_table(devices, file);
  parse_indexes(devices, file);
  for (const device_row &device : all_rows(devices)) {
    require(find_device(devices, device.name) != nullptr, "an interface that is not found");
  }
  free_rows(devices);
}

void read_process_files(const char *file) {
  process_facts facts{};
  if (parse_process_stat(facts, file)) {
    require(facts.name.back() == '\0', "a name without end");
  }
  parse_catches_dump_signal(file);
  parse_user(file);
  parse_is_stopped(file);
  parse_descriptor_limit(file);
}

// Entries end with NUL, and the last one may be cut.
void read_settings(const std::string &file) {
  text environment;
  add_bytes(environment, file.data(), file.size());
  find_variable(environment, "TARNWICK_NVRAM");
  text value;
  parse_setting(value, file.c_str(), "et0macaddr");
  require(std::strchr(text_of(value), '\n') == nullptr, "a setting of two lines");
  free_rows(environment);
  free_rows(value);
}

// Each answer, read as any of the three dumps.
void read_netlink(const std::string &datagrams) {
  const netlink_bytes messages{reinterpret_cast<const std::byte *>(datagrams.data()), datagrams.size()};
  network_tables tables{};
  parse_links(tables.links, messages);
  parse_link_locals(tables.addresses, messages);
  parse_bridge_groups(tables, messages);
  for (const link_row &link : all_rows(tables.links)) {
    require(link.name.back() == '\0' && link.querier.back() == '\0', "a name without end");
    require(link.name[0] == '\0' || find_link(tables, link.name.data()) != nullptr, "a link that is not found");
  }
  free_network_tables(tables);
}

void read_packet(const std::string &packet) {
  group_capture capture{1, -1, 0, 0, -1, {}};
  note_packet(capture, std::span<const char>(packet.data(), packet.size()), false);
  note_packet(capture, std::span<const char>(packet.data(), packet.size()), true);
  constexpr int most_hops = 255;
  require(capture.least_hop_limit >= -1 && capture.least_hop_limit <= most_hops, "a hop limit beyond a byte");
}

void read_rules(const std::string &ruleset) {
  json_document rules{};
  if (parse_json(rules, ruleset.c_str())) {
    for (std::uint32_t value = 0; value < rules.values.count; ++value) {
      require(text_in(rules, value).size() <= ruleset.size(), "a text beyond the document");
      require(rules.values.first[value].next > value, "a value that ends before it begins");
      member_of(rules, value, "chain");
    }
  }
  free_rows(rules.values);
}

void print(const char *bytes) {
  for (const bool is_utf8 : {false, true}) {
    text shown;
    add_printable(shown, bytes, is_utf8);
    for (const char *byte = text_of(shown); *byte != '\0'; ++byte) {
      const auto value = static_cast<unsigned char>(*byte);
      require((value >= 0x20 && value != 0x7f) || value == '\n', "a control character");
      require(is_utf8 || value < 0x80, "a byte beyond ASCII");
    }
    free_rows(shown);
  }
  text json;
  add_json_text(json, bytes);
  require(json.count >= 2 && json.first[json.count - 1] == '"', "a string without end");
  free_rows(json);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string file(reinterpret_cast<const char *>(bytes) + 1, size - 1);
  switch (static_cast<parser>(bytes[0] % parsers)) {
  case parser::state_files:
    read_state_files(file.c_str());
    break;
  case parser::tables:
    read_tables(file.c_str());
    break;
  case parser::devices:
    read_devices(file.c_str());
    break;
  case parser::process:
    read_process_files(file.c_str());
    read_settings(file);
    break;
  case parser::texts:
    print(file.c_str());
    break;
  case parser::netlink:
    read_netlink(file);
    break;
  case parser::packet:
    read_packet(file);
    break;
  case parser::rules:
    read_rules(file);
    break;
  }
  return 0;
}
