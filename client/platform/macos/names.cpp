#include <fcntl.h>
#include <stdio.h>

#include "platform/os.hpp"

namespace ravok::os {

int passage_flags() { return O_SEARCH | O_NOFOLLOW | O_CLOEXEC; }

int rename_exclusive(int from_parent, const char* from, int to_parent, const char* to) {
  return renameatx_np(from_parent, from, to_parent, to, RENAME_EXCL);
}

int exchange_names(int first_parent, const char* first, int second_parent, const char* second) {
  return renameatx_np(first_parent, first, second_parent, second, RENAME_SWAP);
}

}  // namespace ravok::os
