// A volume is really full, at every point of an install, a repair and an uninstall. The folder is in one of its known
// states and says so, the player's data is as it was, and with room again the next run finishes.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <map>
#include <string>
#include <tuple>

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include "fault/setup_trial.hpp"
#include "support/mounted_volume.hpp"

namespace ravok::testing::full_disk_test {
namespace {

// What runs out first.
enum class Shortage { room, entries };

class FullDisk : public ::testing::TestWithParam<std::tuple<SetupOperation, Shortage>> {
 protected:
  static constexpr const char* plenty = "size=1g,nr_inodes=10000";

  // Leaves so many pages, or so many files and directories, free.
  static void leave(const MountedVolume& volume, const std::filesystem::path& place, Shortage shortage,
                    std::uint64_t free) {
    struct statvfs state = {};
    ASSERT_EQ(statvfs(place.c_str(), &state), 0);
    // A limit of 0 would mean no limit.
    const std::uint64_t pages = std::max<std::uint64_t>(state.f_blocks - state.f_bfree + free, 1);
    const std::uint64_t entries = state.f_files - state.f_ffree + free;
    const std::string options = shortage == Shortage::room
                                    ? "size=" + std::to_string(pages * state.f_frsize) + ",nr_inodes=10000"
                                    : "size=1g,nr_inodes=" + std::to_string(entries);
    ASSERT_TRUE(volume.remount(options)) << options;
  }
};

TEST_P(FullDisk, LeavesAKnownStateThatTheNextRunFinishes) {
  const auto [operation, shortage] = GetParam();
  SetupTrial trial(operation);
  std::map<std::string, std::uint64_t> endings;
  std::uint64_t free = 0;
  // The steps are small as long as only the small files of a setup need room, and grow with the room that is left free.
  // The last step leaves enough for the whole setup.
  for (bool finished = false; !finished; free += 1 + free / 100) {
    ASSERT_LT(free, 200'000u);
    const ::testing::ScopedTrace trace(__FILE__, __LINE__, "with " + std::to_string(free) + " free");
    const MountedVolume volume(trial.place().place(), "tmpfs", plenty);
    if (!volume.mounted()) {
      GTEST_SKIP() << "This system lets the test mount no volume.";
    }
    trial.restart();
    leave(volume, trial.place().place(), shortage, free);
    const ProgramResult result = run_program(trial.program());
    ASSERT_TRUE(volume.remount(plenty));
    finished = result.exit_code == 0;
    const std::string state = trial.judge({result, {}});
    ++endings[(finished ? "done" : result.errors.substr(0, result.errors.find(':'))) + ", " + state];
  }
  std::cout << name_of(operation) << ", short of " << (shortage == Shortage::room ? "room" : "entries") << ": up to "
            << free << " free";
  for (const auto& [ending, count] : endings) {
    std::cout << "; " << ending << " (" << count << ')';
  }
  std::cout << '\n';
}

INSTANTIATE_TEST_SUITE_P(Setup, FullDisk,
                         ::testing::Combine(::testing::ValuesIn(all_setup_operations),
                                            ::testing::Values(Shortage::room, Shortage::entries)),
                         [](const auto& each) {
                           return std::string(name_of(std::get<0>(each.param))) +
                                  (std::get<1>(each.param) == Shortage::room ? "WithoutRoom" : "WithoutEntries");
                         });

}  // namespace
}  // namespace ravok::testing::full_disk_test
