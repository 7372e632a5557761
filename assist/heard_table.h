// Who has spoken on the LANs, and when: the last report of each host for each group, and queries. Nothing depends on
// it; tarnwick-status shows it.
#pragma once

#include "assist/heard_row.h"
#include "assist/host_report.h"
#include "core/address.h"

#include <cstdint>
#include <span>

// Makes the table. Where the kernel refuses, nothing is noted and the companion works as usual.
void open_heard_table();

// All rows, free ones too; none without a table.
std::span<const heard_row> heard_rows();

// Notes what a host says about a group. A host that leaves is forgotten.
void note_report(const host_report &report);

// Notes another router's general query.
void note_general_query(std::uint32_t index, const ipv6_address &querier);

// Notes a general query that the companion has sent.
void note_own_query(std::uint32_t index);
