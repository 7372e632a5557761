#include "status/json_report.h"

#include <cinttypes>

namespace {

// Interface names may hold anything but a slash and blanks.
void add_quoted(text &to, const char *bytes) {
  constexpr unsigned char first_printable = 0x20;
  add_bytes(to, "\"", 1);
  for (; *bytes != '\0'; ++bytes) {
    const auto byte = static_cast<unsigned char>(*bytes);
    if (byte == '"' || byte == '\\') {
      add_text(to, "\\%c", byte);
    } else if (byte < first_printable) {
      add_text(to, "\\u%04x", byte);
    } else {
      add_bytes(to, bytes, 1);
    }
  }
  add_bytes(to, "\"", 1);
}

void add_comma(text &to, bool is_first) { add_text(to, "%s", is_first ? "" : ","); }

void add_mif(const mif_row *mif, text &to) {
  if (mif == nullptr) {
    add_text(to, ",\"mif\":null");
    return;
  }
  add_text(to,
           ",\"mif\":%d,\"packets_in\":%" PRIu64 ",\"bytes_in\":%" PRIu64 ",\"packets_out\":%" PRIu64
           ",\"bytes_out\":%" PRIu64,
           static_cast<int>(mif->number), mif->packets_in, mif->bytes_in, mif->packets_out, mif->bytes_out);
}

void add_interface(const interface_row &row, text &to) {
  add_text(to, "{\"name\":");
  add_quoted(to, row.counters.name.data());
  add_text(to, ",\"protocol\":");
  add_quoted(to, row.counters.protocol.data());
  add_text(to, ",\"role\":\"%s\",\"queries\":%u,\"joins\":%u,\"leaves\":%u,\"timeouts\":%u",
           row.is_upstream ? "upstream" : "downstream", static_cast<unsigned>(row.counters.queries),
           static_cast<unsigned>(row.counters.joins), static_cast<unsigned>(row.counters.leaves),
           static_cast<unsigned>(row.counters.timeouts));
  add_mif(row.mif, to);
  add_text(to, "}");
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

void add_output_list(std::uint32_t outputs, const rows_of<mif_row> &mifs, text &to) {
  bool is_first = true;
  for (std::int32_t number = 0; outputs != 0; ++number, outputs >>= 1) {
    const mif_row *mif = (outputs & 1) != 0 ? find_mif(mifs, number) : nullptr;
    if (mif != nullptr) {
      add_comma(to, is_first);
      add_quoted(to, mif->name.data());
      is_first = false;
    }
  }
}

void add_stream(const stream_row &stream, const rows_of<mif_row> &mifs, text &to) {
  const cache_row &entry = *stream.entry;
  add_text(to, "{\"source\":");
  add_quoted(to, entry.origin.data());
  add_text(to,
           ",\"kind\":\"%s\",\"packets\":%" PRIu64 ",\"bytes\":%" PRIu64 ",\"wrong_interface\":%" PRIu64
           ",\"bits_per_second\":%.0f,\"packets_per_second\":%.1f,\"outputs\":[",
           kind_text(stream.kind), entry.packets, entry.bytes, entry.wrong_interface, stream.bits_per_second,
           stream.packets_per_second);
  add_output_list(entry.outputs, mifs, to);
  add_text(to, "]}");
}

void add_group(const snapshot &shown, const group_row &group, const rows_of<mif_row> &mifs, text &to) {
  add_text(to, "{\"group\":");
  add_quoted(to, group.group.data());
  add_text(to, ",\"listeners\":[");
  for (std::size_t i = 0; i < group.listener_count; ++i) {
    const group_line &listener = shown.listeners.first[group.first_listener + i];
    add_comma(to, i == 0);
    add_text(to, "{\"interface\":");
    add_quoted(to, listener.interface.data());
    add_text(to, ",\"average_seconds\":%d}", static_cast<int>(listener.average_seconds));
  }
  add_text(to, "],\"streams\":[");
  bool is_first = true;
  for (std::size_t i = 0; i < group.stream_count; ++i) {
    const stream_row &stream = shown.streams.first[group.first_stream + i];
    if (stream.entry != nullptr) {
      add_comma(to, is_first);
      add_stream(stream, mifs, to);
      is_first = false;
    }
  }
  add_text(to, "]}");
}

} // namespace

void add_json(const snapshot &shown, const rows_of<mif_row> &mifs, double sample_seconds, text &to) {
  add_text(to, "{\"pid\":%d,\"running_seconds\":%ld,\"sample_seconds\":%.3f,\"interfaces\":[",
           static_cast<int>(shown.daemon.pid), seconds_running(shown.daemon), sample_seconds);
  for (std::size_t i = 0; i < shown.interfaces.count; ++i) {
    add_comma(to, i == 0);
    add_interface(shown.interfaces.first[i], to);
  }
  add_text(to, "],\"groups\":[");
  for (std::size_t i = 0; i < shown.groups.count; ++i) {
    add_comma(to, i == 0);
    add_group(shown, shown.groups.first[i], mifs, to);
  }
  add_text(to, "]}\n");
}
