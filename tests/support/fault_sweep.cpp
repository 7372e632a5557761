#include "fault_sweep.h"

#include "scripted_kernel.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <iostream>

namespace scripted {

namespace {

struct request_errors {
  const char *request; // beginning of its text
  std::vector<int> errors;
};

// The errors with which Linux refuses these calls.
const std::vector<request_errors> &possible_errors() {
  static const std::vector<request_errors> table{
      {"socket(", {EPERM, EMFILE, ENFILE, ENOBUFS, ENOMEM, EAFNOSUPPORT}},
      {"setsockopt(", {EPERM, EINVAL, ENOMEM, ENOBUFS, EADDRINUSE, EADDRNOTAVAIL, ENOENT, ENODEV, ENFILE}},
      {"ioctl(", {EPERM, ENODEV, EADDRNOTAVAIL, ENOTTY, EBUSY}},
      {"if_nametoindex(", {ENODEV}},
      {"recvmsg(", {EAGAIN, EINTR, ENOMEM, ENETDOWN}},
      {"sendto(", {ENOBUFS, ENETDOWN, ENXIO, EMSGSIZE, EPERM}},
      {"malloc(", {ENOMEM}},
      {"open(", {ELOOP, ENOSPC, EROFS, EACCES, EISDIR, EMFILE, ENXIO}},
      {"fopen(", {ENOENT, EMFILE, ENOMEM, EACCES}},
      {"system(", {EAGAIN, ENOMEM, ECHILD}},
      {"close(", {EIO, EINTR}},
      {"select(", {EINTR, EBADF, ENOMEM}},
      {"read(", {EINTR, EIO, EAGAIN}},
      {"write(", {EPIPE, EAGAIN}},
      {"pipe(", {EMFILE, ENFILE}},
      {"signal(", {EINVAL}},
      {"setitimer(", {EINVAL}},
      {"fork(", {EAGAIN, ENOMEM}},
      {"setsid(", {EPERM}},
  };
  return table;
}

std::vector<int> errors_of(const std::string &request) {
  for (const request_errors &row : possible_errors()) {
    if (request.rfind(row.request, 0) == 0) {
      return row.errors;
    }
  }
  ADD_FAILURE() << "no errors known for " << request;
  return {EIO};
}

std::function<void()> failing_at(int number, int error, bool fails_rest) {
  return [=] {
    Kernel.fail_at = static_cast<int>(Kernel.made.size()) + number;
    Kernel.fail_error = error;
    Kernel.fail_rest = fails_rest;
  };
}

// The scenario's own requests, from the moment at which a failure would be armed.
std::vector<std::string> count_requests(const sweep_scenario &scenario) {
  std::size_t first = 0;
  std::vector<std::string> made;
  const std::string complaint = scenario.play([&] {
    first = Kernel.made.size();
    Kernel.on_disarm = [&] {
      made.assign(Kernel.made.begin() + static_cast<std::ptrdiff_t>(first), Kernel.made.end());
    };
  });
  EXPECT_EQ(complaint, "") << scenario.name << " without failures";
  return made;
}

} // namespace

sweep_result sweep(const sweep_scenario &scenario) {
  const std::vector<std::string> requests = count_requests(scenario);
  sweep_result result{static_cast<int>(requests.size()), 0};
  for (int number = 1; number <= result.requests; ++number) {
    const std::string &request = requests[static_cast<std::size_t>(number - 1)];
    for (const int error : errors_of(request)) {
      for (const bool fails_rest : {false, true}) {
        ++result.failures;
        const std::string complaint = scenario.play(failing_at(number, error, fails_rest));
        EXPECT_EQ(complaint, "") << scenario.name << ": request " << number << ", " << request << ", "
                                 << strerrorname_np(error) << (fails_rest ? " and all later ones" : "");
      }
    }
  }
  return result;
}

int sweep_all(const std::vector<sweep_scenario> &scenarios) {
  int failures = 0;
  for (const sweep_scenario &scenario : scenarios) {
    const sweep_result result = sweep(scenario);
    EXPECT_GT(result.requests, 0) << scenario.name;
    failures += result.failures;
  }
  std::cout << scenarios.size() << " scenarios, " << failures << " failures injected\n";
  return failures;
}

void disarm() {
  if (Kernel.on_disarm) {
    Kernel.on_disarm();
  }
  Kernel.on_disarm = nullptr;
  Kernel.fail_at = 0;
  Kernel.fail_rest = false;
}

} // namespace scripted
