#include "assist/heard_table.h"

#include "assist/retry.h"

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
  if (!Rows.empty()) {
    place_row(index, group, host) = {monotonic_ms(), kind, index, group, host};
  }
}

void forget(std::uint32_t index, const ipv6_address &group, const ipv6_address &host) {
  if (Rows.empty()) {
    return;
  }
  if (heard_row &row = place_row(index, group, host); is_row_of(row, index, group, host)) {
    row = {};
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

void note_report(const host_report &report) {
  switch (report.wish) {
  case host_wish::any_source:
  case host_wish::all_but_listed:
  case host_wish::listed:
    note(report.is_version_1 ? heard_kind::mldv1_report : heard_kind::mldv2_report, report.index, report.group,
         report.host);
    break;
  case host_wish::none:
    forget(report.index, report.group, report.host);
    break;
  case host_wish::not_listed: // it may have others
  case host_wish::nothing_new:
    break;
  }
}

void note_general_query(std::uint32_t index, const ipv6_address &querier) {
  note(heard_kind::other_query, index, In6AddrAny, querier);
}

void note_own_query(std::uint32_t index) { note(heard_kind::own_query, index, In6AddrAny, In6AddrAny); }
