// Keeps the outputs of tarnwick's entries in the forwarding cache as viewers expect them. It acts on the kernel's
// notifications, on what hosts say, and by the clock; the kernel's table is read when the upstream becomes a MIF and
// when notifications were lost.
#pragma once

#include "assist/host_report.h"
#include "assist/notification.h"

#include <cstdint>

// Forgets everything; `socket` is the one that requests go through.
void start_group_watch(int socket);

// The upstream interface is a MIF: reads the kernel's table anew. Known listeners are kept, entries are not.
void handle_groups_upstream(std::uint32_t upstream_index);

// tarnwick has ended: takes away what is left of every group that was in the table.
void handle_groups_released();

// Takes away the shields and what is left of groups that nobody listens to; tarnwick's other entries stay.
void stop_group_watch();

// A downstream interface has gone, by its place on the command line.
void forget_listeners_on(std::size_t place);

// A notification about the entry of a group, or a row of the kernel's table. Returns whether tarnwick, not this
// program, made the change. A shield that tarnwick deleted is reported with the outputs of the entry behind it.
bool watch_group_entry(notification &event);

// What a host says about a group. Sets the timers as tarnwick does, and adds outputs where tarnwick's join adds none.
void handle_report(const host_report &report);

// When the earliest deadline is, in milliseconds of the monotonic clock; NO_DEADLINE = never.
std::int64_t next_group_deadline_ms();
void handle_group_deadlines();
