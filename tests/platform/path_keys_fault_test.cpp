// Places on volumes that the test machine may not have: the linker leads the questions about a
// volume through the wrappers below, which give another system's answers.

#include <cerrno>
#include <cstdarg>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/statfs.h>

#include "platform/os.hpp"
#include "platform/path_keys.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace {

std::string folding_directory;  // the name of directories that fold names
long volume_kind = 0;           // the kind that every volume has, or 0 for its own
bool kind_unknown = false;

}  // namespace

extern "C" {

int __real_ioctl(int descriptor, unsigned long request, ...);
int __wrap_ioctl(int descriptor, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* const value = va_arg(arguments, void*);
  va_end(arguments);
  const int result = __real_ioctl(descriptor, request, value);
  if (request == FS_IOC_GETFLAGS && !folding_directory.empty()) {
    const auto path = ravok::os::descriptor_path(descriptor);
    *static_cast<int*>(value) = path && path->ends_with("/" + folding_directory) ? FS_CASEFOLD_FL : 0;
    return 0;
  }
  return result;
}

int __real_fstatfs(int descriptor, struct statfs* information);
int __wrap_fstatfs(int descriptor, struct statfs* information) {
  if (kind_unknown) {
    errno = EIO;
    return -1;
  }
  const int result = __real_fstatfs(descriptor, information);
  if (volume_kind != 0) {
    information->f_type = volume_kind;
  }
  return result;
}

}  // extern "C"

namespace ravok {
namespace {

using path_keys::directory_key;

class PathKeyFault : public ::testing::Test {
 protected:
  void TearDown() override {
    folding_directory.clear();
    volume_kind = 0;
    kind_unknown = false;
  }
  testing::TemporaryRoot root_;
};

TEST_F(PathKeyFault, FoldsOnlyBelowADirectoryThatFolds) {
  folding_directory = "Folded";
  root_.directory("Folded");
  const std::string key = directory_key(root_ / "Folded/Game/Save");
  EXPECT_EQ(directory_key(root_ / "Folded/GAME/save"), key);
  EXPECT_NE(key.find("/i/"), std::string::npos) << key;
  EXPECT_TRUE(key.ends_with("/Folded/game/save")) << key;
  EXPECT_NE(directory_key(root_ / "Game"), directory_key(root_ / "game"));
  EXPECT_NE(directory_key(root_ / "Game").find("/s/"), std::string::npos);
}

TEST_F(PathKeyFault, FoldsEverywhereOnAVolumeThatNeverComparesCase) {
  for (const long kind : {static_cast<long>(MSDOS_SUPER_MAGIC), static_cast<long>(EXFAT_SUPER_MAGIC)}) {
    volume_kind = kind;
    EXPECT_EQ(directory_key(root_ / "Game"), directory_key(root_ / "gAME"));
  }
}

TEST_F(PathKeyFault, RefusesVolumesOfOtherMachines) {
  for (const long kind : {0x6969L, 0xFF534D42L, 0xFE534D42L, 0x517BL, 0x5346414FL, 0x6B414653L, 0x00C36400L}) {
    volume_kind = kind;
    EXPECT_FAILURE(directory_key(root_.path()), "unsafe_path", "Linux setup control storage requires a local volume");
  }
}

TEST_F(PathKeyFault, RefusesAVolumeThatCannotBeTold) {
  kind_unknown = true;
  EXPECT_FAILURE(directory_key(root_.path()), "unsafe_path",
                 "Cannot identify the Linux setup volume and its case behavior");
}

}  // namespace
}  // namespace ravok
