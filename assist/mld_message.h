// An MLD message as the companion hears it, read as the daemon reads it: the same buffer, the same steps from record to
// record. What the companion believes must not differ from what the daemon does.
#pragma once

#include "core/address.h"
#include "mld/mld_record.h"
#include "mld/mld_wire.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

struct mld_message {
  std::uint32_t index; // arrival interface
  ipv6_address sender;
  ipv6_address destination;
  std::int32_t hop_limit; // -1 = not known
  bool has_router_alert;
  std::size_t length;                                // bytes that came
  std::array<std::uint8_t, MLD_MESSAGE_BYTES> bytes; // from the type byte on, zeros behind what came
};

std::uint8_t type_of(const mld_message &message); // ICMPV6_MGM_QUERY, ...

// Multicast address of a query, an MLDv1 report or an MLDv1 done.
ipv6_address group_of(const mld_message &message);

// The records of an MLDv2 report that have not been read yet.
struct mld_records {
  std::span<std::uint8_t> rest;
  std::size_t left; // as the message claims; may be more than lie within `rest`
};

// All records of an MLDv2 report; none for every other type.
mld_records records_of(mld_message &message);

// Cuts one record off the front. False at the end or where no whole record header is left. The record's accessors are
// in mld/mld_record.h.
bool next_record(mld_records &records, mld_record &record);

struct mld_query_fields {
  ipv6_address group; // :: = general query
  std::uint32_t max_response_ms;
  std::span<const std::uint8_t> sources; // 16 bytes each; empty in MLDv1 and where all sources are meant
};

// False if the message is not a query of either version or is shorter than its sources (RFC 3810, section 8.1).
bool read_query(const mld_message &message, mld_query_fields &query);

// Whether hosts answer it: from a link-local address, hop limit 1, Router Alert, to ff02::1 or to its group (RFC 3810,
// sections 5.1.14 and 6.2).
bool is_proper_query(const mld_message &message, const mld_query_fields &query);
