#include "core/main_loop.h"
#include "core/start_up.h"

int main(int argc, char **argv) {
  if (start_up(argc, argv) == -1) {
    return -1;
  }
  return run_main_loop();
}
