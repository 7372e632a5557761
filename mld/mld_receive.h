// The entry of every MLD message: reading it, finding its interface, dispatching on its type.
#pragma once

#include "mld/mld_router.h"

// Reads one message from `MldRouter.socket` and handles it. Messages without a known downstream interface are dropped
// silently. Neither length nor checksum is looked at: the kernel has verified the checksum, and a short message reads
// as zeros.
void mld_network_socket_read_data();

// Querier election (RFC 3810, section 7.6.2) by any query heard downstream: the lower address wins.
void mld_router_received_general_query(mld_interface *intr, const ipv6_address &sender);
