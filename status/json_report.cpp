#include "status/json_report.h"

#include "status/json_text.h"

#include <cinttypes>

namespace {

void add_comma(text &json, bool is_first) { add_text(json, "%s", is_first ? "" : ","); }

void add_mif(text &json, const mif_row *mif) {
  if (mif == nullptr) {
    add_text(json, ",\"mif\":null");
    return;
  }
  add_text(json,
           ",\"mif\":%d,\"packets_in\":%" PRIu64 ",\"bytes_in\":%" PRIu64 ",\"packets_out\":%" PRIu64
           ",\"bytes_out\":%" PRIu64,
           static_cast<int>(mif->number), mif->packets_in, mif->bytes_in, mif->packets_out, mif->bytes_out);
  if (mif->host_name[0] != '\0') {
    add_text(json, ",\"host_name\":");
    add_json_text(json, mif->host_name.data());
  }
}

void add_interface(text &json, const interface_row &row) {
  add_text(json, "{\"name\":");
  add_json_text(json, row.counters.name.data());
  add_text(json, ",\"protocol\":");
  add_json_text(json, row.counters.protocol.data());
  add_text(json, ",\"role\":\"%s\",\"queries\":%u,\"joins\":%u,\"leaves\":%u,\"timeouts\":%u",
           row.is_upstream ? "upstream" : "downstream", static_cast<unsigned>(row.counters.queries),
           static_cast<unsigned>(row.counters.joins), static_cast<unsigned>(row.counters.leaves),
           static_cast<unsigned>(row.counters.timeouts));
  add_mif(json, row.mif);
  add_text(json, "}");
}

const char *kind_text(stream_kind kind) {
  switch (kind) {
  case stream_kind::wanted:
    return "wanted";
  case stream_kind::no_entry:
    return "no_entry";
  case stream_kind::left_over:
    return "left_over";
  case stream_kind::unresolved:
    return "unresolved";
  case stream_kind::static_tree:
    return "static_tree";
  }
  return "";
}

void add_output_list(text &json, std::uint32_t outputs, const rows_of<mif_row> &mifs) {
  bool is_first = true;
  for (std::int32_t number = 0; outputs != 0; ++number, outputs >>= 1) {
    const mif_row *mif = (outputs & 1) != 0 ? find_mif(mifs, number) : nullptr;
    if (mif != nullptr) {
      add_comma(json, is_first);
      add_json_text(json, mif->name.data());
      is_first = false;
    }
  }
}

void add_stream(text &json, const stream_row &stream, const rows_of<mif_row> &mifs) {
  const cache_row &entry = *stream.entry;
  add_text(json, "{\"source\":");
  add_json_text(json, entry.origin.data());
  add_text(json,
           ",\"kind\":\"%s\",\"packets\":%" PRIu64 ",\"bytes\":%" PRIu64 ",\"wrong_interface\":%" PRIu64
           ",\"bits_per_second\":%.0f,\"packets_per_second\":%.1f,\"outputs\":[",
           kind_text(stream.kind), entry.packets, entry.bytes, entry.wrong_interface, stream.bits_per_second,
           stream.packets_per_second);
  add_output_list(json, entry.outputs, mifs);
  add_text(json, "]}");
}

void add_group(text &json, const snapshot &snapshot, const group_row &group) {
  add_text(json, "{\"group\":");
  add_json_text(json, group.group.data());
  add_text(json, ",\"listeners\":[");
  for (std::size_t i = 0; i < group.listener_count; ++i) {
    const group_line &listener = snapshot.listeners.first[group.first_listener + i];
    add_comma(json, i == 0);
    add_text(json, "{\"interface\":");
    add_json_text(json, listener.interface.data());
    add_text(json, ",\"average_seconds\":%d}", static_cast<int>(listener.average_seconds));
  }
  add_text(json, "],\"streams\":[");
  bool is_first = true;
  for (std::size_t i = 0; i < group.stream_count; ++i) {
    const stream_row &stream = snapshot.streams.first[group.first_stream + i];
    if (stream.entry != nullptr) {
      add_comma(json, is_first);
      add_stream(json, stream, *snapshot.mifs);
      is_first = false;
    }
  }
  add_text(json, "]}");
}

} // namespace

void add_json(text &json, const snapshot &snapshot) {
  add_text(json, "{\"pid\":%d,\"running_seconds\":%ld,\"sample_seconds\":%.3f,\"interfaces\":[",
           static_cast<int>(snapshot.daemon.pid), seconds_running(snapshot.daemon), snapshot.sample_seconds);
  for (std::size_t i = 0; i < snapshot.interfaces.count; ++i) {
    add_comma(json, i == 0);
    add_interface(json, snapshot.interfaces.first[i]);
  }
  add_text(json, "],\"groups\":[");
  for (std::size_t i = 0; i < snapshot.groups.count; ++i) {
    add_comma(json, i == 0);
    add_group(json, snapshot, snapshot.groups.first[i]);
  }
  add_text(json, "]}\n");
}
