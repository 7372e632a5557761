#include "assist/interface_choice.h"

#include "core/text_part.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

bool complain(fault_text &wrong, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(wrong.data(), wrong.size(), format, arguments);
  va_end(arguments);
  return false;
}

// The kernel's own rule for interface names (dev_valid_name in net/core/dev.c).
bool can_be_interface_name(std::string_view text) {
  if (text.empty() || text.size() >= IFNAMSIZ || text == "." || text == "..") {
    return false;
  }
  for (const char letter : text) {
    if (letter == '/' || letter == ':' || std::isspace(static_cast<unsigned char>(letter)) != 0) {
      return false;
    }
  }
  return true;
}

bool read_name(std::string_view text, interface_name &name, fault_text &wrong) {
  if (!can_be_interface_name(text)) {
    return complain(wrong, "\"%.*s\" cannot be the name of an interface (1 to %d characters)",
                    static_cast<int>(text.size()), text.data(), IFNAMSIZ - 1);
  }
  name = {};
  std::memcpy(name.data(), text.data(), text.size());
  return true;
}

} // namespace

bool choose_upstream(std::string_view name, interface_name &upstream, fault_text &wrong) {
  if (upstream[0] != '\0') {
    return complain(wrong, "only one upstream interface can be served");
  }
  return read_name(name, upstream, wrong);
}

bool choose_downstreams(std::string_view list, std::span<interface_name> downstreams, std::size_t &count,
                        fault_text &wrong) {
  for (;;) {
    const std::size_t comma = list.find(',');
    if (count == downstreams.size()) {
      return complain(wrong, "at most %zu downstream interfaces can be served", downstreams.size());
    }
    if (!read_name(first_part(list, comma), downstreams[count], wrong)) {
      return false;
    }
    ++count;
    if (comma == std::string_view::npos) {
      return true;
    }
    list.remove_prefix(comma + 1);
  }
}

bool is_choice_complete(const interface_name &upstream, std::span<const interface_name> downstreams,
                        fault_text &wrong) {
  if (upstream[0] == '\0') {
    return complain(wrong, "option -u <upstream> is missing; --help shows the usage");
  }
  if (downstreams.empty()) {
    return complain(wrong, "option -d <downstream>[,<downstream>...] is missing; --help shows the usage");
  }
  for (std::size_t i = 0; i < downstreams.size(); ++i) {
    const std::span<const interface_name> before = downstreams.first(i);
    if (downstreams[i] == upstream || std::ranges::find(before, downstreams[i]) != before.end()) {
      return complain(wrong, "interface %s is given twice", downstreams[i].data());
    }
  }
  return true;
}
