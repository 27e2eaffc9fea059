// Memory runs out at every allocation of the guarded file operations and of snapshots. The operation must say so, leave
// nothing behind that another failure would have cleaned up, and let the next run go as it would have gone.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "app/launcher/launcher_attempt.hpp"
#include "app/maintenance/maintenance_handoff.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"
#include "platform/file/allocated_file.hpp"
#include "platform/file/files.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/tree.hpp"
#include "platform/snapshot/reserved_tree.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "support/allocation_failure.hpp"
#include "support/fast_volume.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok {
namespace {

using testing::Allocations;
using testing::at_every_allocation;
using testing::Ending;
using testing::Sample;
using testing::SampleFile;
using testing::Shortage;
using testing::ShortRun;
using testing::ShortRuns;
using testing::ShortTrial;
using testing::TemporaryRoot;
using testing::tree_state;

using Names = std::vector<std::string>;
using Kind = std::tuple<Allocations, Shortage>;

constexpr std::size_t most_runs = 1500;

class AllocationFault : public ::testing::TestWithParam<Kind> {
 protected:
  // The cryptographic library allocates once in a process; this makes it do so before every run.
  AllocationFault() { digest(random_id(), "sha256"); }

  // Tries the work at every allocation, and prints how many runs that took.
  ShortRuns try_all(const std::string& operation, const ShortTrial& trial) {
    const auto [allocations, shortage] = GetParam();
    const ShortRuns runs = at_every_allocation(allocations, shortage, most_runs, trial);
    RecordProperty(operation, std::to_string(runs.runs) + " of " + std::to_string(runs.allocations) + " allocations");
    std::printf("%s: %zu runs for %zu allocations, %zu spared, %zu went on all the same, %zu exits of a library\n",
                operation.c_str(), runs.runs, runs.allocations, runs.spared, runs.succeeded, runs.exited);
    return runs;
  }

  // The same for work that cannot do without any of its allocations: no failure of one may go unnoticed.
  void try_all_told(const std::string& operation, const ShortTrial& trial) {
    const ShortRuns runs = try_all(operation, trial);
    if (std::get<Allocations>(GetParam()) == Allocations::of_code) {
      EXPECT_GT(runs.runs, 0u);
      EXPECT_EQ(runs.succeeded, 0u) << operation;
    }
  }

  std::filesystem::path fresh(const std::string& name = "place") const {
    std::filesystem::remove_all(root_ / name);
    const std::filesystem::path place = root_.directory(name);
    EXPECT_EQ(chmod(place.c_str(), 0700), 0);
    return place;
  }

  const TemporaryRoot root_{testing::fast_volume()};
};

// What lies in a place: names and content.
Names names_in(const std::filesystem::path& place) {
  Names names;
  for (const auto& [name, state] : tree_state(place)) {
    names.push_back(name);
  }
  return names;
}

// --- Writers -------------------------------------------------------------------------------

TEST_P(AllocationFault, OfAWriterLeavesTheOldFileOrTheNewOne) {
  const std::filesystem::path place = root_ / "place";
  const std::filesystem::path record = place / "record";
  const std::string content(3000, 'n');
  const struct {
    std::string name;
    bool replaces;
    std::function<void()> work;
  } writers[] = {
      {"atomic_write", true, [&] { atomic_write(record, content); }},
      {"replace_private_file", true, [&] { replace_private_file(record, content); }},
      {"atomic_private_create", false, [&] { atomic_private_create(record, content); }},
      {"atomic_create", false, [&] { atomic_create(record, content); }},
      {"ExportFile", false,
       [&] {
         ExportFile file(record);
         file.write(content);
         file.commit();
       }},
  };
  for (const auto& writer : writers) {
    ShortTrial trial;
    trial.prepare = [&] {
      fresh();
      if (writer.replaces) {
        root_.write("place/record", "old");
      }
    };
    trial.work = writer.work;
    trial.inspect = [&](const ShortRun& run) {
      const Names names = names_in(place);
      const std::string found = names.empty() ? "" : root_.read("place/record");
      EXPECT_TRUE(names == Names{"record"} || (names.empty() && !writer.replaces))
          << writer.name << " at allocation " << run.number;
      EXPECT_TRUE(found == content || found == (writer.replaces ? "old" : ""))
          << writer.name << " at allocation " << run.number;
      if (!writer.replaces) {
        std::filesystem::remove(record);
      }
      EXPECT_NO_THROW(writer.work());
      EXPECT_EQ(root_.read("place/record"), content);
    };
    try_all_told(writer.name, trial);
  }
}

TEST_P(AllocationFault, OfAnAllocatedFileLeavesAllOfItOrNothing) {
  const std::filesystem::path place = root_ / "place";
  const std::string content(70000, 'n');
  const auto work = [&] {
    AllocatedFile file(place / "file", content.size(), nullptr);
    file.write(content);
    file.set_executable(true);
    file.finish(true);
  };
  ShortTrial trial;
  trial.prepare = [&] { fresh(); };
  trial.work = work;
  trial.inspect = [&](const ShortRun& run) {
    EXPECT_EQ(names_in(place), Names()) << "at allocation " << run.number;
    EXPECT_NO_THROW(work());
    EXPECT_EQ(root_.read("place/file"), content);
  };
  try_all_told("AllocatedFile", trial);
}

// --- Private storage and locks -------------------------------------------------------------

TEST_P(AllocationFault, OfPrivateStorageLeavesLevelsThatTheNextRunAccepts) {
  const std::filesystem::path place = root_ / "place";
  const auto work = [&] {
    private_directory(place / "a/b/c");
    const FileLock lock(place / "locks/lock", false, LockMode::exclusive);
    const NativeFileLock own(place / "own", true, NativeLockSharing::none, LockMode::exclusive);
    posix_files::require_private_path(place / "own", false);
  };
  ShortTrial trial;
  trial.prepare = [&] { fresh(); };
  trial.work = work;
  trial.inspect = [&](const ShortRun& run) {
    for (const std::string& name : names_in(place)) {
      const bool directory = std::filesystem::is_directory(place / name);
      EXPECT_NO_THROW(posix_files::require_private_path(place / name, directory))
          << name << " at allocation " << run.number;
    }
    EXPECT_NO_THROW(work());
  };
  try_all_told("private storage", trial);
}

TEST_P(AllocationFault, OfANewPrivateDirectoryLeavesItEmptyAtMost) {
  const std::filesystem::path place = root_ / "place";
  ShortTrial trial;
  trial.prepare = [&] { fresh(); };
  trial.work = [&] { private_directory_new(place / "new"); };
  trial.inspect = [&](const ShortRun& run) {
    if (std::filesystem::remove(place / "new")) {
      EXPECT_NE(run.ending, Ending::success);
    }
    EXPECT_NO_THROW(private_directory_new(place / "new"));
  };
  try_all_told("private_directory_new", trial);
}

// --- Snapshots -----------------------------------------------------------------------------

class SnapshotAllocationFault : public AllocationFault {
 protected:
  void extract(const ReservedTree* reserved) const {
    extract_snapshot(sample_.manifest, sample_.archive, staging_, {}, reserved);
  }

  // Every file below the staging directory is one of the snapshot, and whole or, where that is allowed, empty. The
  // archive library ends the process where it has no memory for a text; then no destructor removes a file.
  void expect_whole_files(const ShortRun& run, bool may_be_empty) const {
    if (run.ending == Ending::exited) {
      return;
    }
    for (const auto& entry : tree_state(staging_)) {
      const std::string& name = entry.first;
      if (entry.second.ends_with(" directory")) {
        continue;
      }
      const auto file =
          std::find_if(files_.begin(), files_.end(), [&](const auto& known) { return known.path == name; });
      ASSERT_NE(file, files_.end()) << name << " at allocation " << run.number;
      const std::string content = root_.read("place/staging/" + name);
      EXPECT_TRUE(content == file->content || may_be_empty) << name << " at allocation " << run.number;
    }
  }

  const std::vector<SampleFile> files_ = {{"bin/program", testing::noise(70000), 0755},
                                          {"data/file", testing::noise(100)}};
  const Sample sample_ = testing::write_tar_sample(root_, files_, testing::tar_archive(testing::members_of(files_)));
  const std::filesystem::path place_ = root_ / "place";
  const std::filesystem::path staging_ = place_ / "staging";
};

TEST_P(SnapshotAllocationFault, OfAnExtractionLeavesWholeFilesOnly) {
  ShortTrial trial;
  trial.prepare = [&] { fresh(); };
  trial.work = [&] { extract(nullptr); };
  trial.inspect = [&](const ShortRun& run) {
    expect_whole_files(run, false);
    remove_plain_tree(staging_);
    EXPECT_NO_THROW(extract(nullptr)) << "after allocation " << run.number;
  };
  try_all_told("extract_snapshot", trial);
}

// The decoder refuses these bytes while the archive library reads them.
TEST_P(SnapshotAllocationFault, OfARefusalWithinTheArchiveLibraryIsTold) {
  const Sample spoiled = testing::write_sample(
      root_, files_, testing::zstd_frame(testing::tar_archive(testing::members_of(files_))) + "trailing");
  ShortTrial trial;
  trial.prepare = [&] { fresh(); };
  trial.work = [&] {
    try {
      extract_snapshot(spoiled.manifest, spoiled.archive, staging_, {}, nullptr);
    } catch (const Error& error) {
      if (error.code != "archive") {
        throw;
      }
    }
  };
  trial.inspect = [&](const ShortRun& run) { expect_whole_files(run, false); };
  try_all_told("extract_snapshot of a spoiled archive", trial);
}

TEST_P(SnapshotAllocationFault, OfAnExtractionIntoAReservedTreeLeavesItUsable) {
  std::optional<ReservedTree> tree;
  ShortTrial trial;
  trial.prepare = [&] {
    fresh();
    tree.emplace(sample_.manifest, staging_, nullptr, nullptr);
  };
  trial.work = [&] { extract(&*tree); };
  trial.inspect = [&](const ShortRun& run) {
    expect_whole_files(run, true);
    EXPECT_NO_THROW(extract(&*tree)) << "after allocation " << run.number;
    expect_whole_files(run, false);
  };
  try_all_told("extract_snapshot into a reserved tree", trial);
}

TEST_P(SnapshotAllocationFault, OfAReservationLeavesAnEmptyRootAtMost) {
  std::size_t left = 0;
  ShortTrial trial;
  trial.prepare = [&] { fresh(); };
  trial.work = [&] { ReservedTree(sample_.manifest, staging_, nullptr, nullptr); };
  trial.inspect = [&](const ShortRun& run) {
    if (std::filesystem::exists(staging_)) {
      ++left;
      EXPECT_TRUE(std::filesystem::remove(staging_)) << "at allocation " << run.number;
    }
    EXPECT_NO_THROW(ReservedTree(sample_.manifest, staging_, nullptr, nullptr)) << "after allocation " << run.number;
  };
  try_all_told("ReservedTree", trial);
  // A root may be left by the allocations between its making and the reading of its identity.
  EXPECT_LE(left, 24u);
}

TEST_P(SnapshotAllocationFault, OfAVerificationChangesNothing) {
  fresh();
  extract(nullptr);
  const auto before = tree_state(place_);
  ShortTrial trial;
  trial.prepare = [] {};
  trial.work = [&] {
    verify_snapshot_tree(sample_.manifest, staging_, {});
    damaged_snapshot_files(sample_.manifest, staging_, {}, 10);
  };
  trial.inspect = [&](const ShortRun& run) {
    EXPECT_EQ(tree_state(place_), before) << "at allocation " << run.number;
    EXPECT_NO_THROW(verify_snapshot_tree(sample_.manifest, staging_, {}));
  };
  try_all_told("verify_snapshot_tree", trial);
}

// --- Documents -----------------------------------------------------------------------------

TEST_P(AllocationFault, OfAParserIsTold) {
  const std::string text = testing::manifest_document().dump();
  ShortTrial trial;
  trial.prepare = [] {};
  trial.work = [&] { SnapshotManifest::parse(parse_json(text, text.size())); };
  trial.inspect = [](const ShortRun& run) {
    EXPECT_NE(run.ending, Ending::refused) << run.problem << " at allocation " << run.number;
  };
  try_all_told("parse_json", trial);
}

// --- Children ------------------------------------------------------------------------------

bool has_children() { return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }

TEST_P(AllocationFault, OfAStartLeavesNoChildThatNobodyCanEnd) {
  const LauncherProgram program = {"/usr/bin/sleep", "/", {"60"}, {{"KEY", "value"}}, true};
  ShortTrial trial;
  trial.work = [&] {
    try {
      const LauncherChild child = start_launcher(program);
      // However long this machine takes to end it.
      while (!child.terminate(2000)) {
      }
    } catch (...) {
      if (has_children()) {
        std::abort();
      }
      throw;
    }
  };
  trial.prepare = [] {};
  trial.inspect = [](const ShortRun& run) { EXPECT_EQ(run.open_descriptors, 0) << "at allocation " << run.number; };
  try_all_told("start_launcher", trial);
}

// --- Tasks on another thread ---------------------------------------------------------------

// Whether the snapshot still speaks of a task that is at work.
bool shows_a_beginning(const MaintenanceHandoff& handoff) {
  const Json view = handoff.view();
  return !view.is_null() && text_at(view, "phase") == "starting";
}

TEST_P(AllocationFault, OfATaskOfMaintenanceIsToldToItsOwnerOrInItsSnapshot) {
  ShortTrial trial;
  trial.work = [] {
    MaintenanceHandoff handoff;
    int woken = 0;
    handoff.set_wakeup([&] { ++woken; });
    try {
      handoff.begin([]() -> Json { fail("some_code", std::string(100, 'x')); });
    } catch (...) {
      if (shows_a_beginning(handoff)) {
        std::abort();
      }
      throw;
    }
    handoff.join();
    if (shows_a_beginning(handoff) || woken != 2) {
      std::abort();
    }
  };
  trial.prepare = [] {};
  trial.inspect = [](const ShortRun&) {};
  try_all("MaintenanceHandoff", trial);
}

std::string name_of(const ::testing::TestParamInfo<Kind>& info) {
  const auto [allocations, shortage] = info.param;
  return std::string(allocations == Allocations::of_code ? "OfCode" : "OfLibraries") +
         (shortage == Shortage::once ? "Once" : "Lasting");
}

const auto kinds = ::testing::Combine(::testing::Values(Allocations::of_code, Allocations::of_libraries),
                                      ::testing::Values(Shortage::once, Shortage::lasting));

INSTANTIATE_TEST_SUITE_P(Every, AllocationFault, kinds, name_of);
INSTANTIATE_TEST_SUITE_P(Every, SnapshotAllocationFault, kinds, name_of);

}  // namespace
}  // namespace ravok
