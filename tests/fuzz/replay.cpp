// Runs a fuzz target over the files of the folders named on the command line; stands in for the fuzzing engine in the
// ordinary test run, with any compiler.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size);

int main(int argc, char **argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
      ++replayed;
    }
  }
  std::fprintf(stderr, "%d seeds replayed\n", replayed);
  return replayed > 0 ? 0 : 1;
}
