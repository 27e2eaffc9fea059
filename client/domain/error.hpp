// The one failure type of the system, and the check that raises it.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ravok {

// A refusal or a failure: a machine code, a message for the user, and what to do next.
class Error : public std::runtime_error {
 public:
  Error(std::string code, const std::string& message, std::vector<std::string> details = {});

  // A short lower-case word that consumers compare by exact text.
  std::string code;
  // Lines that tell the user what to do next; usually empty. what() is the message.
  std::vector<std::string> details;
};

// Throws Error(code, message, details).
[[noreturn]] void fail(std::string_view code, std::string_view message, std::vector<std::string> details = {});

// Throws Error(code, message) unless `condition` holds.
inline void require(bool condition, std::string_view code, std::string_view message) {
  if (!condition) [[unlikely]] {
    fail(code, message);
  }
}

// The same with hints for the user in `details`.
void require(bool condition, std::string_view code, std::string_view message, std::vector<std::string> details);

}  // namespace ravok
