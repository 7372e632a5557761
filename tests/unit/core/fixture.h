// Fixture for the daemon's core: a command line, an NVRAM file in the test's directory, what reaches standard error.
#pragma once

#include "tests/support/proxy_fixture.h"

#include <set>
#include <string>
#include <vector>

namespace scripted {

struct core_fixture : proxy_fixture {
  core_fixture();
  ~core_fixture() override;

  // Checks that the core's steps log under the tag "main", then what every fixture checks.
  void TearDown() override;

  // Contents of the NVRAM file; without this call the file does not exist.
  void given_nvram(const std::string &text);
  std::string nvram_path() const;

  // The argument vector for the next start, program name first. It lives until the next one is given.
  void given_command_line(const lines &arguments);

  // Each returns what the daemon's function returned.
  int when_parsed(const lines &arguments);
  int when_started(const lines &arguments);

  int argument_count = 0;
  char **argument_vector = nullptr;
  lines argument_texts;
  std::vector<char *> argument_pointers;
};

// Runs code, with what it writes to standard error as the result.
std::string error_output_of(const std::function<void()> &code);

// Descriptors that the test program has open.
std::set<int> open_descriptors();

// The eight usage lines as they stand in the transcript.
extern const lines usage_lines;

} // namespace scripted
