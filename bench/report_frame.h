// Ethernet frames with MLD reports, as hosts send them, and a way to put them on a link.
#pragma once

#include "core/address.h"
#include "mld/mld_record.h"

#include <cstdint>
#include <vector>

using frame = std::vector<std::uint8_t>;

inline constexpr ipv6_address reporting_host{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x77};

ipv6_address group_number(unsigned number);  // ff0e::b:0 and up
ipv6_address source_number(unsigned number); // 2001:db8:2::1 and up

// A record of an MLDv2 report by itself.
std::vector<std::uint8_t> make_record(mld_record_type type, const ipv6_address &group,
                                      const std::vector<ipv6_address> &sources);

// An MLDv2 report with one record (RFC 3810, section 5.2), sent by `reporting_host`.
frame make_v2_report(mld_record_type type, const ipv6_address &group, const std::vector<ipv6_address> &sources);

// An MLDv1 report (RFC 2710, section 3).
frame make_v1_report(const ipv6_address &group);

// A packet socket that sends on that link of the namespace that the caller is in.
int open_injector(const char *link);
void inject(int injector, const frame &what);
