// The kinds of report whose cost is measured, and how the scene is set for each, on the daemon's and the floor's side.
#pragma once

#include "bench/floor/floor_proxy.h"
#include "bench/linked_proxy.h"

#include <array>

enum class report_case { new_group, known_group, new_source, known_source, v1_refresh, leave };

inline constexpr std::array<report_case, 6> all_report_cases{report_case::new_group,  report_case::known_group,
                                                             report_case::new_source, report_case::known_source,
                                                             report_case::v1_refresh, report_case::leave};

inline constexpr unsigned target_number = 500; // the group that the reports are about; the others count from 0

const char *report_case_name(report_case which);
frame report_case_frame(report_case which);

// Prepares the group as a report of that kind finds it: at the end of the list, as after all others have been
// refreshed.
void set_daemon_scene(report_case which);
void set_floor_scene(const floor_proxy &proxy, report_case which);

// The same requests as the daemon makes for such a report.
void floor_requests(const floor_proxy &proxy, report_case which);

// Undoes one report. `hosts` are the group's host records from before it.
void restore_daemon_scene(report_case which, const host_records &hosts);
void restore_floor_scene(const floor_proxy &proxy, report_case which);

// Removes the group after the last report of a kind.
void clear_daemon_scene();
void clear_floor_scene(const floor_proxy &proxy, report_case which);
