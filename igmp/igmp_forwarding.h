// Requests for the kernel's multicast forwarding caches: IPv4 (linux/mroute.h) in mode 4to4, IPv6 (linux/mroute6.h) in
// mode 4to6. Entries hold for every source.
#pragma once

#include "core/log.h"
#include "igmp/igmp_router.h"

#include <array>
#include <linux/mroute.h>
#include <linux/mroute6.h>

// Why the outputs are collected; decides what each interface that has the group leaves in the log.
enum class igmp_outputs_purpose { add_entry, drop_membership };

// IPv4 outputs stand at the interface's slot of the device index table, although the kernel reads them by VIF number,
// which is the interface's index: a stream reaches an interface only where the two are the same.
struct igmp_outputs {
  std::array<std::uint8_t, MAXVIFS> oifs_ttl; // IPv4, by slot: 1 where the stream is to go, else 255
  std::array<std::uint8_t, MAXMIFS> mifs;     // IPv6, by MIF: 1 where the stream is to go
  bool is_wanted;                             // some downstream interface has the group, be it an output or not
};

// Walks the downstream interfaces that have the group.
igmp_outputs igmp_collect_outputs(log_site site, std::uint32_t group, igmp_outputs_purpose purpose);

// Number of the upstream interface as a VIF, and as a MIF, where the NAT-PT device stands for the LAN interface. Parent
// of every entry.
std::int32_t igmp_upstream_vif();
std::int32_t igmp_upstream_mif();

// Requests for the group's entry, without outputs.
mfcctl igmp_mfc_request(std::uint32_t group);
mf6cctl igmp_mf6c_request(std::uint32_t group);

// Sets the outputs of the IPv6 entry and logs each.
void igmp_set_outputs(log_site site, mf6cctl &request, const igmp_outputs &outputs);

// Make the request and log it, but not its failure. Return whether the kernel accepted it; errno is the kernel's.
bool igmp_add_mfc(log_site site, std::uint32_t group, const igmp_outputs &outputs);
bool igmp_add_mf6c(log_site site, const mf6cctl &request);
bool igmp_delete_mf6c(const mf6cctl &request);

// Deletes the IPv4 entry and logs the request and its failure. Returns whether the kernel accepted it.
bool igmp_delete_mfc(log_site site, std::uint32_t group);
