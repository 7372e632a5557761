// The interfaces that a command line names: "-u <upstream> -d <downstream>[,<downstream>...]". tarnwick-assist and
// tarnwick-run read them alike.
#pragma once

#include <array>
#include <cstddef>
#include <net/if.h>
#include <span>
#include <string_view>

using interface_name = std::array<char, IFNAMSIZ>;

// A sentence for the log.
using fault_text = std::array<char, 256>;

// All return false with what is wrong. An interface need not exist, but its name must be one that the kernel would
// accept.

// `upstream` is empty as long as none was given.
bool choose_upstream(std::string_view name, interface_name &upstream, fault_text &wrong);

// Adds the names of a list to the first `count` of `downstreams`.
bool choose_downstreams(std::string_view list, std::span<interface_name> downstreams, std::size_t &count,
                        fault_text &wrong);

// Both kinds are there, and no name twice.
bool is_choice_complete(const interface_name &upstream, std::span<const interface_name> downstreams, fault_text &wrong);
