#include "run/service_state.h"

#include "run/notify_socket.h"
#include "run/runtime_folder.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

constexpr std::size_t longest_text = 512;
constexpr std::size_t longest_file = 2 * longest_text + 96; // both texts with their numbers

using state_text = std::array<char, longest_text>;

state_text State{};
long long StateSince = 0;
state_text Failure{};
long long FailedAt = 0;
unsigned Failures = 0;
bool IsHostPoolFull = false;

long long seconds_since_boot() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec;
}

void set_state(const char *text) {
  std::snprintf(State.data(), State.size(), "%s", text);
  StateSince = seconds_since_boot();
}

void write_state() {
  std::array<char, longest_file> content;
  const int length = std::snprintf(content.data(), content.size(), "state %lld %s\n%s", StateSince, State.data(),
                                   IsHostPoolFull ? "hosts-full\n" : "");
  if (Failures > 0) {
    std::snprintf(&content[static_cast<std::size_t>(length)], content.size() - static_cast<std::size_t>(length),
                  "failed %lld %u %s\n", FailedAt, Failures, Failure.data());
  }
  write_runtime_file(SERVICE_STATE_NAME, content.data());
}

} // namespace

void clear_service_state() {
  State = {};
  Failures = 0;
  IsHostPoolFull = false;
}

void tell_state(const char *text) {
  tell_status(text);
  if (std::strncmp(State.data(), text, State.size() - 1) != 0) {
    set_state(text);
    write_state();
  }
}

void tell_failed_start(const char *why) {
  tell_status(why);
  set_state(why);
  Failure = State;
  FailedAt = StateSince;
  ++Failures;
  write_state();
}

void note_host_pool(bool is_full) {
  if (IsHostPoolFull != is_full) {
    IsHostPoolFull = is_full;
    write_state();
  }
}
