#include "invariants.h"

#include "igmp/igmp_router.h"
#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_router.h"

#include <array>
#include <cstdint>

namespace scripted {

namespace {

// Which records were met in this check. Open addressing with a stamp for each check, so that nothing has to be
// cleared: fuzzers check after every step.
struct meeting_book {
  static constexpr std::size_t slots = 4096; // far more than there are records
  std::array<const void *, slots> records;
  std::array<std::uint32_t, slots> stamps;
  std::uint32_t stamp;
  std::size_t met;
};

meeting_book Book;

void open_book() {
  ++Book.stamp;
  Book.met = 0;
}

// Returns false for a record that was met before.
bool meet(const void *record) {
  constexpr std::size_t too_many = meeting_book::slots / 2;
  if (++Book.met > too_many) {
    return false; // an endless list
  }
  // Records lie at regular distances; the product's upper bits differ between them.
  constexpr std::uint64_t golden_ratio = 0x9e3779b97f4a7c15;
  constexpr int upper_bits_at = 52; // leaves 12 bits, as many as there are slots
  static_assert(meeting_book::slots == std::uint64_t{1} << (64 - upper_bits_at));
  auto slot = static_cast<std::size_t>(reinterpret_cast<std::uintptr_t>(record) * golden_ratio >> upper_bits_at);
  while (Book.stamps[slot] == Book.stamp) {
    if (Book.records[slot] == record) {
      return false;
    }
    slot = (slot + 1) % meeting_book::slots;
  }
  Book.stamps[slot] = Book.stamp;
  Book.records[slot] = record;
  return true;
}

// Returns how many records the list holds, or -1 if one of them was met before.
int meet_all(const list &of) {
  int count = 0;
  for (const list_node *node = list_get_head(&of); node != nullptr; node = list_get_next(node)) {
    if (!meet(node)) {
      return -1;
    }
    ++count;
  }
  return count;
}

bool add_list(const list &of, int &total) {
  const int count = meet_all(of);
  total += count;
  return count >= 0;
}

// Checks that every record of the list has its place in the index, and counts them in `placed`.
template <typename record>
std::string check_places(const list_index &index, const indexed_list &of, std::uint32_t (*key_of)(const record *),
                         int &placed) {
  for (const record *current = list_first<record>(&of); current != nullptr; current = list_after(current)) {
    const list_place *place = list_index_first(index, key_of(current));
    while (place != nullptr && place->node != &current->link) {
      place = list_index_next(index, place);
    }
    if (place == nullptr || place->on != &of) {
      return "a record that the index does not find where it is";
    }
    ++placed;
  }
  return "";
}

std::string check_no_more_places(const list_index &index, int placed) {
  int taken = 0;
  for (const list_place &place : index.places) {
    taken += place.node != nullptr ? 1 : 0;
  }
  return taken == placed ? "" : "an index that holds a record which is on no list";
}

std::string check_indexes() {
  int groups = 0;
  int hosts = 0;
  for (const mld_interface *intr = list_first<mld_interface>(&MldRouter.interfaces); intr != nullptr;
       intr = list_after(intr)) {
    for (const std::string &complaint : {check_places(MldGroupIndex, intr->groups, mld_group_key, groups),
                                         check_places(MldHostIndex, intr->hosts, mld_host_key, hosts)}) {
      if (!complaint.empty()) {
        return complaint;
      }
    }
  }
  const std::string complaint = check_no_more_places(MldGroupIndex, groups);
  return complaint.empty() ? check_no_more_places(MldHostIndex, hosts) : complaint;
}

constexpr std::int32_t membership_seconds = 350;
constexpr std::int32_t answer_seconds = 10;
constexpr std::int32_t other_querier_seconds = 300;

bool is_within(std::int32_t seconds, std::int32_t most) { return seconds >= 0 && seconds <= most; }

std::string check_group(const mld_group *group) {
  constexpr std::int32_t source_seconds = 360;
  if (group->state != MLD_GROUP_MEMBERS_PRESENT && group->state != MLD_GROUP_CHECKING_MEMBERSHIP) {
    return "a group in state " + std::to_string(group->state);
  }
  if (group->source_count < 0 || group->source_count > MLD_MAX_SOURCES) {
    return "a group with " + std::to_string(group->source_count) + " sources";
  }
  if (group->owner != &MldRouter.upstream_name) {
    return "a group without owner";
  }
  if (!is_within(group->group_timer, membership_seconds)) {
    return "a group timer of " + std::to_string(group->group_timer);
  }
  if (!is_within(group->retransmit_timer, answer_seconds)) {
    return "a retransmit timer of " + std::to_string(group->retransmit_timer);
  }
  for (int i = 0; i < group->source_count; ++i) {
    const mld_source &slot = group->sources[static_cast<std::size_t>(i)];
    if (slot.source_timer > source_seconds || slot.forward > 1) {
      return "a source slot with timer " + std::to_string(slot.source_timer) + " and forward " +
             std::to_string(slot.forward);
    }
  }
  return "";
}

std::string check_interface(const mld_interface *intr, record_count &count) {
  if (intr->other_querier_timer < 0 || intr->other_querier_timer > other_querier_seconds || intr->query_timer < 0 ||
      intr->is_querier > 1) {
    return "querier state out of bounds";
  }
  if (!add_list(intr->hosts.records, count.hosts) || !add_list(intr->groups.records, count.groups)) {
    return "a host or group on two lists";
  }
  for (const mld_group *group = list_first<mld_group>(&intr->groups); group != nullptr; group = list_after(group)) {
    if (!add_list(group->queries, count.queries)) {
      return "a query on two lists";
    }
    const std::string complaint = check_group(group);
    if (!complaint.empty()) {
      return complaint;
    }
  }
  return "";
}

} // namespace

std::string check_mld_records(record_count &count) {
  open_book();
  count = record_count{};
  if (!add_list(MldRouter.free_groups, count.groups) || !add_list(MldRouter.free_hosts, count.hosts) ||
      !add_list(MldRouter.free_queries, count.queries)) {
    return "a record twice in a pool";
  }
  if (meet_all(MldRouter.interfaces) < 0) {
    return "an interface twice on the list";
  }
  for (const mld_interface *intr = list_first<mld_interface>(&MldRouter.interfaces); intr != nullptr;
       intr = list_after(intr)) {
    const std::string complaint = check_interface(intr, count);
    if (!complaint.empty()) {
      return complaint;
    }
  }
  return check_indexes();
}

namespace {

std::string check_igmp_group(const igmp_group *group) {
  if (group->state <= IGMP_GROUP_NO_MEMBERS || group->state >= IGMP_GROUP_STATE_COUNT) {
    return "an IGMP group in state " + std::to_string(group->state);
  }
  if (group->owner != &IgmpRouter.upstream_name) {
    return "an IGMP group without owner";
  }
  if (!is_within(group->group_timer, membership_seconds) || !is_within(group->v1_host_timer, membership_seconds) ||
      !is_within(group->retransmit_timer, answer_seconds)) {
    return "an IGMP group timer out of bounds";
  }
  return "";
}

std::string check_igmp_interface(const igmp_interface *intr, record_count &count) {
  if (!is_within(intr->other_querier_timer, other_querier_seconds) || intr->query_timer < 0) {
    return "IGMP querier state out of bounds";
  }
  if (!add_list(intr->groups, count.groups)) {
    return "an IGMP group on two lists";
  }
  for (const igmp_group *group = list_first<igmp_group>(&intr->groups); group != nullptr; group = list_after(group)) {
    if (!add_list(group->queries, count.queries)) {
      return "an IGMP query on two lists";
    }
    const std::string complaint = check_igmp_group(group);
    if (!complaint.empty()) {
      return complaint;
    }
  }
  return "";
}

} // namespace

std::string check_igmp_records(record_count &count) {
  open_book();
  count = record_count{};
  if (!add_list(IgmpRouter.free_groups, count.groups) || !add_list(IgmpRouter.free_queries, count.queries)) {
    return "an IGMP record twice in a pool";
  }
  if (meet_all(IgmpRouter.interfaces) < 0) {
    return "an IGMP interface twice on the list";
  }
  for (const igmp_interface *intr = list_first<igmp_interface>(&IgmpRouter.interfaces); intr != nullptr;
       intr = list_after(intr)) {
    const std::string complaint = check_igmp_interface(intr, count);
    if (!complaint.empty()) {
      return complaint;
    }
  }
  return "";
}

} // namespace scripted
