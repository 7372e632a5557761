// One line of the daemon's log, taken apart: "D:mld :mld_proxy_stop                      #  76: Stop MLD Proxy."
#pragma once

#include <string_view>

struct log_line_parts {
  char level; // 'E', 'D' or 'I'; '\0' when the line is none of the daemon's own, such as a shell's complaint
  std::string_view message;
};

log_line_parts take_log_line_apart(std::string_view line);
