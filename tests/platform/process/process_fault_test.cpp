// Calls about processes that hardly ever fail. The linker leads them through the wrappers below, which fail on demand.

#include <cerrno>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "platform/process/directory_opening.hpp"
#include "platform/process/process.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace {

bool readlink_fails = false;
bool actions_fail = false;
bool redirection_fails = false;
int interrupted_waits = 0;

// Lets the system carry out every call before and after each test.
class ProcessFault : public ::testing::Test {
 protected:
  ~ProcessFault() override {
    readlink_fails = actions_fail = redirection_fails = false;
    interrupted_waits = 0;
  }

  // Puts a program in the place of the desktop's own that leaves a file behind.
  void write_opener() const {
    const std::filesystem::path path =
        root_.write("programs/xdg-open", "#!/bin/sh\ntouch '" + (root_ / "started").native() + "'\n");
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  }
  bool started() const { return std::filesystem::exists(root_ / "started"); }

  const ravok::testing::TemporaryRoot root_;
  const ravok::testing::WithEnvironment search_path_{"PATH", (root_ / "programs").native() + ":/usr/bin:/bin"};
};

}  // namespace

extern "C" {

ssize_t __real_readlink(const char* path, char* buffer, size_t size);
ssize_t __wrap_readlink(const char* path, char* buffer, size_t size) {
  if (readlink_fails) {
    errno = EACCES;
    return -1;
  }
  return __real_readlink(path, buffer, size);
}

int __real_posix_spawn_file_actions_init(posix_spawn_file_actions_t* actions);
int __wrap_posix_spawn_file_actions_init(posix_spawn_file_actions_t* actions) {
  return actions_fail ? ENOMEM : __real_posix_spawn_file_actions_init(actions);
}

int __real_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from, int to);
int __wrap_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from, int to) {
  return redirection_fails ? ENOMEM : __real_posix_spawn_file_actions_adddup2(actions, from, to);
}

pid_t __real_waitpid(pid_t child, int* status, int options);
pid_t __wrap_waitpid(pid_t child, int* status, int options) {
  if (interrupted_waits > 0) {
    --interrupted_waits;
    errno = EINTR;
    return -1;
  }
  return __real_waitpid(child, status, options);
}
}

namespace ravok {
namespace {

TEST_F(ProcessFault, AnImageThatCannotBeFoundHasNoIdentity) {
  readlink_fails = true;
  EXPECT_FAILURE(current_executable_path(), "launcher_identity",
                 "Cannot identify this native executable within its path bound");
}

TEST_F(ProcessFault, NoProgramIsStartedWithoutItsRedirection) {
  write_opener();
  for (bool* const failing : {&actions_fail, &redirection_fails}) {
    *failing = true;
    EXPECT_FAILURE(open_directory(root_.path()), "desktop_unavailable", "Cannot initialize native directory opening");
    EXPECT_FALSE(started());
    *failing = false;
  }
  open_directory(root_.path());
  EXPECT_TRUE(started());
}

TEST_F(ProcessFault, AnInterruptedWaitGoesOn) {
  write_opener();
  interrupted_waits = 3;
  open_directory(root_.path());
  EXPECT_TRUE(started());
  EXPECT_EQ(interrupted_waits, 0);
}

}  // namespace
}  // namespace ravok
