#include "domain/error.hpp"

#include <utility>

namespace ravok {

Error::Error(std::string error_code, const std::string& message, std::vector<std::string> hints)
    : std::runtime_error(message), code(std::move(error_code)), details(std::move(hints)) {}

void fail(std::string_view code, std::string_view message, std::vector<std::string> details) {
  throw Error(std::string(code), std::string(message), std::move(details));
}

void require(bool condition, std::string_view code, std::string_view message, std::vector<std::string> details) {
  if (!condition) {
    fail(code, message, std::move(details));
  }
}

}  // namespace ravok
