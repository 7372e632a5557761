// The snapshot for programs: one JSON object on one line. docs/man/tarnwick-status.8 describes its fields.
#pragma once

#include "status/snapshot.h"

void add_json(text &json, const snapshot &snapshot);
