// The daemon's own functions, linked in and running in a network of the benchmark's making.
#pragma once

#include "bench/network.h"
#include "bench/report_frame.h"
#include "mld/mld_router.h"

#include <cstdio>

// The daemon's start-up with one upstream and some downstream links of the namespace that the caller is in.
void linked_start(const char *upstream, const char *downstream);

mld_interface *linked_downstream();

// Waits for the pipe or the socket as the daemon's loop does, and handles the message that has come.
void linked_receive(int pipe_end);

// A host's record handled without a datagram: for setting the scene.
void linked_apply(mld_record_type type, const ipv6_address &group, const std::vector<ipv6_address> &sources);

// Ends the group upstream and in the proxy, if it is known.
void linked_forget_group(const ipv6_address &group);

// Members present, no query pending, and its host on record.
void linked_keep_members(const ipv6_address &group);

// Moves the group to the end of the list, where it is after all others have been refreshed.
void linked_move_to_end(const ipv6_address &group);

// The host records of the group. The daemon deletes records without giving them back, so a benchmark that runs for
// long has to remember them: linked_restore_hosts puts all of them back into the pool.
struct host_records {
  std::vector<mld_host *> known;
};
host_records linked_hosts_of(const ipv6_address &group);
void linked_restore_hosts(const ipv6_address &group, const host_records &before);

// Sends the daemon's log to `log` and returns where it went before.
FILE *switch_log(FILE *log);
