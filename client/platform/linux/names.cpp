#include <cstdio>

#include <fcntl.h>

#include "platform/os.hpp"

namespace ravok::os {

int rename_exclusive(const char* from, const char* to) {
  return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}

int exchange_names(int first_parent, const char* first, int second_parent, const char* second) {
  return renameat2(first_parent, first, second_parent, second, RENAME_EXCHANGE);
}

}  // namespace ravok::os
