// Lets a test lack permissions for its own tree, even when user 0 runs it.
#pragma once

#include <filesystem>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/temporary_root.hpp"

namespace ravok::testing {

// Gives the tree to another user and goes on as that user, where the test runs as user 0, whom permissions do not stop.
class OrdinaryUser {
 public:
  // Whether the tree is given to the other user now, or belongs to that user already.
  enum class Given { now, already };

  explicit OrdinaryUser(const TemporaryRoot& root, Given given = Given::now) {
    if (is_root()) {
      if (given == Given::now) {
        give(root.path());
        for (const std::string& name : root.names()) {
          give(root / name);
        }
      }
      EXPECT_EQ(seteuid(somebody), 0);
    }
  }
  ~OrdinaryUser() { EXPECT_EQ(seteuid(getuid()), 0); }
  OrdinaryUser(const OrdinaryUser&) = delete;
  OrdinaryUser& operator=(const OrdinaryUser&) = delete;

 private:
  static constexpr uid_t somebody = 65534;
  static void give(const std::filesystem::path& path) { EXPECT_EQ(chown(path.c_str(), somebody, somebody), 0); }
};

// Gives a directory another mode for as long as the object lives.
class WithMode {
 public:
  WithMode(std::filesystem::path path, mode_t mode) : path_(std::move(path)) {
    EXPECT_EQ(chmod(path_.c_str(), mode), 0);
  }
  ~WithMode() { EXPECT_EQ(chmod(path_.c_str(), 0700), 0); }
  WithMode(const WithMode&) = delete;
  WithMode& operator=(const WithMode&) = delete;

 private:
  std::filesystem::path path_;
};

}  // namespace ravok::testing
