#include "assist/mld_hearing.h"

#include "assist/interface_watch.h"

void handle_mld_message(mld_message &message) {
  if (find_downstream(message.index) == nullptr) {
    return;
  }
}
