// Going into the background.
#pragma once

// Forks; the parent exits with 0, the child starts a session and goes on. Returns 0 in the child, -1 if fork failed.
int run_as_daemon();
