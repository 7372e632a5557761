#include "status/report.h"

#include "status/number_text.h"

#include <algorithm>
#include <array>
#include <cinttypes>

namespace {

constexpr std::array interface_columns{
    column{"INTERFACE", alignment::left},     column{"ROLE", alignment::left, 7},
    column{"MIF", alignment::right, 8},       column{"QUERIES", alignment::right, 5},
    column{"JOINS", alignment::right, 5},     column{"LEAVES", alignment::right, 4},
    column{"TIMEOUTS", alignment::right, 1},  column{"PKTS IN", alignment::right, 6},
    column{"BYTES IN", alignment::right, 2},  column{"PKTS OUT", alignment::right, 6},
    column{"BYTES OUT", alignment::right, 2}, column{"NOTE", alignment::left}};

constexpr std::array group_columns{column{"GROUP", alignment::left},          column{"LISTENERS", alignment::left, 7},
                                   column{"MEMBER FOR", alignment::right, 3}, column{"SOURCE", alignment::left, 6},
                                   column{"PACKETS", alignment::right, 4},    column{"BYTES", alignment::right, 2},
                                   column{"RATE", alignment::right, 8},       column{"LOAD", alignment::left, 1},
                                   column{"OUTPUTS", alignment::left, 5},     column{"NOTE", alignment::left}};

bool has_host_name(const interface_row &row) { return row.mif != nullptr && row.mif->host_name[0] != '\0'; }

void add_title(page &page, const snapshot &snapshot, std::size_t columns) {
  std::size_t held = 0;
  std::size_t entries = 0;
  for (const group_row &group : all_rows(snapshot.groups)) {
    held += group.listener_count > 0 ? 1 : 0;
  }
  for (const stream_row &stream : all_rows(snapshot.streams)) {
    entries += stream.entry != nullptr ? 1 : 0;
  }
  text title;
  add_text(title, "tarnwick %d", static_cast<int>(snapshot.daemon.pid));
  const long running = seconds_running(snapshot.daemon);
  if (running >= 0) {
    add_text(title, ", up %s", duration_text(running).data());
  }
  const std::span<interface_row> interfaces = all_rows(snapshot.interfaces);
  if (std::any_of(interfaces.begin(), interfaces.end(), has_host_name)) {
    add_text(title, ", in a private network");
  }
  add_text(title, ": %zu interface%s, %zu group%s, %zu forwarding entr%s", snapshot.interfaces.count,
           snapshot.interfaces.count == 1 ? "" : "s", held, held == 1 ? "" : "s", entries, entries == 1 ? "y" : "ies");
  add_paragraph(page, line_style::plain, text_of(title), columns);
  free_rows(title);
}

// In a private network the inner name alone would not show which interface it is.
void add_interface_name(table &table, const interface_row &row) {
  text name;
  add_text(name, "%s", row.counters.name.data());
  if (has_host_name(row)) {
    add_text(name, " (%s)", row.mif->host_name.data());
  }
  add_cell(table, text_of(name));
  free_rows(name);
}

// What keeps the daemon from serving the interface; "" if nothing does.
const char *fault_of(const interface_row &row) {
  if (std::strcmp(row.counters.name.data(), GONE_INTERFACE) == 0) {
    return "interface is gone";
  }
  if (row.mif == nullptr) {
    return "not in the kernel's routing";
  }
  return row.is_made_anew ? "made anew, other index" : "";
}

// Upstream nobody asks in the place of the provider's router.
void add_interface_note(text &note, const snapshot &snapshot, const interface_row &row) {
  const char *fault = fault_of(row);
  if (fault[0] != '\0') {
    add_text(note, "%s: %s", fault, snapshot.daemon.supervisor_network != 0 ? "tarnwick-run sees to it" : "restart");
  } else if (!row.is_upstream && row.querier == other_querier::silent) {
    add_text(note, "other querier lost: silent for %s", duration_text(row.silent_seconds).data());
  } else if (!row.is_upstream && row.querier == other_querier::asks) {
    add_text(note, "another querier asks");
  }
}

bool needs_attention(const interface_row &row) {
  return fault_of(row)[0] != '\0' || (!row.is_upstream && row.querier == other_querier::silent);
}

void add_traffic_cells(table &table, const mif_row *mif) {
  constexpr int cells = 4;
  if (mif == nullptr) {
    for (int missing = 0; missing < cells; ++missing) {
      add_cell(table, "-");
    }
    return;
  }
  add_number_cell(table, mif->packets_in);
  add_cell(table, bytes_text(mif->bytes_in).data());
  add_number_cell(table, mif->packets_out);
  add_cell(table, bytes_text(mif->bytes_out).data());
}

void add_interface(table &table, const snapshot &snapshot, const interface_row &row) {
  begin_row(table, needs_attention(row) ? line_style::warning : line_style::plain);
  add_interface_name(table, row);
  add_cell(table, row.is_upstream ? "upstream" : "downstream");
  if (row.mif != nullptr) {
    add_number_cell(table, static_cast<unsigned long long>(row.mif->number));
  } else {
    add_cell(table, "-");
  }
  for (const std::int32_t counter :
       {row.counters.queries, row.counters.joins, row.counters.leaves, row.counters.timeouts}) {
    add_number_cell(table, static_cast<std::uint32_t>(counter));
  }
  add_traffic_cells(table, row.mif);
  text note;
  add_interface_note(note, snapshot, row);
  add_cell(table, text_of(note));
  free_rows(note);
}

void add_interfaces(page &page, const snapshot &snapshot, std::size_t columns) {
  table table{interface_columns, {}, {}, {}};
  for (const interface_row &row : all_rows(snapshot.interfaces)) {
    add_interface(table, snapshot, row);
  }
  add_table(page, table, columns);
  free_table(table);
}

void add_listener_cells(table &table, const group_line *listener) {
  if (listener == nullptr) {
    add_cell(table, "");
    add_cell(table, "");
    return;
  }
  add_cell(table, listener->interface.data());
  add_cell(table, duration_text(listener->average_seconds).data());
}

void add_stream_note(table &table, const snapshot &snapshot, const stream_row &stream) {
  text note;
  add_text(note, "%s", stream_note(stream.kind));
  if (stream.silent_outputs != 0) {
    text names;
    add_output_names(names, stream.silent_outputs, *snapshot.mifs, ", ");
    add_text(note, "%s%s does not transmit", note.count > 0 ? ", " : "", text_of(names));
    free_rows(names);
  } else if (stream.kind == stream_kind::wanted && snapshot.has_rates && stream.packets_per_second == 0) {
    add_text(note, "%s", stream.packets == 0 ? "no packets came yet" : "no packets now");
  }
  add_cell(table, text_of(note));
  free_rows(note);
}

void add_stream_cells(table &table, const snapshot &snapshot, const stream_row *stream, bool is_utf8) {
  if (stream == nullptr || stream->entry == nullptr) {
    for (int empty = 0; empty < 6; ++empty) {
      add_cell(table, "");
    }
    add_cell(table, stream != nullptr ? stream_note(stream->kind) : "");
    return;
  }
  const cache_row &entry = *stream->entry;
  const double share =
      snapshot.fastest_bits_per_second > 0 ? stream->bits_per_second / snapshot.fastest_bits_per_second : 0.0;
  add_cell(table, std::strcmp(entry.origin.data(), "::") == 0 ? "any" : entry.origin.data());
  add_number_cell(table, stream->packets);
  add_cell(table, bytes_text(stream->bytes).data());
  add_cell(table, snapshot.has_rates ? rate_text(stream->bits_per_second).data() : "-");
  add_cell(table, bar_of(share, is_utf8).data());
  text outputs;
  add_output_names(outputs, entry.outputs, *snapshot.mifs, ", ");
  add_cell(table, outputs.count > 0 ? text_of(outputs) : "none");
  free_rows(outputs);
  add_stream_note(table, snapshot, *stream);
}

line_style style_of(const stream_row *stream) {
  if (stream != nullptr && stream->silent_outputs != 0) {
    return line_style::warning;
  }
  if (stream == nullptr || stream->kind == stream_kind::wanted) {
    return line_style::plain;
  }
  return stream->kind == stream_kind::no_entry ? line_style::warning : line_style::faint;
}

// Listeners and streams stand side by side; the group's address is on its first line only.
void add_group(table &table, const snapshot &snapshot, const group_row &group, bool is_utf8) {
  for (std::size_t i = 0; i < std::max(group.listener_count, group.stream_count); ++i) {
    const stream_row *stream = i < group.stream_count ? &snapshot.streams.first[group.first_stream + i] : nullptr;
    begin_row(table, style_of(stream));
    add_cell(table, i > 0 ? "" : group.group.data());
    add_listener_cells(table, i < group.listener_count ? &snapshot.listeners.first[group.first_listener + i] : nullptr);
    add_stream_cells(table, snapshot, stream, is_utf8);
  }
}

const stream_row *find_static_tree(const snapshot &snapshot) {
  for (const stream_row &stream : all_rows(snapshot.streams)) {
    if (stream.kind == stream_kind::static_tree) {
      return &stream;
    }
  }
  return nullptr;
}

// Not a group: it takes what no entry of a group takes.
void add_static_tree(page &page, const snapshot &snapshot, std::size_t columns) {
  const stream_row *tree = find_static_tree(snapshot);
  if (tree == nullptr) {
    return;
  }
  text line;
  add_text(line, "Static tree: %" PRIu64 " packets without a listener", tree->packets);
  if (snapshot.has_rates) {
    add_text(line, ", %s now", rate_text(tree->bits_per_second).data());
  }
  add_line(page, line_style::plain, "");
  add_paragraph(page, line_style::faint, text_of(line), columns);
  free_rows(line);
}

void add_groups(page &page, const snapshot &snapshot, bool is_utf8, std::size_t columns) {
  table table{group_columns, {}, {}, {}};
  for (const group_row &group : all_rows(snapshot.groups)) {
    if (std::strcmp(group.group.data(), "::") != 0) {
      add_group(table, snapshot, group, is_utf8);
    }
  }
  add_table(page, table, columns);
  free_table(table);
  if (snapshot.groups.count == 0) {
    add_paragraph(page, line_style::plain, "No group has a listener, and the kernel forwards nothing.", columns);
  }
  add_static_tree(page, snapshot, columns);
}

void add_hint(page &page, const char *hint, std::size_t columns) {
  add_line(page, line_style::plain, "");
  add_paragraph(page, line_style::warning, hint, columns);
}

// The daemon forwards no further group once its pool is empty.
void add_pool_note(page &page, const snapshot &snapshot, std::size_t columns) {
  constexpr std::size_t pool_size = 128; // records of groups, one for each group on each interface
  constexpr std::size_t nearly_full = 116;
  const std::size_t used = snapshot.listeners.count;
  if (used < nearly_full) {
    return;
  }
  text line;
  add_text(line, "%zu of %zu group records are in use: %s", used, pool_size,
           used >= pool_size ? "no further group is forwarded until hosts leave some."
                             : "soon no further group will be forwarded.");
  add_hint(page, text_of(line), columns);
  free_rows(line);
}

bool has_stream(const snapshot &snapshot, stream_kind kind) {
  const std::span<stream_row> streams = all_rows(snapshot.streams);
  return std::any_of(streams.begin(), streams.end(), [=](const stream_row &stream) { return stream.kind == kind; });
}

// An any-source entry forwards only along the static tree.
void add_hints(page &page, const snapshot &snapshot, std::size_t columns) {
  const std::span<stream_row> streams = all_rows(snapshot.streams);
  const bool needs_tree = std::any_of(streams.begin(), streams.end(), [](const stream_row &stream) {
    return stream.kind == stream_kind::wanted && std::strcmp(stream.entry->origin.data(), "::") == 0;
  });
  if (needs_tree && !has_stream(snapshot, stream_kind::static_tree)) {
    text hint;
    add_text(hint, "The static tree is missing, so any-source groups do not flow on a mainline kernel: ");
    if (snapshot.companion == 0) {
      add_text(hint, "start tarnwick-assist.");
    } else {
      add_text(hint, "tarnwick-assist runs (process %d): look at its log.", static_cast<int>(snapshot.companion));
    }
    add_hint(page, text_of(hint), columns);
    free_rows(hint);
  }
  add_pool_note(page, snapshot, columns);
  if (has_stream(snapshot, stream_kind::no_entry)) {
    add_hint(page, "A group has listeners but no forwarding entry: look for \"fail!!!\" in the daemon's log.", columns);
  }
}

} // namespace

const char *stream_note(stream_kind kind) {
  switch (kind) {
  case stream_kind::wanted:
    return "";
  case stream_kind::no_entry:
    return "no forwarding entry";
  case stream_kind::left_over:
    return "no listener";
  case stream_kind::unresolved:
    return "no entry takes it";
  case stream_kind::static_tree:
    return "static tree";
  }
  return "";
}

void add_output_names(text &names, std::uint32_t outputs, const rows_of<mif_row> &mifs, const char *separator) {
  for (std::int32_t number = 0; outputs != 0; ++number, outputs >>= 1) {
    if ((outputs & 1) == 0) {
      continue;
    }
    const mif_row *mif = find_mif(mifs, number);
    add_text(names, "%s", names.count > 0 ? separator : "");
    if (mif != nullptr) {
      add_text(names, "%s", mif->name.data());
    } else {
      add_text(names, "MIF %d", static_cast<int>(number));
    }
  }
}

void add_report(page &page, const snapshot &snapshot, bool is_utf8, std::size_t columns) {
  add_title(page, snapshot, columns);
  add_line(page, line_style::plain, "");
  add_interfaces(page, snapshot, columns);
  add_line(page, line_style::plain, "");
  add_groups(page, snapshot, is_utf8, columns);
  add_hints(page, snapshot, columns);
}
