#include "app/launcher/bootstrap_apply.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/launcher/bootstrap_update.hpp"
#include "support/bootstrap_place.hpp"
#include "support/bytes_of.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/file_calls.hpp"
#include "support/patient_start.hpp"
#include "support/temporary_root.hpp"

namespace ravok::bootstrap_apply_test {
namespace {

using testing::bootstrap_program;
using testing::bootstrap_release;
using testing::BootstrapPlace;
using testing::BootstrapRelease;
using testing::ending_program;
using testing::failing;
using testing::Planned;
using testing::SampleFile;
using testing::TemporaryRoot;
using testing::tree_state;
using testing::TreeState;
using End = BootstrapUpdateEnd;

std::string described(const BootstrapUpdateResult& result) {
  return result.problem ? result.problem->code + ": " + result.problem->what() : "";
}

class ApplyBootstrapUpdate : public ::testing::Test {
 protected:
  ApplyBootstrapUpdate() { place.install(old); }

  BootstrapUpdateResult apply() const {
    return apply_bootstrap_update(place.data.root, testing::endless_trial_clock());
  }
  TreeState state() const { return tree_state(place.data.native); }

  // The update is the bootstrap now, and nothing is left of the old one.
  void expect_applied(const BootstrapUpdateResult& result, const BootstrapRelease& release) const {
    EXPECT_EQ(result.end, End::applied);
    EXPECT_EQ(described(result), "");
    EXPECT_TRUE(place.holds(release));
    EXPECT_FALSE(exists(place.paths.update_manifest));
    EXPECT_FALSE(exists(place.paths.update_tree));
    EXPECT_FALSE(exists(place.paths.rejected));
    EXPECT_FALSE(exists(place.paths.old_files_mark));
  }

  // The old bootstrap stands as it did, and the update is remembered as one that has failed.
  void expect_rejected(const BootstrapUpdateResult& result, const BootstrapRelease& release,
                       const std::string& problem) const {
    EXPECT_EQ(result.end, End::rejected);
    EXPECT_EQ(described(result), problem);
    EXPECT_TRUE(place.holds(old));
    EXPECT_FALSE(exists(place.paths.update_manifest));
    EXPECT_EQ(BootstrapPlace::read(place.paths.rejected), release.sha256());
  }

  static bool exists(const std::filesystem::path& path) {
    return std::filesystem::symlink_status(path).type() != std::filesystem::file_type::not_found;
  }

  // Moves a file of the update into the installed tree, as an attempt does that is broken off behind that.
  void move_into_place(const std::string& path, bool keep_old = true) const {
    const std::filesystem::path target = place.paths.tree / path;
    if (keep_old && exists(target)) {
      std::filesystem::create_hard_link(target, target.native() + ".old");
    }
    std::filesystem::create_directories(target.parent_path());
    std::filesystem::rename(place.paths.update_tree / path, target);
  }

  // Gives the old files their second names, as an attempt does before it moves anything.
  void keep_old_files() const {
    for (const SampleFile& file : old.files) {
      const std::filesystem::path path = place.paths.tree / file.path;
      std::filesystem::create_hard_link(path, path.native() + ".old");
    }
    std::filesystem::remove(place.paths.tree / "only-old");
  }

  const TemporaryRoot root{testing::fast_volume()};
  const BootstrapPlace place{root.path() / "data"};
  const BootstrapRelease old =
      bootstrap_release("build-1", ending_program(0, "old"),
                        {{"data/kept", "the same"}, {"data/note", "old note"}, {"only-old", "gone"}});
  const BootstrapRelease next =
      bootstrap_release("build-2", ending_program(0, "new"),
                        {{"data/kept", "the same"}, {"data/note", "new note"}, {"more/new", "added"}});
};

TEST_F(ApplyBootstrapUpdate, PutsThePreparedFilesInThePlaceOfTheOldOnes) {
  place.prepare(next);
  expect_applied(apply(), next);
  const TreeState after = state();
  EXPECT_EQ(apply().end, End::none);
  EXPECT_EQ(state(), after);
}

TEST_F(ApplyBootstrapUpdate, DoesNothingWithoutAnUpdate) {
  const TreeState before = tree_state(place.data.root);
  EXPECT_EQ(apply().end, End::none);
  EXPECT_EQ(tree_state(place.data.root), before);
}

TEST_F(ApplyBootstrapUpdate, LeavesAnUpdateAloneWhileSetupHasNotEnded) {
  place.prepare(next);
  root.write("data/.ravok-setup-incomplete", "{}");
  const TreeState before = tree_state(place.data.root);
  EXPECT_EQ(apply().end, End::none);
  EXPECT_EQ(tree_state(place.data.root), before);
}

TEST_F(ApplyBootstrapUpdate, WaitsForTheStartAfterThoseThatHoldALock) {
  place.prepare(next);
  const TreeState before = state();
  for (const std::filesystem::path& path : {place.data.bootstrap_lock, place.paths.update_lock}) {
    for (const LockMode mode : {LockMode::shared, LockMode::exclusive}) {
      const NativeFileLock lock(path, true, NativeLockSharing::others, mode);
      const BootstrapUpdateResult result = apply();
      EXPECT_EQ(result.end, End::postponed);
      EXPECT_EQ(described(result), "");
      EXPECT_EQ(state(), before);
    }
  }
  expect_applied(apply(), next);
}

TEST_F(ApplyBootstrapUpdate, TellsOfALockThatIsNone) {
  place.prepare(next);
  std::filesystem::remove(place.paths.update_lock);
  std::filesystem::create_directory(place.paths.update_lock);
  const TreeState before = state();
  const BootstrapUpdateResult result = apply();
  EXPECT_EQ(result.end, End::postponed);
  EXPECT_EQ(described(result), "lock_failed: Native ownership requires an ordinary empty private file");
  EXPECT_EQ(state(), before);
}

TEST_F(ApplyBootstrapUpdate, MakesTheLockThatIsMissing) {
  place.prepare(next);
  std::filesystem::remove(place.paths.update_lock);
  expect_applied(apply(), next);
}

TEST_F(ApplyBootstrapUpdate, KnowsAnInstalledBootstrapByItsImageOnly) {
  place.prepare(next);
  const TreeState before = state();
  EXPECT_FAILURE(apply_pending_bootstrap_update("native/bootstrap/bin/ravok-bootstrap"), "unsafe_path",
                 "Bootstrap image path must be absolute and normalized");
  EXPECT_FAILURE(apply_pending_bootstrap_update(place.paths.tree / "bin/../bin/ravok-bootstrap"), "unsafe_path",
                 "Bootstrap image path must be absolute and normalized");
  EXPECT_FAILURE(apply_pending_bootstrap_update(place.paths.tree / "bin/other"), "native_install_trust",
                 "Unknown installed bootstrap entry");
  EXPECT_EQ(state(), before);
  ::testing::internal::CaptureStderr();
  apply_pending_bootstrap_update(place.program());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(place.holds(next));
}

TEST_F(ApplyBootstrapUpdate, SaysWhatIsWrongWithAnUpdateInALine) {
  const BootstrapRelease bad = bootstrap_release("build-2", ending_program(3));
  place.prepare(bad);
  ::testing::internal::CaptureStderr();
  apply_pending_bootstrap_update(place.program());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "ravok: bootstrap update rejected (bootstrap_start): The new bootstrap does not start; it ended with exit "
            "code 3\n");
  EXPECT_TRUE(place.holds(old));
}

// What a terminal sends reaches the trial as well.
TEST_F(ApplyBootstrapUpdate, IsNotBrokenOffByASignalAndLetsItComeAfterwards) {
  static std::filesystem::path update;
  static volatile std::sig_atomic_t came = 0;
  update = place.paths.update_manifest;
  for (const auto& [name, signal] : {std::pair("INT", SIGINT), std::pair("TERM", SIGTERM), std::pair("HUP", SIGHUP)}) {
    SCOPED_TRACE(name);
    const BootstrapRelease told =
        bootstrap_release("build-2", "#!/bin/sh\nkill -" + std::string(name) + " $PPID $$\nexit 0\n");
    place.install(old);
    place.prepare(told);
    came = 0;
    const auto answer = std::signal(signal, [](int) { came = came + (access(update.c_str(), F_OK) == 0 ? 100 : 1); });
    ::testing::internal::CaptureStderr();
    apply_pending_bootstrap_update(place.program());
    std::signal(signal, answer);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(place.holds(told));
    // Both trials have sent it, and the second time it was waiting already.
    EXPECT_EQ(came, 1);
  }
}

// --- What is wrong with an update ----------------------------------------------------------

TEST_F(ApplyBootstrapUpdate, RefusesAStagedFileThatIsNotWhatWasSigned) {
  using Change = std::function<void(const std::filesystem::path&)>;
  const std::vector<std::pair<const char*, Change>> changes = {
      {"other bytes", [](const auto& path) { std::ofstream(path) << "new nose"; }},
      {"one byte more", [](const auto& path) { std::ofstream(path, std::ios::app) << "x"; }},
      {"no file", [](const auto& path) { std::filesystem::remove(path); }},
      {"a link to the same bytes",
       [](const auto& path) {
         std::filesystem::rename(path, path.parent_path() / "elsewhere");
         std::filesystem::create_symlink("elsewhere", path);
       }},
      {"a directory",
       [](const auto& path) {
         std::filesystem::remove(path);
         std::filesystem::create_directory(path);
       }},
      {"a pipe",
       [](const auto& path) {
         std::filesystem::remove(path);
         ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
       }},
      {"a directory that is a link",
       [](const auto& path) {
         const std::filesystem::path folder = path.parent_path();
         std::filesystem::rename(folder, folder.native() + "-elsewhere");
         std::filesystem::create_symlink("data-elsewhere", folder);
       }},
      {"no directory", [](const auto& path) { std::filesystem::remove_all(path.parent_path()); }},
  };
  for (const auto& [name, change] : changes) {
    SCOPED_TRACE(name);
    place.install(old);
    place.prepare(next);
    change(place.paths.update_tree / "data/note");
    const std::string first = name == std::string("a directory that is a link") || name == std::string("no directory")
                                  ? "data/kept"
                                  : "data/note";
    expect_rejected(apply(), next, "content_mismatch: Staged bootstrap file changed: " + first);
  }
}

TEST_F(ApplyBootstrapUpdate, RefusesATreeThatIsMissing) {
  place.prepare(next);
  std::filesystem::remove_all(place.paths.update_tree);
  expect_rejected(apply(), next, "content_mismatch: Staged bootstrap file changed: bin/ravok-bootstrap");
}

TEST_F(ApplyBootstrapUpdate, RefusesAProgramThatMayNotBeExecuted) {
  place.prepare(next);
  std::filesystem::permissions(place.paths.update_tree / bootstrap_program, std::filesystem::perms(0644));
  expect_rejected(apply(), next, "content_mismatch: Staged bootstrap file changed: bin/ravok-bootstrap");
}

TEST_F(ApplyBootstrapUpdate, RefusesAManifestThatIsNone) {
  place.prepare(next);
  atomic_write(place.paths.update_manifest, "{\"schema_version\": 1}");
  const BootstrapUpdateResult result = apply();
  EXPECT_EQ(result.end, End::rejected);
  EXPECT_EQ(described(result), "invalid_manifest: Snapshot manifest has missing or malformed fields");
  EXPECT_TRUE(place.holds(old));
  EXPECT_FALSE(exists(place.paths.update_manifest));
  EXPECT_EQ(BootstrapPlace::read(place.paths.rejected), digest("{\"schema_version\": 1}", "sha256"));
}

TEST_F(ApplyBootstrapUpdate, RemovesAManifestThatNobodyPrepares) {
  for (const bool is_link : {true, false}) {
    place.prepare(next);
    std::filesystem::remove(place.paths.update_manifest);
    if (is_link) {
      std::filesystem::create_symlink("bootstrap.json", place.paths.update_manifest);
    } else {
      atomic_write(place.paths.update_manifest, std::string(524'289, ' '));
    }
    const BootstrapUpdateResult result = apply();
    EXPECT_EQ(result.end, End::rejected);
    EXPECT_EQ(result.problem->code, is_link ? "unsafe_path" : "size_limit");
    EXPECT_TRUE(place.holds(old));
    EXPECT_FALSE(exists(place.paths.update_manifest));
  }
}

TEST_F(ApplyBootstrapUpdate, RefusesAnUpdateOfABootstrapThatCannotBeKnown) {
  for (const std::string& text : {std::string("{}"), std::string()}) {
    place.install(old);
    place.prepare(next);
    if (text.empty()) {
      std::filesystem::remove(place.paths.manifest);
    } else {
      atomic_write(place.paths.manifest, text);
    }
    const TreeState before = place.installed();
    const BootstrapUpdateResult result = apply();
    EXPECT_EQ(result.end, End::rejected);
    EXPECT_EQ(result.problem->code, text.empty() ? "file_read" : "invalid_manifest");
    EXPECT_EQ(place.installed(), before);
    EXPECT_EQ(BootstrapPlace::read(place.paths.rejected), next.sha256());
  }
}

TEST_F(ApplyBootstrapUpdate, RefusesALayoutThatTheOldOneStandsInTheWayOf) {
  const BootstrapRelease file = bootstrap_release("build-2", ending_program(0), {{"data", "a file"}});
  place.prepare(file);
  expect_rejected(apply(), file, "unsafe_path: A directory of the bootstrap stands in the way of a file: data");
  const BootstrapRelease folder = bootstrap_release("build-3", ending_program(0), {{"only-old/file", "a file"}});
  place.prepare(folder);
  expect_rejected(apply(), folder,
                  "unsafe_path: A file of the bootstrap stands in the way of a directory: only-old/file");
}

TEST_F(ApplyBootstrapUpdate, PutsAFileInThePlaceOfAnEmptyDirectory) {
  const BootstrapRelease file = bootstrap_release("build-2", ending_program(0), {{"left", "a file"}});
  std::filesystem::create_directory(place.paths.tree / "left");
  place.prepare(file);
  expect_applied(apply(), file);
}

TEST_F(ApplyBootstrapUpdate, PutsAFileInThePlaceOfADirectoryWhoseFilesAreGone) {
  const BootstrapRelease file = bootstrap_release("build-2", ending_program(0), {{"left", "a file"}});
  place.install(bootstrap_release("build-1", ending_program(0, "old"), {{"left/only", "gone"}}));
  std::filesystem::remove(place.paths.tree / "left/only");
  place.prepare(file);
  expect_applied(apply(), file);
}

TEST_F(ApplyBootstrapUpdate, GoesOnWhereADirectoryIsGone) {
  const BootstrapRelease small = bootstrap_release("build-2", ending_program(0), {{"note", "a file"}});
  std::filesystem::remove_all(place.paths.tree / "data");
  place.prepare(small);
  expect_applied(apply(), small);
}

TEST_F(ApplyBootstrapUpdate, RefusesNamesOfReplacedFiles) {
  const BootstrapRelease bad = bootstrap_release("build-2", ending_program(0), {{"data/x.old", "a file"}});
  place.prepare(bad);
  expect_rejected(apply(), bad, "launcher_incompatible: Bootstrap update holds a name that is for replaced files");
}

// --- Programs that do not start ------------------------------------------------------------

class BootstrapThatDoesNotStart : public ApplyBootstrapUpdate {
 protected:
  void expect_not_started(const std::string& program, const std::string& problem) const {
    const BootstrapRelease bad = bootstrap_release("build-2", program, {{"data/note", "bad note"}});
    place.prepare(bad);
    const std::filesystem::path log = root / "log";
    expect_rejected(apply(), bad, problem);
    // It was not tried in the place of the old one.
    EXPECT_FALSE(exists(log)) << BootstrapPlace::read(log);
    // A later release is taken.
    place.prepare(next);
    EXPECT_EQ(apply().end, End::applied);
    place.install(old);
  }
};

TEST_F(BootstrapThatDoesNotStart, IsNeverPutIntoThePlaceOfTheOldOne) {
  const std::string log = "echo $0 | grep -v bootstrap-update/ >> " + (root / "log").native() + " || rm -f " +
                          (root / "log").native() + "\n";
  const std::string ended = "bootstrap_start: The new bootstrap does not start; it ended with exit code ";
  const std::string cannot = "bootstrap_start: The new bootstrap cannot be started";
  expect_not_started("#!/bin/sh\n" + log + "exit 1\n", ended + "1");
  expect_not_started("#!/bin/sh\n" + log + "exit 255\n", ended + "255");
  expect_not_started("#!/bin/sh\n" + log + "kill -SEGV $$\n", ended + std::to_string(128 + SIGSEGV));
  expect_not_started("#!/nowhere/interpreter\n", cannot);
  expect_not_started(
      "\x7f"
      "ELF that is none",
      cannot);
  expect_not_started("", cannot);
}

TEST_F(BootstrapThatDoesNotStart, BecauseItLacksALibraryIsUndone) {
  // A real program whose first needed library has another name now.
  std::string bytes = BootstrapPlace::read("/bin/ls");
  std::size_t found = bytes.find("libc.so.6");
  ASSERT_NE(found, std::string::npos);
  for (; found != std::string::npos; found = bytes.find("libc.so.6", found)) {
    bytes.replace(found, 9, "libx.so.6");
  }
  ::testing::internal::CaptureStderr();
  expect_not_started(bytes, "bootstrap_start: The new bootstrap does not start; it ended with exit code 127");
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("libx.so.6"), std::string::npos);
}

TEST_F(BootstrapThatDoesNotStart, WithinTenSecondsIsEndedAndUndone) {
  const std::filesystem::path pid = root / "pid";
  const BootstrapRelease bad =
      bootstrap_release("build-2", "#!/bin/sh\necho $$ > " + pid.native() + "\nexec sleep 1000\n");
  place.prepare(bad);
  // The time of the trial is that of the test, which begins to pass once the program runs.
  std::chrono::steady_clock::time_point now{};
  std::vector<std::chrono::milliseconds> pauses;
  const TrialClock clock = {[&] { return now; },
                            [&](std::chrono::milliseconds pause) {
                              if (testing::bytes_of(pid).ends_with("\n")) {
                                now += pause;
                                pauses.push_back(pause);
                              } else {
                                usleep(1000);
                              }
                            }};
  expect_rejected(apply_bootstrap_update(place.data.root, clock), bad,
                  "bootstrap_start: The new bootstrap did not start within 10 seconds");
  EXPECT_GE(now.time_since_epoch(), std::chrono::seconds(10));
  EXPECT_LE(now.time_since_epoch(), std::chrono::milliseconds(10'020));
  EXPECT_LE(*std::max_element(pauses.begin(), pauses.end()), std::chrono::milliseconds(20));
  EXPECT_EQ(kill(std::stoi(BootstrapPlace::read(pid)), 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST_F(BootstrapThatDoesNotStart, InItsPlaceIsUndoneAndItsFilesGoBack) {
  const std::string program = "#!/bin/sh\ncase $0 in */bootstrap-update/*) exit 0;; *) exit 9;; esac\n";
  const BootstrapRelease bad =
      bootstrap_release("build-2", program, {{"data/note", "bad note"}, {"more/new", "added"}});
  place.prepare(bad);
  expect_rejected(apply(), bad, "bootstrap_start: The new bootstrap does not start; it ended with exit code 9");
  EXPECT_TRUE(testing::same_tree(BootstrapPlace::files_in(place.paths.update_tree), BootstrapPlace::files_of(bad)));
}

TEST_F(BootstrapThatDoesNotStart, IsStartedAsACheckInItsOwnFolder) {
  const std::filesystem::path log = root / "log";
  const BootstrapRelease release = bootstrap_release(
      "build-2", "#!/bin/sh\necho \"$RAVOK_BOOTSTRAP_START_CHECK $# $(pwd)\" >> " + log.native() + "\n");
  place.prepare(release);
  expect_applied(apply(), release);
  EXPECT_EQ(BootstrapPlace::read(log), "1 0 " + (place.paths.update_tree / "bin").native() + "\n1 0 " +
                                           (place.paths.tree / "bin").native() + "\n");
}

// --- What earlier attempts have left -------------------------------------------------------

TEST_F(ApplyBootstrapUpdate, GoesBackFromEveryPointOfTheMoves) {
  const std::vector<std::string> moves = {"data/kept", "data/note", "more/new", bootstrap_program};
  for (std::size_t moved = 1; moved <= moves.size(); ++moved) {
    SCOPED_TRACE(moved);
    place.install(old);
    place.prepare(next);
    keep_old_files();
    for (std::size_t i = 0; i < moved; ++i) {
      move_into_place(moves[i], false);
    }
    const std::string first = moved == moves.size() ? bootstrap_program : moves[0];
    expect_rejected(apply(), next, "content_mismatch: Staged bootstrap file changed: " + first);
  }
}

TEST_F(ApplyBootstrapUpdate, GoesOnWhereNothingWasMovedYet) {
  place.prepare(next);
  std::filesystem::create_hard_link(place.program(), place.program().native() + ".old");
  root.write("data/native/bootstrap/data/note.old", "half a copy");
  expect_applied(apply(), next);
}

TEST_F(ApplyBootstrapUpdate, GoesOnWithTheCleanUpOfACommittedUpdate) {
  place.install(next);
  place.prepare(next);
  root.write("data/native/bootstrap/data/note.old", "old note");
  std::filesystem::remove_all(place.paths.update_tree / "data");
  expect_applied(apply(), next);
}

TEST_F(ApplyBootstrapUpdate, GoesOnWithTheEndOfARejectedOne) {
  place.prepare(next);
  atomic_write(place.paths.rejected, next.sha256());
  move_into_place(bootstrap_program);
  expect_rejected(apply(), next, "bootstrap_rejected: The update has failed before");
}

TEST_F(ApplyBootstrapUpdate, BringsADamagedFileBackAsItWas) {
  place.prepare(next);
  root.write("data/native/bootstrap/data/note", "damaged");
  const TreeState before = place.installed();
  for (const std::string& path : {std::string("data/note"), std::string(bootstrap_program)}) {
    move_into_place(path);
  }
  EXPECT_EQ(apply().end, End::rejected);
  EXPECT_EQ(place.installed(), before);
}

TEST_F(ApplyBootstrapUpdate, ReplacesADamagedBootstrap) {
  place.prepare(next);
  root.write("data/native/bootstrap/data/note", "damaged");
  std::filesystem::remove(place.program());
  expect_applied(apply(), next);
}

TEST_F(ApplyBootstrapUpdate, ReplacesAnOldFileThatNobodyKnowsBesideADamagedOne) {
  place.prepare(next);
  root.write("data/native/bootstrap/data/note", "damaged");
  root.write("data/native/bootstrap/data/note.old", "of nobody");
  expect_applied(apply(), next);
}

TEST_F(ApplyBootstrapUpdate, ReplacesALinkThatStandsForAFile) {
  place.prepare(next);
  const std::filesystem::path mine = root.write("mine", "mine");
  std::filesystem::remove(place.paths.tree / "data/note");
  std::filesystem::create_symlink(mine, place.paths.tree / "data/note");
  root.write("data/native/bootstrap/data/note.old", "of nobody");
  expect_applied(apply(), next);
  EXPECT_EQ(root.read("mine"), "mine");
}

TEST_F(ApplyBootstrapUpdate, GoesOnBesideAnOldFileOfANameThatIsNew) {
  place.prepare(next);
  root.write("data/native/bootstrap/more/new.old", "of nobody");
  expect_applied(apply(), next);
}

// --- Calls that fail -----------------------------------------------------------------------

TEST_F(ApplyBootstrapUpdate, CopiesTheOldFilesWhereAFileCanHaveOneNameOnly) {
  const BootstrapRelease bad = bootstrap_release(
      "build-2", "#!/bin/sh\ncase $0 in */bootstrap-update/*) exit 0;; *) exit 9;; esac\n", {{"data/note", "bad"}});
  place.prepare(bad);
  const Planned plan(failing("link", EPERM));
  expect_rejected(apply(), bad, "bootstrap_start: The new bootstrap does not start; it ended with exit code 9");
  EXPECT_TRUE(plan.happened());
}

TEST_F(ApplyBootstrapUpdate, CopiesAFileOfOneByte) {
  const BootstrapRelease small = bootstrap_release("build-1", ending_program(0, "old"), {{"a", "x"}});
  place.install(small);
  place.prepare(bootstrap_release("build-2", "#!/bin/sh\ncase $0 in */bootstrap-update/*) exit 0;; *) exit 9;; esac\n",
                                  {{"a", "y"}}));
  const Planned plan(failing("link", EPERM));
  EXPECT_EQ(apply().end, End::rejected);
  EXPECT_TRUE(plan.happened());
  EXPECT_TRUE(place.holds(small));
}

TEST_F(ApplyBootstrapUpdate, TakesAllBackWhereAnOldFileCannotBeCopied) {
  place.prepare(next);
  struct rlimit usual {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &usual), 0);
  const auto answer = std::signal(SIGXFSZ, SIG_IGN);
  BootstrapUpdateResult result;
  {
    const Planned plan(failing("link", EPERM));
    const struct rlimit few = {4, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &few), 0);
    result = apply();
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &usual), 0);
    EXPECT_TRUE(plan.happened());
  }
  std::signal(SIGXFSZ, answer);
  EXPECT_EQ(result.end, End::rejected);
  EXPECT_EQ(described(result), "file_write: Cannot keep the old bootstrap file ravok-bootstrap: File too large");
  EXPECT_TRUE(place.holds(old));
}

TEST_F(ApplyBootstrapUpdate, TakesAllBackWhereACallFails) {
  const std::vector<std::tuple<const char*, int, int>> calls = {{"rename", EIO, 1}, {"rename", EIO, 3},
                                                                {"rename", EIO, 4}, {"fsync", EIO, 1},
                                                                {"fsync", EIO, 2},  {"unlink", EIO, 1}};
  for (const auto& [call, problem, countdown] : calls) {
    SCOPED_TRACE(std::string(call) + " " + std::to_string(countdown));
    place.install(old);
    place.prepare(next);
    BootstrapUpdateResult result;
    {
      const Planned plan(failing(call, problem, countdown));
      result = apply();
      ASSERT_TRUE(plan.happened());
    }
    EXPECT_EQ(result.end, End::rejected);
    EXPECT_TRUE(place.holds(old));
    EXPECT_FALSE(exists(place.paths.update_manifest));
    EXPECT_EQ(BootstrapPlace::read(place.paths.rejected), next.sha256());
  }
}

// A process that has put all files back may have ended before that was durable, and only the manifest leads back.
TEST_F(ApplyBootstrapUpdate, TriesAWayBackAgainThatAPowerCutMayUndo) {
  place.prepare(next);
  atomic_write(place.paths.rejected, next.sha256());
  {
    const Planned plan(failing("fsync", EIO, 1));
    EXPECT_EQ(described(apply()), "bootstrap_rejected: The update has failed before");
    ASSERT_TRUE(plan.happened());
  }
  EXPECT_TRUE(exists(place.paths.update_manifest));
  expect_rejected(apply(), next, "bootstrap_rejected: The update has failed before");
}

// Otherwise a power cut right behind a move may leave neither file on btrfs.
TEST_F(ApplyBootstrapUpdate, MovesOnlyAProgramThatItHasChangedAndFlushed) {
  // The last move of a file that is put into place is that of the program.
  const auto expect_flushed = [](const Planned& plan, std::ptrdiff_t moves, std::ptrdiff_t program) {
    const std::vector<std::string> calls = plan.order_of({"fchmod", "fsync", "rename"});
    EXPECT_GE(std::count(calls.begin(), calls.end(), "rename"), moves);
    std::ptrdiff_t number = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
      if (calls[i] == "rename" && ++number == program) {
        EXPECT_TRUE(i >= 2 && calls[i - 1] == "fsync" && calls[i - 2] == "fchmod") << i;
      }
    }
  };
  place.prepare(next);
  {
    const Planned plan(failing("none", 0));
    expect_applied(apply(), next);
    expect_flushed(plan, 4, 4);
  }
  // And on the way back.
  place.install(old);
  place.prepare(next);
  for (const std::string& path : {std::string("data/note"), std::string(bootstrap_program)}) {
    move_into_place(path);
  }
  const Planned plan(failing("none", 0));
  EXPECT_EQ(apply().end, End::rejected);
  EXPECT_TRUE(place.holds(old));
  expect_flushed(plan, 2, 1);
}

TEST_F(ApplyBootstrapUpdate, MovesNoProgramThatItCannotFlush) {
  // The program is the fourth file to be moved, and changed right before.
  int change = 0;
  // The first time, the files of locks are made as well.
  for (int i = 0; i < 2; ++i) {
    place.install(old);
    place.prepare(next);
    const Planned plan(failing("none", 0));
    expect_applied(apply(), next);
    const std::vector<std::string> calls = plan.order_of({"fchmod", "rename"});
    auto move = calls.begin();
    for (int number = 1; number < 4; ++number) {
      move = std::find(move, calls.end(), "rename") + 1;
    }
    change = static_cast<int>(std::count(calls.begin(), std::find(move, calls.end(), "rename"), "fchmod"));
  }
  const std::pair<int, std::string> problems[] = {
      {EIO, "file_sync: Cannot synchronize " + (place.paths.update_tree / bootstrap_program).native()},
      {EMFILE, "too_many_files: Too many files are open; close other programs and try again"}};
  for (const auto& [problem, told] : problems) {
    place.install(old);
    place.prepare(next);
    const Planned plan(failing("fchmod", problem, change));
    expect_rejected(apply(), next, told);
    EXPECT_TRUE(plan.happened());
  }
}

TEST_F(ApplyBootstrapUpdate, PutsAFileBackThatItCannotFlush) {
  for (const int problem : {EIO, EMFILE}) {
    place.install(old);
    place.prepare(next);
    move_into_place(bootstrap_program);
    const Planned plan(failing("fchmod", problem));
    expect_rejected(apply(), next, "content_mismatch: Staged bootstrap file changed: bin/ravok-bootstrap");
    EXPECT_TRUE(plan.happened());
  }
}

TEST_F(ApplyBootstrapUpdate, TriesTheWayBackOfARejectedOneAgain) {
  place.prepare(next);
  atomic_write(place.paths.rejected, next.sha256());
  move_into_place(bootstrap_program);
  {
    const Planned plan(failing("rename", EIO, 1));
    EXPECT_EQ(described(apply()), "bootstrap_rejected: The update has failed before");
    ASSERT_TRUE(plan.happened());
  }
  EXPECT_TRUE(exists(place.paths.update_manifest));
  expect_rejected(apply(), next, "bootstrap_rejected: The update has failed before");
}

// After a process that has ended in the same way, an attempt fails before it has moved anything.
TEST_F(ApplyBootstrapUpdate, TriesAgainWhereAFailedAttemptBeganWithWhatAPowerCutMayUndo) {
  place.prepare(next);
  std::filesystem::resize_file(place.paths.update_tree / "data/note", 1);
  {
    const Planned plan(failing("fsync", EIO, 1));
    EXPECT_EQ(described(apply()), "content_mismatch: Staged bootstrap file changed: data/note");
    ASSERT_TRUE(plan.happened());
  }
  EXPECT_TRUE(exists(place.paths.update_manifest));
  expect_rejected(apply(), next, "bootstrap_rejected: The update has failed before");
}

TEST_F(ApplyBootstrapUpdate, WaitsWhereWhatAnEarlierAttemptHasLeftCannotBeTakenBack) {
  struct Obstacle {
    const char* call;
    int problem;
    const char* told;
  };
  for (const auto& [call, problem, told] :
       {Obstacle{"unlink", EIO, "file_write: Cannot restore the old bootstrap"},
        Obstacle{"fstatat", EMFILE, "too_many_files: Too many files are open; close other programs and try again"}}) {
    SCOPED_TRACE(call);
    place.install(old);
    place.prepare(next);
    keep_old_files();
    {
      const Planned plan(failing(call, problem));
      const BootstrapUpdateResult result = apply();
      ASSERT_TRUE(plan.happened());
      EXPECT_EQ(result.end, End::postponed);
      EXPECT_EQ(described(result), told);
    }
    EXPECT_TRUE(exists(place.paths.update_manifest));
    EXPECT_FALSE(exists(place.paths.rejected));
    expect_applied(apply(), next);
  }
}

TEST_F(ApplyBootstrapUpdate, TriesAWayBackAgainWhereAFileCannotBeLookedAt) {
  const std::vector<std::string> moves = {"data/kept", "data/note", "more/new", bootstrap_program};
  bool is_reached = true;
  for (int countdown = 1; is_reached; ++countdown) {
    SCOPED_TRACE(countdown);
    place.install(old);
    place.prepare(next);
    keep_old_files();
    for (const std::string& path : moves) {
      move_into_place(path, false);
    }
    {
      const Planned plan(failing("fstat", EIO, countdown));
      static_cast<void>(apply());
      is_reached = plan.happened();
    }
    static_cast<void>(apply());
    EXPECT_TRUE(place.holds(old));
    EXPECT_FALSE(exists(place.paths.update_manifest));
  }
}

TEST_F(ApplyBootstrapUpdate, LeavesTheMarkWhereAnOldFileCannotBeRemoved) {
  place.prepare(next);
  // The first removal takes the file out that the update does not have.
  for (int countdown = 2; countdown <= 8; ++countdown) {
    place.install(old);
    place.prepare(next);
    const Planned plan(failing("unlink", EIO, countdown));
    const BootstrapUpdateResult result = apply();
    ASSERT_TRUE(plan.happened());
    EXPECT_EQ(result.end, End::applied);
    TreeState files = place.installed();
    const bool has_old = std::erase_if(files, [](const auto& node) { return node.first.ends_with(".old"); }) > 0;
    EXPECT_TRUE(testing::same_tree(files, BootstrapPlace::files_of(next)));
    EXPECT_EQ(exists(place.paths.old_files_mark), has_old);
  }
}

}  // namespace
}  // namespace ravok::bootstrap_apply_test
