// A variable of the environment with another value.
#pragma once

#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ravok::testing {

// Sets the variable or, without a value, unsets it, for as long as the object lives.
class WithEnvironment {
 public:
  WithEnvironment(std::string key, const std::optional<std::string>& value) : key_(std::move(key)) {
    if (const char* const before = std::getenv(key_.c_str())) {
      before_ = before;
    }
    set(value);
  }
  ~WithEnvironment() { set(before_); }
  WithEnvironment(const WithEnvironment&) = delete;
  WithEnvironment& operator=(const WithEnvironment&) = delete;

 private:
  void set(const std::optional<std::string>& value) const {
    if (value) {
      setenv(key_.c_str(), value->c_str(), 1);
    } else {
      unsetenv(key_.c_str());
    }
  }

  std::string key_;
  std::optional<std::string> before_;
};

// The same for several variables.
class WithEnvironments {
 public:
  explicit WithEnvironments(const std::map<std::string, std::string>& values) {
    for (const auto& [key, value] : values) {
      values_.push_back(std::make_unique<WithEnvironment>(key, value));
    }
  }

 private:
  std::vector<std::unique_ptr<WithEnvironment>> values_;
};

}  // namespace ravok::testing
