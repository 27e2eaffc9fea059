// Makes the system give this process only a few descriptors more.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "platform/file/handle.hpp"

namespace ravok::testing {

// Whether a test can go on without any descriptor. It cannot with the sanitizers, which open some when they look at an
// exception.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool can_do_without_descriptors = false;
#else
inline constexpr bool can_do_without_descriptors = true;
#endif

class FewDescriptors {
 public:
  // Lets this process open at most so many descriptors more, for as long as the object lives.
  explicit FewDescriptors(rlim_t more) {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    const int lowest_free = Handle(open("/", O_RDONLY | O_CLOEXEC)).get();
    EXPECT_GE(lowest_free, 0);
    rlimit few = before_;
    few.rlim_cur = static_cast<rlim_t>(lowest_free) + more;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  }
  ~FewDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit before_{};
};

}  // namespace ravok::testing
