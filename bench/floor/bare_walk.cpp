#include "bench/floor/bare_walk.h"

#include <span>

long bare_walk(const mld_router &router) {
  long met = 0;
  for (auto *intr = list_first<mld_interface>(&router.interfaces); intr != nullptr; intr = list_after(intr)) {
    if (intr->role == MLD_ROLE_UPSTREAM) {
      continue;
    }
    ++met;
    --intr->query_timer;
    for (auto *group = list_first<mld_group>(&intr->groups); group != nullptr; group = list_after(group)) {
      ++met;
      --group->group_timer;
      for (mld_source &slot : std::span(group->sources).first(static_cast<std::size_t>(group->source_count))) {
        --slot.source_timer;
      }
    }
  }
  return met;
}
