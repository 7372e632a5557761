#include "scripted_run.h"

#include "kernel_answers.h"
#include "scripted_kernel.h"

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace scripted {

kernel Kernel;
bool IsActive = false;

namespace {

std::jmp_buf EndOfRun;
FILE *Output = nullptr; // stands in for standard output during `run`
char *OutputText = nullptr;
std::size_t OutputLength = 0;
std::size_t OutputTaken = 0;
std::vector<std::string> ScriptErrors;
std::string Directory;

// "D:mld :mld_proxy_stop                      #  81: text" becomes "D mld_proxy_stop: text", if the tag fits.
std::string transcript_line(const std::string &line) {
  const bool has_prefix = line.size() > 51 && line[1] == ':' && line[6] == ':' && line[43] == '#' &&
                          std::string("EDI").find(line[0]) != std::string::npos;
  if (!has_prefix) {
    return "| " + line;
  }
  const std::string tag = line.substr(2, 4);
  std::string function = line.substr(7, 36);
  function.erase(function.find_last_not_of(' ') + 1);
  const std::string module = function.find("mld") != std::string::npos || function == "set_linklocal" ? "mld "
                             : function.find("igmp") != std::string::npos                             ? "igmp"
                                                                                                      : "";
  const std::string wrong_tag = !module.empty() && tag != module ? " [tag " + tag + "]" : "";
  const std::size_t message = line.find(": ", 44);
  return line.substr(0, 1) + " " + function + ": " + line.substr(message + 2) + wrong_tag;
}

// Moves what was logged since the last request into the transcript.
void take_output() {
  std::fflush(Output);
  const std::string fresh(OutputText + OutputTaken, OutputLength - OutputTaken);
  OutputTaken = OutputLength;
  Kernel.output += fresh;
  std::istringstream lines(fresh);
  for (std::string line; std::getline(lines, line);) {
    Kernel.transcript.push_back(transcript_line(line));
  }
}

bool starts_with(const std::string &text, const std::string &start) {
  return text.compare(0, start.size(), start) == 0;
}

// In memory if possible, unless the environment names a place: sweeps need a fresh directory thousands of times.
std::string make_directory() {
  const std::filesystem::path memory = "/dev/shm";
  std::error_code missing;
  const bool has_memory = std::getenv("TMPDIR") == nullptr && std::filesystem::is_directory(memory, missing);
  std::string pattern =
      ((has_memory ? memory : std::filesystem::temp_directory_path()) / "tarnwick-test-XXXXXX").string();
  return mkdtemp(pattern.data());
}

void remove_directory() { std::filesystem::remove_all(Directory); }

// The test program's one directory, without what earlier tests left in it.
std::string empty_directory() {
  if (Directory.empty()) {
    Directory = make_directory();
    std::atexit(remove_directory);
  }
  std::filesystem::create_directory(Directory);
  for (const auto &entry : std::filesystem::directory_iterator(Directory)) {
    std::filesystem::remove_all(entry.path());
  }
  return Directory;
}

} // namespace

void end_run() { std::longjmp(EndOfRun, 1); }

void add_script_error(const std::string &error) { ScriptErrors.push_back(error); }

void report_endless_wait(const char *what) {
  if (!Kernel.may_wait_for_ever) {
    add_script_error(std::string("the daemon would wait for ever in ") + what);
  }
  end_run();
}

bool is_failed(const std::string &request) {
  Kernel.made.push_back(request);
  const auto number = static_cast<int>(Kernel.made.size());
  if (Kernel.fail_at != 0 && (number == Kernel.fail_at || (Kernel.fail_rest && number > Kernel.fail_at))) {
    errno = Kernel.fail_error;
    return true;
  }
  for (failure &planned : Kernel.failures) {
    if (planned.times == 0 || !starts_with(request, planned.request)) {
      continue;
    }
    if (planned.passes > 0) {
      --planned.passes;
      continue;
    }
    planned.times -= planned.times > 0 ? 1 : 0;
    errno = planned.error;
    return true;
  }
  return false;
}

bool request(const std::string &text) {
  take_output();
  Kernel.transcript.push_back(text);
  if (Kernel.on_request) {
    Kernel.on_request(text);
  }
  return is_failed(text);
}

void reset() {
  forget_answers();
  Kernel = kernel{};
  Kernel.names = {{MLD_SOCKET, "mld"}, {PIPE_READ_END, "pipe"}, {PIPE_WRITE_END, "pipe"}};
  Kernel.directory = empty_directory();
}

void run(const std::function<void()> &daemon_code) {
  FILE *const real_output = stdout;
  Output = open_memstream(&OutputText, &OutputLength);
  OutputTaken = 0;
  stdout = Output;
  IsActive = true;
  if (setjmp(EndOfRun) == 0) {
    daemon_code();
  }
  IsActive = false;
  take_output();
  stdout = real_output;
  std::fclose(Output);
  std::free(OutputText);
  for (const std::string &error : ScriptErrors) {
    ADD_FAILURE() << error;
  }
  ScriptErrors.clear();
}

std::string logged(char level, const std::string &function, const std::string &message) {
  return std::string(1, level) + " " + function + ": " + message;
}

std::string logged_debug(const std::string &function, const std::string &message) {
  return logged('D', function, message);
}

std::string logged_error(const std::string &function, const std::string &message) {
  return logged('E', function, message);
}

std::optional<std::string> file_contents(const std::string &path) {
  std::ifstream file(redirected(path));
  if (!file) {
    return std::nullopt;
  }
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

std::string redirected(const std::string &path) {
  if (path == "/tmp") {
    return Kernel.directory;
  }
  return Kernel.directory + "/" + std::filesystem::path(path).filename().string();
}

std::vector<std::string> take_transcript() {
  std::vector<std::string> taken;
  taken.swap(Kernel.transcript);
  return taken;
}

bool is_request(const std::string &line) {
  const bool is_output = line.size() > 1 && line[1] == ' ' && std::string("EDI|").find(line[0]) != std::string::npos;
  return !is_output;
}

} // namespace scripted
