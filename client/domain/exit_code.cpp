#include "domain/exit_code.hpp"

namespace ravok {

int exit_code(const Error& error) {
  if (error.code == "usage") {
    return 2;
  }
  return error.code == "cancelled" ? 4 : 1;
}

}  // namespace ravok
