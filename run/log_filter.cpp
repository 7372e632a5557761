#include "run/log_filter.h"

#include "core/text_part.h"

#include <algorithm>
#include <cstring>

namespace {

enum class text_kind {
  host,      // a packet begins; held
  group,     // a record of it begins; held
  refresh,   // what follows changes nothing but timers
  new_group, // passed on behind what is held, unless it is a refresh
  record,    // passed on behind what is held
  event,     // passed on; has nothing to do with the last packet
  nothing    // like one of the above, but not it
};

struct known_text {
  text_kind kind;
  std::string_view format; // as it stands in the daemon's sources; a conversion stands for anything
};

constexpr std::array known_texts{
    // A packet and its records.
    known_text{text_kind::host, "[PACKET] host      : %s"},
    known_text{text_kind::nothing, "[PACKET] group     : %s, skip local mcast!"},
    known_text{text_kind::group, "[PACKET] group     : %s"},
    known_text{text_kind::refresh, "group retransmit_timer < 0, drop this group: %s"},
    // Joins.
    known_text{text_kind::new_group, "add the gernel mcast %s"},
    known_text{text_kind::new_group, "add teh group mcast %s, origin %s, num src %d"},
    known_text{text_kind::new_group, "MFC Entry will be created for iface:%s."},
    known_text{text_kind::record, "Add the group membership: %s"},
    known_text{text_kind::record, "allow new source: %s"},
    // Leaves.
    known_text{text_kind::record, "Set group timer to %d"},
    known_text{text_kind::record, "Block the source: %s"},
    known_text{text_kind::record, "Remove source: %s from group: %s"},
    known_text{text_kind::event, "Network:%s Group:%s State = No members present."},
    // Expiries.
    known_text{text_kind::event, "Group timer expired."},
    known_text{text_kind::event, "interface:%s group: %s state = No members present."},
    known_text{text_kind::event, "source expired group: %s, source: %s"},
    // Election of the querier.
    known_text{text_kind::event, "Received Query from %s on interface %s moving to NonQuerier."},
    known_text{text_kind::event, "We are now the querier on network %s ."},
    // Start and end.
    known_text{text_kind::event, "Initializing MLD configuration settings."},
    known_text{text_kind::event, "/proc/net/if_inet6 has a broken line, ignoring"},
    known_text{text_kind::event, "Unable to get index for %s."},
    known_text{text_kind::event, "Detected %s as Point to Point interface."},
    known_text{text_kind::event, "Detected %s as non-DOWNSTREAM interface."},
    known_text{text_kind::event, "Set %s as UPSTREAM interface."},
    known_text{text_kind::event, "Set %s as DOWNSTREAM interface."},
    known_text{text_kind::event, "Adding MIF for interface: %s."},
    known_text{text_kind::event, "Stop MLD Proxy."},
};

// Compares what stands before the first conversion and behind the last one, each of two characters.
bool is_text(std::string_view message, std::string_view format) {
  const std::size_t first = std::min(format.find('%'), format.size());
  const std::size_t last = format.rfind('%');
  std::string_view end = format;
  end.remove_prefix(last == std::string_view::npos ? format.size() : last + 2);
  return message.starts_with(first_part(format, first)) && message.ends_with(end) &&
         (message.size() == format.size() || last != std::string_view::npos);
}

text_kind kind_of(std::string_view message) {
  for (const known_text &known : known_texts) {
    if (message.front() == known.format.front() && is_text(message, known.format)) {
      return known.kind;
    }
  }
  return text_kind::nothing;
}

void hold(held_log_line &held, std::string_view line) {
  held.length = std::min(line.size(), held.text.size());
  std::memcpy(held.text.data(), line.data(), held.length);
}

} // namespace

bool is_for_operator(log_filter &filter, std::string_view line, std::string_view message) {
  switch (message.empty() ? text_kind::nothing : kind_of(message)) {
  case text_kind::host:
    filter = {};
    hold(filter.host, line);
    return false;
  case text_kind::group:
    hold(filter.group, line);
    filter.is_refresh = false;
    return false;
  case text_kind::refresh:
    filter.is_refresh = true;
    return false;
  case text_kind::new_group:
    return !filter.is_refresh;
  case text_kind::record:
    return true;
  case text_kind::event:
    filter = {};
    return true;
  case text_kind::nothing:
    return false;
  }
  return false;
}

std::string_view take_held_log_line(held_log_line &held) {
  const std::size_t length = held.length;
  held.length = 0;
  return {held.text.data(), length};
}
