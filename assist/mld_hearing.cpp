#include "assist/mld_hearing.h"

#include "assist/group_watch.h"
#include "assist/interface_watch.h"

void handle_mld_message(mld_message &message) {
  const watched_interface *downstream = find_downstream(message.index);
  if (downstream == nullptr) {
    return;
  }
  handle_listener_message(message, place_of(*downstream));
}
