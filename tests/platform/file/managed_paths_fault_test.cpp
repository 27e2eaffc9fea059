// Paths that the system does not tell about, and a link of its own that is removed before it is read.

#include <cerrno>
#include <initializer_list>
#include <string>

#include <gtest/gtest.h>

#include "platform/file/managed_paths.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/temporary_root.hpp"

namespace ravok::managed_paths_fault_test {
namespace {

using testing::failing;
using testing::Planned;

TEST(SystemLinkFault, ALinkThatCannotBeReadIsRefused) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can make the system's links";
  }
  const testing::TemporaryRoot root;
  root.directory("real");
  std::filesystem::create_symlink("real", root / "link");
  for (const int problem : {EIO, ENOENT, EINVAL, 0}) {
    const Planned set(failing("readlink", problem));
    EXPECT_FAILURE(resolve_system_links(root / "link/x"), "unsafe_path", "Cannot read a system link") << problem;
  }
  EXPECT_EQ(resolve_system_links(root / "link/x"), root / "real/x");
}

TEST(SystemLinkFault, WhatCannotBeLookedAtStaysAsItIs) {
  const testing::TemporaryRoot root;
  const Planned set(failing("lstat", EIO));
  EXPECT_EQ(resolve_system_links(root / "a/b"), root / "a/b");
  EXPECT_EQ(set.count("lstat"), 1);
}

TEST(PresenceFault, IsToldAsWhatTheSystemAnswers) {
  struct Answer {
    int problem;
    const char* code;
    const char* words;
  };
  const testing::TemporaryRoot root;
  for (const Answer& answer :
       {Answer{EACCES, "permissions", "Permission denied"}, Answer{EPERM, "permissions", "Operation not permitted"},
        Answer{EIO, "file_system", "Input/output error"}}) {
    const Planned set(failing("lstat", answer.problem));
    EXPECT_FAILURE(is_there(root / "file"), answer.code,
                   "Cannot look at " + (root / "file").native() + ": " + answer.words);
  }
}

}  // namespace
}  // namespace ravok::managed_paths_fault_test
