#include "assist/mld_hearing.h"

#include "assist/group_question.h"
#include "assist/group_watch.h"
#include "assist/heard_table.h"
#include "assist/host_report.h"
#include "assist/interface_watch.h"
#include "assist/querier.h"

namespace {

void hear_query(watched_interface &downstream, const mld_message &message) {
  mld_query_fields query;
  if (!read_query(message, query)) {
    return;
  }
  const bool is_proper = is_proper_query(message, query);
  if (query.group == In6AddrAny) {
    note_general_query(message.index, message.sender);
    if (is_proper) {
      hear_general_query(downstream, query);
    }
  } else if (is_proper) {
    hear_group_query(message.index, query);
  }
}

void hear_report(const host_report &report) {
  note_report(report);
  ask_about_report(report);
  handle_report(report);
}

void hear_records(mld_message &message, const host_report &sender) {
  mld_records records = records_of(message);
  for (mld_record record; next_record(records, record);) {
    host_report report = sender;
    report.group = mld_record_group(record);
    report.wish = wish_of(record);
    report.listed = mld_record_claimed_sources(record) > 0 ? &record : nullptr;
    hear_report(report);
  }
}

} // namespace

void handle_mld_message(mld_message &message) {
  watched_interface *downstream = find_downstream(message.index);
  if (downstream == nullptr) {
    return;
  }
  const std::uint8_t type = type_of(message);
  if (type == ICMPV6_MGM_QUERY) {
    hear_query(*downstream, message);
    return;
  }
  host_report report{message.index, place_of(*downstream), message.sender, group_of(message), {}, true, nullptr};
  if (type == ICMPV6_MLD2_REPORT) {
    report.is_version_1 = false;
    hear_records(message, report);
  } else if (type == ICMPV6_MGM_REPORT) {
    report.wish = host_wish::any_source;
    hear_report(report);
  } else if (type == ICMPV6_MGM_REDUCTION) {
    report.wish = host_wish::none;
    hear_report(report);
  }
}
