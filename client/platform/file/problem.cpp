#include "platform/file/problem.hpp"

#include "domain/error.hpp"

namespace ravok {

void require_handles(const Problem& problem) {
  require(!(problem == Cause::too_many_open), "too_many_files",
          "Too many files are open; close other programs and try again");
}

}  // namespace ravok
