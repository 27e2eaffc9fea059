// The one owner of an open file descriptor.
#pragma once

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "domain/error.hpp"

namespace ravok {

class Descriptor {
 public:
  Descriptor() = default;
  // Takes over `value`; -1 means none.
  explicit Descriptor(int value) : value_(value) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset();
      value_ = std::exchange(other.value_, -1);
    }
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return value_; }
  explicit operator bool() const { return value_ >= 0; }

  // Gives the descriptor up without closing it.
  [[nodiscard]] int release() { return std::exchange(value_, -1); }

  // Closes the descriptor, if there is one. A failing close still releases it.
  void reset() {
    if (value_ >= 0) {
      close(std::exchange(value_, -1));
    }
  }

 private:
  int value_ = -1;
};

// Fails with "too_many_files" when that is what a call has failed of.
inline void require_descriptors(int problem) {
  require(problem != EMFILE && problem != ENFILE, "too_many_files",
          "Too many files are open; close other programs and try again");
}

// Repeats a system call, which answers -1 on failure, for as long as a signal interrupts it.
template <typename Call>
auto retry_interrupted(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) {
    result = call();
  }
  return result;
}

}  // namespace ravok
