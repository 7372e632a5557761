// What a host says about one group: a record of an MLDv2 report, an MLDv1 report, or an MLDv1 done.
#pragma once

#include "core/address.h"
#include "mld/mld_record.h"

#include <cstddef>
#include <cstdint>

enum class host_wish : std::uint8_t {
  nothing_new,
  any_source,
  all_but_listed,
  listed,    // and perhaps others, of which it says nothing
  none,      // it leaves the group
  not_listed // it leaves these sources
};

struct host_report {
  std::uint32_t index; // downstream interface on which it was heard
  std::size_t place;   // of that interface on the command line
  ipv6_address host;
  ipv6_address group;
  host_wish wish;
  bool is_version_1;
  const mld_record *listed; // the record, where it claims sources; else null
};

// What a record says (RFC 3810, section 5.2.12). A kind that RFC 3810 does not know says nothing new.
host_wish wish_of(const mld_record &record);
