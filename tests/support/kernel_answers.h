// What the scripted kernel answers to a request that it grants.
#pragma once

#include "scripted_kernel.h"

#include <cstdio>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>

namespace scripted {

// The interface of that name; null if the script has none.
const interface *find_interface(const std::string &name);

// Each returns what the system call would, and sets errno.
int answer_ioctl(unsigned long number, void *argument);
int answer_select(fd_set *readable);
ssize_t deliver_message(msghdr *header);
ssize_t read_pipe(void *buffer, std::size_t room);
ssize_t write_pipe(const std::string &text);

// /proc/net/if_inet6 with the script's interfaces.
FILE *open_if_inet6();
bool is_open_table(const FILE *stream);

// Back to an empty pipe, and no table open.
void forget_answers();

} // namespace scripted
