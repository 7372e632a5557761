// The kernel's part: multicast routing is there, somebody holds it, and it forwards.
#pragma once

#include "status/check_list.h"
#include "status/check_subject.h"

struct kernel_facts {
  bool has_routing;          // /proc/net/ip6_mr_cache is there
  int mc_forwarding;         // /proc/sys/net/ipv6/conf/all/mc_forwarding: 1 while a process holds the routing socket
  pid_t holder;              // process with a raw ICMPv6 socket that is not ours, 0: none
  std::array<char, 16> name; // of the holder, TASK_COMM_LEN of the kernel
  int holder_count;          // how many such processes there are: each of them may hold it
};

// Reads the facts in the network namespace of `daemon`, or of the caller if it is 0. What cannot be read is -1.
void read_kernel_facts(kernel_facts &facts, pid_t daemon);

void check_kernel(check_list &list, const check_subject &subject, const kernel_facts &facts);
