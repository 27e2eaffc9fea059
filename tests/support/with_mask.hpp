// The process's file mode mask, which takes permissions from what is made.
#pragma once

#include <sys/stat.h>

namespace ravok::testing {

// Sets the mask for as long as the object lives. One at a time.
class WithMask {
 public:
  explicit WithMask(mode_t mask) : before_(umask(mask)) {}
  ~WithMask() { umask(before_); }
  WithMask(const WithMask&) = delete;
  WithMask& operator=(const WithMask&) = delete;

 private:
  mode_t before_;
};

}  // namespace ravok::testing
