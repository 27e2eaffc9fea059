#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/file/storage.hpp"
#include "support/failure.hpp"

namespace ravok::storage_plan_test {
namespace {

using testing::failure_of;

constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t unit = 4096;
constexpr const char* overflow = "Peak storage calculation overflowed";
constexpr const char* no_geometry = "Storage capacity or allocation geometry is unavailable";
constexpr const char* no_partial = "Existing allocation needs an owned partial file";

// A volume of 1,000,000,000 bytes of which 400,000,000 are available, and 1,000 entries of which
// 300 are.
StorageVolume volume_at_hand() {
  StorageVolume volume;
  volume.path = "/games";
  volume.id = "device:7";
  volume.allocation_unit = unit;
  volume.capacity_bytes = 1'000'000'000;
  volume.available_bytes = 400'000'000;
  volume.inode_capacity = 1000;
  volume.available_inodes = 300;
  return volume;
}

StorageVolume invalid_volume() {
  StorageVolume volume = volume_at_hand();
  volume.allocation_unit = 0;
  return volume;
}

StorageVolume volume_of_unit(std::uint64_t bytes) {
  StorageVolume volume = volume_at_hand();
  volume.allocation_unit = bytes;
  return volume;
}

using Files = std::vector<std::pair<std::string, std::uint64_t>>;

// A manifest of these files and their lengths, with an archive of this length.
SnapshotManifest manifest_of(const Files& files, std::uint64_t archive_length = 1) {
  SnapshotManifest manifest;
  for (const auto& [path, length] : files) {
    manifest.files[path].length = length;
  }
  manifest.archive_length = archive_length;
  return manifest;
}

// Six entries: four files, a directory and the root. The content takes four units.
SnapshotManifest small_game() {
  return manifest_of({{"empty", 0}, {"byte", 1}, {"unit", unit}, {"data/more", unit + 1}}, 5000);
}

std::uint64_t staging_bytes(const SnapshotManifest& manifest, const StorageVolume& volume) {
  return plan_install_storage(manifest, volume, true, 0, false).at("volume").at("staging_bytes").get<std::uint64_t>();
}

TEST(SnapshotStorageFileEntries, AreTwoForOneFileAtTheTop) {
  EXPECT_EQ(snapshot_storage_file_entries(manifest_of({{"file", 1}})), 2u);
}

TEST(SnapshotStorageFileEntries, CountEachDirectoryOnceAndTheRoot) {
  EXPECT_EQ(snapshot_storage_file_entries(manifest_of({{"a/b/c/f", 1}, {"a/b/g", 1}, {"a/h", 1}, {"top", 1}})),
            4u + 3u + 1u);
  EXPECT_EQ(snapshot_storage_file_entries(manifest_of({{"a/f", 1}, {"ab/f", 1}})), 2u + 2u + 1u);
}

// --- The plan of an installation -------------------------------------------------------------

TEST(PlanInstallStorage, HoldsTheFinishedBudgetOfAFreshInstallation) {
  Json expected = Json::parse(R"({
    "schema_version": 1, "reserved": false, "verified_archive_cached": false, "existing_partial": false,
    "existing_archive_allocation_bytes": 0, "volume": {
      "path": "/games", "allocation_unit": 4096, "capacity_bytes": 1000000000, "available_bytes": 400000000,
      "download_bytes": 12288, "staging_bytes": 40960, "control_margin_bytes": 16777216,
      "inode_capacity": 1000, "available_inodes": 300,
      "download_file_entries": 1, "staging_file_entries": 6, "control_margin_file_entries": 64,
      "additional_bytes": 16830464, "existing_or_unavailable_bytes": 600000000, "peak_capacity_bytes": 616830464,
      "shortfall_bytes": 0, "additional_file_entries": 71, "existing_or_unavailable_inodes": 700,
      "peak_inodes": 771, "shortfall_file_entries": 0}})");
  EXPECT_EQ(plan_install_storage(small_game(), volume_at_hand(), false, 0, false), expected);
}

TEST(PlanInstallStorage, TakesNoRoomForADownloadThatIsVerifiedAlready) {
  for (const bool partial : {false, true}) {
    const std::uint64_t existing = partial ? unit : 0;
    const Json plan = plan_install_storage(small_game(), volume_at_hand(), true, existing, partial);
    EXPECT_EQ(plan.at("verified_archive_cached"), true);
    EXPECT_EQ(plan.at("existing_partial"), partial);
    EXPECT_EQ(plan.at("existing_archive_allocation_bytes"), existing);
    EXPECT_EQ(plan.at("volume").at("download_bytes"), 0);
    EXPECT_EQ(plan.at("volume").at("download_file_entries"), 0);
    EXPECT_EQ(plan.at("volume").at("staging_bytes"), 40960);
    EXPECT_EQ(plan.at("volume").at("additional_bytes"), 16'777'216 + 40960);
  }
}

TEST(PlanInstallStorage, TakesOffWhatAPartialFileHasInBlocks) {
  struct Case {
    std::uint64_t existing;
    std::uint64_t download;
  };
  for (const auto& [existing, download] : {Case{0, 8192}, Case{1, 8191}, Case{unit, unit}, Case{8191, 1}, Case{8192, 0},
                                           Case{8193, 0}, Case{largest, 0}}) {
    const Json plan = plan_install_storage(small_game(), volume_at_hand(), false, existing, true);
    EXPECT_EQ(plan.at("existing_partial"), true);
    EXPECT_EQ(plan.at("existing_archive_allocation_bytes"), existing);
    EXPECT_EQ(plan.at("volume").at("download_bytes"), download) << existing;
    EXPECT_EQ(plan.at("volume").at("download_file_entries"), 0);
  }
}

TEST(PlanInstallStorage, RoundsTheArchiveUpToWholeUnitsAndAddsOneForItsEntry) {
  struct Case {
    std::uint64_t length;
    std::uint64_t download;
  };
  for (const auto& [length, download] :
       {Case{0, unit}, Case{1, 2 * unit}, Case{unit - 1, 2 * unit}, Case{unit, 2 * unit}, Case{unit + 1, 3 * unit}}) {
    const Json plan = plan_install_storage(manifest_of({{"file", 1}}, length), volume_at_hand(), false, 0, false);
    EXPECT_EQ(plan.at("volume").at("download_bytes"), download) << length;
  }
}

TEST(PlanInstallStorage, RoundsEachFileUpToWholeUnitsAndAddsOneForEachEntry) {
  struct Case {
    std::uint64_t length;
    std::uint64_t units;  // of content
  };
  for (const auto& [length, units] : {Case{0, 0}, Case{1, 1}, Case{unit - 1, 1}, Case{unit, 1}, Case{unit + 1, 2},
                                      Case{2 * unit, 2}, Case{2 * unit + 1, 3}}) {
    EXPECT_EQ(staging_bytes(manifest_of({{"file", length}}), volume_at_hand()), (units + 2) * unit) << length;
  }
  EXPECT_EQ(staging_bytes(manifest_of({{"a", 1}, {"b", 1}, {"c/d/e", 0}}), volume_at_hand()), (2 + 6) * unit);
}

TEST(PlanInstallStorage, TakesUnitsOfAnySize) {
  EXPECT_EQ(staging_bytes(manifest_of({{"file", 12345}}), volume_of_unit(1)), 12347u);
  EXPECT_EQ(staging_bytes(manifest_of({{"file", 12345}}), volume_of_unit(1000)), 15000u);
}

TEST(PlanInstallStorage, DoesNotHoldEntriesAgainstAVolumeThatDoesNotCountThem) {
  StorageVolume volume = volume_at_hand();
  volume.inode_capacity.reset();
  volume.available_inodes.reset();
  const Json plan = plan_install_storage(small_game(), volume, false, 0, false);
  EXPECT_EQ(plan.at("volume").at("additional_file_entries"), 71);
  EXPECT_TRUE(plan.at("volume").at("shortfall_file_entries").is_null());
}

TEST(PlanInstallStorage, RefusesBlocksWithoutAPartialFileBeforeAllElse) {
  EXPECT_FAILURE(plan_install_storage(small_game(), volume_at_hand(), false, 1, false), "volume_query", no_partial);
  EXPECT_FAILURE(plan_install_storage(small_game(), volume_at_hand(), true, 1, false), "volume_query", no_partial);
  EXPECT_FAILURE(plan_install_storage(small_game(), invalid_volume(), false, 1, false), "volume_query", no_partial);
}

TEST(PlanInstallStorage, RefusesAVolumeThatCannotBeReckonedWith) {
  EXPECT_FAILURE(plan_install_storage(small_game(), invalid_volume(), false, 0, false), "volume_query", no_geometry);
}

TEST(PlanInstallStorage, RefusesFiguresThatWrap) {
  const std::uint64_t half = std::uint64_t{1} << 63;
  const std::vector<std::pair<SnapshotManifest, StorageVolume>> cases = {
      {manifest_of({{"file", 1}}, largest), volume_at_hand()},              // the archive, rounded up
      {manifest_of({{"file", 1}}, largest - unit + 1), volume_at_hand()},   // with the unit of its entry
      {manifest_of({{"file", largest}}), volume_at_hand()},                 // a file, rounded up
      {manifest_of({{"file", half}, {"other", half}}), volume_at_hand()},   // the sum of two files
      {manifest_of({{"file", 0}}), volume_of_unit(half)},                   // the units of the entries
      {manifest_of({{"file", largest - unit + 1}}), volume_at_hand()},      // content and entries
      {manifest_of({{"file", largest - 3 * unit + 1}}), volume_at_hand()},  // with the margin
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    EXPECT_FAILURE(plan_install_storage(cases[i].first, cases[i].second, false, 0, false), "size_limit", overflow) << i;
  }
}

// --- The plan of two payloads ----------------------------------------------------------------

TEST(PlanNativePayloadStorage, AddsBothTreesAndTheFurtherEntriesUnderALargerMargin) {
  const SnapshotManifest launcher = manifest_of({{"bin/launcher", unit + 1}, {"readme", 0}});
  Json expected = Json::parse(R"({
    "schema_version": 1, "reserved": false, "volume": {
      "path": "/games", "allocation_unit": 4096, "capacity_bytes": 1000000000, "available_bytes": 400000000,
      "download_bytes": 0, "staging_bytes": 86016, "control_margin_bytes": 20971520,
      "inode_capacity": 1000, "available_inodes": 300,
      "download_file_entries": 0, "staging_file_entries": 15, "control_margin_file_entries": 64,
      "additional_bytes": 21057536, "existing_or_unavailable_bytes": 600000000, "peak_capacity_bytes": 621057536,
      "shortfall_bytes": 0, "additional_file_entries": 79, "existing_or_unavailable_inodes": 700,
      "peak_inodes": 779, "shortfall_file_entries": 0}})");
  // The content takes 4 and 2 units; there are 6, 4 and 5 entries.
  EXPECT_EQ(plan_native_payload_storage(small_game(), launcher, volume_at_hand(), 5), expected);
}

TEST(PlanNativePayloadStorage, CountsTheSameSnapshotTwice) {
  const Json plan = plan_native_payload_storage(small_game(), small_game(), volume_at_hand(), 0);
  EXPECT_EQ(plan.at("volume").at("staging_bytes"), 2 * 40960);
  EXPECT_EQ(plan.at("volume").at("staging_file_entries"), 12);
}

TEST(PlanNativePayloadStorage, RefusesAVolumeThatCannotBeReckonedWith) {
  EXPECT_FAILURE(plan_native_payload_storage(small_game(), small_game(), invalid_volume(), 0), "volume_query",
                 no_geometry);
}

TEST(PlanNativePayloadStorage, RefusesFiguresThatWrap) {
  const std::uint64_t half = std::uint64_t{1} << 63;
  const SnapshotManifest large = manifest_of({{"file", half}});
  EXPECT_FAILURE(plan_native_payload_storage(small_game(), small_game(), volume_at_hand(), largest), "size_limit",
                 overflow);
  EXPECT_FAILURE(plan_native_payload_storage(small_game(), small_game(), volume_of_unit(1), largest), "size_limit",
                 overflow);
  EXPECT_FAILURE(plan_native_payload_storage(large, large, volume_at_hand(), 0), "size_limit", overflow);
  EXPECT_FAILURE(plan_native_payload_storage(large, small_game(), volume_of_unit(1), half - 100), "size_limit",
                 overflow);
}

// --- The refusal -----------------------------------------------------------------------------

Json budget_short_of(const Json& bytes, const Json& entries) {
  return {{"path", "/games"}, {"shortfall_bytes", bytes}, {"shortfall_file_entries", entries}};
}

std::string refusal(const std::string& missing) {
  return "Storage at /games needs " + missing + " before installation; free space first";
}

TEST(RequireInstallStorage, ReturnsWhereNothingIsShort) {
  EXPECT_NO_THROW(require_install_storage(budget_short_of(0, 0), ""));
  EXPECT_NO_THROW(require_install_storage(budget_short_of(0, nullptr), "/data"));
  EXPECT_NO_THROW(require_install_storage({{"path", "/games"}, {"shortfall_bytes", 0}}, ""));
  EXPECT_NO_THROW(require_install_storage({{"path", "/games"}}, ""));
}

TEST(RequireInstallStorage, NamesTheCountWithItsUnit) {
  const std::vector<std::pair<Json, std::string>> cases = {
      {budget_short_of(1, 0), "1 more byte"},
      {budget_short_of(2, 0), "2 more bytes"},
      {budget_short_of(largest, nullptr), "18446744073709551615 more bytes"},
      {budget_short_of(0, 1), "1 more file entry"},
      {budget_short_of(0, 2), "2 more file entries"},
      {{{"path", "/games"}, {"shortfall_file_entries", 21}}, "21 more file entries"},
      {{{"path", "/games"}, {"shortfall_bytes", 21}}, "21 more bytes"},
  };
  for (const auto& entry : cases) {
    EXPECT_FAILURE(require_install_storage(entry.first, ""), "insufficient_space", refusal(entry.second));
  }
}

TEST(RequireInstallStorage, NamesTheBytesWhereBothAreShort) {
  EXPECT_FAILURE(require_install_storage(budget_short_of(1, 7), ""), "insufficient_space", refusal("1 more byte"));
}

TEST(RequireInstallStorage, TellsInOneLineHowToFindOutWhatTakesTheSpace) {
  using Details = std::vector<std::string>;
  const auto details = [](const Json& budget, std::string_view hint) {
    const std::optional<Error> failure = failure_of([&] { require_install_storage(budget, hint); });
    return failure ? failure->details : Details{};
  };
  for (const Json& budget : {budget_short_of(1, 0), budget_short_of(0, 1)}) {
    EXPECT_EQ(details(budget, ""), Details{"ravok-install --status --data-dir PATH"});
    EXPECT_EQ(details(budget, "/data /games"), Details{"locations /data /games"});
  }
}

TEST(RequireInstallStorage, JudgesAPlanToTheByteAndToTheEntry) {
  StorageVolume volume = volume_at_hand();
  const auto require_plan = [&] {
    require_install_storage(plan_install_storage(small_game(), volume, false, 0, false).at("volume"), "");
  };
  volume.available_bytes = 16'830'464;
  volume.available_inodes = 71;
  EXPECT_NO_THROW(require_plan());
  --*volume.available_inodes;
  EXPECT_FAILURE(require_plan(), "insufficient_space", refusal("1 more file entry"));
  --volume.available_bytes;
  EXPECT_FAILURE(require_plan(), "insufficient_space", refusal("1 more byte"));
}

}  // namespace
}  // namespace ravok::storage_plan_test
