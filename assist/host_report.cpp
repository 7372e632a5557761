#include "assist/host_report.h"

host_wish wish_of(const mld_record &record) {
  const bool has_sources = mld_record_claimed_sources(record) > 0;
  switch (mld_record_kind(record)) {
  case MLD2_MODE_IS_INCLUDE:
  case MLD2_CHANGE_TO_INCLUDE:
    return has_sources ? host_wish::listed : host_wish::none;
  case MLD2_MODE_IS_EXCLUDE:
  case MLD2_CHANGE_TO_EXCLUDE:
    return has_sources ? host_wish::all_but_listed : host_wish::any_source;
  case MLD2_ALLOW_NEW_SOURCES:
    return has_sources ? host_wish::listed : host_wish::nothing_new;
  case MLD2_BLOCK_OLD_SOURCES:
    return has_sources ? host_wish::not_listed : host_wish::nothing_new;
  default:
    return host_wish::nothing_new;
  }
}
