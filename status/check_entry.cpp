#include "status/check_entry.h"

#include "status/check_hosts.h"
#include "status/cure.h"

#include <cinttypes>

namespace {

constexpr char place[] = "entry";
constexpr char any_address[] = "::";

bool is_any(const group_text &address) { return std::strcmp(address.data(), any_address) == 0; }

bool has_output(const cache_row &entry, const mif_row &mif) {
  return (entry.outputs >> static_cast<unsigned>(mif.number) & 1U) != 0;
}

const mif_row *upstream_mif(const check_subject &subject) {
  for (const interface_row &row : all_rows(subject.snapshot->interfaces)) {
    if (row.is_upstream) {
      return row.mif;
    }
  }
  return nullptr;
}

// A mainline kernel forwards by an entry for all sources only along that tree.
void check_static_tree(check_list &list, const check_subject &subject, const mif_row &upstream) {
  for (const stream_row &stream : all_rows(subject.snapshot->streams)) {
    if (stream.kind == stream_kind::static_tree && stream.entry->parent == upstream.number &&
        has_output(*stream.entry, upstream)) {
      add_check(list, check_result::ok, place, "the static tree (::, ::) leads from and to %s", upstream.name.data());
      return;
    }
  }
  add_check(list, check_result::no, place, "the static tree (::, ::) of %s is missing", upstream.name.data());
  add_cure(list, "%s", restart_command());
}

// The entry that the kernel takes for a packet of the wanted stream: a source's own one comes first.
const stream_row *find_stream(const check_subject &subject) {
  const stream_row *found = nullptr;
  for (const stream_row &stream : all_rows(subject.snapshot->streams)) {
    if (stream.entry == nullptr || std::strcmp(stream.entry->group.data(), subject.group.data()) != 0) {
      continue;
    }
    const bool is_source = subject.source[0] != '\0' && stream.entry->origin == subject.source;
    const bool is_candidate = is_source || subject.source[0] == '\0' || is_any(stream.entry->origin);
    const bool is_better = found == nullptr || is_source || found->kind == stream_kind::unresolved ||
                           (subject.source[0] == '\0' && is_any(stream.entry->origin));
    if (is_candidate && is_better && (found == nullptr || stream.kind != stream_kind::unresolved)) {
      found = &stream;
    }
  }
  return found;
}

void add_output_names(text &names, const check_subject &subject, const cache_row &entry) {
  for (const mif_row &mif : all_rows(*subject.snapshot->mifs)) {
    if (has_output(entry, mif)) {
      add_text(names, " %s", mif.name.data());
    }
  }
}

bool check_outputs(check_list &list, const check_subject &subject, const cache_row &entry) {
  for (const interface_row &row : all_rows(subject.snapshot->interfaces)) {
    if (!row.is_upstream && row.mif != nullptr && has_listeners(subject, row.counters.name) &&
        !has_output(entry, *row.mif)) {
      add_check(list, check_result::no, place, "the entry (%s, %s) does not lead to %s", entry.origin.data(),
                entry.group.data(), row.counters.name.data());
      add_cure(list, "%s", restart_command());
      return false;
    }
  }
  return true;
}

void check_stream(check_list &list, const check_subject &subject, const stream_row &stream, const mif_row &upstream) {
  const cache_row &entry = *stream.entry;
  if (stream.kind == stream_kind::unresolved) {
    add_check(list, check_result::no, place, "packets from %s wait: the kernel has no entry that takes them",
              entry.origin.data());
    add_cure(list, "%s", restart_command());
    return;
  }
  if (entry.parent != upstream.number) {
    const mif_row *parent = find_mif(*subject.snapshot->mifs, entry.parent);
    add_check(list, check_result::no, place, "the entry (%s, %s) takes packets from %s, not from %s",
              entry.origin.data(), entry.group.data(), parent != nullptr ? parent->name.data() : "nowhere",
              upstream.name.data());
    add_cure(list, "%s", restart_command());
    return;
  }
  if (!check_outputs(list, subject, entry)) {
    return;
  }
  text names;
  add_output_names(names, subject, entry);
  add_check(list, check_result::ok, place,
            "(%s, %s) from %s to%s: %" PRIu64 " packets, %" PRIu64 " on a wrong interface", entry.origin.data(),
            entry.group.data(), upstream.name.data(), text_of(names), entry.packets, entry.wrong_interface);
  free_rows(names);
}

} // namespace

void check_entry(check_list &list, const check_subject &subject) {
  const mif_row *upstream = upstream_mif(subject);
  if (upstream == nullptr) {
    return; // check_interfaces says so
  }
  check_static_tree(list, subject, *upstream);
  if (subject.group[0] == '\0') {
    return;
  }
  const stream_row *stream = find_stream(subject);
  if (stream == nullptr) {
    add_check(list, check_result::no, place, "the kernel has no entry for %s", subject.group.data());
    add_cure(list, "%s", restart_command());
    return;
  }
  check_stream(list, subject, *stream, *upstream);
}
