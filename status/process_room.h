// What /proc says of a process beyond who it is.
#pragma once

#include "status/daemon_process.h"
#include "status/state_files.h"

// Of /proc/PID/limits: how many descriptors it may open; -1 if the text does not say.
long parse_descriptor_limit(const char *limits);

// Of /proc/PID/environ (`count` bytes, entries end with NUL): the value of a variable, null if it is not set.
const char *find_variable(const text &environment, const char *name);

// Of /proc/PID/status: whether it has been stopped by a signal.
bool parse_is_stopped(const char *status);

struct process_room {
  bool is_stopped;
  long descriptors_used; // -1: may not be read
  long descriptors_most;
};

void read_process_room(process_room &room, pid_t pid);

// The value of a key in the daemon's settings, as the daemon sees the file; "" if there is no such file or key.
void read_setting(text &value, pid_t daemon, const char *key);

// Of the settings file: "key=value" lines. "" if there is no such key.
void parse_setting(text &value, const char *settings, const char *key);

// The interfaces that the daemon was started for. Of /proc/PID/cmdline: the names after "-u" and "-d".
void read_served_names(rows_of<interface_text> &names, pid_t daemon);
void parse_served_names(rows_of<interface_text> &names, const text &command_line);
