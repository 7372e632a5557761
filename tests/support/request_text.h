// Kernel requests as one line of text each: every field of a record by name, anything unexpected as raw bytes.
#pragma once

#include <cstddef>
#include <string>
#include <sys/socket.h>

namespace scripted {

// Name of a descriptor in the transcript: as given by the test, else "fd 1100".
std::string descriptor_text(int descriptor);

std::string socket_text(int domain, int type, int protocol);

// "setsockopt(mld, MRT6_ADD_MFC) origin=:: group=ff0e::1 parent=2 outputs={3}". A request of another size than the
// platform's record, or one with bytes set in fields that should be zero, ends with " raw=..." and its bytes.
std::string setsockopt_text(int descriptor, int level, int option, const void *value, socklen_t length);

// "ioctl(fd 1100, SIOCSIFFLAGS) br0 flags=0x1303".
std::string ioctl_text(int descriptor, unsigned long request, const void *argument);

// "sendto(fd 1100, 90 bytes) protocol=58 ifindex=3 hatype=1 pkttype=2 mac=33:33:00:00:00:01".
std::string sendto_text(int descriptor, std::size_t length, const sockaddr *address, socklen_t address_length);

std::string hex_text(const void *bytes, std::size_t length);

} // namespace scripted
