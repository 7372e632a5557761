#include "fixture.h"

#include "core/options.h"
#include "core/start_up.h"
#include "mld/mld_shutdown.h"
#include "platform/nvram_file.h"

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace scripted {

const lines usage_lines = {
    "| Usage: tarnwick [-v] [-b] -u <interface name> -d <ignore interface name> -q <non-querier> "
    "-m <4to4/4to6/6to6 mode>.",
    "| -v                   \t\t: Verbose mode - Print debug messages",
    "| -b                   \t\t: Daemon mode - Run in background",
    "| -u <interface name>  \t\t: Name of the interface on which the router is present",
    "| -d <interface name>  \t\t: Name of the interface on which the proxy is present",
    "| -q <non-querier>  \t\t: \"1\"--force to be non-querier, otherwise \"0\".",
    "| -m <4to4/4to6/6to6 mode>  \t: Specify IGMP/MLD mode for Lan to Wan",
    "| Example: tarnwick -v -u br1 -d br0",
    "| ",
};

core_fixture::core_fixture() {
  setenv(NVRAM_PATH_VARIABLE, nvram_path().c_str(), 1);
  nvram_file_forget();
}

core_fixture::~core_fixture() {
  run([] { mld_proxy_stop(); }); // gives back what a start left behind
  take_transcript();
  unsetenv(NVRAM_PATH_VARIABLE);
  nvram_file_forget();
}

void core_fixture::TearDown() {
  const std::set<std::string> of_the_core = {"main",          "parse_arguments", "init_nvram_proc",
                                             "run_as_daemon", "router_tick",     "router_dump"};
  std::istringstream output(Kernel.output);
  for (std::string line; std::getline(output, line);) {
    const std::string function = line.size() > 43 ? line.substr(7, line.find(' ', 7) - 7) : "";
    if (line.size() > 43 && line[43] == '#' && of_the_core.count(function) != 0) {
      EXPECT_EQ(line.substr(1, 6), ":main:") << line;
    }
  }
  proxy_fixture::TearDown();
}

void core_fixture::given_nvram(const std::string &text) {
  std::ofstream(nvram_path(), std::ios::binary) << text;
  nvram_file_forget();
}

std::string core_fixture::nvram_path() const { return Kernel.directory + "/nvram"; }

void core_fixture::given_command_line(const lines &arguments) {
  argument_texts = {"tarnwick"};
  argument_texts.insert(argument_texts.end(), arguments.begin(), arguments.end());
  argument_pointers.clear();
  for (std::string &text : argument_texts) {
    argument_pointers.push_back(text.data());
  }
  argument_count = static_cast<int>(argument_pointers.size());
  argument_pointers.push_back(nullptr);
  argument_vector = argument_pointers.data();
  optind = 0; // makes getopt start afresh
}

int core_fixture::when_parsed(const lines &arguments) {
  given_command_line(arguments);
  int result = 1;
  when([&] { result = parse_arguments(argument_count, argument_vector); });
  return result;
}

int core_fixture::when_started(const lines &arguments) {
  given_command_line(arguments);
  int result = 1;
  when([&] { result = start_up(argument_count, argument_vector); });
  return result;
}

std::string error_output_of(const std::function<void()> &code) {
  testing::internal::CaptureStderr();
  code();
  return testing::internal::GetCapturedStderr();
}

std::set<int> open_descriptors() {
  constexpr int more_than_a_test_opens = 512;
  std::set<int> open;
  for (int descriptor = 0; descriptor < more_than_a_test_opens; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) != -1) {
      open.insert(descriptor);
    }
  }
  return open;
}

} // namespace scripted
