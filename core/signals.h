// Signals become bytes in a pipe that the main loop reads; no proxy state is touched in a handler.
#pragma once

#include <array>
#include <csignal>

inline constexpr std::array<char, 5> TICK_MESSAGE{'T', 'i', 'm', 'e', 'r'};

extern std::array<int, 2> timer_pipe;                // read end, write end; -1 until the loop has made the pipe
extern volatile std::sig_atomic_t ProxyIsRunning;    // 1 while the loop is to go on
extern volatile std::sig_atomic_t StateDumpIsWanted; // 1 from SIGUSR1 until the loop has written the files

// SIGALRM: one tick into the pipe.
void router_tick(int signal_number);

// SIGTERM, SIGHUP: ends the loop. Lost before the loop has started, since the loop sets ProxyIsRunning itself.
void router_stop(int signal_number);

// SIGUSR1: asks the loop for the state dump; the loop writes it as soon as `select` returns.
void router_dump(int signal_number);
