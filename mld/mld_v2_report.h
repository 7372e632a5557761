// The walk over the records of an MLDv2 report.
#pragma once

#include "mld/mld_router.h"
#include "mld/mld_wire.h"

#include <span>

// `message` starts at the ICMPv6 type byte and is the whole receive buffer: bytes beyond what came are zero. Records
// are read as far as they lie within it.
void mld_router_version2_report_handler(mld_interface *intr, std::span<std::uint8_t, MLD_MESSAGE_BYTES> message,
                                        const ipv6_address &sender);
