/* What a timer of one second costs a process that does nothing with it: the floor of the daemon's idle load. */
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

static void wake_up(int signal_number) { (void)signal_number; }

int main(void) {
  const struct itimerval each_second = {{1, 0}, {1, 0}};
  signal(SIGALRM, wake_up);
  setitimer(ITIMER_REAL, &each_second, NULL);
  for (;;) {
    pause();
  }
}
