// What a C library has since its version 2.28, for programs that are to start with an older one. The system has had the
// calls for longer; a system that has not says so by ENOSYS, as it does through the library's own functions.

#include <cstdio>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {

int renameat2(int from, const char* name, int to, const char* new_name, unsigned int flags) noexcept {
  return static_cast<int>(syscall(SYS_renameat2, from, name, to, new_name, flags));
}

int statx(int directory, const char* path, int flags, unsigned int fields, struct statx* status) noexcept {
  return static_cast<int>(syscall(SYS_statx, directory, path, flags, fields, status));
}

}  // extern "C"
