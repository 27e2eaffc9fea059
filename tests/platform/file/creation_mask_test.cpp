// Files and directories get their own mode whatever the process's mask, and their user can use them at once.

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/file/allocated_file.hpp"
#include "platform/file/files.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/status.hpp"
#include "platform/snapshot/reserved_tree.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "support/failure.hpp"
#include "support/ordinary_user.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/with_mask.hpp"

namespace ravok::creation_mask_test {
namespace {

using testing::OrdinaryUser;
using testing::Sample;
using testing::SampleFile;
using testing::TemporaryRoot;
using testing::WithMask;

constexpr mode_t masks[] = {0000, 0022, 0077, 0100, 0200, 0300, 0400, 0500, 0700, 0777};

std::uint32_t mode_of(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  return status ? status->permissions : 0;
}

// Makes the folder for the test of one mask. Its own mode does not depend on the mask.
std::filesystem::path place_of(const TemporaryRoot& root, mode_t mask) {
  const std::filesystem::path place = root.directory(std::to_string(mask));
  EXPECT_EQ(chmod(place.c_str(), 0700), 0);
  return place;
}

TEST(CreationMask, LeavesPrivateDirectoriesAsTheyAre) {
  const TemporaryRoot root;
  const OrdinaryUser user(root);
  for (const mode_t mask : masks) {
    const std::filesystem::path place = place_of(root, mask);
    const WithMask with_mask(mask);
    private_directory(place / "a/b/c");
    private_directory_new(place / "new");
    for (const char* name : {"a", "a/b", "a/b/c", "new"}) {
      EXPECT_EQ(mode_of(place / name), 0700u) << name << " under " << std::oct << mask;
    }
  }
}

TEST(CreationMask, LeavesRecordsAndLocksAsTheyAre) {
  const TemporaryRoot root;
  const OrdinaryUser user(root);
  for (const mode_t mask : masks) {
    const std::filesystem::path place = place_of(root, mask);
    const WithMask with_mask(mask);
    atomic_write(place / "records/state", "content");
    atomic_private_create(place / "created/state", "content");
    replace_private_file(place / "replaced/state", "content");
    const FileLock lock(place / "locks/lock", false, LockMode::exclusive);
    const NativeFileLock own(place / "own", true, NativeLockSharing::none, LockMode::exclusive);
    for (const char* name : {"records/state", "created/state", "replaced/state", "locks/lock", "own"}) {
      EXPECT_NO_THROW(posix_files::require_private_path(place / name, false)) << name << " under " << std::oct << mask;
      EXPECT_EQ(mode_of(place / name), 0600u) << name << " under " << std::oct << mask;
    }
    EXPECT_EQ(read_file(place / "records/state", 64), "content");
  }
}

TEST(CreationMask, LimitsTheModeOfExportsAlone) {
  const TemporaryRoot root;
  const OrdinaryUser user(root);
  for (const mode_t mask : masks) {
    const std::filesystem::path place = place_of(root, mask);
    const WithMask with_mask(mask);
    atomic_create(place / "private", "content");
    ExportFile file(place / "export");
    file.write("content");
    file.commit();
    EXPECT_EQ(mode_of(place / "private"), 0600u & ~mask);
    EXPECT_EQ(mode_of(place / "export"), 0644u & ~mask);
  }
}

TEST(CreationMask, LeavesSnapshotsAndReservationsAsTheyAre) {
  const TemporaryRoot root;
  const std::vector<SampleFile> files = {{"bin/program", "program", 0755}, {"data/deep/file", "file"}};
  const Sample sample = testing::write_tar_sample(root, files, testing::tar_archive(testing::members_of(files)));
  ASSERT_EQ(chmod(sample.archive.c_str(), 0644), 0);
  const OrdinaryUser user(root);
  for (const mode_t mask : masks) {
    const std::filesystem::path place = place_of(root, mask);
    const WithMask with_mask(mask);
    extract_snapshot(sample.manifest, sample.archive, place / "plain", {}, nullptr);
    const ReservedTree tree(sample.manifest, place / "reserved", {}, {});
    extract_snapshot(sample.manifest, sample.archive, place / "reserved", {}, &tree);
    for (const char* name : {"plain", "reserved"}) {
      EXPECT_EQ(mode_of(place / name), 0700u) << std::oct << mask;
      EXPECT_EQ(mode_of(place / name / "data/deep"), 0700u) << std::oct << mask;
      EXPECT_EQ(mode_of(place / name / "bin/program"), 0700u) << std::oct << mask;
      EXPECT_EQ(mode_of(place / name / "data/deep/file"), 0600u) << std::oct << mask;
    }
  }
}

TEST(CreationMask, IsNeverChanged) {
  const TemporaryRoot root;
  const OrdinaryUser user(root);
  const WithMask with_mask(0777);
  private_directory(root / "a/b");
  private_directory_new(root / "new");
  EXPECT_EQ(umask(0777), 0777u);
}

}  // namespace
}  // namespace ravok::creation_mask_test
