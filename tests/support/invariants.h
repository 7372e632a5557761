// What must hold for the proxy's records at any time, shared by unit tests, sweeps, soaks and fuzzers.
#pragma once

#include <string>

namespace scripted {

struct record_count {
  int groups;  // in pool and lists
  int hosts;   // in pool and lists; deleted ones are gone for good
  int queries; // in pool and lists
};

// Checks every list of the MLD side: no endless list, no record on two lists, no group in state 0 on an interface, no
// more source slots than there are, timers within their bounds. Returns a complaint, or an empty text if all is well,
// and how many records there are.
std::string check_mld_records(record_count &count);

// The same for the IGMP side; `hosts` stays 0.
std::string check_igmp_records(record_count &count);

} // namespace scripted
