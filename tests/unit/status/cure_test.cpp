// Cures name the command that fits how tarnwick was started.
#include "status/cure.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

std::vector<std::string> *Files = nullptr; // null = those of this machine

class cure_of : public testing::Test {
protected:
  void SetUp() override { Files = &files; }
  void TearDown() override { Files = nullptr; }

  std::vector<std::string> files;
};

TEST_F(cure_of, service_of_systemd_is_restarted_by_systemd_wherever_its_unit_lies) {
  for (const char *folder : {"/etc", "/lib", "/usr/local/lib"}) {
    files = {"/run/systemd/system", std::string{folder} + "/systemd/system/tarnwick.service"};
    EXPECT_STREQ(restart_command(), "systemctl restart tarnwick");
    EXPECT_STREQ(log_command(), "journalctl -u tarnwick -n 20");
  }
}

TEST_F(cure_of, router_with_an_init_script_uses_that) {
  files = {"/etc/init.d/tarnwick"};
  EXPECT_STREQ(restart_command(), "/etc/init.d/tarnwick restart");
  EXPECT_STREQ(log_command(), "logread -e tarnwick");
}

TEST_F(cure_of, what_was_started_by_hand_is_started_again_by_hand) {
  for (const std::vector<std::string> &present :
       {std::vector<std::string>{}, {"/run/systemd/system"}, {"/lib/systemd/system/tarnwick.service"}}) {
    files = present;
    EXPECT_STREQ(restart_command(), "end tarnwick-run and start it again");
    EXPECT_STREQ(log_command(), "look at what tarnwick-run prints");
  }
}

} // namespace

extern "C" int __real_access(const char *path, int mode);
extern "C" int __wrap_access(const char *path, int mode);
extern "C" int __wrap_access(const char *path, int mode) {
  if (Files == nullptr) {
    return __real_access(path, mode);
  }
  return std::find(Files->begin(), Files->end(), path) != Files->end() ? 0 : -1;
}
