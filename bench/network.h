// Network namespaces and links of the benchmarks. They vanish with the process, however it ends.
#pragma once

#include <string>

// A namespace, held open by a descriptor.
struct network {
  int descriptor;
};

// All of these end the program with a message when the kernel refuses.
network make_network();
void enter_network(network inside); // sockets opened from here on belong to it, also later

// Runs an ip(8) command line in the namespace that the caller is in.
void run_ip(const std::string &arguments);

// Makes a pair of links, `name` in the namespace that the caller is in and `peer_name` in `peer`, both up and with
// their link-local address ready to use.
void make_link(network here, const std::string &name, network peer, const std::string &peer_name);

// Text that ip(8) and others take for a namespace.
std::string path_of(network of);

[[noreturn]] void give_up(const std::string &what); // with errno's text
