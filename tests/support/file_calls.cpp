#include "support/file_calls.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace ravok::testing {
namespace {

Plan current;
std::vector<std::string> calls;
std::size_t most_asked = 0;

// Whether the call is the one that the plan fails, with errno set.
bool is_failed(std::string_view call, std::string_view name = {}) {
  calls.emplace_back(call);
  if (current.call != call || !name.starts_with(current.beginning) || --current.countdown > 0 ||
      (current.countdown < 0 && !current.lasts)) {
    return false;
  }
  if (current.meanwhile) {
    std::exchange(current.meanwhile, {})();
  }
  errno = current.problem;
  return current.fails;
}

int answer() { return errno == 0 ? 0 : -1; }

std::string_view name_of_open(std::string_view path, int flags) {
  if ((flags & O_CREAT) != 0) {
    return "create";
  }
  if ((flags & O_DIRECTORY) != 0) {
    return path == "/" ? "anchor" : "open directory";
  }
  return "open";
}

std::string_view name_of_openat(std::string_view name, int flags) {
  if ((flags & O_CREAT) != 0) {
    return "create";
  }
  return name == "." ? "reopen directory" : "openat";
}

}  // namespace

Plan failing(std::string_view call, int problem, int countdown) {
  return {.call = call, .countdown = countdown, .fails = true, .problem = problem};
}

Plan failing_to_write(std::string name, int problem) {
  return {.call = "create", .countdown = 1, .beginning = std::move(name) + ".", .fails = true, .problem = problem};
}

Plan holding(std::string value, int countdown) {
  return {.call = "fgetxattr", .countdown = countdown, .fails = true, .value = std::move(value)};
}

Plan meanwhile(std::string_view call, std::function<void()> event, int countdown) {
  return {.call = call, .countdown = countdown, .meanwhile = std::move(event)};
}

Planned::Planned(Plan plan) {
  current = std::move(plan);
  calls.clear();
  most_asked = 0;
}

Planned::~Planned() { current = {}; }

bool Planned::happened() const { return current.countdown <= 0; }

std::ptrdiff_t Planned::count(std::string_view call) const { return std::count(calls.begin(), calls.end(), call); }

std::vector<std::string> Planned::order_of(const std::vector<std::string>& names) const {
  std::vector<std::string> order;
  std::copy_if(calls.begin(), calls.end(), std::back_inserter(order),
               [&](const std::string& call) { return std::find(names.begin(), names.end(), call) != names.end(); });
  return order;
}

std::size_t Planned::longest_read() const { return most_asked; }

extern "C" {

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return is_failed(name_of_open(path, flags)) ? answer() : __real_open(path, flags, mode);
}

int __real_openat(int directory, const char* name, int flags, ...);
int __wrap_openat(int directory, const char* name, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return is_failed(name_of_openat(name, flags), name) ? answer() : __real_openat(directory, name, flags, mode);
}

// The C library's headers call these checked forms where the compiler does not know the flags.
int __real___open_2(const char* path, int flags);
int __wrap___open_2(const char* path, int flags) {
  return is_failed(name_of_open(path, flags)) ? answer() : __real___open_2(path, flags);
}

int __real___openat_2(int directory, const char* name, int flags);
int __wrap___openat_2(int directory, const char* name, int flags) {
  return is_failed(name_of_openat(name, flags), name) ? answer() : __real___openat_2(directory, name, flags);
}

int __real_mkdirat(int directory, const char* name, mode_t mode);
int __wrap_mkdirat(int directory, const char* name, mode_t mode) {
  return is_failed("mkdirat") ? answer() : __real_mkdirat(directory, name, mode);
}

int __real_fstat(int file, struct stat* status);
int __wrap_fstat(int file, struct stat* status) {
  if (is_failed("fstat")) {
    return answer();
  }
  const int result = __real_fstat(file, status);
  if (result == 0 && current.revise) {
    current.revise(*status);
  }
  return result;
}

int __real_fstatat(int directory, const char* name, struct stat* status, int flags);
int __wrap_fstatat(int directory, const char* name, struct stat* status, int flags) {
  return is_failed("fstatat") ? answer() : __real_fstatat(directory, name, status, flags);
}

int __real_lstat(const char* path, struct stat* status);
int __wrap_lstat(const char* path, struct stat* status) {
  return is_failed("lstat") ? answer() : __real_lstat(path, status);
}

off_t __real_lseek(int file, off_t offset, int whence);
off_t __wrap_lseek(int file, off_t offset, int whence) {
  return is_failed("lseek") ? answer() : __real_lseek(file, offset, whence);
}

ssize_t __real_read(int file, void* bytes, std::size_t size);
ssize_t __wrap_read(int file, void* bytes, std::size_t size) {
  most_asked = std::max(most_asked, size);
  return is_failed("read") ? answer() : __real_read(file, bytes, std::min(size, current.longest_piece));
}

ssize_t __real_readlink(const char* path, char* target, std::size_t size);
ssize_t __wrap_readlink(const char* path, char* target, std::size_t size) {
  return is_failed("readlink") ? answer() : __real_readlink(path, target, size);
}

ssize_t __real_write(int file, const void* bytes, std::size_t size);
ssize_t __wrap_write(int file, const void* bytes, std::size_t size) {
  return is_failed("write") ? answer() : __real_write(file, bytes, std::min(size, current.longest_piece));
}

int __real_fchmod(int file, mode_t mode);
int __wrap_fchmod(int file, mode_t mode) { return is_failed("fchmod") ? answer() : __real_fchmod(file, mode); }

ssize_t __real_fgetxattr(int file, const char* name, void* value, std::size_t size);
ssize_t __wrap_fgetxattr(int file, const char* name, void* value, std::size_t size) {
  if (!is_failed("fgetxattr")) {
    return __real_fgetxattr(file, name, value, size);
  }
  if (!current.value) {
    return answer();
  }
  if (current.value->size() > size) {
    errno = ERANGE;
    return -1;
  }
  std::memcpy(value, current.value->data(), current.value->size());
  return static_cast<ssize_t>(current.value->size());
}

int __real_fremovexattr(int file, const char* name);
int __wrap_fremovexattr(int file, const char* name) {
  return is_failed("fremovexattr") ? answer() : __real_fremovexattr(file, name);
}

int __real_fallocate(int file, int mode, off_t offset, off_t length);
int __wrap_fallocate(int file, int mode, off_t offset, off_t length) {
  return is_failed("fallocate") ? answer() : __real_fallocate(file, mode, offset, length);
}

int __real_ftruncate(int file, off_t length);
int __wrap_ftruncate(int file, off_t length) {
  return is_failed("ftruncate") ? answer() : __real_ftruncate(file, length);
}

int __real_fsync(int file);
int __wrap_fsync(int file) { return is_failed("fsync") ? answer() : __real_fsync(file); }

int __real_renameat(int from_directory, const char* from, int to_directory, const char* to);
int __wrap_renameat(int from_directory, const char* from, int to_directory, const char* to) {
  return is_failed("rename") ? answer() : __real_renameat(from_directory, from, to_directory, to);
}

int __real_linkat(int from_directory, const char* from, int to_directory, const char* to, int flags);
int __wrap_linkat(int from_directory, const char* from, int to_directory, const char* to, int flags) {
  return is_failed("link") ? answer() : __real_linkat(from_directory, from, to_directory, to, flags);
}

int __real_unlinkat(int directory, const char* name, int flags);
int __wrap_unlinkat(int directory, const char* name, int flags) {
  return is_failed("unlink") ? answer() : __real_unlinkat(directory, name, flags);
}

}  // extern "C"

}  // namespace ravok::testing
