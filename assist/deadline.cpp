#include "assist/deadline.h"

#include "assist/interface_watch.h"
#include "assist/retry.h"

int ms_until_next_deadline() { return ms_until_retry(); }

void handle_deadlines() {
  if (take_due_retry()) {
    look_at_everything();
  }
}
