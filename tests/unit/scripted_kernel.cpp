#include "scripted_kernel.h"

#include "request_text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

// Declared by the linker for each wrapped call.
extern "C" {
int __real_socket(int, int, int);
int __real_setsockopt(int, int, int, const void *, socklen_t);
int __real_ioctl(int, unsigned long, ...);
unsigned int __real_if_nametoindex(const char *);
ssize_t __real_recvmsg(int, msghdr *, int);
ssize_t __real_sendto(int, const void *, std::size_t, int, const sockaddr *, socklen_t);
int __real_close(int);
int __real_open(const char *, int, ...);
FILE *__real_fopen(const char *, const char *);
void *__real_malloc(std::size_t);
int __real_system(const char *);
pid_t __real_fork();
pid_t __real_setsid();
[[noreturn]] void __real_exit(int);
sighandler_t __real_signal(int, sighandler_t);
int __real_setitimer(int, const itimerval *, itimerval *);
int __real_pipe(int *);
int __real_select(int, fd_set *, fd_set *, fd_set *, timeval *);
ssize_t __real_read(int, void *, std::size_t);
ssize_t __real_write(int, const void *, std::size_t);
}

namespace scripted {

kernel Kernel;

namespace {

bool IsActive = false; // inside `run`: the daemon is calling
std::jmp_buf EndOfRun;
FILE *Output = nullptr; // stands in for standard output during `run`
char *OutputText = nullptr;
std::size_t OutputLength = 0;
std::size_t OutputTaken = 0;
std::vector<std::string> ScriptErrors; // said after the run, when standard output is the test's again
std::string PipeContents;
std::string Directory;
std::vector<FILE *> OpenTables; // the daemon leaves them open; closed between tests

const std::string if_inet6_path = "/proc/net/if_inet6";

// "D:mld :mld_proxy_stop                      #  81: text" becomes "D mld_proxy_stop: text", if the tag fits.
std::string transcript_line(const std::string &line) {
  const bool has_prefix = line.size() > 51 && line[1] == ':' && line[6] == ':' && line[43] == '#' &&
                          std::string("EDI").find(line[0]) != std::string::npos;
  if (!has_prefix) {
    return "| " + line;
  }
  const std::string tag = line.substr(2, 4);
  std::string function = line.substr(7, 36);
  function.erase(function.find_last_not_of(' ') + 1);
  const std::string module = function.find("mld") != std::string::npos || function == "set_linklocal" ? "mld "
                             : function.find("igmp") != std::string::npos                             ? "igmp"
                                                                                                      : "";
  const std::string wrong_tag = !module.empty() && tag != module ? " [tag " + tag + "]" : "";
  const std::size_t message = line.find(": ", 44);
  return line.substr(0, 1) + " " + function + ": " + line.substr(message + 2) + wrong_tag;
}

// Moves what was logged since the last request into the transcript.
void take_output() {
  std::fflush(Output);
  const std::string fresh(OutputText + OutputTaken, OutputLength - OutputTaken);
  OutputTaken = OutputLength;
  Kernel.output += fresh;
  std::istringstream lines(fresh);
  for (std::string line; std::getline(lines, line);) {
    Kernel.transcript.push_back(transcript_line(line));
  }
}

[[noreturn]] void end_run() { std::longjmp(EndOfRun, 1); }

void report_endless_wait(const char *what) {
  if (!Kernel.may_wait_for_ever) {
    ScriptErrors.push_back(std::string("the daemon would wait for ever in ") + what);
  }
  end_run();
}

bool starts_with(const std::string &text, const std::string &start) {
  return text.compare(0, start.size(), start) == 0;
}

// Whether the script lets the request fail; sets errno then.
bool is_failed(const std::string &request) {
  Kernel.made.push_back(request);
  const auto number = static_cast<int>(Kernel.made.size());
  if (Kernel.fail_at != 0 && (number == Kernel.fail_at || (Kernel.fail_rest && number > Kernel.fail_at))) {
    errno = Kernel.fail_error;
    return true;
  }
  for (failure &planned : Kernel.failures) {
    if (planned.times == 0 || !starts_with(request, planned.request)) {
      continue;
    }
    if (planned.passes > 0) {
      --planned.passes;
      continue;
    }
    planned.times -= planned.times > 0 ? 1 : 0;
    errno = planned.error;
    return true;
  }
  return false;
}

// Writes the request into the transcript. Returns whether it is to fail.
bool request(const std::string &text) {
  take_output();
  Kernel.transcript.push_back(text);
  return is_failed(text);
}

const interface *find_interface(const std::string &name) {
  const auto found = std::find_if(Kernel.interfaces.begin(), Kernel.interfaces.end(),
                                  [&](const interface &one) { return one.name == name; });
  return found != Kernel.interfaces.end() ? &*found : nullptr;
}

sockaddr ipv4_socket_address(const std::string &text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, text.c_str(), &address.sin_addr);
  sockaddr generic;
  std::memcpy(&generic, &address, sizeof(generic));
  return generic;
}

int list_interfaces(ifconf *list) {
  std::size_t used = 0;
  for (const interface &one : Kernel.interfaces) {
    if (one.ipv4.empty() || (used + 1) * sizeof(ifreq) > static_cast<std::size_t>(list->ifc_len)) {
      continue;
    }
    ifreq entry{};
    std::memcpy(entry.ifr_name, one.name.c_str(), std::min<std::size_t>(one.name.size(), IFNAMSIZ - 1));
    entry.ifr_addr = ipv4_socket_address(one.ipv4);
    std::memcpy(list->ifc_buf + used * sizeof(ifreq), &entry, sizeof(entry));
    ++used;
  }
  list->ifc_len = static_cast<int>(used * sizeof(ifreq));
  return 0;
}

int answer_ioctl(unsigned long number, void *argument) {
  if (number == SIOCGIFCONF) {
    return list_interfaces(static_cast<ifconf *>(argument));
  }
  if (number == SIOCDEVPRIVATE || number == SIOCDEVPRIVATE + 1) {
    return 0;
  }
  ifreq *asked = static_cast<ifreq *>(argument);
  const interface *found = find_interface(std::string(asked->ifr_name, strnlen(asked->ifr_name, IFNAMSIZ)));
  if (found == nullptr) {
    errno = ENODEV;
    return -1;
  }
  switch (number) {
  case SIOCGIFINDEX:
    asked->ifr_ifindex = found->index;
    return 0;
  case SIOCGIFFLAGS:
    asked->ifr_flags = static_cast<short>(found->flags);
    return 0;
  case SIOCGIFDSTADDR:
    asked->ifr_dstaddr = ipv4_socket_address(found->ipv4_peer);
    return 0;
  default:
    return 0;
  }
}

std::string if_inet6_contents() {
  if (Kernel.if_inet6) {
    return *Kernel.if_inet6;
  }
  std::string table;
  for (const interface &one : Kernel.interfaces) {
    in6_addr address;
    if (one.ipv6.empty() || inet_pton(AF_INET6, one.ipv6.c_str(), &address) != 1) {
      continue;
    }
    char rest[64];
    std::snprintf(rest, sizeof(rest), " %02x 40 20 80 %8s\n", static_cast<unsigned int>(one.index), one.name.c_str());
    table += hex_text(&address, sizeof(address)) + rest;
  }
  return table;
}

FILE *open_if_inet6() {
  static std::string contents; // outlives the stream, which the daemon leaves open
  contents = if_inet6_contents();
  FILE *table = contents.empty() ? __real_fopen("/dev/null", "r") : fmemopen(contents.data(), contents.size(), "r");
  OpenTables.push_back(table);
  return table;
}

void append_control(msghdr *header, std::size_t &used, int level, int type, const void *data, std::size_t length) {
  if (used + CMSG_SPACE(length) > header->msg_controllen) {
    header->msg_flags |= MSG_CTRUNC;
    return;
  }
  cmsghdr control{};
  control.cmsg_len = CMSG_LEN(length);
  control.cmsg_level = level;
  control.cmsg_type = type;
  auto *at = static_cast<std::uint8_t *>(header->msg_control) + used;
  std::memcpy(at, &control, sizeof(control));
  std::memcpy(at + CMSG_LEN(0), data, length);
  used += CMSG_SPACE(length);
}

void fill_packet_information(const message &given, msghdr *header) {
  std::size_t used = 0;
  if (!given.control.empty()) {
    used = std::min<std::size_t>(given.control.size(), header->msg_controllen);
    std::memcpy(header->msg_control, given.control.data(), used);
    header->msg_controllen = used;
    return;
  }
  if (given.ifindex && given.destination.empty()) {
    in6_pktinfo info{};
    info.ipi6_ifindex = static_cast<unsigned int>(*given.ifindex);
    append_control(header, used, IPPROTO_IPV6, IPV6_PKTINFO, &info, sizeof(info));
  } else if (given.ifindex) {
    in_pktinfo info{};
    info.ipi_ifindex = *given.ifindex;
    inet_pton(AF_INET, given.destination.c_str(), &info.ipi_addr);
    append_control(header, used, IPPROTO_IP, IP_PKTINFO, &info, sizeof(info));
  }
  header->msg_controllen = used;
}

void fill_sender(const message &given, msghdr *header) {
  sockaddr_in6 sender6{};
  sockaddr_in sender4{};
  if (inet_pton(AF_INET6, given.sender.c_str(), &sender6.sin6_addr) == 1) {
    sender6.sin6_family = AF_INET6;
    std::memcpy(header->msg_name, &sender6, std::min<std::size_t>(sizeof(sender6), header->msg_namelen));
  } else if (inet_pton(AF_INET, given.sender.c_str(), &sender4.sin_addr) == 1) {
    sender4.sin_family = AF_INET;
    std::memcpy(header->msg_name, &sender4, std::min<std::size_t>(sizeof(sender4), header->msg_namelen));
  }
}

ssize_t deliver_message(msghdr *header) {
  if (Kernel.messages.empty()) {
    report_endless_wait("recvmsg");
  }
  const message given = Kernel.messages.front();
  Kernel.messages.pop_front();
  if (given.error != 0) {
    errno = given.error;
    return -1;
  }
  const std::size_t length = std::min(given.bytes.size(), header->msg_iov->iov_len);
  std::copy_n(given.bytes.begin(), length, static_cast<std::uint8_t *>(header->msg_iov->iov_base));
  fill_sender(given, header);
  fill_packet_information(given, header);
  return static_cast<ssize_t>(length);
}

void raise_in_script(int signal_number) {
  const auto handler = Kernel.handlers.find(signal_number);
  if (handler != Kernel.handlers.end() && handler->second != SIG_IGN && handler->second != SIG_DFL) {
    handler->second(signal_number);
  } else if (!Kernel.may_wait_for_ever) {
    ScriptErrors.push_back("no handler for signal " + std::to_string(signal_number));
  }
}

ssize_t read_pipe(void *buffer, std::size_t room) {
  while (PipeContents.empty()) {
    if (Kernel.signals_in_blocked_read.empty()) {
      report_endless_wait("a read of the empty pipe");
    }
    const int next = Kernel.signals_in_blocked_read.front();
    Kernel.signals_in_blocked_read.pop_front();
    raise_in_script(next);
  }
  const std::size_t length = std::min(room, PipeContents.size());
  std::memcpy(buffer, PipeContents.data(), length);
  PipeContents.erase(0, length);
  return static_cast<ssize_t>(length);
}

int answer_select(fd_set *readable) {
  if (Kernel.wake_ups.empty()) {
    report_endless_wait("select");
  }
  const wake_up next = Kernel.wake_ups.front();
  Kernel.wake_ups.pop_front();
  for (const int signal_number : next.signals) {
    raise_in_script(signal_number);
  }
  if (next.result == -1) {
    errno = next.error;
    return -1;
  }
  FD_ZERO(readable);
  for (const int descriptor : next.ready) {
    FD_SET(descriptor, readable);
  }
  return next.result != 0 ? next.result : static_cast<int>(next.ready.size());
}

std::string watched_text(int limit, const fd_set *readable) {
  std::string text;
  for (int descriptor = 0; descriptor < limit && descriptor < FD_SETSIZE; ++descriptor) {
    if (FD_ISSET(descriptor, readable)) {
      text += (text.empty() ? "" : ", ") + descriptor_text(descriptor);
    }
  }
  return text;
}

std::string open_flags_text(int flags) {
  std::string text = (flags & O_ACCMODE) == O_WRONLY ? "O_WRONLY" : "other mode";
  for (const auto &[bit, name] : {std::pair{O_CREAT, "O_CREAT"},
                                  {O_TRUNC, "O_TRUNC"},
                                  {O_NOFOLLOW, "O_NOFOLLOW"},
                                  {O_NONBLOCK, "O_NONBLOCK"},
                                  {O_CLOEXEC, "O_CLOEXEC"}}) {
    if ((flags & bit) == bit) {
      text += std::string("|") + name;
    }
  }
  return text;
}

std::string signal_name(int signal_number) {
  const char *name = sigabbrev_np(signal_number);
  return name != nullptr ? std::string("SIG") + name : std::to_string(signal_number);
}

// In memory where there is such a place: sweeps ask for a fresh directory thousands of times.
std::string make_directory() {
  const std::filesystem::path memory = "/dev/shm";
  std::error_code missing;
  const bool has_memory = std::filesystem::is_directory(memory, missing);
  std::string pattern =
      ((has_memory ? memory : std::filesystem::temp_directory_path()) / "tarnwick-test-XXXXXX").string();
  return mkdtemp(pattern.data());
}

void remove_directory() { std::filesystem::remove_all(Directory); }

// The test program's one directory, without what earlier tests left in it.
std::string empty_directory() {
  if (Directory.empty()) {
    Directory = make_directory();
    std::atexit(remove_directory);
  }
  std::filesystem::create_directory(Directory);
  for (const auto &entry : std::filesystem::directory_iterator(Directory)) {
    std::filesystem::remove_all(entry.path());
  }
  return Directory;
}

std::string seconds_text(const timeval &time) {
  return std::to_string(time.tv_sec) + "s" + std::to_string(time.tv_usec) + "us";
}

} // namespace

void reset() {
  for (FILE *table : OpenTables) {
    std::fclose(table);
  }
  OpenTables.clear();
  PipeContents.clear();
  Kernel = kernel{};
  Kernel.names = {{MLD_SOCKET, "mld"}, {PIPE_READ_END, "pipe"}, {PIPE_WRITE_END, "pipe"}};
  Kernel.directory = empty_directory();
}

void run(const std::function<void()> &daemon_code) {
  FILE *const real_output = stdout;
  Output = open_memstream(&OutputText, &OutputLength);
  OutputTaken = 0;
  stdout = Output;
  IsActive = true;
  if (setjmp(EndOfRun) == 0) {
    daemon_code();
  }
  IsActive = false;
  take_output();
  stdout = real_output;
  std::fclose(Output);
  std::free(OutputText);
  for (const std::string &error : ScriptErrors) {
    ADD_FAILURE() << error;
  }
  ScriptErrors.clear();
}

std::string logged(char level, const std::string &function, const std::string &message) {
  return std::string(1, level) + " " + function + ": " + message;
}

std::string logged_debug(const std::string &function, const std::string &message) {
  return logged('D', function, message);
}

std::string logged_error(const std::string &function, const std::string &message) {
  return logged('E', function, message);
}

std::optional<std::string> file_contents(const std::string &path) {
  std::ifstream file(redirected(path));
  if (!file) {
    return std::nullopt;
  }
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

std::string redirected(const std::string &path) {
  return Kernel.directory + "/" + std::filesystem::path(path).filename().string();
}

std::vector<std::string> take_transcript() {
  std::vector<std::string> taken;
  taken.swap(Kernel.transcript);
  return taken;
}

bool is_request(const std::string &line) {
  const bool is_output = line.size() > 1 && line[1] == ' ' && std::string("EDI|").find(line[0]) != std::string::npos;
  return !is_output;
}

} // namespace scripted

using namespace scripted;

extern "C" {

int __wrap_socket(int domain, int type, int protocol) {
  if (!IsActive) {
    return __real_socket(domain, type, protocol);
  }
  return request(socket_text(domain, type, protocol)) ? -1 : Kernel.next_socket++;
}

int __wrap_setsockopt(int descriptor, int level, int option, const void *value, socklen_t length) {
  if (!IsActive) {
    return __real_setsockopt(descriptor, level, option, value, length);
  }
  return request(setsockopt_text(descriptor, level, option, value, length)) ? -1 : 0;
}

int __wrap_ioctl(int descriptor, unsigned long number, ...) {
  va_list arguments;
  va_start(arguments, number);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  if (!IsActive) {
    return __real_ioctl(descriptor, number, argument);
  }
  return request(ioctl_text(descriptor, number, argument)) ? -1 : answer_ioctl(number, argument);
}

unsigned int __wrap_if_nametoindex(const char *name) {
  if (!IsActive) {
    return __real_if_nametoindex(name);
  }
  if (request(std::string("if_nametoindex(") + name + ")")) {
    return 0;
  }
  const interface *found = find_interface(name);
  return found != nullptr ? static_cast<unsigned int>(found->index) : 0;
}

ssize_t __wrap_recvmsg(int descriptor, msghdr *header, int flags) {
  if (!IsActive) {
    return __real_recvmsg(descriptor, header, flags);
  }
  return request("recvmsg(" + descriptor_text(descriptor) + ")") ? -1 : deliver_message(header);
}

ssize_t __wrap_sendto(int descriptor, const void *bytes, std::size_t length, int flags, const sockaddr *address,
                      socklen_t address_length) {
  if (!IsActive) {
    return __real_sendto(descriptor, bytes, length, flags, address, address_length);
  }
  const bool fails = request(sendto_text(descriptor, length, address, address_length));
  const auto *first = static_cast<const std::uint8_t *>(bytes);
  Kernel.frames.emplace_back(first, first + length);
  return fails ? -1 : static_cast<ssize_t>(length);
}

int __wrap_close(int descriptor) {
  if (!IsActive || (descriptor >= 0 && descriptor < PIPE_READ_END)) {
    return __real_close(descriptor);
  }
  return request("close(" + descriptor_text(descriptor) + ")") ? -1 : 0;
}

int __wrap_open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  if (!IsActive) {
    return __real_open(path, flags, mode);
  }
  if (request(std::string("open(") + path + ", " + open_flags_text(flags) + ")")) {
    return -1;
  }
  return __real_open(redirected(path).c_str(), flags, mode);
}

FILE *__wrap_fopen(const char *path, const char *mode) {
  if (!IsActive || path != if_inet6_path) {
    return __real_fopen(path, mode);
  }
  return request(std::string("fopen(") + path + ", " + mode + ")") ? nullptr : open_if_inet6();
}

// Not in the transcript: a test that cares lets one fail.
void *__wrap_malloc(std::size_t size) {
  if (!IsActive) {
    return __real_malloc(size);
  }
  if (is_failed("malloc(" + std::to_string(size) + ")")) {
    ++Kernel.allocations_refused;
    return nullptr;
  }
  return __real_malloc(size);
}

int __wrap_system(const char *command) {
  if (!IsActive) {
    return __real_system(command);
  }
  Kernel.commands.emplace_back(command);
  return request(std::string("system(") + command + ")") ? -1 : 0;
}

pid_t __wrap_fork() {
  if (!IsActive) {
    return __real_fork();
  }
  return request("fork()") ? -1 : Kernel.fork_result;
}

pid_t __wrap_setsid() {
  if (!IsActive) {
    return __real_setsid();
  }
  return request("setsid()") ? -1 : 1;
}

void __wrap_exit(int status) {
  if (!IsActive) {
    __real_exit(status);
  }
  request("exit(" + std::to_string(status) + ")");
  Kernel.exit_status = status;
  end_run();
}

sighandler_t __wrap_signal(int signal_number, sighandler_t handler) {
  if (!IsActive) {
    return __real_signal(signal_number, handler);
  }
  if (request("signal(" + signal_name(signal_number) + ")")) {
    return SIG_ERR;
  }
  Kernel.handlers[signal_number] = handler;
  return SIG_DFL;
}

int __wrap_setitimer(int which, const itimerval *value, itimerval *previous) {
  if (!IsActive) {
    return __real_setitimer(which, value, previous);
  }
  const char *name = which == ITIMER_REAL ? "ITIMER_REAL" : "other timer";
  return request(std::string("setitimer(") + name + ") first=" + seconds_text(value->it_value) +
                 " interval=" + seconds_text(value->it_interval))
             ? -1
             : 0;
}

int __wrap_pipe(int *ends) {
  if (!IsActive) {
    return __real_pipe(ends);
  }
  if (request("pipe()")) {
    return -1;
  }
  ends[0] = PIPE_READ_END;
  ends[1] = PIPE_WRITE_END;
  return 0;
}

int __wrap_select(int limit, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout) {
  if (!IsActive) {
    return __real_select(limit, readable, writable, exceptional, timeout);
  }
  Kernel.select_limit = limit;
  const bool waits_plainly = writable == nullptr && exceptional == nullptr && timeout == nullptr;
  // By itself: the answer may end the run with a jump, which would leave the text allocated.
  const bool is_refused =
      request("select(" + watched_text(limit, readable) + ")" + (waits_plainly ? "" : " with more than reading"));
  return is_refused ? -1 : answer_select(readable);
}

ssize_t __wrap_read(int descriptor, void *buffer, std::size_t room) {
  if (!IsActive || descriptor != PIPE_READ_END) {
    return __real_read(descriptor, buffer, room);
  }
  const bool is_refused = request("read(pipe, " + std::to_string(room) + ")");
  return is_refused ? -1 : read_pipe(buffer, room);
}

ssize_t __wrap_write(int descriptor, const void *bytes, std::size_t length) {
  const bool is_real = descriptor >= 0 && descriptor < PIPE_READ_END;
  if (!IsActive || is_real) {
    return __real_write(descriptor, bytes, length);
  }
  const std::string text(static_cast<const char *>(bytes), length);
  if (request("write(" + descriptor_text(descriptor) + ", \"" + text + "\")")) {
    return -1;
  }
  if (descriptor != PIPE_WRITE_END) {
    errno = EBADF;
    return -1;
  }
  PipeContents += text;
  return static_cast<ssize_t>(length);
}
}
