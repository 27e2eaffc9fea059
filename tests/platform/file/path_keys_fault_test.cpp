// Places on volumes that the test machine may not have. The linker leads the calls that ask about a
// volume through the wrappers below, which give such a volume's answers.

#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include "platform/file/path_keys.hpp"
#include "platform/os.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/mounted_volume.hpp"
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
using path_keys::path_key;
using testing::failing;
using testing::meanwhile;
using testing::MountedVolume;
using testing::Planned;

constexpr const char* linked = "Linux setup ancestry is linked, unavailable or changed";
constexpr const char* changed = "Linux setup ancestry or volume changed during inspection";
constexpr const char* volume_changed = "Linux setup volume changed during inspection";
constexpr const char* unresolved = "Cannot resolve the physical Linux setup path";
constexpr const char* unidentified = "Cannot identify the Linux setup volume and its case behavior";

// The steps: the path is walked, then the way to its volume's mount, then the path again.
constexpr int walk_to_mount = 2;
constexpr int second_walk = 3;

class PathKeyFault : public ::testing::Test {
 protected:
  void TearDown() override {
    folding_directory.clear();
    volume_kind = 0;
    kind_unknown = false;
  }
  // Asking for a key makes nothing, whether it succeeds or not.
  void expect_refused(const testing::Plan& plan, const std::string& path, const char* message) const {
    const auto before = root_.names();
    const Planned set(plan);
    EXPECT_FAILURE(directory_key(root_ / path), "unsafe_path", message) << plan.call;
    EXPECT_TRUE(set.happened()) << plan.call;
    EXPECT_EQ(root_.names(), before) << plan.call;
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
  EXPECT_FAILURE(directory_key(root_.path()), "unsafe_path", unidentified);
}

TEST_F(PathKeyFault, NamesTheStepThatFailed) {
  root_.directory("place");
  for (const int walk : {1, walk_to_mount, second_walk}) {
    expect_refused(failing("anchor", EMFILE, walk), "place/new", "Cannot anchor Linux setup ancestry");
  }
  expect_refused(failing("openat", EIO), "place/new", linked);
  expect_refused(failing("openat", ELOOP), "place/new", linked);
  expect_refused(failing("reopen directory", EMFILE), "place/new", linked);
  expect_refused(failing("fstat", EIO), "place/new", "Cannot identify the existing Linux setup ancestor");
  expect_refused(failing("fstat", EIO, 2), "place/new", unidentified);
  expect_refused(failing("readlink", EIO), "place/new", unresolved);
}

TEST_F(PathKeyFault, RefusesALeafThatCannotBeOpened) {
  root_.write("file", "x");
  const auto levels = std::distance(root_.path().begin(), root_.path().end());
  for (const int problem : {EACCES, EIO, ELOOP, ENXIO}) {
    const Planned set(failing("openat", problem, static_cast<int>(levels)));
    EXPECT_FAILURE(path_key(root_ / "file"), "unsafe_path", linked) << problem;
  }
}

TEST_F(PathKeyFault, RefusesAPlaceThatIsRemovedMeanwhile) {
  for (const int walk : {walk_to_mount, second_walk}) {
    root_.directory("place");
    const Planned set(meanwhile(
        "anchor", [this] { std::filesystem::remove(root_ / "place"); }, walk));
    EXPECT_FAILURE(directory_key(root_ / "place"), "unsafe_path", walk == walk_to_mount ? unresolved : changed);
    EXPECT_EQ(root_.names(), std::vector<std::string>{});
  }
}

TEST_F(PathKeyFault, RefusesAPlaceThatIsReplacedMeanwhile) {
  root_.directory("place");
  const auto replace = [this] {
    std::filesystem::rename(root_ / "place", root_ / "moved");
    root_.directory("place");
  };
  const Planned set(meanwhile("anchor", replace, second_walk));
  EXPECT_FAILURE(directory_key(root_ / "place/new"), "unsafe_path", changed);
}

TEST_F(PathKeyFault, RefusesAPlaceThatIsMadeMeanwhile) {
  const Planned set(meanwhile(
      "anchor", [this] { root_.directory("place"); }, second_walk));
  EXPECT_FAILURE(directory_key(root_ / "place/new"), "unsafe_path", changed);
}

TEST_F(PathKeyFault, RefusesAPlaceThatBecomesALinkMeanwhile) {
  root_.directory("place");
  ASSERT_EQ(chmod(root_.path().c_str(), 0777), 0);
  const auto swap = [this] {
    std::filesystem::rename(root_ / "place", root_ / "moved");
    std::filesystem::create_directory_symlink("moved", root_ / "place");
  };
  const Planned set(meanwhile("anchor", swap, second_walk));
  EXPECT_FAILURE(directory_key(root_ / "place/new"), "unsafe_path", linked);
}

TEST_F(PathKeyFault, RefusesAVolumeThatIsMountedOverMeanwhile) {
  const auto place = root_.directory("volume");
  const MountedVolume first(place, "tmpfs", "size=64k");
  if (!first.mounted()) {
    GTEST_SKIP() << "volumes cannot be mounted here";
  }
  std::optional<MountedVolume> second;
  for (const int walk : {walk_to_mount, second_walk}) {
    const Planned set(meanwhile(
        "anchor", [&] { second.emplace(place, "tmpfs", "size=64k"); }, walk));
    EXPECT_FAILURE(directory_key(place / "new"), "unsafe_path", walk == walk_to_mount ? volume_changed : changed);
    second.reset();
  }
}

}  // namespace
}  // namespace ravok
