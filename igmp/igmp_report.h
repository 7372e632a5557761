// Membership reports: version 1 (RFC 1112) and version 2 (RFC 2236).
#pragma once

#include "igmp/igmp_router.h"

// Create or refresh the group of a report; cancel its pending queries. A version 1 report keeps the group in version 1
// compatibility, where leaves are ignored, until no version 1 host has reported for `group_membership_interval`.
void igmp_router_version1_report_handler(igmp_interface *intr, std::uint32_t address);
void igmp_router_version2_report_handler(igmp_interface *intr, std::uint32_t address);
