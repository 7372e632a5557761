#include "run/linkage.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <link.h>
#include <string>
#include <unistd.h>

namespace {

std::string own_program() {
  std::ifstream file("/proc/self/exe", std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool loads_libraries_as(const std::string &bytes) {
  const std::string path = testing::TempDir() + "linkage_test_program_" + std::to_string(getpid());
  std::ofstream(path, std::ios::binary) << bytes;
  const bool does = loads_libraries(path.c_str());
  std::remove(path.c_str());
  return does;
}

std::string without_interpreter(std::string bytes) {
  ElfW(Ehdr) head{};
  std::memcpy(&head, bytes.data(), sizeof(head));
  for (unsigned i = 0; i < head.e_phnum; ++i) {
    ElfW(Phdr) part{};
    char *at = bytes.data() + head.e_phoff + i * sizeof(part);
    std::memcpy(&part, at, sizeof(part));
    part.p_type = part.p_type == PT_INTERP ? PT_NULL : part.p_type;
    std::memcpy(at, &part, sizeof(part));
  }
  return bytes;
}

TEST(linkage, program_with_an_interpreter_loads_libraries) {
  EXPECT_TRUE(loads_libraries("/proc/self/exe"));
  EXPECT_TRUE(loads_libraries_as(own_program()));
}

TEST(linkage, program_without_one_is_linked_statically) {
  EXPECT_FALSE(loads_libraries_as(without_interpreter(own_program())));
}

TEST(linkage, what_is_no_whole_program_loads_nothing) {
  EXPECT_FALSE(loads_libraries("/nowhere"));
  EXPECT_FALSE(loads_libraries_as("#!/bin/sh\nexec tarnwick\n"));
  EXPECT_FALSE(loads_libraries_as(own_program().substr(0, sizeof(ElfW(Ehdr)) + 8)));
}

} // namespace
