// What the companion heals. Each remedy can be switched off by its name on the command line.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

enum class remedy : std::uint8_t {
  ask_after_leave,    // who still listens is asked after each message that may remove a listener
  ask_after_end,      // hosts are asked again as soon as the daemon has ended a group
  general_queries,    // each LAN is asked in general, unless another querier does so
  bridge_refresh,     // a shield takes tarnwick's delete when it refreshes an any-source group
  add_outputs,        // an interface that asks for a source that is joined already becomes an output
  remove_outputs,     // an interface that lost a group is taken out of the group's entries
  clear_left_groups,  // a group that no interface has any more keeps no output
  shield_static_entry // a shield takes changes of the static entry
};

inline constexpr std::array<std::string_view, 8> REMEDY_NAMES{"ask-after-leave",   "ask-after-end", "general-queries",
                                                              "bridge-refresh",    "add-outputs",   "remove-outputs",
                                                              "clear-left-groups", "shield-static"};

// By remedy: true = switched off on the command line.
using remedies_off = std::array<bool, REMEDY_NAMES.size()>;

// Marks the remedy of this name. False if there is none.
bool switch_off(std::string_view name, remedies_off &chosen);

// What all parts go by from now on.
void choose_remedies(const remedies_off &chosen);

bool is_on(remedy asked);
