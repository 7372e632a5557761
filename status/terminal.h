// The terminal of one who watches: keys, stops and resizes, and that it is left as it was.
#pragma once

// Handles SIGINT, SIGTERM, SIGHUP, SIGQUIT (all end the watch), SIGTSTP and SIGWINCH, and reads single keys from
// standard input if that is a terminal in the foreground. Opens the window if standard output is a terminal.
void begin_watching();

// Closes the window and gives the terminal back as it was.
void end_watching();

// Whether nobody has asked for the end.
bool is_watching();

enum class watch_event { time_is_up, end, redraw };

// Waits so long, or until q or a signal. Ctrl-Z is dealt with in here: the terminal is given back meanwhile.
watch_event wait_for_watch_event(int milliseconds);
