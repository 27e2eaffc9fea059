#include <cstdio>

#include <fcntl.h>

#include "platform/file/file_operations.hpp"
#include "platform/posix/native.hpp"

namespace ravok {

int posix::passage_flags() { return O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC; }

Problem os::rename_exclusive(int from, const char* name, int to, const char* new_name) {
  return renameat2(from, name, to, new_name, RENAME_NOREPLACE) == 0 ? Problem() : posix::last_problem();
}

Problem os::exchange_names(int first, const char* first_name, int second, const char* second_name) {
  return renameat2(first, first_name, second, second_name, RENAME_EXCHANGE) == 0 ? Problem() : posix::last_problem();
}

}  // namespace ravok
