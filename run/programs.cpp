#include "run/programs.h"

#include "core/text_part.h"
#include "run/child_process.h"
#include "run/linkage.h"
#include "run/report.h"
#include "run/runtime_folder.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

constexpr char clean_path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
constexpr char flush_library_name[] = "libtarnwick-smooth.so";
constexpr std::size_t most_arguments = 64;

file_path DaemonProgram{};
file_path CompanionProgram{};
file_path FlushLibrary{}; // empty = none

using setting_text = std::array<char, sizeof(file_path) + 32>; // "LD_PRELOAD=..."

struct argument_list {
  std::array<char *, most_arguments> items; // null at its end
  std::size_t count;
};

// The programs do not write to their arguments but split them; each start has texts of its own.
void add(argument_list &list, const char *text) {
  if (list.count + 1 < list.items.size()) {
    list.items[list.count++] = const_cast<char *>(text);
  }
}

using name_list = std::array<char, MOST_DOWNSTREAMS * sizeof(interface_name)>;

void join_names(std::span<const interface_name> names, name_list &joined) {
  joined = {};
  std::size_t length = 0;
  for (const interface_name &name : names) {
    const int written =
        std::snprintf(&joined[length], joined.size() - length, "%s%s", length > 0 ? "," : "", name.data());
    length += static_cast<std::size_t>(written);
  }
}

// Cuts `text` at blanks, in place.
void add_words(argument_list &list, char *text) {
  char *rest = nullptr;
  for (char *word = strtok_r(text, " ", &rest); word != nullptr; word = strtok_r(nullptr, " ", &rest)) {
    add(list, word);
  }
}

void find_flush_library(const run_options &options, std::string_view folder) {
  FlushLibrary = {};
  const bool is_wanted = options.flush_library == nullptr || options.flush_library[0] != '\0';
  if (is_wanted && !loads_libraries(DaemonProgram.data())) {
    say("%s is linked statically: its log lines come in blocks, and each query makes it wait", DaemonProgram.data());
    return;
  }
  if (options.flush_library != nullptr) {
    std::snprintf(FlushLibrary.data(), FlushLibrary.size(), "%s", options.flush_library);
    return;
  }
  for (const char *place : {"", "../lib/tarnwick/"}) {
    std::snprintf(FlushLibrary.data(), FlushLibrary.size(), "%.*s%s%s", static_cast<int>(folder.size()), folder.data(),
                  place, flush_library_name);
    if (access(FlushLibrary.data(), R_OK) == 0) {
      return;
    }
  }
  FlushLibrary = {};
  say("%s is not there: lines of the log come in blocks", flush_library_name);
}

child_plan plan_of(const program_start &start, const file_path &program, const argument_list &arguments,
                   const argument_list &environment) {
  child_plan plan{};
  plan.program = program.data();
  plan.arguments = arguments.items.data();
  plan.environment = environment.items.data();
  plan.network_namespace = start.network_namespace;
  plan.standard_output = start.standard_output;
  plan.standard_error = start.standard_error;
  return plan;
}

} // namespace

bool find_programs(const run_options &options) {
  file_path own{};
  if (readlink("/proc/self/exe", own.data(), own.size() - 1) < 0) {
    say_refused(errno, "cannot find out where the programs are");
    return false;
  }
  std::string_view folder = own.data();
  folder = first_part(folder, folder.rfind('/') + 1);
  const int length = static_cast<int>(folder.size());
  std::snprintf(DaemonProgram.data(), DaemonProgram.size(), "%.*starnwick", length, folder.data());
  std::snprintf(CompanionProgram.data(), CompanionProgram.size(), "%.*starnwick-assist", length, folder.data());
  if (access(DaemonProgram.data(), X_OK) != 0) {
    say_refused(errno, "cannot run %s", DaemonProgram.data());
    return false;
  }
  if (options.has_companion && access(CompanionProgram.data(), X_OK) != 0) {
    say_refused(errno, "cannot run %s", CompanionProgram.data());
    return false;
  }
  find_flush_library(options, folder);
  return true;
}

pid_t start_daemon(const program_start &start) {
  const run_options &options = *start.options;
  name_list downstreams;
  join_names(start.downstreams, downstreams);
  argument_list arguments{};
  for (const char *text :
       std::array<const char *, 5>{DaemonProgram.data(), "-u", start.upstream.data(), "-d", downstreams.data()}) {
    add(arguments, text);
  }
  for (char *const option : std::span{options.daemon_options, options.daemon_option_count}) {
    add(arguments, option);
  }
  const file_path own_nvram = path_in_runtime_folder(NVRAM_NAME);
  setting_text nvram_setting;
  std::snprintf(nvram_setting.data(), nvram_setting.size(), "TARNWICK_NVRAM=%s",
                options.nvram_file != nullptr ? options.nvram_file : own_nvram.data());
  setting_text preload_setting;
  std::snprintf(preload_setting.data(), preload_setting.size(), "LD_PRELOAD=%s", FlushLibrary.data());
  argument_list environment{};
  add(environment, clean_path);
  add(environment, nvram_setting.data());
  if (FlushLibrary[0] != '\0') {
    add(environment, preload_setting.data());
  }
  child_plan plan = plan_of(start, DaemonProgram, arguments, environment);
  if (options.nvram_file == nullptr) {
    plan.nvram_file = own_nvram.data();
    plan.lan = &start.downstreams.front();
  }
  return start_child(plan);
}

pid_t start_companion(const program_start &start) {
  name_list downstreams;
  join_names(start.downstreams, downstreams);
  argument_list arguments{};
  for (const char *text :
       std::array<const char *, 5>{CompanionProgram.data(), "-u", start.upstream.data(), "-d", downstreams.data()}) {
    add(arguments, text);
  }
  std::array<char, 512> words{};
  if (start.options->companion_options != nullptr) {
    std::snprintf(words.data(), words.size(), "%s", start.options->companion_options);
    add_words(arguments, words.data());
  }
  argument_list environment{};
  add(environment, clean_path);
  return start_child(plan_of(start, CompanionProgram, arguments, environment));
}
