#include "platform/file/storage.hpp"

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok::storage_test {
namespace {

using testing::TemporaryRoot;

constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
constexpr const char* overflow = "Peak storage calculation overflowed";
constexpr const char* no_ordinary_directory = "Storage needs an ordinary absolute directory";
constexpr const char* no_geometry = "Storage capacity or allocation geometry is unavailable";
constexpr const char* incomplete_entries = "Storage file-entry counters are incomplete";
constexpr const char* invalid_entries = "Storage file-entry counters are invalid";

// A volume of 1,000,000,000 bytes of which 400,000,000 are available, and 1,000 entries of which
// 300 are.
StorageVolume volume_at_hand() {
  StorageVolume volume;
  volume.path = "/games";
  volume.id = "device:7";
  volume.allocation_unit = 4096;
  volume.capacity_bytes = 1'000'000'000;
  volume.available_bytes = 400'000'000;
  volume.inode_capacity = 1000;
  volume.available_inodes = 300;
  return volume;
}

// The same volume where it does not count entries.
StorageVolume volume_without_entries() {
  StorageVolume volume = volume_at_hand();
  volume.inode_capacity.reset();
  volume.available_inodes.reset();
  return volume;
}

Json finished(Json budget) {
  finish_storage_volume_budget(budget);
  return budget;
}

TEST(StorageArithmetic, AddsUpToTheLargestNumberAndNoFurther) {
  EXPECT_EQ(storage_add(2, 3), 5u);
  EXPECT_EQ(storage_add(largest, 0), largest);
  EXPECT_EQ(storage_add(0, largest), largest);
  EXPECT_EQ(storage_add(largest - 1, 1), largest);
  EXPECT_FAILURE(storage_add(largest, 1), "size_limit", overflow);
  EXPECT_FAILURE(storage_add(1, largest), "size_limit", overflow);
  EXPECT_FAILURE(storage_add(largest, largest), "size_limit", overflow);
}

TEST(StorageArithmetic, MultipliesUpToTheLargestNumberAndNoFurther) {
  EXPECT_EQ(storage_multiply(6, 7), 42u);
  EXPECT_EQ(storage_multiply(0, largest), 0u);
  EXPECT_EQ(storage_multiply(largest, 0), 0u);
  EXPECT_EQ(storage_multiply(largest, 1), largest);
  EXPECT_EQ(storage_multiply(largest / 3, 3), largest);
  EXPECT_FAILURE(storage_multiply(largest / 3 + 1, 3), "size_limit", overflow);
  EXPECT_FAILURE(storage_multiply(3, largest / 3 + 1), "size_limit", overflow);
  EXPECT_FAILURE(storage_multiply(std::uint64_t{1} << 32, std::uint64_t{1} << 32), "size_limit", overflow);
}

TEST(StorageArithmetic, SubtractsDownToNothingAndNoFurther) {
  EXPECT_EQ(storage_subtract(7, 5), 2u);
  EXPECT_EQ(storage_subtract(largest, largest), 0u);
  EXPECT_FAILURE(storage_subtract(0, 1), "size_limit", overflow);
}

TEST(ValidateStorageVolume, AcceptsAVolumeWithAndWithoutEntries) {
  EXPECT_NO_THROW(validate_storage_volume(volume_at_hand()));
  EXPECT_NO_THROW(validate_storage_volume(volume_without_entries()));
}

TEST(ValidateStorageVolume, AcceptsAFullAndAnEmptyVolume) {
  StorageVolume volume = volume_at_hand();
  volume.available_bytes = 0;
  volume.available_inodes = 0;
  EXPECT_NO_THROW(validate_storage_volume(volume));
  volume.available_bytes = volume.capacity_bytes;
  volume.available_inodes = volume.inode_capacity;
  EXPECT_NO_THROW(validate_storage_volume(volume));
  volume.capacity_bytes = largest - 1;
  volume.inode_capacity = largest - 1;
  EXPECT_NO_THROW(validate_storage_volume(volume));
}

TEST(ValidateStorageVolume, RefusesUnusableGeometry) {
  const std::vector<std::function<void(StorageVolume&)>> faults = {
      [](StorageVolume& volume) { volume.path = "games"; },
      [](StorageVolume& volume) { volume.path.clear(); },
      [](StorageVolume& volume) { volume.id.clear(); },
      [](StorageVolume& volume) { volume.allocation_unit = 0; },
      [](StorageVolume& volume) { volume.capacity_bytes = largest; },
      [](StorageVolume& volume) { volume.available_bytes = volume.capacity_bytes + 1; },
  };
  for (std::size_t i = 0; i < faults.size(); ++i) {
    StorageVolume volume = volume_at_hand();
    faults[i](volume);
    EXPECT_FAILURE(validate_storage_volume(volume), "volume_query", no_geometry) << i;
  }
}

TEST(ValidateStorageVolume, RefusesOneEntryCounterWithoutTheOther) {
  StorageVolume volume = volume_at_hand();
  volume.available_inodes.reset();
  EXPECT_FAILURE(validate_storage_volume(volume), "volume_query", incomplete_entries);
  volume = volume_at_hand();
  volume.inode_capacity.reset();
  EXPECT_FAILURE(validate_storage_volume(volume), "volume_query", incomplete_entries);
}

TEST(ValidateStorageVolume, RefusesEntryCountersThatCannotBe) {
  StorageVolume volume = volume_at_hand();
  volume.available_inodes = *volume.inode_capacity + 1;
  EXPECT_FAILURE(validate_storage_volume(volume), "volume_query", invalid_entries);
  volume.inode_capacity = largest;
  EXPECT_FAILURE(validate_storage_volume(volume), "volume_query", invalid_entries);
  volume.inode_capacity = 0;
  volume.available_inodes = 0;
  EXPECT_FAILURE(validate_storage_volume(volume), "volume_query", invalid_entries);
}

TEST(InspectStorageVolume, TellsWhatTheSystemTells) {
  const TemporaryRoot root;
  const StorageVolume volume = inspect_storage_volume(root.path());
  struct stat status;
  struct statvfs geometry;
  ASSERT_EQ(stat(root.path().c_str(), &status), 0);
  ASSERT_EQ(statvfs(root.path().c_str(), &geometry), 0);
  EXPECT_EQ(volume.path, root.path());
  EXPECT_EQ(volume.id, "device:" + std::to_string(status.st_dev));
  EXPECT_EQ(volume.allocation_unit, geometry.f_frsize);
  EXPECT_EQ(volume.capacity_bytes, geometry.f_blocks * geometry.f_frsize);
  EXPECT_GT(volume.available_bytes, 0u);
  EXPECT_LE(volume.available_bytes, volume.capacity_bytes);
  EXPECT_EQ(volume.inode_capacity.has_value(), geometry.f_files != 0 && geometry.f_files < 0xffffffff);
  EXPECT_TRUE(root.names().empty());
}

TEST(InspectStorageVolume, TakesTheRootOfTheFileSystem) { EXPECT_EQ(inspect_storage_volume("/").path, "/"); }

TEST(InspectStorageVolume, RefusesAPathThatIsNotAbsolute) {
  EXPECT_FAILURE(inspect_storage_volume("."), "unsafe_path", no_ordinary_directory);
  EXPECT_FAILURE(inspect_storage_volume(""), "unsafe_path", no_ordinary_directory);
}

TEST(InspectStorageVolume, RefusesWhatIsNoDirectory) {
  const TemporaryRoot root;
  EXPECT_FAILURE(inspect_storage_volume(root.write("file", "")), "unsafe_path", no_ordinary_directory);
  EXPECT_FAILURE(inspect_storage_volume(root / "missing"), "unsafe_path", no_ordinary_directory);
}

TEST(InspectStorageVolume, RefusesALinkToADirectoryAlsoWithASeparatorBehindIt) {
  const TemporaryRoot root;
  root.directory("real");
  std::filesystem::create_directory_symlink("real", root / "link");
  EXPECT_FAILURE(inspect_storage_volume(root / "link"), "unsafe_path", no_ordinary_directory);
  EXPECT_FAILURE(inspect_storage_volume(root / "link/"), "unsafe_path", no_ordinary_directory);
  EXPECT_NO_THROW(inspect_storage_volume(root / "real/"));
}

TEST(MakeStorageVolumeBudget, HoldsTheVolumeAndTheDefaultMargins) {
  EXPECT_EQ(make_storage_volume_budget(volume_at_hand()), Json::parse(R"({
    "path": "/games", "allocation_unit": 4096, "capacity_bytes": 1000000000, "available_bytes": 400000000,
    "download_bytes": 0, "staging_bytes": 0, "control_margin_bytes": 16777216,
    "inode_capacity": 1000, "available_inodes": 300,
    "download_file_entries": 0, "staging_file_entries": 0, "control_margin_file_entries": 64})"));
}

TEST(MakeStorageVolumeBudget, HoldsNullForEntriesThatAreNotCounted) {
  const Json budget = make_storage_volume_budget(volume_without_entries());
  EXPECT_EQ(budget.size(), 12u);
  EXPECT_TRUE(budget.at("inode_capacity").is_null());
  EXPECT_TRUE(budget.at("available_inodes").is_null());
}

TEST(MakeStorageVolumeBudget, RefusesAVolumeThatCannotBeReckonedWith) {
  StorageVolume volume = volume_at_hand();
  volume.available_bytes = volume.capacity_bytes + 1;
  EXPECT_FAILURE(make_storage_volume_budget(volume), "volume_query", no_geometry);
}

TEST(FinishStorageVolumeBudget, AddsThePeakOfAllThatExistsAtOnce) {
  Json budget = make_storage_volume_budget(volume_at_hand());
  budget["download_bytes"] = 100;
  budget["staging_bytes"] = 2000;
  budget["control_margin_bytes"] = 30'000;
  budget["download_file_entries"] = 1;
  budget["staging_file_entries"] = 20;
  budget["control_margin_file_entries"] = 64;
  Json expected = budget;
  expected.update(Json::parse(R"({
    "additional_bytes": 32100, "existing_or_unavailable_bytes": 600000000, "peak_capacity_bytes": 600032100,
    "shortfall_bytes": 0, "additional_file_entries": 85, "existing_or_unavailable_inodes": 700,
    "peak_inodes": 785, "shortfall_file_entries": 0})"));
  EXPECT_EQ(finished(budget), expected);
}

TEST(FinishStorageVolumeBudget, TellsWhatIsShort) {
  Json budget = make_storage_volume_budget(volume_at_hand());
  budget["staging_bytes"] = 400'000'001 - 16'777'216;
  budget["staging_file_entries"] = 301 - 64;
  const Json result = finished(budget);
  EXPECT_EQ(result.at("shortfall_bytes"), 1);
  EXPECT_EQ(result.at("shortfall_file_entries"), 1);
  EXPECT_EQ(result.at("peak_capacity_bytes"), 1'000'000'001);
  EXPECT_EQ(result.at("peak_inodes"), 1001);
}

TEST(FinishStorageVolumeBudget, IsNotShortWhereTheDemandEqualsWhatIsAvailable) {
  Json budget = make_storage_volume_budget(volume_at_hand());
  budget["staging_bytes"] = 400'000'000 - 16'777'216;
  budget["staging_file_entries"] = 300 - 64;
  const Json result = finished(budget);
  EXPECT_EQ(result.at("additional_bytes"), result.at("available_bytes"));
  EXPECT_EQ(result.at("shortfall_bytes"), 0);
  EXPECT_EQ(result.at("additional_file_entries"), result.at("available_inodes"));
  EXPECT_EQ(result.at("shortfall_file_entries"), 0);
}

TEST(FinishStorageVolumeBudget, DoesNotHoldEntriesAgainstAVolumeThatDoesNotCountThem) {
  Json budget = make_storage_volume_budget(volume_without_entries());
  budget["staging_file_entries"] = largest - 64;
  const Json result = finished(budget);
  EXPECT_EQ(result.size(), 20u);
  EXPECT_EQ(result.at("additional_file_entries"), largest);
  EXPECT_TRUE(result.at("existing_or_unavailable_inodes").is_null());
  EXPECT_TRUE(result.at("peak_inodes").is_null());
  EXPECT_TRUE(result.at("shortfall_file_entries").is_null());
}

TEST(FinishStorageVolumeBudget, RefusesAFigureThatWrapsAndLeavesTheBudgetAsItWas) {
  const std::vector<Json> faults = {
      {{"download_bytes", largest}, {"staging_bytes", 1}},
      {{"staging_bytes", largest}},
      {{"staging_bytes", largest - 16'777'216}},
      {{"available_bytes", 1'000'000'001}},
      {{"download_file_entries", largest}, {"staging_file_entries", 1}},
      {{"staging_file_entries", largest}},
      {{"staging_file_entries", largest - 64}},
      {{"available_inodes", 1001}},
  };
  for (const Json& fault : faults) {
    Json budget = make_storage_volume_budget(volume_at_hand());
    budget.update(fault);
    const Json before = budget;
    EXPECT_FAILURE(finish_storage_volume_budget(budget), "size_limit", overflow) << fault;
    EXPECT_EQ(budget, before);
  }
}

TEST(FinishStorageVolumeBudget, MayBeDoneAgainAfterTheDemandChanged) {
  Json budget = finished(make_storage_volume_budget(volume_at_hand()));
  budget["staging_bytes"] = 500;
  const Json result = finished(budget);
  EXPECT_EQ(result.size(), 20u);
  EXPECT_EQ(result.at("additional_bytes"), 16'777'716);
}

}  // namespace
}  // namespace ravok::storage_test
