// One run of the daemon's code: its log lines and requests go into the transcript, and the script decides what fails.
// For the wrappers and the answers; a test needs scripted_kernel.h alone.
#pragma once

#include <string>

namespace scripted {

extern bool IsActive; // inside `run`: the daemon is calling

// Writes the request into the transcript. Returns whether the script lets it fail; errno is set then.
bool request(const std::string &text);

// The same without a line in the transcript.
bool is_failed(const std::string &request);

// Leaves `run` from inside the daemon's code.
[[noreturn]] void end_run();

// The same, and an error unless the test expects the daemon to wait.
[[noreturn]] void report_endless_wait(const char *what);

// Fails the test after the run, when standard output is the test's again.
void add_script_error(const std::string &error);

} // namespace scripted
