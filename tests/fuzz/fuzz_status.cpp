// What tarnwick-status reads: the daemon's files, the kernel's tables, /proc of a process, and names on their way out.
// The first byte chooses the parser.
#include "mute_kernel.h"
#include "status/daemon_process.h"
#include "status/json_text.h"
#include "status/kernel_tables.h"
#include "status/printable.h"
#include "status/raw_socket.h"
#include "status/state_files.h"

#include <string>

namespace {

enum class parser : std::uint8_t { state_files, tables, devices, process, texts };
constexpr std::size_t parsers = 5;

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
  free_rows(mifs);
  free_rows(entries);
  free_rows(inodes);
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
    break;
  case parser::texts:
    print(file.c_str());
    break;
  }
  return 0;
}
