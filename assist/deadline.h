// Everything that the companion does by the clock. While nothing is due it sleeps.
#pragma once

// For poll: milliseconds until the earliest deadline, 0 = now, -1 = there is none.
int ms_until_next_deadline();

// Does what is due.
void handle_deadlines();
