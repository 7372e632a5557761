#include "status/kernel_tables.h"

#include "status/lines.h"

#include <arpa/inet.h>
#include <cinttypes>
#include <cstdio>

namespace {

// Parent of a shield: no MIF has this number, since no interface has it as its index.
constexpr std::int32_t shield_parent = 0;

constexpr int mif_numbers = 32; // MAXMIFS of linux/mroute6.h

// The kernel writes all eight groups of digits. Returns false for anything but an address.
bool shorten_address(group_text &shortened, const char *full) {
  in6_addr address;
  return inet_pton(AF_INET6, full, &address) == 1 &&
         inet_ntop(AF_INET6, &address, shortened.data(), INET6_ADDRSTRLEN) != nullptr;
}

// "  3:1    4:1": MIF numbers with their thresholds.
std::uint32_t parse_outputs(const char *place) {
  std::uint32_t outputs = 0;
  int number = 0;
  int threshold = 0;
  int length = 0;
  while (std::sscanf(place, "%d:%d%n", &number, &threshold, &length) == 2) {
    if (number >= 0 && number < mif_numbers) {
      outputs |= std::uint32_t{1} << number;
    }
    place += length;
  }
  return outputs;
}

} // namespace

void parse_mif_table(rows_of<mif_row> &mifs, const char *table) {
  line_buffer line;
  while (next_line(line, table)) {
    constexpr int items = 6;
    mif_row read{};
    if (std::sscanf(line.data(), "%d %15s %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64, &read.number, read.name.data(),
                    &read.bytes_in, &read.packets_in, &read.bytes_out, &read.packets_out) == items) {
      add_row(mifs, read);
    }
  }
}

void parse_cache_table(rows_of<cache_row> &entries, const char *table) {
  line_buffer line;
  while (next_line(line, table)) {
    constexpr int items = 6;
    group_text group{};
    group_text origin{};
    cache_row read{};
    int length = 0;
    if (std::sscanf(line.data(), "%45s %45s %d %" SCNu64 " %" SCNu64 " %" SCNu64 "%n", group.data(), origin.data(),
                    &read.parent, &read.packets, &read.bytes, &read.wrong_interface, &length) == items &&
        read.parent != shield_parent && shorten_address(read.group, group.data()) &&
        shorten_address(read.origin, origin.data())) {
      read.outputs = parse_outputs(line.data() + length);
      add_row(entries, read);
    }
  }
}

// "  br0: bytes packets errs drop fifo frame compressed multicast bytes packets ...": received, then sent.
void parse_device_table(rows_of<device_row> &devices, const char *table) {
  line_buffer line;
  while (next_line(line, table)) {
    constexpr int items = 2;
    device_row read{};
    if (std::sscanf(line.data(), " %15[^: ]: %*u %*u %*u %*u %*u %*u %*u %*u %*u %" SCNu64, read.name.data(),
                    &read.packets_sent) == items) {
      add_row(devices, read);
    }
  }
}

// "address index prefix_length scope flags name", numbers in hexadecimal.
void parse_indexes(rows_of<device_row> &devices, const char *if_inet6) {
  line_buffer line;
  while (next_line(line, if_inet6)) {
    constexpr int items = 2;
    unsigned index = 0;
    interface_text name{};
    if (std::sscanf(line.data(), "%*32[0-9a-f] %8x %*x %*x %*x %15s", &index, name.data()) != items) {
      continue;
    }
    for (device_row &device : all_rows(devices)) {
      if (std::strcmp(device.name.data(), name.data()) == 0) {
        device.index = static_cast<std::int32_t>(index);
      }
    }
  }
}

const device_row *find_device(const rows_of<device_row> &devices, const interface_text &name) {
  for (const device_row &device : all_rows(devices)) {
    if (std::strcmp(device.name.data(), name.data()) == 0) {
      return &device;
    }
  }
  return nullptr;
}

const mif_row *find_mif(const rows_of<mif_row> &mifs, std::int32_t number) {
  for (const mif_row &mif : all_rows(mifs)) {
    if (mif.number == number) {
      return &mif;
    }
  }
  return nullptr;
}
