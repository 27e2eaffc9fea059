// A library to preload into a program on Linux. It holds one call to the file system, so that a test finds the program
// at work on exactly that step for as long as it likes. It is told what to do by variables of the environment:
//
//   RAVOK_HELD_CALL   The call, a blank, and how the path ends that it is given: "open", "openat", "renameat",
//                     "renameat2", "unlinkat" or "fsync". Held is the first such call of another thread than the
//                     first, which must go on drawing.
//   RAVOK_HELD_PLACE  A folder with two FIFOs. The library writes a byte to "reached" when it holds the call, and lets
//                     the call go on when it can read a byte from "go", or when nobody can write there any more.

#undef _FORTIFY_SOURCE

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<bool> is_over = false;

long open_fifo(const char* name, int mode) {
  char path[4096];
  const char* const place = std::getenv("RAVOK_HELD_PLACE");
  std::snprintf(path, sizeof path, "%s/%s", place == nullptr ? "" : place, name);
  return syscall(SYS_openat, AT_FDCWD, path, mode | O_CLOEXEC);
}

void tell_and_wait() {
  char byte = '.';
  const long reached = open_fifo("reached", O_WRONLY);
  const long go = open_fifo("go", O_RDONLY);
  if (reached < 0 || go < 0 || syscall(SYS_write, reached, &byte, 1) != 1) {
    std::abort();
  }
  while (syscall(SYS_read, go, &byte, 1) < 0 && errno == EINTR) {
  }
  syscall(SYS_close, reached);
  syscall(SYS_close, go);
}

bool ends_with(const char* text, const char* end) {
  const std::size_t size = std::strlen(text);
  const std::size_t end_size = std::strlen(end);
  return size >= end_size && std::strcmp(text + size - end_size, end) == 0;
}

// Called before each call with its name and its path.
void hold(const char* call, const char* path) {
  const char* const chosen = std::getenv("RAVOK_HELD_CALL");
  const std::size_t size = std::strlen(call);
  if (chosen == nullptr || is_over || syscall(SYS_gettid) == getpid() || std::strncmp(chosen, call, size) != 0 ||
      chosen[size] != ' ' || !ends_with(path, chosen + size + 1) || is_over.exchange(true)) {
    return;
  }
  const int kept = errno;
  tell_and_wait();
  errno = kept;
}

// The path of an open file.
void hold_descriptor(const char* call, int descriptor) {
  char link[64];
  char path[4096];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
  const long size = syscall(SYS_readlinkat, AT_FDCWD, link, path, sizeof path - 1);
  if (size >= 0) {
    path[size] = '\0';
    hold(call, path);
  }
}

bool makes_file(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = makes_file(flags) ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  hold("open", path);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

int __open_2(const char* path, int flags) {
  hold("open", path);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags));
}

int openat(int directory, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = makes_file(flags) ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  hold("openat", path);
  return static_cast<int>(syscall(SYS_openat, directory, path, flags, mode));
}

int __openat_2(int directory, const char* path, int flags) {
  hold("openat", path);
  return static_cast<int>(syscall(SYS_openat, directory, path, flags));
}

int renameat(int from_directory, const char* from, int to_directory, const char* to) {
  hold("renameat", to);
  return static_cast<int>(syscall(SYS_renameat, from_directory, from, to_directory, to));
}

int renameat2(int from_directory, const char* from, int to_directory, const char* to, unsigned flags) {
  hold("renameat2", to);
  return static_cast<int>(syscall(SYS_renameat2, from_directory, from, to_directory, to, flags));
}

int unlinkat(int directory, const char* path, int flags) {
  hold("unlinkat", path);
  return static_cast<int>(syscall(SYS_unlinkat, directory, path, flags));
}

int fsync(int descriptor) {
  hold_descriptor("fsync", descriptor);
  return static_cast<int>(syscall(SYS_fsync, descriptor));
}
}
