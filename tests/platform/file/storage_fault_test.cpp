// Volumes with properties that no volume at hand has. The linker leads the calls that ask for them through
// the wrappers below, whose answers a test changes.

#include <cerrno>
#include <cstdint>
#include <functional>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "platform/file/storage.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace {

bool stat_fails = false;
bool statvfs_fails = false;
std::function<void(struct statvfs&)> change_geometry;

// Lets the system answer before and after each test.
class StorageFault : public ::testing::Test {
 protected:
  ~StorageFault() override {
    stat_fails = false;
    statvfs_fails = false;
    change_geometry = {};
  }
  const ravok::testing::TemporaryRoot root;
};

}  // namespace

extern "C" {

int __real_stat(const char* path, struct stat* status);
int __wrap_stat(const char* path, struct stat* status) {
  if (stat_fails) {
    errno = EIO;
    return -1;
  }
  return __real_stat(path, status);
}

int __real_statvfs(const char* path, struct statvfs* geometry);
int __wrap_statvfs(const char* path, struct statvfs* geometry) {
  if (statvfs_fails) {
    errno = EIO;
    return -1;
  }
  const int result = __real_statvfs(path, geometry);
  if (change_geometry) {
    change_geometry(*geometry);
  }
  return result;
}

}  // extern "C"

namespace ravok {
namespace {

constexpr std::uint64_t all_ones_32 = 4'294'967'295;

TEST_F(StorageFault, NeedsTheGeometryOfTheVolume) {
  stat_fails = true;
  EXPECT_FAILURE(inspect_storage_volume(root.path()), "volume_query",
                 "Cannot inspect storage volume allocation geometry");
  stat_fails = false;
  statvfs_fails = true;
  EXPECT_FAILURE(inspect_storage_volume(root.path()), "volume_query",
                 "Cannot inspect storage volume allocation geometry");
}

TEST_F(StorageFault, TakesTheFragmentSizeAsTheAllocationUnit) {
  change_geometry = [](struct statvfs& geometry) {
    geometry.f_frsize = 1024;
    geometry.f_bsize = 65536;
  };
  EXPECT_EQ(inspect_storage_volume(root.path()).allocation_unit, 1024u);
}

TEST_F(StorageFault, FallsBackToTheBlockSize) {
  change_geometry = [](struct statvfs& geometry) {
    geometry.f_frsize = 0;
    geometry.f_bsize = 65536;
  };
  EXPECT_EQ(inspect_storage_volume(root.path()).allocation_unit, 65536u);
}

TEST_F(StorageFault, RefusesAVolumeWithoutAnAllocationUnit) {
  change_geometry = [](struct statvfs& geometry) {
    geometry.f_frsize = 0;
    geometry.f_bsize = 0;
  };
  EXPECT_FAILURE(inspect_storage_volume(root.path()), "volume_query",
                 "Storage capacity or allocation geometry is unavailable");
}

TEST_F(StorageFault, TakesTheEntriesThatTheVolumeCounts) {
  change_geometry = [](struct statvfs& geometry) {
    geometry.f_files = all_ones_32 - 1;
    geometry.f_favail = 17;
  };
  const StorageVolume volume = inspect_storage_volume(root.path());
  EXPECT_EQ(volume.inode_capacity, all_ones_32 - 1);
  EXPECT_EQ(volume.available_inodes, 17u);
}

TEST_F(StorageFault, LeavesBothEntryCountsAbsentWhereEitherIsUnknown) {
  const struct {
    std::uint64_t files;
    std::uint64_t available;
  } unknown[] = {{0, 0}, {all_ones_32, 17}, {all_ones_32 + 1, 17}, {1000, all_ones_32}, {1000, all_ones_32 + 1}};
  for (const auto& counts : unknown) {
    change_geometry = [&](struct statvfs& geometry) {
      geometry.f_files = counts.files;
      geometry.f_favail = counts.available;
    };
    const StorageVolume volume = inspect_storage_volume(root.path());
    EXPECT_FALSE(volume.inode_capacity) << counts.files << ' ' << counts.available;
    EXPECT_FALSE(volume.available_inodes) << counts.files << ' ' << counts.available;

    Json budget = make_storage_volume_budget(volume);
    finish_storage_volume_budget(budget);
    EXPECT_TRUE(budget.at("shortfall_file_entries").is_null());
  }
}

TEST_F(StorageFault, RefusesMoreFreeEntriesThanThereAre) {
  change_geometry = [](struct statvfs& geometry) {
    geometry.f_files = 1000;
    geometry.f_favail = 1001;
  };
  EXPECT_FAILURE(inspect_storage_volume(root.path()), "volume_query", "Storage file-entry counters are invalid");
}

}  // namespace
}  // namespace ravok
