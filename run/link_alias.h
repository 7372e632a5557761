// What the links of a private network say of themselves (IFLA_IFALIAS, "alias" in `ip link`): the inner ones which
// interface of the host they stand for, the outer ones also who made them.
#pragma once

#include "run/options.h"

#include <array>
#include <cstdint>
#include <sys/types.h>

using alias_text = std::array<char, 128>;

// A process number alone is used again after a while.
struct process_identity {
  pid_t pid;
  std::uint64_t start_ticks; // since boot, in clock ticks
};

// False when there is no such process.
bool identify_process(pid_t pid, process_identity &identity);

// "tarnwick-run: br-lan"
alias_text alias_of_inner_link(const interface_name &host_name);
bool read_inner_alias(const char *alias, interface_name &host_name);

// "tarnwick-run 412 since 98765: br-lan"
alias_text alias_of_outer_link(const process_identity &maker, const interface_name &host_name);
bool read_outer_alias(const char *alias, process_identity &maker, interface_name &host_name);
