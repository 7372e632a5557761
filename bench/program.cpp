#include "bench/program.h"

#include "bench/network.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

pid_t start_program(const std::vector<std::string> &command, const char *log) {
  std::vector<char *> arguments;
  for (const std::string &word : command) {
    arguments.push_back(const_cast<char *>(word.c_str()));
  }
  arguments.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int output = open(log, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  if (child < 0) {
    give_up("fork");
  }
  return child;
}

void stop_program(pid_t program) {
  kill(program, SIGTERM);
  for (int tries = 0; tries < 500; ++tries) {
    if (waitpid(program, nullptr, WNOHANG) == program) {
      return;
    }
    usleep(10'000);
  }
  kill(program, SIGKILL);
  waitpid(program, nullptr, 0);
}

void wait_for_mifs(unsigned count) {
  for (int tries = 0; tries < 500; ++tries) {
    std::ifstream table("/proc/thread-self/net/ip6_mr_vif");
    std::string line;
    unsigned lines = 0;
    while (std::getline(table, line)) {
      ++lines;
    }
    if (lines == count + 1) { // one line of headings
      return;
    }
    usleep(10'000);
  }
  give_up("multicast interfaces did not appear");
}

std::map<std::string, long> memory_of(pid_t program) {
  std::ifstream rollup("/proc/" + std::to_string(program) + "/smaps_rollup");
  std::map<std::string, long> kib;
  std::string line;
  while (std::getline(rollup, line)) {
    std::istringstream words(line);
    std::string name;
    long value = 0;
    if (words >> name >> value && name.ends_with(":")) {
      kib[name.substr(0, name.size() - 1)] = value;
    }
  }
  return kib;
}

long wakeups_of(pid_t program) {
  std::ifstream status("/proc/" + std::to_string(program) + "/status");
  long switches = 0;
  for (std::string word; status >> word;) {
    long count = 0;
    if (word.ends_with("voluntary_ctxt_switches:") && status >> count) {
      switches += count;
    }
  }
  return switches;
}

double processor_seconds_of(pid_t program) {
  std::ifstream statistics("/proc/" + std::to_string(program) + "/schedstat");
  double nanoseconds = 0;
  statistics >> nanoseconds;
  return nanoseconds / 1e9;
}
