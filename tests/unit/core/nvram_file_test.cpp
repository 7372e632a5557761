#include "platform/nvram_file.h"

#include "fixture.h"
#include "platform/nvram.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

using namespace scripted;

struct nvram_file : core_fixture {
  // The value as the daemon reads it; "(absent)" for none.
  std::string value_of(const char *key) {
    const char *value = nullptr;
    when([&] { value = nvram_get(key); });
    return value != nullptr ? value : "(absent)";
  }

  std::string complaint(const std::string &text) const { return nvram_path() + text + "\n"; }
};

TEST_F(nvram_file, missing_file_means_that_every_key_is_absent_and_is_not_complained_about) {
  const std::string errors = error_output_of([&] { EXPECT_EQ(value_of("et0macaddr"), "(absent)"); });
  EXPECT_EQ(errors, "");
}

TEST_F(nvram_file, values_are_found_by_their_whole_key) {
  given_nvram("et0macaddr=00:11:22:33:44:55\nlan_ifname=br0\nlan_ipaddr=192.0.2.1\n");
  EXPECT_EQ(value_of("et0macaddr"), "00:11:22:33:44:55");
  EXPECT_EQ(value_of("lan_ifname"), "br0");
  EXPECT_EQ(value_of("lan_ipaddr"), "192.0.2.1");
  EXPECT_EQ(value_of("lan_if"), "(absent)");
  EXPECT_EQ(value_of("lan_ifname2"), "(absent)");
  EXPECT_EQ(value_of("ifname"), "(absent)");
}

TEST_F(nvram_file, values_are_taken_to_the_letter) {
  given_nvram("blank=1 \nequals=a=b=c\nempty=\nhash=#1\nspaced = x\n");
  EXPECT_EQ(value_of("blank"), "1 ");
  EXPECT_EQ(value_of("equals"), "a=b=c");
  EXPECT_EQ(value_of("empty"), "");
  EXPECT_EQ(value_of("hash"), "#1");
  EXPECT_EQ(value_of("spaced"), "(absent)");
  EXPECT_EQ(value_of("spaced "), " x");
}

TEST_F(nvram_file, comments_and_empty_lines_are_passed_over_in_silence) {
  given_nvram("# a comment\n#key=commented\n\n\nkey=value\n# last = 1");
  const std::string errors = error_output_of([&] { EXPECT_EQ(value_of("key"), "value"); });
  EXPECT_EQ(errors, "");
  EXPECT_EQ(value_of("#key"), "(absent)");
}

TEST_F(nvram_file, last_line_of_a_key_wins_even_without_its_newline) {
  given_nvram("key=first\nother=x\nkey=second\nkey=third");
  EXPECT_EQ(value_of("key"), "third");
}

TEST_F(nvram_file, line_without_equals_sign_is_skipped_and_named_by_file_and_line) {
  given_nvram("# comment\nkey=1\nkey 2\n\n  \nkey");
  const std::string errors = error_output_of([&] { EXPECT_EQ(value_of("key"), "1"); });
  EXPECT_EQ(errors, complaint(":3: no '=' in this line, skipped") + complaint(":5: no '=' in this line, skipped") +
                        complaint(":6: no '=' in this line, skipped"));
}

TEST_F(nvram_file, complaint_is_made_once_since_the_file_is_read_once) {
  given_nvram("nonsense\nkey=1\n");
  error_output_of([&] { EXPECT_EQ(value_of("key"), "1"); });
  std::ofstream(nvram_path()) << "nonsense\nkey=2\n";
  const std::string errors = error_output_of([&] { EXPECT_EQ(value_of("key"), "1"); });
  EXPECT_EQ(errors, "");
}

TEST_F(nvram_file, value_stays_valid_while_others_are_read) {
  given_nvram("one=1\ntwo=2\n");
  const char *one = nvram_get("one");
  const char *two = nvram_get("two");
  EXPECT_STREQ(one, "1");
  EXPECT_STREQ(two, "2");
}

TEST_F(nvram_file, empty_file_holds_no_key) {
  given_nvram("");
  EXPECT_EQ(value_of("key"), "(absent)");
  EXPECT_EQ(value_of(""), "(absent)");
}

TEST_F(nvram_file, file_of_the_greatest_size_is_read_whole) {
  const std::string last = "last=1\n";
  given_nvram("# " + std::string(NVRAM_FILE_LIMIT_BYTES - last.size() - 3, 'x') + "\n" + last);
  const std::string errors = error_output_of([&] { EXPECT_EQ(value_of("last"), "1"); });
  EXPECT_EQ(errors, "");
}

TEST_F(nvram_file, longer_file_is_read_up_to_its_last_whole_line_and_says_so) {
  const std::string first = "first=1\n";
  const std::string filler = "# " + std::string(NVRAM_FILE_LIMIT_BYTES - first.size() - 3 - 4, 'x') + "\n";
  given_nvram(first + filler + "cut=value\nlost=2\n");
  const std::string errors = error_output_of([&] { EXPECT_EQ(value_of("first"), "1"); });
  EXPECT_EQ(errors, complaint(": larger than 65536 bytes, the rest is not read"));
  EXPECT_EQ(value_of("cut"), "(absent)");
  EXPECT_EQ(value_of("lost"), "(absent)");
}

TEST_F(nvram_file, endless_line_holds_no_key) {
  given_nvram("key=" + std::string(2 * NVRAM_FILE_LIMIT_BYTES, 'x'));
  const std::string errors = error_output_of([&] { EXPECT_EQ(value_of("key"), "(absent)"); });
  EXPECT_EQ(errors, complaint(": larger than 65536 bytes, the rest is not read"));
}

TEST_F(nvram_file, zero_bytes_do_not_lead_out_of_the_file) {
  given_nvram(std::string("a=1\0b=2\n\0\0c=3\n\0", 15));
  error_output_of([&] { EXPECT_EQ(value_of("a"), "1"); });
  EXPECT_EQ(value_of("c"), "3");
  EXPECT_EQ(value_of("d"), "(absent)");
}

TEST_F(nvram_file, directory_in_place_of_the_file_is_complained_about) {
  std::filesystem::create_directory(nvram_path());
  const std::string errors = error_output_of([&] { EXPECT_EQ(value_of("key"), "(absent)"); });
  EXPECT_EQ(errors, complaint(std::string(": ") + std::strerror(EISDIR) + "; every NVRAM key counts as absent"));
}

TEST_F(nvram_file, fifo_in_place_of_the_file_is_complained_about_and_not_waited_for) {
  ASSERT_EQ(mkfifo(nvram_path().c_str(), 0600), 0);
  const std::string errors = error_output_of([&] { EXPECT_EQ(value_of("key"), "(absent)"); });
  EXPECT_EQ(errors, complaint(std::string(": ") + std::strerror(ESPIPE) + "; every NVRAM key counts as absent"));
}

TEST_F(nvram_file, path_that_cannot_be_followed_is_complained_about) {
  std::filesystem::create_symlink("nvram", nvram_path()); // onto itself
  const std::string errors = error_output_of([&] { EXPECT_EQ(value_of("key"), "(absent)"); });
  EXPECT_EQ(errors, complaint(std::string(": ") + std::strerror(ELOOP) + "; every NVRAM key counts as absent"));
}

TEST_F(nvram_file, file_is_named_by_the_environment_and_otherwise_in_etc) {
  EXPECT_STREQ(NVRAM_PATH_VARIABLE, "TARNWICK_NVRAM");
  EXPECT_STREQ(NVRAM_DEFAULT_PATH, "/etc/tarnwick/nvram");
  const std::string other = Kernel.directory + "/other";
  std::ofstream(other) << "key=other\n";
  given_nvram("key=usual\n");
  setenv(NVRAM_PATH_VARIABLE, other.c_str(), 1);
  EXPECT_EQ(value_of("key"), "other");
}

} // namespace
