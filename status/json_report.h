// The snapshot for programs: one JSON object on one line. docs/man/tarnwick-status.8 describes its fields.
#pragma once

#include "status/snapshot.h"

void add_json(const snapshot &shown, const rows_of<mif_row> &mifs, double sample_seconds, text &to);
