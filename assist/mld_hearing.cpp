#include "assist/mld_hearing.h"

#include "assist/group_question.h"
#include "assist/group_watch.h"
#include "assist/heard_table.h"
#include "assist/interface_watch.h"
#include "assist/querier.h"

void handle_mld_message(mld_message &message) {
  watched_interface *downstream = find_downstream(message.index);
  if (downstream == nullptr) {
    return;
  }
  note_heard(message);
  hear_for_querier(*downstream, message);
  hear_for_questions(message);
  handle_listener_message(message, place_of(*downstream));
}
