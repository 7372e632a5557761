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

  static inline const std::string plain_open =
      std::string("open(") + path + ", O_WRONLY|O_CREAT|O_NOFOLLOW|O_NONBLOCK|O_CLOEXEC)";
  static inline const std::string look = std::string("open(") + path + ", O_PATH|O_NOFOLLOW|O_CLOEXEC)";
  static inline const std::string look_at_folder = "open(/tmp, O_PATH|O_DIRECTORY|O_CLOEXEC)";
  static inline const std::string open_followed =
      std::string("open(") + path + ", O_WRONLY|O_CREAT|O_NONBLOCK|O_CLOEXEC)";
  static inline const lines replaced = {std::string("unlink(") + path + ")",
                                        std::string("open(") + path +
                                            ", O_WRONLY|O_CREAT|O_EXCL|O_NOFOLLOW|O_NONBLOCK|O_CLOEXEC)"};

  // Opens, writes and closes. Returns whether there was a stream.
  bool when_written(const char *text, const lines &requests) {
    bool is_open = false;
    when([&] {
      FILE *stream = open_state_file(path);
      is_open = stream != nullptr;
      if (is_open) {
        std::fputs(text, stream);
        std::fclose(stream);
      }
    });
    lines expected{plain_open};
    expected.insert(expected.end(), requests.begin(), requests.end());
    then(expected);
    return is_open;
  }

  static lines behind(lines first, const lines &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
  }
};

TEST_F(state_file, new_file_is_made_readable_for_all_less_the_umask) {
  const mode_t usual = umask(022);
  EXPECT_TRUE(when_written("grp=ff0e::1\n", {}));
  umask(usual);
  EXPECT_EQ(file_contents(path), "grp=ff0e::1\n");
  struct stat status {};
  ASSERT_EQ(stat(real_path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0644u);
}

TEST_F(state_file, old_contents_are_gone) {
  std::ofstream(real_path) << "something much longer than what comes now\n";
  EXPECT_TRUE(when_written("short\n", {}));
  EXPECT_EQ(file_contents(path), "short\n");
}

TEST_F(state_file, planted_link_is_replaced_in_a_sticky_folder_and_not_followed) {
  given_sticky_folder();
  std::ofstream(victim) << "precious\n";
  std::filesystem::create_symlink(victim, real_path);
  given_of_nobody(real_path);
  EXPECT_TRUE(when_written("x", behind({look, look_at_folder}, replaced)));
  EXPECT_EQ(file_contents("/tmp/victim"), "precious\n");
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(real_path)));
  EXPECT_EQ(file_contents(path), "x");
}

TEST_F(state_file, planted_link_is_refused_where_its_maker_could_remove_the_new_file) {
  std::ofstream(victim) << "precious\n";
  std::filesystem::create_symlink(victim, real_path);
  given_of_nobody(real_path);
  EXPECT_FALSE(when_written("x", {look, look_at_folder}));
  EXPECT_EQ(file_contents("/tmp/victim"), "precious\n");
  EXPECT_TRUE(std::filesystem::is_symlink(real_path));
}

TEST_F(state_file, link_that_root_made_is_followed) {
  given_sticky_folder();
  std::ofstream(victim) << "something much longer than what comes now\n";
  std::filesystem::create_symlink(victim, real_path);
  EXPECT_TRUE(when_written("x", {look, open_followed}));
  EXPECT_EQ(file_contents("/tmp/victim"), "x");
  EXPECT_TRUE(std::filesystem::is_symlink(real_path));
}

TEST_F(state_file, link_that_root_made_to_a_fifo_is_refused) {
  ASSERT_EQ(mkfifo(victim.c_str(), 0600), 0);
  const int reader = open(victim.c_str(), O_RDONLY | O_NONBLOCK);
  std::filesystem::create_symlink(victim, real_path);
  EXPECT_FALSE(when_written("x", {look, open_followed}));
  close(reader);
}

TEST_F(state_file, file_of_another_user_is_replaced_and_not_emptied) {
  std::ofstream(real_path) << "of nobody\n";
  std::filesystem::create_hard_link(real_path, victim);
  given_of_nobody(real_path);
  std::filesystem::remove(victim);
  const int kept = open(real_path.c_str(), O_RDONLY);
  EXPECT_TRUE(when_written("x", behind({look}, replaced)));
  char first = 0;
  EXPECT_EQ(read(kept, &first, 1), 1); // whoever has it open keeps its contents
  EXPECT_EQ(first, 'o');
  close(kept);
  struct stat status {};
  ASSERT_EQ(stat(real_path.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, geteuid());
}

TEST_F(state_file, thing_that_is_planted_again_at_the_last_moment_is_replaced_once_more) {
  given_sticky_folder();
  ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
  given_of_nobody(real_path);
  int planted = 0;
  Kernel.on_request = [&](const std::string &request) {
    if (request == replaced[1] && ++planted == 1) {
      ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
      given_of_nobody(real_path);
    }
  };
  const lines once = behind({look, look_at_folder}, replaced);
  EXPECT_TRUE(when_written("x", behind(behind(once, {plain_open}), once)));
  EXPECT_EQ(file_contents(path), "x");
}

TEST_F(state_file, thing_that_vanishes_before_it_is_replaced_leaves_room_for_a_new_file) {
  given_sticky_folder();
  ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
  given_of_nobody(real_path);
  Kernel.on_request = [&](const std::string &request) {
    if (request == replaced[0]) {
      std::filesystem::remove(real_path);
    }
  };
  EXPECT_TRUE(when_written("x", {look, look_at_folder, replaced[0], plain_open}));
}

TEST_F(state_file, daemon_gives_up_when_somebody_plants_for_ever) {
  given_sticky_folder();
  Kernel.on_request = [&](const std::string &request) {
    if (request == plain_open || request == replaced[1]) {
      std::filesystem::remove(real_path);
      ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
      given_of_nobody(real_path);
    }
  };
  constexpr int attempts = 8;
  const lines each = behind({plain_open, look, look_at_folder}, replaced);
  lines all = each;
  for (int attempt = 1; attempt < attempts; ++attempt) {
    all = behind(all, each);
  }
  all.erase(all.begin());
  EXPECT_FALSE(when_written("x", all));
}

TEST_F(state_file, second_hard_link_is_left_with_its_contents) {
  std::ofstream(victim) << "precious\n";
  std::filesystem::create_hard_link(victim, real_path);
  EXPECT_TRUE(when_written("x", behind({look}, replaced)));
  EXPECT_EQ(file_contents("/tmp/victim"), "precious\n");
  EXPECT_EQ(file_contents(path), "x");
}

TEST_F(state_file, planted_fifo_without_reader_is_replaced_in_a_sticky_folder) {
  given_sticky_folder();
  ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
  given_of_nobody(real_path);
  EXPECT_TRUE(when_written("x", behind({look, look_at_folder}, replaced)));
  EXPECT_EQ(file_contents(path), "x");
}

TEST_F(state_file, planted_fifo_with_reader_gets_nothing) {
  given_sticky_folder();
  ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
  given_of_nobody(real_path);
  const int reader = open(real_path.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  EXPECT_TRUE(when_written("x", behind({look, look_at_folder}, replaced)));
  char byte = 0;
  EXPECT_EQ(read(reader, &byte, 1), 0); // nobody has it open for writing, nothing came
  close(reader);
}

TEST_F(state_file, fifo_of_root_is_refused) {
  given_sticky_folder();
  ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
  EXPECT_FALSE(when_written("x", {look}));
}

TEST_F(state_file, planted_directory_is_refused) {
  given_sticky_folder();
  std::filesystem::create_directory(real_path);
  given_of_nobody(real_path);
  EXPECT_FALSE(when_written("x", {}));
}

TEST_F(state_file, missing_directory_is_a_failure) {
  std::filesystem::remove_all(Kernel.directory);
  EXPECT_FALSE(when_written("x", {}));
}

TEST_F(state_file, refusals_and_replacements_lose_no_descriptor) {
  given_sticky_folder();
  const std::set<int> before = open_descriptors();
  ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
  EXPECT_FALSE(when_written("x", {look}));
  EXPECT_EQ(open_descriptors(), before);
  given_of_nobody(real_path);
  EXPECT_TRUE(when_written("x", behind({look, look_at_folder}, replaced)));
  EXPECT_EQ(open_descriptors(), before);
}

} // namespace
