// Every failure of the calls that reserve and remove an installation, and directories that others change meanwhile.

#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/file/directory_identity.hpp"
#include "platform/file/status.hpp"
#include "platform/snapshot/install_records.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/game_at_hand.hpp"
#include "support/temporary_root.hpp"

namespace ravok::install_fault_test {
namespace {

using testing::failing;
using testing::failure_of;
using testing::meanwhile;
using testing::Planned;

using Names = std::vector<std::string>;

constexpr const char* not_flushed = "Could not durably synchronize directory";

class InstallFault : public ::testing::Test {
 protected:
  ReservedTree reserve(const ReservedTree::Recorder& recorder = {}) const {
    return ReservedTree(game, staging, {}, recorder);
  }

  // Moves the staging directory away and puts an empty foreign one in its place.
  void replace() const {
    std::filesystem::rename(staging, root / "moved");
    std::filesystem::create_directory(staging);
  }

  const testing::TemporaryRoot root;
  const GameManifest game = testing::game_of({{"data/one", 5000}, {"readme", 0}});
  const std::filesystem::path staging = root / "staging";
};

// --- The identity of a directory -----------------------------------------------------------

class DirectoryFault : public InstallFault {
 protected:
  DirectoryFault() { root.directory("staging"); }
};

TEST_F(DirectoryFault, AnIdentityNeedsTheDirectoryOpen) {
  for (const int problem : {EACCES, EMFILE, ELOOP}) {
    const Planned set(failing("open directory", problem));
    EXPECT_FAILURE(inspect_storage_directory(staging), "unsafe_path", "Cannot inspect prepared directory identity");
  }
}

TEST_F(DirectoryFault, AnIdentityIsToldAfterAnInterruption) {
  const Planned set(failing("open directory", EINTR));
  EXPECT_NO_THROW(inspect_storage_directory(staging));
  EXPECT_TRUE(set.happened());
}

TEST_F(DirectoryFault, AnIdentityNeedsBothViewsOfTheDirectory) {
  constexpr const char* unavailable = "Prepared directory is linked, replaced or unavailable";
  for (const char* call : {"fstat", "lstat"}) {
    const Planned set(failing(call, EIO));
    EXPECT_FAILURE(inspect_storage_directory(staging), "unsafe_path", unavailable) << call;
  }
  const std::vector<std::function<void()>> events = {
      [&] { replace(); },
      [&] { std::filesystem::rename(staging, root / "moved"); },
      [&] {
        std::filesystem::rename(staging, root / "moved");
        std::filesystem::create_directory_symlink("moved", staging);
      },
      [&] {
        std::filesystem::rename(staging, root / "moved");
        root.write("staging", "x");
      },
  };
  for (const auto& event : events) {
    const Planned set(meanwhile("lstat", event));
    EXPECT_FAILURE(inspect_storage_directory(staging), "unsafe_path", unavailable);
    std::filesystem::remove_all(staging);
    std::filesystem::rename(root / "moved", staging);
  }
}

// --- Reserving -----------------------------------------------------------------------------

TEST_F(InstallFault, TheRootIsDurableBeforeItIsRecorded) {
  const Planned set({});
  std::ptrdiff_t flushes = 0;
  reserve([&](const DirectoryIdentity&) { flushes = set.count("fsync"); });
  // The root and its parent.
  EXPECT_EQ(flushes, 2);
}

TEST_F(InstallFault, TheRemovalOfARootIsFlushed) {
  // After the root and its parent.
  const Planned set(meanwhile(
      "fsync", [&] { EXPECT_FALSE(std::filesystem::exists(staging)); }, 3));
  EXPECT_FAILURE(ReservedTree(game, staging, [](std::uint64_t, std::uint64_t) { return false; }, {}), "cancelled",
                 "Storage preparation cancelled before download");
  EXPECT_TRUE(set.happened());
  EXPECT_EQ(set.count("fsync"), 3);
}

TEST_F(InstallFault, ARootThatIsNotDurableIsNotRecorded) {
  for (const int flush : {1, 2}) {
    bool recorded = false;
    const Planned set(failing("fsync", EIO, flush));
    EXPECT_FAILURE(reserve([&](const DirectoryIdentity&) { recorded = true; }), "file_sync", not_flushed);
    EXPECT_FALSE(recorded);
    EXPECT_EQ(root.names(), Names{});
  }
}

TEST_F(InstallFault, EveryDirectoryIsFlushedAtTheEnd) {
  std::ptrdiff_t flushes = 0;
  {
    const Planned set({});
    reserve();
    flushes = set.count("fsync");
    const std::vector<std::string> order = set.order_of({"create", "fsync"});
    // "bin", "data" and the root.
    EXPECT_EQ((std::vector<std::string>{order.end() - 4, order.end()}),
              (std::vector<std::string>{"create", "fsync", "fsync", "fsync"}));
  }
  std::filesystem::remove_all(staging);
  for (const std::ptrdiff_t before_end : {0, 1, 2}) {
    const Planned set(failing("fsync", EIO, static_cast<int>(flushes - before_end)));
    EXPECT_FAILURE(reserve(), "file_sync", not_flushed);
    EXPECT_EQ(root.names(), Names{});
  }
}

TEST_F(InstallFault, NothingIsReservedWhereThereIsNoRoom) {
  for (const int problem : {ENOSPC, EDQUOT}) {
    for (const int file : {1, 2}) {
      const Planned set(failing("fallocate", problem, file));
      EXPECT_FAILURE(reserve(), "insufficient_space",
                     "Cannot reserve file data; free space or choose other game storage");
      EXPECT_EQ(root.names(), Names{});
    }
  }
}

TEST_F(InstallFault, NothingIsReservedWhereBlocksCannotBeClaimed) {
  const Planned set(failing("fallocate", EIO, 2));
  EXPECT_FAILURE(reserve(), "space_reservation", "Native file allocation failed (" + std::to_string(EIO) + ")");
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(InstallFault, ATreeTellsWhatOfItIsHeldOnAVolumeThatCannotClaimBlocks) {
  const Planned set(failing("fallocate", ENOTSUP, 2));
  const ReservedTree tree = reserve();
  EXPECT_TRUE(tree.file("bin/program", 10).allocated);
  EXPECT_FALSE(tree.file("data/one", 5000).allocated);
  EXPECT_EQ(root.read("staging/data/one"), "");
  EXPECT_EQ(tree.summary(), Json::parse(R"({"requested_bytes": 5010, "reserved_bytes": 10, "file_count": 3,
                                            "data_reserved": false})"));
  EXPECT_NO_THROW(tree.validate(game, staging));
}

// Whatever call fails, no blocks stay reserved, and the record binds everything that stays.
TEST_F(InstallFault, AFailureHoldsNoSpaceAndLeavesNothingUnrecordedButAnEmptyRoot) {
  int failures = 0;
  for (const char* call : {"open", "open directory", "anchor", "openat", "create", "mkdirat", "fstat", "fstatat",
                           "lstat", "fchmod", "fgetxattr", "fremovexattr", "fallocate", "ftruncate", "fsync"}) {
    for (int number = 1;; ++number) {
      SCOPED_TRACE(std::string(call) + " " + std::to_string(number));
      bool recorded = false;
      bool happened = false;
      std::optional<Error> failure;
      {
        const Planned set(failing(call, EIO, number));
        failure = failure_of([&] { reserve([&](const DirectoryIdentity&) { recorded = true; }); });
        happened = set.happened();
      }
      if (!happened) {
        EXPECT_FALSE(failure) << failure->what();
        std::filesystem::remove_all(staging);
        break;
      }
      failures += failure ? 1 : 0;
      for (const std::string& name : failure ? root.names() : Names{}) {
        EXPECT_TRUE(recorded || name == "staging/") << name;
        const auto status = link_status_of(root / name);
        EXPECT_TRUE(status && (is_directory(*status) || (status->size == 0 && status->allocated == 0))) << name;
      }
      std::filesystem::remove_all(staging);
    }
  }
  EXPECT_GT(failures, 100);
}

// --- Cleaning up ---------------------------------------------------------------------------

class CleanupFault : public InstallFault {
 protected:
  CleanupFault() {
    root.directory("versions");
    stage();
  }

  void stage() {
    root.write("staging/bin/program", "0123456789");
    preparation = testing::as_prepared(game, root / "versions", inspect_storage_directory(staging));
    ready = preparation;
    ready["kind"] = "ravok-install-ready";
  }

  void clean() const { cleanup_prepared_install(game, preparation, staging, destination); }
  void clean_ready() const { cleanup_ready_install(game, ready, staging, destination, true); }

  const std::filesystem::path destination = root / "versions/1.0";
  Json preparation;
  Json ready;
};

TEST_F(CleanupFault, ARootIsPreservedThatIsReplacedAtAnyStep) {
  const std::vector<std::pair<int, std::string>> steps = {
      {1, "Prepared directory identity changed; preserve its replacement"},
      {2, "Prepared directory changed during cleanup validation"},
      {4, "Prepared directory changed before disposal"},
  };
  for (const auto& [step, message] : steps) {
    for (const bool is_ready : {false, true}) {
      {
        const Planned set(meanwhile(
            "open directory", [&] { replace(); }, step));
        EXPECT_FAILURE(is_ready ? clean_ready() : clean(), "allocation_changed", message) << step;
      }
      EXPECT_EQ(root.names(), (Names{"moved/", "moved/bin/", "moved/bin/program", "staging/", "versions/"}));
      std::filesystem::remove(staging);
      std::filesystem::rename(root / "moved", staging);
    }
  }
  EXPECT_NO_THROW(clean());
}

TEST_F(CleanupFault, AnActivatedTreeIsPreservedThatIsReplacedAtAnyStep) {
  std::filesystem::rename(staging, destination);
  const auto replace_activated = [&] {
    std::filesystem::rename(destination, root / "moved");
    std::filesystem::create_directory(destination);
  };
  const std::vector<std::pair<int, std::string>> steps = {
      {1, "Activation directory identity changed; preserve its replacement"},
      {2, "Prepared directory changed during cleanup validation"},
      {4, "Prepared directory changed before disposal"},
  };
  for (const auto& [step, message] : steps) {
    {
      const Planned set(meanwhile("open directory", replace_activated, step));
      EXPECT_FAILURE(clean_ready(), "allocation_changed", message) << step;
    }
    EXPECT_EQ(root.names(), (Names{"moved/", "moved/bin/", "moved/bin/program", "versions/", "versions/1.0/"}));
    std::filesystem::remove(destination);
    std::filesystem::rename(root / "moved", destination);
  }
  EXPECT_NO_THROW(clean_ready());
}

// A directory that cannot be looked at may be somebody else's, so it stays.
TEST_F(CleanupFault, NothingIsRemovedWhereACallFailsAheadOfTheRemoval) {
  int failures = 0;
  for (const char* call : {"lstat", "open directory", "openat", "fstat", "fstatat", "fsync"}) {
    bool happened = true;
    for (int number = 1; happened; ++number) {
      SCOPED_TRACE(std::string(call) + " " + std::to_string(number));
      const Names before = root.names();
      std::optional<Error> failure;
      {
        const Planned set(failing(call, EIO, number));
        failure = failure_of([&] { clean_ready(); });
        happened = set.happened();
      }
      // Only the flush of the removal comes after it.
      const bool removed = !failure || failure->code == "file_sync";
      if (failure && failure->code == "file_system") {
        // The removal had begun.
        std::filesystem::remove_all(staging);
        stage();
        continue;
      }
      EXPECT_EQ(root.names(), removed ? Names{"versions/"} : before);
      failures += removed ? 0 : 1;
      if (removed) {
        stage();
      }
    }
  }
  EXPECT_GT(failures, 5);
}

}  // namespace
}  // namespace ravok::install_fault_test
