#include "platform/process/directory_opening.hpp"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/os.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace ravok::directory_opening_test {
namespace {

using testing::TemporaryRoot;
using testing::WithEnvironment;

class OpenDirectory : public ::testing::Test {
 protected:
  OpenDirectory() : search_path_("PATH", root_.directory("programs").native() + ":/usr/bin:/bin") {}

  // Puts a shell script in the place of the desktop's own program.
  void SetUp() override {
    if (os::directory_opener().find('/') != std::string_view::npos) {
      GTEST_SKIP() << "this system's program has a fixed path";
    }
  }
  void write_opener(const std::string& script) const {
    const std::filesystem::path path =
        root_.write("programs/" + std::string(os::directory_opener()), "#!/bin/sh\n" + script + "\n");
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  }

  const TemporaryRoot root_;
  const WithEnvironment search_path_;
};

TEST_F(OpenDirectory, GivesItsPathToTheDesktopsProgram) {
  write_opener("printf '%s|' \"$#\" \"$@\" > '" + (root_ / "said").native() + "'");
  const std::filesystem::path directory = root_.directory("a $b \"c\"");
  open_directory(directory);
  EXPECT_EQ(root_.read("said"), "1|" + directory.native() + "|");
}

TEST_F(OpenDirectory, SendsWhatTheProgramSaysToTheErrors) {
  write_opener("echo said");
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  open_directory(root_.path());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "said\n");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST_F(OpenDirectory, ShowsOnlyADirectoryThatIsThere) {
  write_opener("touch '" + (root_ / "started").native() + "'");
  root_.write("file", "");
  std::filesystem::create_directory_symlink(root_.directory("directory"), root_ / "link");
  for (const char* const bad : {"file", "link", "link/", "link//", "missing"}) {
    EXPECT_FAILURE(open_directory(root_ / bad), "location_unavailable", "Local directory is unavailable") << bad;
  }
  EXPECT_FAILURE(open_directory({}), "location_unavailable", "Local directory is unavailable");
  EXPECT_FALSE(std::filesystem::exists(root_ / "started"));
}

TEST_F(OpenDirectory, FailsWithoutTheDesktopsProgram) {
  const WithEnvironment empty("PATH", root_ / "programs");
  EXPECT_FAILURE(open_directory(root_.path()), "desktop_unavailable", "No native directory opener is available");
}

TEST_F(OpenDirectory, FailsWhenTheProgramDoes) {
  for (const char* const ending : {"exit 1", "exit 255", "kill -KILL $$"}) {
    write_opener(ending);
    EXPECT_FAILURE(open_directory(root_.path()), "desktop_unavailable", "Native directory opening failed") << ending;
  }
}

}  // namespace
}  // namespace ravok::directory_opening_test
