// Memory runs out at the allocations of a whole install, repair and uninstall. The setup says so, and the next one
// finishes.

#include <cstddef>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "app/install/native_install.hpp"
#include "support/allocation_failure.hpp"
#include "support/failure.hpp"
#include "support/setup_place.hpp"

namespace ravok {
namespace {

using testing::Allocations;
using testing::at_every_allocation;
using testing::Ending;
using testing::SetupPlace;
using testing::Shortage;
using testing::ShortRun;
using testing::ShortRuns;
using testing::ShortTrial;

using Kind = std::tuple<Allocations, Shortage>;

// A setup makes tens of thousands of allocations, of which these many are tried at even distances.
constexpr std::size_t most_runs = 60;

class SetupAllocation : public ::testing::TestWithParam<Kind> {
 protected:
  void try_all(const std::string& operation, const ShortTrial& trial) const {
    const auto [allocations, shortage] = GetParam();
    const ShortRuns runs = at_every_allocation(allocations, shortage, most_runs, trial);
    std::printf("%s: %zu runs for %zu allocations, %zu spared, %zu went on all the same, %zu exits of a library\n",
                operation.c_str(), runs.runs, runs.allocations, runs.spared, runs.succeeded, runs.exited);
  }

  void clear() const {
    std::filesystem::remove_all(place_.place());
    place_.root().directory("place/home");
  }

  void install_and_damage() const {
    clear();
    place_.install();
    place_.write_player_data();
    std::filesystem::remove_all(place_.paths().bootstrap_directory);
  }

  // An install goes through, or else a repair, or else an uninstall and an install.
  void expect_next_run_finishes(const ShortRun& run) const {
    const auto finishes = [](const std::function<void()>& setup) {
      try {
        setup();
        return true;
      } catch (const std::exception&) {
        return false;
      }
    };
    const bool finished = finishes([&] { place_.install(); }) || finishes([&] { place_.repair(); });
    if (!finished) {
      EXPECT_NO_THROW(place_.uninstall()) << "after allocation " << run.number;
      EXPECT_NO_THROW(place_.install()) << "after allocation " << run.number;
    }
    place_.expect_complete();
  }

  void expect_player_data(const ShortRun& run) const {
    EXPECT_EQ(place_.read("userdata/save"), "a long way") << "after allocation " << run.number;
    EXPECT_EQ(place_.read("settings.json"), "{\"volume\": 11}") << "after allocation " << run.number;
  }

  const SetupPlace place_;
};

TEST_P(SetupAllocation, OfAnInstallIsToldAndTheNextOneFinishes) {
  ShortTrial trial;
  trial.prepare = [&] { clear(); };
  trial.work = [&] { place_.install(); };
  trial.inspect = [&](const ShortRun& run) { expect_next_run_finishes(run); };
  try_all("install", trial);
}

TEST_P(SetupAllocation, OfARepairIsToldAndTheNextOneFinishes) {
  ShortTrial trial;
  trial.prepare = [&] { install_and_damage(); };
  trial.work = [&] { place_.repair(); };
  trial.inspect = [&](const ShortRun& run) {
    expect_player_data(run);
    expect_next_run_finishes(run);
    expect_player_data(run);
  };
  try_all("repair", trial);
}

TEST_P(SetupAllocation, OfAnUninstallIsToldAndTheNextOneFinishes) {
  ShortTrial trial;
  trial.prepare = [&] {
    clear();
    place_.install();
    place_.write_player_data();
  };
  trial.work = [&] { place_.uninstall(); };
  trial.inspect = [&](const ShortRun& run) {
    expect_player_data(run);
    if (run.ending != Ending::success && run.ending != Ending::spared) {
      EXPECT_NO_THROW(place_.uninstall()) << "after allocation " << run.number;
    }
    EXPECT_FALSE(place_.status().installed);
    EXPECT_FALSE(place_.status().incomplete);
    expect_player_data(run);
  };
  try_all("uninstall", trial);
}

std::string name_of(const ::testing::TestParamInfo<Kind>& info) {
  const auto [allocations, shortage] = info.param;
  return std::string(allocations == Allocations::of_code ? "OfCode" : "OfLibraries") +
         (shortage == Shortage::once ? "Once" : "Lasting");
}

const auto kinds = ::testing::Combine(::testing::Values(Allocations::of_code, Allocations::of_libraries),
                                      ::testing::Values(Shortage::once, Shortage::lasting));

INSTANTIATE_TEST_SUITE_P(Every, SetupAllocation, kinds, name_of);

}  // namespace
}  // namespace ravok
