#include "bench/report_case.h"

namespace {

const ipv6_address target = group_number(target_number);
const ipv6_address known_source = source_number(0);
const ipv6_address fresh_source = source_number(1);

bool has_listed_sources(report_case which) {
  return which == report_case::new_source || which == report_case::known_source;
}

} // namespace

const char *report_case_name(report_case which) {
  switch (which) {
  case report_case::new_group:
    return "new any-source group";
  case report_case::known_group:
    return "refresh of any-source group";
  case report_case::new_source:
    return "new source";
  case report_case::known_source:
    return "refresh of source";
  case report_case::v1_refresh:
    return "MLDv1 refresh";
  case report_case::leave:
    return "leave";
  }
  return "";
}

frame report_case_frame(report_case which) {
  switch (which) {
  case report_case::new_group:
    return make_v2_report(MLD2_CHANGE_TO_EXCLUDE, target, {});
  case report_case::known_group:
    return make_v2_report(MLD2_MODE_IS_EXCLUDE, target, {});
  case report_case::new_source:
    return make_v2_report(MLD2_ALLOW_NEW_SOURCES, target, {fresh_source});
  case report_case::known_source:
    return make_v2_report(MLD2_MODE_IS_INCLUDE, target, {known_source});
  case report_case::v1_refresh:
    return make_v1_report(target);
  case report_case::leave:
    return make_v2_report(MLD2_CHANGE_TO_INCLUDE, target, {});
  }
  return {};
}

void set_daemon_scene(report_case which) {
  if (which == report_case::new_group) {
    return;
  }
  if (has_listed_sources(which)) {
    linked_apply(MLD2_MODE_IS_INCLUDE, target, {known_source});
  } else {
    linked_apply(MLD2_MODE_IS_EXCLUDE, target, {});
  }
  linked_move_to_end(target);
}

void restore_daemon_scene(report_case which, const host_records &hosts) {
  switch (which) {
  case report_case::new_group:
  case report_case::new_source:
    linked_forget_group(target);
    linked_restore_hosts(target, hosts);
    set_daemon_scene(which);
    break;
  case report_case::known_group:
  case report_case::leave:
    linked_restore_hosts(target, hosts);
    linked_keep_members(target);
    linked_move_to_end(target);
    break;
  case report_case::known_source:
  case report_case::v1_refresh:
    break; // left as it was
  }
}

void clear_daemon_scene() {
  const host_records hosts = linked_hosts_of(target);
  linked_forget_group(target);
  linked_restore_hosts(target, hosts);
}

void set_floor_scene(const floor_proxy &proxy, report_case which) {
  if (which == report_case::new_group) {
    return;
  }
  if (has_listed_sources(which)) {
    floor_join_source(proxy, target, known_source);
    floor_add_entry(proxy, known_source, target);
  } else {
    floor_join(proxy, target);
    floor_add_entry(proxy, In6AddrAny, target);
  }
}

void floor_requests(const floor_proxy &proxy, report_case which) {
  switch (which) {
  case report_case::known_group:
    floor_leave(proxy, target);
    floor_delete_entry(proxy, In6AddrAny, target);
    [[fallthrough]];
  case report_case::new_group:
    floor_join(proxy, target);
    floor_add_entry(proxy, In6AddrAny, target);
    break;
  case report_case::new_source:
    floor_join_source(proxy, target, fresh_source);
    floor_add_entry(proxy, fresh_source, target);
    break;
  case report_case::known_source:
    floor_join_source(proxy, target, known_source); // refused: it is joined
    break;
  case report_case::v1_refresh:
  case report_case::leave:
    break; // the kernel is asked for nothing
  }
}

void restore_floor_scene(const floor_proxy &proxy, report_case which) {
  if (which == report_case::new_group) {
    floor_leave(proxy, target);
    floor_delete_entry(proxy, In6AddrAny, target);
  } else if (which == report_case::new_source) {
    floor_leave_source(proxy, target, fresh_source);
    floor_delete_entry(proxy, fresh_source, target);
  }
}

void clear_floor_scene(const floor_proxy &proxy, report_case which) {
  if (which != report_case::new_group) {
    floor_leave(proxy, target);
    floor_delete_entry(proxy, has_listed_sources(which) ? known_source : In6AddrAny, target);
  }
}
