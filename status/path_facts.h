// What a check reads of the kernel and of the daemon's process, in one go and apart from its judgement.
#pragma once

#include "status/check_subject.h"
#include "status/firewall_rules.h"
#include "status/group_capture.h"
#include "status/heard.h"
#include "status/memberships.h"
#include "status/network_tables.h"
#include "status/process_room.h"

struct path_facts {
  network_tables network;
  rows_of<membership_row> memberships;
  rows_of<group_source_row> group_sources;
  rows_of<group_capture> captures; // empty without a wanted group
  rows_of<heard_line> heard;       // what the companion has noted
  bool has_heard;                  // that could be read
  firewall_rules rules;
  process_room room;                // the daemon's
  rows_of<interface_text> served;   // the interfaces that the daemon was started for
  text lan_mac;                     // its setting et0macaddr; "" if it has none
  double daemon_started_at_seconds; // CLOCK_MONOTONIC
};

// Reads in the calling process's network namespace, which is to be the daemon's. Captures run from `begin` to `end`.
void begin_path_facts(path_facts &facts, const check_subject &subject, const traffic_sample &sample);
void end_path_facts(path_facts &facts, const check_subject &subject);
