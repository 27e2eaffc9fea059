// A system without room for another thread, for tests of what needs one.
#pragma once

#ifdef __linux__

#include <cstddef>

#include <gtest/gtest.h>
#include <pthread.h>

namespace ravok::testing {

// While it lives, the system has no room for another thread.
class NoThreads {
 public:
  NoThreads() {
    EXPECT_EQ(pthread_getattr_default_np(&former_), 0);
    pthread_attr_t attributes;
    EXPECT_EQ(pthread_getattr_default_np(&attributes), 0);
    EXPECT_EQ(pthread_attr_setstacksize(&attributes, std::size_t{1} << 50), 0);
    EXPECT_EQ(pthread_setattr_default_np(&attributes), 0);
    pthread_attr_destroy(&attributes);
  }
  ~NoThreads() {
    pthread_setattr_default_np(&former_);
    pthread_attr_destroy(&former_);
  }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t former_;
};

}  // namespace ravok::testing

#endif
