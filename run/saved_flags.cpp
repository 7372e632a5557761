#include "run/saved_flags.h"

#include "run/interface_state.h"
#include "run/report.h"
#include "run/runtime_folder.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <span>

namespace {

constexpr std::uint16_t proxy_flags = IFF_PROMISC | IFF_ALLMULTI;
constexpr std::size_t most_noted = 32; // indexes change when interfaces are made anew; the oldest note is given up

std::array<saved_flags, most_noted> Noted{};
std::size_t NotedCount = 0;

using file_text = std::array<char, most_noted * 24>;

void write_notes() {
  file_text text{};
  std::size_t length = 0;
  for (const saved_flags &note : std::span{Noted}.first(NotedCount)) {
    const int written =
        std::snprintf(&text[length], text.size() - length, "%" PRIu32 " %" PRIu16 "\n", note.index, note.flags);
    length += static_cast<std::size_t>(written);
  }
  write_runtime_file(SAVED_FLAGS_NAME, text.data());
}

void note(std::uint32_t index, std::uint16_t flags) {
  if (NotedCount == Noted.size()) {
    std::memmove(&Noted[0], &Noted[1], (Noted.size() - 1) * sizeof(Noted[0]));
    --NotedCount;
  }
  Noted[NotedCount++] = {index, static_cast<std::uint16_t>(flags & proxy_flags)};
}

void restore(const saved_flags &note) {
  interface_name name{};
  if (if_indextoname(note.index, name.data()) == nullptr) {
    return; // gone, and its flags with it
  }
  interface_state now{};
  if (!look_at_interface(name, in6_addr{}, now)) {
    say_refused(errno, "cannot ask for the flags of %s", name.data());
    return;
  }
  const auto wanted = static_cast<std::uint16_t>((now.flags & ~proxy_flags) | note.flags);
  if (now.index != note.index || now.flags == wanted) {
    return;
  }
  if (set_interface_flags(name, wanted)) {
    say("put back the flags of %s", name.data());
  } else {
    say_refused(errno, "cannot put back the flags of %s", name.data());
  }
}

} // namespace

void save_flags(std::uint32_t index, std::uint16_t flags) {
  for (const saved_flags &old : std::span{Noted}.first(NotedCount)) {
    if (old.index == index) {
      return;
    }
  }
  note(index, flags);
  write_notes();
}

void restore_flags() {
  for (const saved_flags &old : std::span{Noted}.first(NotedCount)) {
    restore(old);
  }
}

void restore_left_flags() {
  NotedCount = 0;
  file_text text;
  if (!read_runtime_file(SAVED_FLAGS_NAME, text.data(), text.size())) {
    return;
  }
  const char *line = text.data();
  while (line != nullptr && *line != '\0') {
    saved_flags left{};
    constexpr int items = 2;
    if (std::sscanf(line, "%" SCNu32 " %" SCNu16, &left.index, &left.flags) == items) {
      note(left.index, left.flags);
    }
    line = std::strchr(line, '\n');
    line += line != nullptr ? 1 : 0;
  }
  restore_flags();
  NotedCount = 0;
  remove_runtime_file(SAVED_FLAGS_NAME);
}
