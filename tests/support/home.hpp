// HOME with another value for as long as an object lives.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace ravok::testing {

class Home {
 public:
  // Null takes HOME out of the environment.
  explicit Home(const char* value) {
    if (const char* const before = std::getenv("HOME")) {
      before_ = before;
    }
    set(value);
  }
  ~Home() { set(before_ ? before_->c_str() : nullptr); }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;

 private:
  static void set(const char* value) {
    if (value == nullptr) {
      unsetenv("HOME");
    } else {
      setenv("HOME", value, 1);
    }
  }
  std::optional<std::string> before_;
};

}  // namespace ravok::testing
