#include "bench/log_pipe.h"

#include "bench/figure.h"
#include "bench/network.h"
#include "core/standard_streams.h"
#include "run/log_reader.h"
#include "run/poll_wait.h"

#include <array>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

bool is_waiting_for_reader(FILE *log) {
  int waiting = 0;
  return ioctl(fileno(log), FIONREAD, &waiting) == 0 && waiting > 0;
}

} // namespace

void stay_on_processor(std::size_t number) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  CPU_SET(number, &allowed);
  sched_setaffinity(0, sizeof(allowed), &allowed);
}

void read_and_drop(int descriptor) {
  std::array<char, 65536> taken;
  while (read(descriptor, taken.data(), taken.size()) > 0) {
  }
}

namespace {

void read_in_supervisor(int descriptor, bool is_each_alone) {
  dup2(memfd_create("passed on", 0), STDERR_FILENO);
  open_log_sink(run_options{});
  log_reader reader{};
  reader.descriptor = descriptor;
  reader.origin = log_origin::daemon;
  while (reader.descriptor >= 0) {
    const std::int64_t now_ms = now_ns() / 1'000'000;
    pollfd waited{awaited_log(reader, now_ms), POLLIN, 0};
    poll(&waited, 1, shorter_wait(ms_until_log_summary(now_ms), ms_until_log_rest_ends(reader, now_ms)));
    if (waited.revents != 0) {
      read_log(reader);
      reader.read_at_ms = is_each_alone ? 0 : reader.read_at_ms;
    }
  }
}

} // namespace

void read_as_deployed(int descriptor) { read_in_supervisor(descriptor, false); }

void read_each_alone(int descriptor) { read_in_supervisor(descriptor, true); }

FILE *open_pipe_with_reader(std::size_t processor, void (*read_all)(int descriptor), pid_t *reader) {
  std::array<int, 2> ends;
  if (pipe(ends.data()) == -1) {
    give_up("pipe");
  }
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    stay_on_processor(processor);
    close(ends[1]);
    fcntl(ends[0], F_SETFL, read_all == read_and_drop ? 0 : O_NONBLOCK);
    read_all(ends[0]);
    _exit(0);
  }
  if (reader != nullptr) {
    *reader = child;
  }
  close(ends[0]);
  const int own_output = dup(STDOUT_FILENO);
  dup2(ends[1], STDOUT_FILENO);
  protect_standard_streams();
  const int log = dup(STDOUT_FILENO);
  dup2(own_output, STDOUT_FILENO);
  return fdopen(log, "w");
}

void empty_log(FILE *log) {
  if (ftruncate(fileno(log), 0) == 0 && lseek(fileno(log), 0, SEEK_SET) == 0) {
    return;
  }
  for (int tries = 0; tries < 1000 && is_waiting_for_reader(log); ++tries) {
    usleep(1000);
  }
}

void let_reader_run(FILE *log) {
  for (int tries = 0; tries < 10'000 && is_waiting_for_reader(log); ++tries) {
    sched_yield();
  }
  sched_yield();
}
