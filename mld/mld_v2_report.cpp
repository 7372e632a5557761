#include "mld/mld_v2_report.h"

#include "core/log.h"
#include "mld/mld_filter.h"
#include "mld/mld_join.h"
#include "mld/mld_leave.h"
#include "mld/mld_record.h"

#include <algorithm>

#define REPORT_HERE MLD_STEP_OF("mld_router_version2_report_handler")

namespace {

void apply_record(mld_interface *intr, const mld_record &record, const ipv6_address &sender) {
  const bool has_sources = mld_record_claimed_sources(record) != 0;
  switch (mld_record_kind(record)) {
  case MLD2_MODE_IS_INCLUDE:
  case MLD2_CHANGE_TO_INCLUDE:
    if (has_sources) {
      mld_router_v2_add_src_group(intr, record, mld_joined_sources::listed, sender);
    } else {
      mld_router_v2_leave_group(intr, record, &sender);
    }
    break;
  case MLD2_MODE_IS_EXCLUDE:
  case MLD2_CHANGE_TO_EXCLUDE:
    if (has_sources) {
      mld_router_v2_exclude_group(intr, record, sender);
    } else {
      mld_router_v2_add_src_group(intr, record, mld_joined_sources::all, sender);
    }
    break;
  case MLD2_ALLOW_NEW_SOURCES:
    mld_router_v2_allow_new_sources(intr, record, sender);
    break;
  case MLD2_BLOCK_OLD_SOURCES:
    mld_router_v2_block_old_sources(intr, record, sender);
    break;
  default:
    break;
  }
}

void handle_record(mld_interface *intr, const mld_record &record, const ipv6_address &sender) {
  const ipv6_address group = mld_record_group(record);
  if (is_link_local_group(group)) {
    log_debug(REPORT_HERE, "[PACKET] group     : %s, skip local mcast!", ADDRESS_TEXT(group));
    return;
  }
  log_debug(REPORT_HERE, "[PACKET] group     : %s", ADDRESS_TEXT(group));
  log_debug(REPORT_HERE, "[PACKET] nsrcs     : %d", to_int32(mld_record_claimed_sources(record)));
  const std::uint8_t kind = mld_record_kind(record);
  if (kind < MLD2_MODE_IS_INCLUDE || kind > MLD2_BLOCK_OLD_SOURCES) {
    log_error(REPORT_HERE, "Unkonwn group record type: 0x%02x", kind);
    return;
  }
  log_debug(REPORT_HERE, "[PACKET] grec_type : %s", mld_record_kind_name(kind));
  apply_record(intr, record, sender);
}

} // namespace

void mld_router_version2_report_handler(mld_interface *intr, std::span<std::uint8_t, MLD_MESSAGE_BYTES> message,
                                        const ipv6_address &sender) {
  const std::size_t count = read_u16(&message[MLD2_RECORD_COUNT_OFFSET]);
  if (count == 0) {
    log_error(REPORT_HERE, "Wrong group record number: %d", 0);
    return;
  }
  log_debug(REPORT_HERE, "[PACKET] ngrec     : %d", to_int32(count));
  std::size_t offset = MLD2_FIRST_RECORD_OFFSET;
  for (std::size_t i = 0; i < count && offset + MLD_RECORD_HEADER_BYTES <= message.size(); ++i) {
    std::span<std::uint8_t> rest = message.subspan(offset);
    const std::size_t claimed = mld_record_claimed_sources(mld_record{rest});
    // Auxiliary data is not skipped: a report that carries some is read wrongly from there on.
    const std::size_t length = MLD_RECORD_HEADER_BYTES + claimed * IPV6_ADDRESS_BYTES;
    handle_record(intr, mld_record{rest.first(std::min(length, rest.size()))}, sender);
    offset += length;
  }
}
