// For tests in which the daemon gives up records on purpose.
#pragma once

extern "C" {
// Only there in builds with the leak checker.
__attribute__((weak)) void __lsan_disable();
__attribute__((weak)) void __lsan_enable();
}

namespace scripted {

// While it lives, the leak checker ignores what the daemon allocates: for records that the daemon gives up on purpose.
// The daemon's own memory report still counts them.
struct leaks_on_purpose {
  leaks_on_purpose() {
    if (__lsan_disable != nullptr) {
      __lsan_disable();
    }
  }
  ~leaks_on_purpose() {
    if (__lsan_enable != nullptr) {
      __lsan_enable();
    }
  }
  leaks_on_purpose(const leaks_on_purpose &) = delete;
  leaks_on_purpose &operator=(const leaks_on_purpose &) = delete;
};

} // namespace scripted
