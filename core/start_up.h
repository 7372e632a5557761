// From the command line to a proxy that is ready to run.
#pragma once

// Parses the options, reads NVRAM, prepares the kernel, detaches if asked to, installs the signal handlers and brings
// up the MLD proxy. Returns 0, or -1 after the failing step has said why; nothing is torn down here.
int start_up(int argc, char **argv);

// Mode 4to6 only: reads `mld_prefix` into MldPrefix and brings up the NAT-PT device. Returns 0 or -1.
int init_nvram_proc();

// Installs the handlers of the stop signals and of the state dump.
void install_signal_handlers();
