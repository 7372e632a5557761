// The service manager's notification protocol (sd_notify(3)): a datagram to the socket that NOTIFY_SOCKET names.
#pragma once

// Remembers the socket. Silent about it where there is none.
void open_notify_socket();

// READY=1 with the first call, and STATUS=`status` with each.
void tell_ready(const char *status);

// STATUS=`status`, unless it is what was sent last.
void tell_status(const char *status);

// STOPPING=1.
void tell_stopping();
