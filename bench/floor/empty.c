/* What a process costs before it does anything: its memory is the floor of the daemon's. */
#include <unistd.h>

int main(void) {
  pause();
  return 0;
}
