// The one loop: ticks from the timer pipe, messages from the MLD socket.
#pragma once

// Arms the one-second tick and runs until a stop signal or a failure; then stops the proxy. Returns 0 after the loop
// has run, however it ended, and -1 if the pipe or the timer could not be made.
int run_main_loop();
