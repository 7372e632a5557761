#include "run/notify_socket.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::size_t longest_message = 512;

sockaddr_un Manager{};
socklen_t ManagerLength = 0; // 0 = nobody wants to know
bool IsReadyTold = false;
std::array<char, longest_message> LastStatus{};

void tell(const char *message) {
  if (ManagerLength == 0) {
    return;
  }
  const int opened = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (opened >= 0) {
    sendto(opened, message, std::strlen(message), MSG_NOSIGNAL | MSG_DONTWAIT,
           reinterpret_cast<const sockaddr *>(&Manager), ManagerLength);
    close(opened);
  }
}

} // namespace

void open_notify_socket() {
  ManagerLength = 0;
  IsReadyTold = false;
  LastStatus = {};
  const char *path = std::getenv("NOTIFY_SOCKET");
  const std::size_t length = path == nullptr ? 0 : std::strlen(path);
  if (length < 2 || length >= sizeof(Manager.sun_path) || (path[0] != '/' && path[0] != '@')) {
    return;
  }
  Manager = {};
  Manager.sun_family = AF_UNIX;
  std::memcpy(Manager.sun_path, path, length);
  if (path[0] == '@') { // the abstract namespace (unix(7))
    Manager.sun_path[0] = '\0';
  }
  ManagerLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

void tell_ready(const char *status) {
  std::array<char, longest_message> message;
  std::snprintf(message.data(), message.size(), "%sSTATUS=%s", IsReadyTold ? "" : "READY=1\n", status);
  IsReadyTold = true;
  std::snprintf(LastStatus.data(), LastStatus.size(), "%s", status);
  tell(message.data());
}

void tell_status(const char *status) {
  if (std::strcmp(LastStatus.data(), status) == 0) {
    return;
  }
  std::snprintf(LastStatus.data(), LastStatus.size(), "%s", status);
  std::array<char, longest_message> message;
  std::snprintf(message.data(), message.size(), "STATUS=%s", status);
  tell(message.data());
}

void tell_stopping() { tell("STOPPING=1"); }
