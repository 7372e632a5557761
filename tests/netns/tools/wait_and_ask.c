// What libtarnwick-smooth.so is for, in a program of one page: prints a line, opens and closes the packet socket of a
// query three times, waits, and ends without flushing. Then shows the packet sockets that it has open on standard
// error.
#include <netinet/in.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

int main(void) {
  struct timeval longest = {0, 1000};
  char text[4096];
  printf("first line\n"); // musl hands this one over at once, whatever standard output is
  printf("line before the wait\n");
  for (int i = 0; i < 3; ++i) {
    const int query = socket(AF_PACKET, SOCK_RAW, IPPROTO_ICMPV6);
    if (query < 0 || close(query) != 0) {
      return 1;
    }
  }
  if (select(0, NULL, NULL, NULL, &longest) != 0) {
    return 2;
  }
  FILE *table = fopen("/proc/self/net/packet", "r");
  const size_t length = table != NULL ? fread(text, 1, sizeof(text), table) : 0;
  (void)!write(STDERR_FILENO, text, length);
  _exit(0);
}
