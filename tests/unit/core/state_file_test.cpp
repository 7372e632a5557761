#include "core/state_file.h"

#include "fixture.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace scripted;

// Real files in the test's directory, which stands for /tmp.
struct state_file : core_fixture {
  static constexpr char path[] = "/tmp/tarnwick_leave_record";
  const std::string real_path = redirected(path);
  const std::string victim = Kernel.directory + "/victim";

  // Opens, writes and closes. Returns whether there was a stream.
  bool when_written(const char *text) {
    bool is_open = false;
    when([&] {
      FILE *stream = open_state_file(path);
      is_open = stream != nullptr;
      if (is_open) {
        std::fputs(text, stream);
        std::fclose(stream);
      }
    });
    then({std::string("open(") + path + ", O_WRONLY|O_CREAT|O_TRUNC|O_NOFOLLOW|O_NONBLOCK|O_CLOEXEC)"});
    return is_open;
  }
};

TEST_F(state_file, new_file_is_made_readable_for_all_less_the_umask) {
  const mode_t usual = umask(022);
  EXPECT_TRUE(when_written("grp=ff0e::1\n"));
  umask(usual);
  EXPECT_EQ(file_contents(path), "grp=ff0e::1\n");
  struct stat status {};
  ASSERT_EQ(stat(real_path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0644u);
}

TEST_F(state_file, old_contents_are_gone) {
  std::ofstream(real_path) << "something much longer than what comes now\n";
  EXPECT_TRUE(when_written("short\n"));
  EXPECT_EQ(file_contents(path), "short\n");
}

TEST_F(state_file, planted_symbolic_link_is_not_followed) {
  std::ofstream(victim) << "precious\n";
  std::filesystem::create_symlink(victim, real_path);
  EXPECT_FALSE(when_written("x"));
  EXPECT_EQ(file_contents("/tmp/victim"), "precious\n");
  EXPECT_TRUE(std::filesystem::is_symlink(real_path));
}

TEST_F(state_file, planted_link_to_nowhere_creates_nothing) {
  std::filesystem::create_symlink(victim, real_path);
  EXPECT_FALSE(when_written("x"));
  EXPECT_FALSE(std::filesystem::exists(victim));
}

TEST_F(state_file, planted_fifo_without_reader_does_not_stop_the_daemon) {
  ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
  EXPECT_FALSE(when_written("x"));
}

TEST_F(state_file, planted_fifo_with_reader_gets_nothing) {
  ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
  const int reader = open(real_path.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  EXPECT_FALSE(when_written("x"));
  char byte = 0;
  EXPECT_EQ(read(reader, &byte, 1), 0); // nobody has it open for writing, nothing came
  close(reader);
}

TEST_F(state_file, planted_directory_is_refused) {
  std::filesystem::create_directory(real_path);
  EXPECT_FALSE(when_written("x"));
}

TEST_F(state_file, missing_directory_is_a_failure) {
  std::filesystem::remove_all(Kernel.directory);
  EXPECT_FALSE(when_written("x"));
}

TEST_F(state_file, refusals_lose_no_descriptor) {
  ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
  const int reader = open(real_path.c_str(), O_RDONLY | O_NONBLOCK);
  const std::set<int> before = open_descriptors();
  EXPECT_FALSE(when_written("x"));
  EXPECT_EQ(open_descriptors(), before);
  close(reader);
}

} // namespace
