// The one owner of an open file or directory.
#pragma once

#include <utility>

namespace ravok {

namespace os {

// Closes an open file or directory. It is closed even where the system reports a failure, so there is no answer.
void close(int handle);

}  // namespace os

// A handle is a small number, 0 or above, that this process knows an open file or directory by.
class Handle {
 public:
  Handle() = default;
  // Takes over `value`; -1 means none.
  explicit Handle(int value) : value_(value) {}
  ~Handle() { reset(); }
  Handle(Handle&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
  Handle& operator=(Handle&& other) noexcept {
    if (this != &other) {
      reset();
      value_ = std::exchange(other.value_, -1);
    }
    return *this;
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  int get() const { return value_; }
  explicit operator bool() const { return value_ >= 0; }

  // Gives the handle up without closing it.
  [[nodiscard]] int release() { return std::exchange(value_, -1); }

  // Closes the handle, if there is one.
  void reset() {
    if (value_ >= 0) {
      os::close(std::exchange(value_, -1));
    }
  }

 private:
  int value_ = -1;
};

}  // namespace ravok
