#include <cstdio>

#include <fcntl.h>

#include "platform/os.hpp"

namespace ravok::os {

int passage_flags() { return O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC; }

int rename_exclusive(int from_parent, const char* from, int to_parent, const char* to) {
  return renameat2(from_parent, from, to_parent, to, RENAME_NOREPLACE);
}

int exchange_names(int first_parent, const char* first, int second_parent, const char* second) {
  return renameat2(first_parent, first, second_parent, second, RENAME_EXCHANGE);
}

}  // namespace ravok::os
