// Who gets the MLD messages that the companion hears.
#pragma once

#include "assist/mld_message.h"

// Hands a message to each part that listens to hosts. Messages that did not arrive on a downstream interface of the
// companion are dropped.
void handle_mld_message(mld_message &message);
