#include "support/process_calls.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <stdexcept>
#include <string_view>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ravok::testing {
namespace {

// A child between fork and exec must not make memory, so what is known of the calls stands in arrays.
constexpr std::array<std::string_view, 17> names = {"pipe2",
                                                    "pipe",
                                                    "open",
                                                    "socketpair",
                                                    "fork",
                                                    "send",
                                                    "waitpid",
                                                    "kill",
                                                    "setpgid",
                                                    "chdir",
                                                    "dup2",
                                                    "execve",
                                                    "read",
                                                    "syscall",
                                                    "fcntl F_SETFD",
                                                    "fcntl F_GETFD",
                                                    "fcntl F_DUPFD_CLOEXEC"};

struct Calls {
  std::array<WrongCall, names.size()> wrong{};
  std::array<bool, names.size()> wrong_here{};
  std::array<bool, names.size()> wrong_there{};
  std::array<int, names.size()> counts{};
  std::optional<int> status;
  std::optional<int> last_status;
  bool swallows_signals = false;
  bool sends_nothing = false;
  const pid_t process = getpid();
};

Calls* present = nullptr;

std::size_t index_of(std::string_view call) {
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (call == names[i]) {
      return i;
    }
  }
  throw std::logic_error("No wrapped call is named " + std::string(call));
}

// Whether this call goes wrong, with its number in errno.
bool goes_wrong(std::string_view name) {
  if (present == nullptr) {
    return false;
  }
  const std::size_t call = index_of(name);
  ++present->counts[call];
  WrongCall& how = present->wrong[call];
  if (!(getpid() == present->process ? present->wrong_here : present->wrong_there)[call]) {
    return false;
  }
  if (how.calls_before > 0) {
    --how.calls_before;
    return false;
  }
  if (how.times == 0) {
    return false;
  }
  if (how.times > 0) {
    --how.times;
  }
  errno = how.number;
  return true;
}

}  // namespace

ProcessCalls::ProcessCalls() { present = new Calls; }

ProcessCalls::~ProcessCalls() {
  delete present;
  present = nullptr;
}

void ProcessCalls::fail(const std::string& call, const WrongCall& how) {
  fail_here(call, how);
  fail_there(call, how);
}

void ProcessCalls::fail_here(const std::string& call, const WrongCall& how) {
  present->wrong[index_of(call)] = how;
  present->wrong_here[index_of(call)] = true;
}

void ProcessCalls::fail_there(const std::string& call, const WrongCall& how) {
  present->wrong[index_of(call)] = how;
  present->wrong_there[index_of(call)] = true;
}

void ProcessCalls::answer_status(int status) { present->status = status; }

void ProcessCalls::swallow_signals() { present->swallows_signals = true; }

void ProcessCalls::send_nothing() { present->sends_nothing = true; }

int ProcessCalls::count(const std::string& call) const { return present->counts[index_of(call)]; }

std::optional<int> ProcessCalls::last_status() const { return present->last_status; }

extern "C" {

int __real_pipe2(int* ends, int flags);
int __wrap_pipe2(int* ends, int flags) { return goes_wrong("pipe2") ? -1 : __real_pipe2(ends, flags); }

int __real_pipe(int* ends);
int __wrap_pipe(int* ends) { return goes_wrong("pipe") ? -1 : __real_pipe(ends); }

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const auto mode = va_arg(rest, mode_t);
  va_end(rest);
  return goes_wrong("open") ? -1 : __real_open(path, flags, mode);
}

int __real_socketpair(int family, int type, int protocol, int* ends);
int __wrap_socketpair(int family, int type, int protocol, int* ends) {
  return goes_wrong("socketpair") ? -1 : __real_socketpair(family, type, protocol, ends);
}

pid_t __real_fork();
pid_t __wrap_fork() { return goes_wrong("fork") ? -1 : __real_fork(); }

ssize_t __real_send(int descriptor, const void* bytes, size_t size, int flags);
ssize_t __wrap_send(int descriptor, const void* bytes, size_t size, int flags) {
  if (present != nullptr && present->sends_nothing) {
    return 0;
  }
  return goes_wrong("send") ? -1 : __real_send(descriptor, bytes, size, flags);
}

pid_t __real_waitpid(pid_t child, int* status, int options);
pid_t __wrap_waitpid(pid_t child, int* status, int options) {
  if (goes_wrong("waitpid")) {
    return -1;
  }
  const pid_t ended = __real_waitpid(child, status, options);
  if (present != nullptr && ended > 0) {
    *status = present->status.value_or(*status);
    present->last_status = *status;
  }
  return ended;
}

int __real_kill(pid_t process, int signal);
int __wrap_kill(pid_t process, int signal) {
  if (goes_wrong("kill")) {
    return -1;
  }
  return present != nullptr && present->swallows_signals ? 0 : __real_kill(process, signal);
}

int __real_setpgid(pid_t process, pid_t group);
int __wrap_setpgid(pid_t process, pid_t group) { return goes_wrong("setpgid") ? -1 : __real_setpgid(process, group); }

int __real_chdir(const char* path);
int __wrap_chdir(const char* path) { return goes_wrong("chdir") ? -1 : __real_chdir(path); }

int __real_dup2(int from, int to);
int __wrap_dup2(int from, int to) { return goes_wrong("dup2") ? -1 : __real_dup2(from, to); }

int __real_execve(const char* image, char* const* arguments, char* const* environment);
int __wrap_execve(const char* image, char* const* arguments, char* const* environment) {
  return goes_wrong("execve") ? -1 : __real_execve(image, arguments, environment);
}

ssize_t __real_read(int descriptor, void* bytes, size_t size);
ssize_t __wrap_read(int descriptor, void* bytes, size_t size) {
  return goes_wrong("read") ? -1 : __real_read(descriptor, bytes, size);
}

long __real_syscall(long number, long a, long b, long c, long d, long e, long f);
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
  return goes_wrong("syscall") ? -1 : __real_syscall(number, a, b, c, d, e, f);
}

int __real_fcntl(int descriptor, int command, ...);
int __wrap_fcntl(int descriptor, int command, ...) {
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  if ((command == F_SETFD && goes_wrong("fcntl F_SETFD")) || (command == F_GETFD && goes_wrong("fcntl F_GETFD")) ||
      (command == F_DUPFD_CLOEXEC && goes_wrong("fcntl F_DUPFD_CLOEXEC"))) {
    return -1;
  }
  return __real_fcntl(descriptor, command, argument);
}
}

}  // namespace ravok::testing
