#include "igmp/igmp_snooping.h"

#include "core/state_file.h"
#include "igmp/igmp_group.h"

#include <cstdlib>

int igmp_snooping_leave(std::uint32_t source, std::uint32_t group) {
  FILE *record = open_state_file("/tmp/igmprt_leave_record");
  if (record == nullptr) {
    return -1;
  }
  if (source != InAddrAny) {
    std::fprintf(record, "src=%s\n", IGMP_WORD_TEXT(source));
  }
  std::fprintf(record, "grp=%s\n", IGMP_WORD_TEXT(group));
  std::fclose(record);
  return std::system("killall -USR1 igmp_snooping");
}
