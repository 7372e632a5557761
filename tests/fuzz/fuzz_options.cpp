// Command lines: arguments are the input's pieces between newlines.
#include "core/options.h"
#include "core/settings.h"
#include "mute_kernel.h"

#include <array>
#include <sstream>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  mute::silence();
  opterr = 0;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
  std::istringstream input(std::string(reinterpret_cast<const char *>(bytes), size));
  std::vector<std::string> pieces{"tarnwick"};
  for (std::string piece; std::getline(input, piece);) {
    pieces.push_back(piece);
  }
  std::vector<char *> arguments;
  for (std::string &piece : pieces) {
    arguments.push_back(piece.data());
  }
  arguments.push_back(nullptr);
  optind = 0;
  InterfaceNameCounter = 0;
  DownstreamInterfacesNum = 0;
  IgnoreInterfacesNum = 0;
  DownstreamInterfacesName = {};
  IgnoreInterfacesName = {};
  UpstreamInterfacesName = nullptr;
  mute::play([&] {
    parse_arguments(static_cast<int>(pieces.size()), arguments.data());
    for (const interface_name &name : copy_interface_names(DownstreamInterfacesName, DownstreamInterfacesNum)) {
      if (name.back() != '\0') {
        mute::fail("a name without end");
      }
    }
    mute::release_what_is_lost();
  });
  return 0;
}
