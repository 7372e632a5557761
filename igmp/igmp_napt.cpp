#include "igmp/igmp_napt.h"

#include "core/log.h"
#include "core/settings.h"

#include <algorithm>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The device's private requests.
struct napt_request {
  std::uint16_t number;
  const char *failure; // what the log says when the device refuses
};

constexpr napt_request napt_map_add{SIOCDEVPRIVATE, "1. Set NATPTMAPADD by ioctl failed!"};
constexpr napt_request napt_map_del{SIOCDEVPRIVATE + 1, "1. Set NATPTMAPDEL by ioctl failed!"};

// What the device reads: the pair of addresses, then a number whose meaning is the device's own.
struct napt_map {
  std::uint32_t group;
  std::array<std::uint8_t, 12> prefix; // with the word behind it the IPv6 group
  std::uint32_t mapped_group;
  std::uint32_t device_value; // host order
};
static_assert(sizeof(napt_map) == 24);

constexpr std::uint32_t device_value_of_every_map = 1000000;
constexpr char device_name[] = "natpt0";

void request_map(log_site site, const napt_request &wanted, std::uint32_t group) {
  const int device_socket = socket(AF_INET, SOCK_RAW, IPPROTO_RAW);
  if (device_socket < 0) {
    log_error(site, "Create socket for set NAPT map by ioctl failed!");
    return;
  }
  napt_map map{group, {}, group, device_value_of_every_map};
  std::copy_n(MldPrefix.begin(), map.prefix.size(), map.prefix.begin());
  ifreq request{};
  std::copy(std::begin(device_name), std::end(device_name), request.ifr_name);
  request.ifr_data = reinterpret_cast<char *>(&map);
  if (ioctl(device_socket, wanted.number, &request) < 0) {
    log_error(site, "%s", wanted.failure);
    return;
  }
  close(device_socket);
}

} // namespace

void add_napt_map(std::uint32_t group) { request_map(IGMP_HERE, napt_map_add, group); }

void del_napt_map(std::uint32_t group) { request_map(IGMP_HERE, napt_map_del, group); }
