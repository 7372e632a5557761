#include "assist/heard_table.h"

#include "assist/retry.h"

#include <netinet/icmp6.h>
#include <span>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr std::size_t places_of_a_row = 4; // from where its bytes hash to; where all are taken the oldest goes

std::span<heard_row> Rows{};

std::size_t first_place(std::uint32_t index, const ipv6_address &group, const ipv6_address &host) {
  constexpr std::uint32_t multiplier = 2654435761U; // Knuth's, 2^32 by the golden ratio
  constexpr unsigned high_bits = 16;
  std::uint32_t folded = index;
  for (const ipv6_address *address : {&group, &host}) {
    for (const std::uint8_t byte : *address) {
      folded = (folded ^ byte) * multiplier;
    }
  }
  return (folded >> high_bits) % HEARD_ROWS;
}

bool is_row_of(const heard_row &row, std::uint32_t index, const ipv6_address &group, const ipv6_address &host) {
  return row.kind != heard_kind::nothing && row.index == index && row.group == group && row.host == host;
}

// The row of this host and group, or the one to overwrite for them.
heard_row &place_row(std::uint32_t index, const ipv6_address &group, const ipv6_address &host) {
  const std::size_t first = first_place(index, group, host);
  heard_row *oldest = &Rows[first];
  for (std::size_t i = 0; i < places_of_a_row; ++i) {
    heard_row &row = Rows[(first + i) % HEARD_ROWS];
    if (is_row_of(row, index, group, host)) {
      return row;
    }
    oldest = row.heard_at_ms < oldest->heard_at_ms ? &row : oldest;
  }
  return *oldest;
}

void note(heard_kind kind, std::uint32_t index, const ipv6_address &group, const ipv6_address &host) {
  place_row(index, group, host) = {monotonic_ms(), kind, index, group, host};
}

void forget(std::uint32_t index, const ipv6_address &group, const ipv6_address &host) {
  if (heard_row &row = place_row(index, group, host); is_row_of(row, index, group, host)) {
    row = {};
  }
}

void note_record(const mld_record &record, std::uint32_t index, const ipv6_address &host) {
  const std::uint8_t kind = mld_record_kind(record);
  const bool has_sources = mld_record_claimed_sources(record) > 0;
  const bool is_exclude = kind == MLD2_MODE_IS_EXCLUDE || kind == MLD2_CHANGE_TO_EXCLUDE;
  const bool is_include = kind == MLD2_MODE_IS_INCLUDE || kind == MLD2_CHANGE_TO_INCLUDE;
  if (is_exclude || (has_sources && (is_include || kind == MLD2_ALLOW_NEW_SOURCES))) {
    note(heard_kind::mldv2_report, index, mld_record_group(record), host);
  } else if (is_include) {
    forget(index, mld_record_group(record), host);
  }
}

} // namespace

std::span<const heard_row> heard_rows() { return Rows; }

void open_heard_table() {
  constexpr std::size_t bytes = HEARD_ROWS * sizeof(heard_row);
  const int table = memfd_create(HEARD_TABLE_NAME, MFD_CLOEXEC);
  if (table < 0) {
    return;
  }
  void *rows = MAP_FAILED;
  if (ftruncate(table, static_cast<off_t>(bytes)) == 0) {
    rows = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, table, 0);
  }
  if (rows == MAP_FAILED) {
    close(table);
    return;
  }
  Rows = {static_cast<heard_row *>(rows), HEARD_ROWS}; // the descriptor stays open: it is how the table is found
}

void note_heard(mld_message &message) {
  if (Rows.empty()) {
    return;
  }
  mld_query_fields query;
  switch (type_of(message)) {
  case ICMPV6_MGM_QUERY:
    if (read_query(message, query) && query.group == In6AddrAny) {
      note(heard_kind::other_query, message.index, In6AddrAny, message.sender);
    }
    break;
  case ICMPV6_MGM_REPORT:
    note(heard_kind::mldv1_report, message.index, group_of(message), message.sender);
    break;
  case ICMPV6_MGM_REDUCTION:
    forget(message.index, group_of(message), message.sender);
    break;
  case ICMPV6_MLD2_REPORT: {
    mld_records records = records_of(message);
    for (mld_record record; next_record(records, record);) {
      note_record(record, message.index, message.sender);
    }
    break;
  }
  default:
    break;
  }
}

void note_own_query(std::uint32_t index) {
  if (!Rows.empty()) {
    note(heard_kind::own_query, index, In6AddrAny, In6AddrAny);
  }
}
