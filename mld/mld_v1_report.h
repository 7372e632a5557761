// MLDv1 reports (RFC 2710).
#pragma once

#include "mld/mld_router.h"

// Creates or refreshes the group of a report; cancels its pending queries.
void mld_router_version1_report_handler(mld_interface *intr, const ipv6_address &address);
