#include "core/main_loop.h"
#include "core/standard_streams.h"
#include "core/start_up.h"

int main(int argc, char **argv) {
  protect_standard_streams();
  if (start_up(argc, argv) == -1) {
    return -1;
  }
  return run_main_loop();
}
