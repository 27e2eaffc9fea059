#include <stdio.h>

#include "platform/os.hpp"

namespace ravok::os {

int rename_exclusive(const char* from, const char* to) { return renamex_np(from, to, RENAME_EXCL); }

int exchange_names(int first_parent, const char* first, int second_parent, const char* second) {
  return renameatx_np(first_parent, first, second_parent, second, RENAME_SWAP);
}

}  // namespace ravok::os
