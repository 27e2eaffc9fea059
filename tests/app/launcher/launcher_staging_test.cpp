#include "app/launcher/launcher_staging.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/download/launcher_downloads.hpp"
#include "app/launcher/launcher_cleanup.hpp"
#include "platform/file/tree.hpp"
#include "support/clock_calls.hpp"
#include "support/download_builder.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/staging_place.hpp"
#include "support/tree_state.hpp"
#include "tuf/target_fetch.hpp"

namespace ravok::launcher_staging_test {
namespace {

using testing::failure_of;
using testing::LauncherUpdate;
using testing::staged;
using testing::tree_state;
using testing::TreeState;

using Hints = std::vector<std::string>;

constexpr const char* storage_full = "launcher_storage_full";
constexpr const char* too_large = "Launcher updates exceed their private storage budget";
constexpr const char* too_many = "Retained launcher records reached their bounded capacity";
constexpr const char* no_slot = "A new target needs bounded partial/checkpoint slots";

const Json already_current = {{"staged", false}, {"already_current", true}};

Json skipped(const char* reason) { return {{"staged", false}, {"skipped", reason}}; }

class LauncherStagings : public ::testing::Test {
 protected:
  // The lock file is there from the first operation on.
  LauncherStagings() { place_.launcher.store.owner(); }

  // Makes this the active version.
  void install(const LauncherUpdate& update) {
    place_.update(update);
    place_.tuf.transport.forget();
  }

  Json value(const char* key) const { return place_.launcher.value(key); }

  // What the store holds but for the file that fills it.
  TreeState state() const {
    const bool is_filled = std::filesystem::exists(filler());
    if (is_filled) {
      std::filesystem::rename(filler(), place_.root() / "aside");
    }
    TreeState found = tree_state(place_.paths().store);
    if (is_filled) {
      std::filesystem::rename(place_.root() / "aside", filler());
    }
    return found;
  }
  std::filesystem::path filler() const { return place_.paths().store / "filler"; }
  std::filesystem::path payload(const LauncherUpdate& update) const { return place_.paths().version(update.sha256()); }

  // Staging is refused in these words; all but the downloads and what a search leaves stays as it was.
  void expect_refused(const std::string& code, const std::string& message, const Hints& hints = {}) {
    const TreeState before = lasting();
    const auto failure = failure_of([&] { place_.stage(); });
    ASSERT_TRUE(failure) << "no failure, where \"" << code << "\" was expected";
    EXPECT_EQ(failure->code, code) << failure->what();
    EXPECT_EQ(failure->what(), message);
    EXPECT_EQ(failure->details, hints);
    EXPECT_TRUE(testing::same_tree(lasting(), before));
  }
  // The same, and neither a target was asked for nor anything was changed at all.
  void expect_refused_at_once(const std::string& code, const std::string& message, const Hints& hints = {}) {
    const TreeState before = state();
    place_.tuf.transport.forget();
    expect_refused(code, message, hints);
    EXPECT_TRUE(testing::same_tree(state(), before));
    for (const testing::RepositoryRequest& request : place_.tuf.transport.requests()) {
      EXPECT_NE(request.kind, testing::RepositoryRequest::Kind::resume) << request.name;
    }
  }
  TreeState lasting() const { return testing::without(state(), {"downloads", "download-intents"}); }

  // How often a target's file was asked for.
  std::size_t requests_for(const std::string& target) {
    const Json& description = place_.tuf.repository.targets().targets.at(target);
    const std::string name = remote_target_name(target, description, true);
    const std::vector<std::string> names = place_.tuf.transport.names();
    return static_cast<std::size_t>(std::count(names.begin(), names.end(), name));
  }
  void break_off(const std::string& target, std::uint64_t bytes) {
    const Json description = place_.tuf.repository.targets().targets.at(target);
    const std::string name = remote_target_name(target, description, true);
    place_.tuf.transport.on(name, testing::breaks_after(bytes));
    EXPECT_FAILURE(place_.stage(), "network", "Transferred a partial file");
    place_.tuf.transport.on(name, {});
  }

  // A file that takes no room and counts for this many bytes.
  void fill(std::uint64_t bytes) const {
    testing::write_bytes(filler(), "");
    std::filesystem::resize_file(filler(), bytes);
  }
  std::uint64_t bytes() const { return tree_bytes(place_.paths().store, 100'000); }
  // Fills the store up to this many bytes in all.
  void fill_to(std::uint64_t all) const {
    fill(0);
    fill(all - bytes());
  }
  void add_entries(const std::filesystem::path& folder, std::size_t until) const {
    for (std::size_t count = entries(folder); count < until; ++count) {
      testing::write_bytes(folder / ("entry-" + std::to_string(count)), "");
    }
  }
  static std::size_t entries(const std::filesystem::path& folder) {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
  }

  testing::StagingPlace place_;
  const LauncherUpdate first_{"build-1"};
  const LauncherUpdate second_{"build-2"};
};

TEST_F(LauncherStagings, MakeTheNewestVersionTheCandidateAndTouchNothingThatRuns) {
  install(first_);
  const TreeState before = tree_state(payload(first_));
  const Json document = place_.launcher.store.load();
  place_.publish(second_);
  std::set<std::pair<std::uint64_t, std::uint64_t>> told;
  const auto progress = [&](std::uint64_t done, std::uint64_t total) {
    EXPECT_LE(done, total);
    told.emplace(done, total);
    return true;
  };
  EXPECT_EQ(place_.stage(false, progress), staged(second_));
  EXPECT_GT(told.size(), 2u);
  EXPECT_EQ(place_.phases, (std::vector<std::pair<std::string, bool>>{
                               {"verifying", true}, {"downloading", true}, {"activating", false}}));
  Json expected = document;
  expected["candidate"] = second_.reference();
  expected["generation"] = document.at("generation").get<int>() + 1;
  EXPECT_EQ(place_.launcher.store.load(), expected);
  EXPECT_TRUE(testing::same_tree(tree_state(payload(first_)), before));
  for (const testing::SampleFile& file : second_.files) {
    EXPECT_EQ(testing::bytes_of(payload(second_) / file.path), file.content);
  }
  EXPECT_EQ(place_.launcher.store.manifest_text(second_.reference()), second_.text());
  EXPECT_EQ(entries(place_.paths().versions), 2u);
  EXPECT_TRUE(std::filesystem::is_empty(place_.paths().staging));
  EXPECT_TRUE(std::filesystem::is_empty(place_.paths().intents));
  EXPECT_EQ(testing::bytes_of(place_.paths().downloads / second_.target()), second_.archive);
}

TEST_F(LauncherStagings, WorkTheSameInTheBackgroundAndWithoutCallbacks) {
  install(first_);
  place_.publish(second_);
  EXPECT_EQ(place_.stage(true), staged(second_));
  EXPECT_EQ(value("candidate"), second_.reference());
  const LauncherUpdate third("build-3");
  place_.confirm();
  place_.publish(third);
  EXPECT_EQ(place_.launcher.store.stage(*place_.tuf.client(), {}, {}, false), staged(third));
}

TEST_F(LauncherStagings, WorkOverATransportThatCannotResume) {
  place_.tuf.transport.resumes = false;
  install(first_);
  place_.publish(second_);
  EXPECT_EQ(place_.stage(), staged(second_));
}

TEST_F(LauncherStagings, HoldTheStoreFromStartToEnd) {
  place_.publish(first_);
  bool was_held = true;
  const auto progress = [&](std::uint64_t, std::uint64_t) {
    was_held = was_held && testing::is_lock_busy(place_.paths().owner_lock);
    return true;
  };
  EXPECT_EQ(place_.stage(false, progress), staged(first_));
  EXPECT_TRUE(was_held);
  EXPECT_FALSE(testing::is_lock_busy(place_.paths().owner_lock));
}

TEST_F(LauncherStagings, AreRefusedWhileAnotherHoldsTheStore) {
  place_.publish(first_);
  const auto owner = place_.launcher.store.owner();
  const testing::StillClock clock;
  expect_refused_at_once("busy", "Another Ravok operation is using this state");
  EXPECT_TRUE(place_.tuf.transport.requests().empty());
}

// --- What ends a staging in the background ---

TEST_F(LauncherStagings, AskForNothingWithoutAnInstalledVersion) {
  place_.publish(first_);
  place_.root().write("launcher/cleanup.json", "{}");
  const TreeState before = state();
  EXPECT_EQ(place_.stage(true), skipped("not_installed"));
  EXPECT_TRUE(place_.tuf.transport.requests().empty());
  EXPECT_TRUE(place_.phases.empty());
  EXPECT_TRUE(testing::same_tree(state(), before));
}

TEST_F(LauncherStagings, AskForNothingWhileACleanupIsPending) {
  install(first_);
  place_.publish(second_);
  place_.root().write("launcher/cleanup.json", "{}");
  const TreeState before = state();
  EXPECT_EQ(place_.stage(true), skipped("cleanup_pending"));
  EXPECT_TRUE(place_.tuf.transport.requests().empty());
  EXPECT_TRUE(testing::same_tree(state(), before));
}

TEST_F(LauncherStagings, SkipWhatIsNotPublishedOrNotToBeTried) {
  install(first_);
  const auto expect_outcome = [&](const Json& outcome) {
    const TreeState before = state();
    EXPECT_EQ(place_.stage(true), outcome);
    EXPECT_TRUE(testing::same_tree(state(), before));
    EXPECT_TRUE(place_.phases.empty());
  };
  const Json attempt = {{"nonce", testing::nonce_of('1')}, {"reference", LauncherUpdate("build-9").reference()}};
  const Json failed = {{"reference", second_.reference()}, {"problem", "startup_failed"}};
  // A start that has not ended is the last reason that is looked at.
  place_.launcher.set("attempt", attempt);
  place_.tuf.repository.targets().targets.clear();
  place_.tuf.repository.publish();
  expect_outcome(skipped("not_published"));
  place_.publish(first_);
  expect_outcome(already_current);
  place_.publish(second_);
  place_.launcher.set("failed_candidate", failed);
  expect_outcome(skipped("failed_before"));
  place_.launcher.set("failed_candidate", nullptr);
  expect_outcome(skipped("startup_pending"));
  place_.launcher.set("attempt", nullptr);
  place_.launcher.set("candidate", second_.reference());
  place_.launcher.set("failed_candidate", failed);
  expect_outcome(skipped("candidate_pending"));
  place_.launcher.set("candidate", nullptr);
  place_.launcher.set("failed_candidate", nullptr);
  EXPECT_EQ(place_.stage(true), staged(second_));
}

TEST_F(LauncherStagings, DoNotReadTheActiveVersionInTheBackground) {
  install(first_);
  testing::write_bytes(payload(first_) / "data/note", "damaged");
  EXPECT_EQ(place_.stage(true), already_current);
}

TEST_F(LauncherStagings, TellNoVersionByADigestThatIsNotSigned) {
  install(first_);
  Json description = testing::description_of(first_.text());
  description["hashes"] = {{"sha512", digest(first_.text(), "sha512")}};
  place_.tuf.repository.targets().targets[launcher_manifest_target()] = description;
  place_.tuf.repository.publish();
  // It is found by reading it.
  EXPECT_EQ(place_.stage(true), already_current);
  EXPECT_EQ(place_.phases.size(), 1u);
}

// --- What ends one in the foreground ---

TEST_F(LauncherStagings, WantTheCleanupFinishedAndTheStartEnded) {
  install(first_);
  place_.publish(second_);
  place_.launcher.set("attempt", {{"nonce", testing::nonce_of('1')}, {"reference", second_.reference()}});
  const auto cleanup = place_.root().write("launcher/cleanup.json", "{}");
  expect_refused_at_once("launcher_cleanup_pending", "Finish the recorded Ravok cleanup before staging another update",
                         {"self cleanup"});
  std::filesystem::remove(cleanup);
  expect_refused_at_once("busy", "A launcher startup must finish before another update is staged");
  EXPECT_TRUE(place_.tuf.transport.requests().empty());
  place_.launcher.set("attempt", nullptr);
  EXPECT_EQ(place_.stage(), staged(second_));
}

TEST_F(LauncherStagings, FailWithoutAPublishedVersion) {
  expect_refused_at_once("target_not_found",
                         "Target is not authorized by the repository: " + launcher_manifest_target());
}

TEST_F(LauncherStagings, TakeAManifestOfAtMost512KiB) {
  LauncherUpdate update("build-1");
  update.padding.assign(524'288 - update.text().size() + 1, ' ');
  place_.publish(update);
  expect_refused_at_once("size_limit", "Launcher descriptor exceeds 512 KiB");
  update.padding.pop_back();
  place_.publish(update);
  EXPECT_EQ(place_.stage(), staged(update));
}

TEST_F(LauncherStagings, TakeNoLauncherOfAnotherPlatform) {
  LauncherUpdate update("build-1");
  update.document["platform"] = native_platform() == std::string("windows-x86_64") ? "linux-x86_64" : "windows-x86_64";
  place_.publish(update);
  expect_refused("launcher_incompatible", "Launcher payload targets another native platform");
  EXPECT_EQ(requests_for(update.target()), 0u);
}

TEST_F(LauncherStagings, TakeNoManifestThatIsNone) {
  LauncherUpdate update("build-1");
  update.document["runtime_lease_abi"] = 3;
  place_.publish(update);
  expect_refused("launcher_incompatible", "Unsupported launcher runtime contract");
  update.document["kind"] = "other";
  place_.publish(update);
  expect_refused("unsupported_schema", "Unsupported launcher manifest; existing installation was preserved");
}

TEST_F(LauncherStagings, TakeOnlyTheArchiveThatTheManifestDeclares) {
  const char* refusal = "Launcher archive is not authorized with its declared length/hash";
  place_.publish(first_);
  auto& targets = place_.tuf.repository.targets().targets;
  const Json declared = targets.at(first_.target());
  for (const char* change : {"length", "sha256", "no sha256"}) {
    Json description = declared;
    if (change == std::string("length")) {
      description["length"] = declared.at("length").get<std::uint64_t>() + 1;
    } else if (change == std::string("sha256")) {
      description["hashes"]["sha256"] = std::string(64, 'a');
    } else {
      description["hashes"] = {{"sha512", digest(first_.archive, "sha512")}};
    }
    targets[first_.target()] = description;
    place_.tuf.repository.publish();
    expect_refused("content_mismatch", refusal);
  }
  targets.erase(first_.target());
  place_.tuf.repository.publish();
  expect_refused("target_not_found", "Target is not authorized by the repository: " + first_.target());
}

// The clean-up removes only what an intent explains.
TEST_F(LauncherStagings, KeepTheIntentOfWorkThatIsNotRemovedForGood) {
  install(first_);
  place_.publish(second_);
  for (const char* call : {"unlink", "fsync"}) {
    SCOPED_TRACE(call);
    std::optional<testing::Planned> plan;
    const auto cancel_unpacking = [&](std::uint64_t, std::uint64_t) {
      if (std::filesystem::is_empty(place_.paths().staging)) {
        return true;
      }
      if (!plan) {
        plan.emplace(testing::failing(call, EIO));
      }
      return false;
    };
    EXPECT_FAILURE(place_.stage(false, cancel_unpacking), "cancelled", "Operation cancelled at a safe boundary");
    ASSERT_TRUE(plan && plan->happened());
    EXPECT_EQ(entries(place_.paths().intents), 1u);
    plan.reset();
    clean_launcher_store(place_.launcher.store);
    EXPECT_TRUE(std::filesystem::is_empty(place_.paths().intents));
    EXPECT_TRUE(std::filesystem::is_empty(place_.paths().staging));
  }
}

TEST_F(LauncherStagings, RefuseOtherContentForABuildThatIsNamed) {
  install(first_);
  install(second_);
  const LauncherUpdate third("build-3");
  place_.publish(third);
  place_.stage();
  for (const char* build : {"build-1", "build-2", "build-3"}) {
    const LauncherUpdate other(build, "other content");
    place_.publish(other);
    expect_refused("launcher_build_conflict", "An installed launcher build ID has different signed content");
    EXPECT_EQ(requests_for(other.target()), 0u);
  }
}

TEST_F(LauncherStagings, VerifyTheActiveVersionWhereItIsTheNewest) {
  install(first_);
  const std::size_t requests = requests_for(first_.target());
  EXPECT_EQ(place_.stage(), already_current);
  EXPECT_EQ(requests_for(first_.target()), requests);
  EXPECT_EQ(place_.phases, (std::vector<std::pair<std::string, bool>>{{"verifying", true}}));
  testing::write_bytes(payload(first_) / "data/note", "damaged");
  expect_refused("content_mismatch", "Game content differs from the verified manifest: data/note");
}

TEST_F(LauncherStagings, LeaveAnotherCandidateToBeTried) {
  install(first_);
  place_.publish(second_);
  place_.stage();
  place_.publish(LauncherUpdate("build-3"));
  expect_refused("launcher_pending", "Start the pending launcher candidate before staging a different build");
  EXPECT_EQ(value("candidate"), second_.reference());
}

TEST_F(LauncherStagings, NameTheWaitingCandidateAgain) {
  install(first_);
  place_.publish(second_);
  place_.stage();
  place_.launcher.set("failed_candidate", {{"reference", first_.reference()}, {"problem", "startup_failed"}});
  const TreeState before = tree_state(payload(second_));
  EXPECT_EQ(place_.stage(), staged(second_));
  EXPECT_EQ(place_.phases.size(), 3u);
  EXPECT_EQ(value("candidate"), second_.reference());
  EXPECT_EQ(value("failed_candidate"), Json());
  EXPECT_TRUE(testing::same_tree(tree_state(payload(second_)), before));
}

TEST_F(LauncherStagings, TryAFailedVersionAgainInTheForeground) {
  install(first_);
  place_.publish(second_);
  place_.stage();
  place_.launcher.set("candidate", nullptr);
  place_.launcher.set("failed_candidate", {{"reference", second_.reference()}, {"problem", "startup_failed"}});
  EXPECT_EQ(place_.stage(true), skipped("failed_before"));
  EXPECT_EQ(place_.stage(), staged(second_));
  EXPECT_EQ(value("failed_candidate"), Json());
}

// --- Bounds ---

TEST_F(LauncherStagings, RetainEightVersions) {
  install(first_);
  place_.publish(second_);
  for (int i = 2; i < 8; ++i) {
    std::filesystem::create_directory(place_.paths().versions / std::to_string(i));
  }
  EXPECT_EQ(place_.stage(), staged(second_));
  EXPECT_EQ(entries(place_.paths().versions), 8u);
  // The version itself is one of the eight.
  EXPECT_EQ(place_.stage(), staged(second_));
  place_.confirm();
  place_.publish(LauncherUpdate("build-3"));
  expect_refused(storage_full, "Retained launcher versions reached their bounded capacity");
  EXPECT_EQ(place_.phases.size(), 1u);
}

TEST_F(LauncherStagings, LetTheStoreHave4GiB) {
  fill_to(4'294'967'296);
  EXPECT_NO_THROW(require_launcher_budget(place_.paths(), 0));
  EXPECT_FAILURE(require_launcher_budget(place_.paths(), 1), storage_full, too_large);
  fill_to(4'294'967'297);
  EXPECT_FAILURE(require_launcher_budget(place_.paths(), 0), storage_full, too_large);
  fill_to(4'294'967'290);
  EXPECT_NO_THROW(require_launcher_budget(place_.paths(), 6));
  EXPECT_FAILURE(require_launcher_budget(place_.paths(), 7), storage_full, too_large);
  EXPECT_FAILURE(require_launcher_budget(place_.paths(), ~std::uint64_t{0}), storage_full, too_large);
}

TEST_F(LauncherStagings, LookAtTheBudgetBeforeTheRepositoryIsAsked) {
  place_.publish(first_);
  fill_to(4'294'967'297);
  place_.tuf.transport.forget();
  expect_refused_at_once(storage_full, too_large);
  EXPECT_TRUE(place_.tuf.transport.requests().empty());
  EXPECT_EQ(place_.phases.size(), 1u);
}

TEST_F(LauncherStagings, WantRoomForTheManifestBeforeItIsFetched) {
  place_.publish(first_);
  fill_to(4'294'967'296 - 1'048'576);
  expect_refused(storage_full, too_large);
  EXPECT_EQ(requests_for(launcher_manifest_target()), 0u);
}

// What is there when the archive is admitted is there after a refusal as well.
TEST_F(LauncherStagings, WantRoomForTheArchiveAndItsFilesBeforeItIsFetched) {
  const LauncherUpdate update("build-1", testing::noise(100'000));
  place_.publish(update);
  const std::uint64_t unpacked = update.document.at("archive").at("expanded_length").get<std::uint64_t>();
  const std::uint64_t most = 4'294'967'296 - 1'048'576 - unpacked - update.archive.size();
  fill_to(most);
  expect_refused(storage_full, too_large);
  EXPECT_EQ(requests_for(update.target()), 0u);
  EXPECT_EQ(place_.phases.size(), 2u);
  fill_to(most + 1);
  expect_refused(storage_full, too_large);
  EXPECT_EQ(requests_for(update.target()), 0u);
  fill_to(most);
  EXPECT_EQ(place_.stage(), staged(update));
}

TEST_F(LauncherStagings, WantNoMoreRoomForADownloadThatHasItAlready) {
  place_.publish(first_);
  break_off(first_.target(), 10);
  const std::uint64_t unpacked = first_.document.at("archive").at("expanded_length").get<std::uint64_t>();
  const std::uint64_t most = 4'294'967'296 - 1'048'576 - unpacked;
  fill_to(most + 1);
  expect_refused(storage_full, too_large);
  fill_to(most);
  EXPECT_EQ(place_.stage(), staged(first_));
}

TEST_F(LauncherStagings, WantNoRoomForFilesThatAreUnpackedAlready) {
  place_.publish(first_);
  place_.stage();
  place_.launcher.set("candidate", nullptr);
  fill_to(4'294'967'296 - 1'048'576 + 1);
  expect_refused(storage_full, too_large);
  fill_to(4'294'967'296 - 1'048'576);
  EXPECT_EQ(place_.stage(), staged(first_));
}

TEST_F(LauncherStagings, LetEachFolderHaveItsEntries) {
  const std::map<std::filesystem::path, std::size_t> limits = {
      {place_.paths().downloads, 48},        {place_.paths().manifests, 31}, {place_.paths().health, 63},
      {place_.paths().attempt_leases, 127},  {place_.paths().intents, 15},   {place_.paths().staging, 15},
      {place_.paths().download_intents, 32},
  };
  for (const auto& [folder, limit] : limits) {
    add_entries(folder, limit - 1);
    EXPECT_NO_THROW(require_launcher_budget(place_.paths(), 0)) << folder;
    add_entries(folder, limit);
    const auto failure = failure_of([&] { require_launcher_budget(place_.paths(), 0); });
    ASSERT_TRUE(failure) << folder;
    EXPECT_EQ(failure->code, storage_full);
    EXPECT_STREQ(failure->what(), too_many);
    EXPECT_EQ(failure->details, Hints{"self cleanup"});
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
  }
}

TEST_F(LauncherStagings, AreRefusedForTooManyRecordsBeforeTheRepositoryIsAsked) {
  place_.publish(first_);
  for (const auto& [folder, limit] : {std::pair(place_.paths().health, 63u), std::pair(place_.paths().staging, 15u)}) {
    add_entries(folder, limit);
    place_.tuf.transport.forget();
    expect_refused_at_once(storage_full, too_many, {"self cleanup"});
    EXPECT_TRUE(place_.tuf.transport.requests().empty());
    std::filesystem::remove(folder / "entry-0");
  }
  EXPECT_EQ(place_.stage(), staged(first_));
}

TEST_F(LauncherStagings, AdmitADownloadThatHasRoomForItsFiles) {
  const LauncherDownload download = {.required = 5, .signed_length = 7, .has_receipt = false};
  const auto admit = [&](const LauncherDownload& asked, std::uint64_t present, bool complete) {
    return failure_of([&] {
      admit_launcher_download(place_.paths(), asked,
                              {.directory = {}, .complete = complete, .resumed = present > 0, .bytes = present});
    });
  };
  EXPECT_FALSE(admit(download, 7, false));
  const auto beyond = admit(download, 8, false);
  ASSERT_TRUE(beyond);
  EXPECT_EQ(beyond->code, storage_full);
  EXPECT_STREQ(beyond->what(), "Existing download exceeds its signed budget");
  EXPECT_TRUE(beyond->details.empty());
  // The bytes that are there already, and all of a download with a receipt, are in the store.
  const std::uint64_t room = 4'294'967'296 - 1'048'576;
  fill_to(room - 12);
  EXPECT_FALSE(admit(download, 0, false));
  fill_to(room - 11);
  EXPECT_STREQ(admit(download, 0, false).value().what(), too_large);
  EXPECT_FALSE(admit(download, 1, false));
  LauncherDownload receipted = download;
  receipted.has_receipt = true;
  fill_to(room - 5);
  EXPECT_FALSE(admit(receipted, 0, false));
  fill_to(room - 4);
  EXPECT_STREQ(admit(receipted, 0, false).value().what(), too_large);
  fill(0);
  add_entries(place_.paths().downloads, 46);
  EXPECT_FALSE(admit(download, 0, false));
  add_entries(place_.paths().downloads, 47);
  const auto no_room = admit(download, 0, false);
  ASSERT_TRUE(no_room);
  EXPECT_EQ(no_room->code, storage_full);
  EXPECT_STREQ(no_room->what(), no_slot);
  EXPECT_EQ(no_room->details, Hints{"self cleanup"});
  EXPECT_FALSE(admit(receipted, 0, false));
  EXPECT_FALSE(admit(download, 7, true));
}

TEST_F(LauncherStagings, WantSlotsForANewDownload) {
  place_.publish(first_);
  // The manifest makes it 46, with the folder of the archive 47.
  add_entries(place_.paths().downloads, 45);
  std::filesystem::create_directory(place_.paths().downloads / "builds");
  expect_refused(storage_full, no_slot, {"self cleanup"});
  EXPECT_EQ(requests_for(first_.target()), 0u);
  std::filesystem::remove(place_.paths().downloads / "entry-0");
  EXPECT_EQ(place_.stage(), staged(first_));
}

// --- What is on the disk already ---

TEST_F(LauncherStagings, BelieveNoStoredManifestByItsName) {
  place_.publish(first_);
  const auto manifest = place_.root().write("launcher/manifests/" + first_.sha256() + ".json", first_.text() + " ");
  expect_refused("content_mismatch", "Immutable launcher descriptor changed");
  EXPECT_TRUE(std::filesystem::is_empty(place_.paths().versions));
  testing::write_bytes(manifest, first_.text());
  EXPECT_EQ(place_.stage(), staged(first_));
}

TEST_F(LauncherStagings, ReuseAWholeVersionThatIsThere) {
  place_.publish(first_);
  place_.stage();
  place_.launcher.set("candidate", nullptr);
  const auto inode = link_status_of(payload(first_))->inode;
  EXPECT_EQ(place_.stage(), staged(first_));
  EXPECT_EQ(link_status_of(payload(first_))->inode, inode);
}

TEST_F(LauncherStagings, NeverReplaceADamagedVersionThatIsThere) {
  place_.publish(first_);
  place_.stage();
  place_.launcher.set("candidate", nullptr);
  testing::write_bytes(payload(first_) / "data/note", "NOTE");
  expect_refused("content_mismatch", "Game content differs from the verified manifest: data/note");
  EXPECT_EQ(value("candidate"), Json());
}

TEST_F(LauncherStagings, ReplaceADamagedDownloadAndGoOn) {
  place_.publish(first_);
  place_.stage();
  place_.launcher.set("candidate", nullptr);
  std::filesystem::remove_all(payload(first_));
  for (int i = 0; i < 2; ++i) {
    for (const std::string& target : {launcher_manifest_target(), first_.target()}) {
      testing::write_bytes(place_.paths().downloads / target, "damaged");
    }
    EXPECT_EQ(place_.stage(), staged(first_));
    EXPECT_EQ(launcher_download_receipts(place_.paths().store).size(), 2u);
  }
  EXPECT_EQ(testing::bytes_of(place_.paths().downloads / first_.target()), first_.archive);
  EXPECT_EQ(testing::bytes_of(place_.paths().downloads / launcher_manifest_target()), first_.text());
  LauncherDownloads(place_.paths().store).retire(first_.reference());
  EXPECT_EQ(launcher_download_receipts(place_.paths().store), Json::array());
}

TEST_F(LauncherStagings, ContinueADownloadThatBrokeOff) {
  LauncherUpdate update("build-1", testing::noise(100'000));
  place_.publish(update);
  break_off(update.target(), 50'000);
  place_.tuf.transport.forget();
  EXPECT_EQ(place_.stage(), staged(update));
  bool resumed = false;
  for (const testing::RepositoryRequest& request : place_.tuf.transport.requests()) {
    resumed = resumed || request.offset > 0;
  }
  EXPECT_TRUE(resumed);
}

TEST_F(LauncherStagings, GiveUpADownloadOfAVersionThatIsNoLongerTheNewest) {
  place_.publish(first_);
  break_off(launcher_manifest_target(), 100);
  place_.publish(second_);
  EXPECT_EQ(place_.stage(), staged(second_));
  EXPECT_EQ(launcher_download_receipts(place_.paths().store).size(), 2u);
  EXPECT_EQ(entries(place_.paths().downloads), 2u);
}

// What ends of the process leave of downloads.
TEST_F(LauncherStagings, GetOverWhatACrashHasLeftOfADownload) {
  place_.publish(first_);
  const std::string target = launcher_manifest_target();
  const Json receipt =
      testing::receipt_of(target, testing::nonce_of('1'), "prepared", testing::description_of(first_.text()), nullptr);
  const std::string intent = "launcher/download-intents/" + testing::nonce_of('1') + ".json";
  const std::string partial = "launcher/downloads/" + text_at(receipt, "temporary");
  const auto write = [&](const std::string& path, const std::string& bytes) {
    std::filesystem::permissions(place_.root().write(path, bytes), std::filesystem::perms(0600));
  };
  const std::vector<std::pair<const char*, std::function<void()>>> leftovers = {
      {"an empty write of a receipt", [&] { write(intent + testing::write_ending('a'), ""); }},
      {"the start of a receipt", [&] { write(intent + testing::write_ending('a'), receipt.dump().substr(0, 50)); }},
      {"a receipt without its name", [&] { write(intent + testing::write_ending('a'), receipt.dump()); }},
      {"a receipt alone", [&] { write(intent, receipt.dump()); }},
      {"a receipt and another file in the target's place",
       [&] {
         write(intent, receipt.dump());
         write("launcher/downloads/" + target, "older");
       }},
      {"a partial file without its checkpoint",
       [&] {
         write(intent, receipt.dump());
         write(partial, first_.text().substr(0, 10));
       }},
      {"a partial file and the start of its checkpoint",
       [&] {
         write(intent, receipt.dump());
         write(partial, first_.text().substr(0, 10));
         write(partial + ".resume.json" + testing::write_ending('b'), "{\"auth");
       }},
      {"a checkpoint without its partial file",
       [&] {
         write(intent, receipt.dump());
         write(partial + ".resume.json", testing::checkpoint_of(receipt, 0).dump());
       }},
      {"a complete receipt of a file that is damaged",
       [&] {
         Json complete = receipt;
         complete["phase"] = "complete";
         write(intent, complete.dump());
         write("launcher/downloads/" + target, "damaged");
       }},
  };
  for (const auto& [what, leave] : leftovers) {
    leave();
    EXPECT_NO_THROW(EXPECT_EQ(place_.stage(), staged(first_)) << what) << what;
    EXPECT_EQ(launcher_download_receipts(place_.paths().store).size(), 2u) << what;
    EXPECT_EQ(entries(place_.paths().download_intents), 2u) << what;
    EXPECT_EQ(entries(place_.paths().downloads), 2u) << what;
    place_.launcher.set("candidate", nullptr);
    for (const char* folder : {"downloads", "download-intents"}) {
      for (const auto& entry : std::filesystem::directory_iterator(place_.paths().store / folder)) {
        std::filesystem::remove_all(entry.path());
      }
    }
  }
}

TEST_F(LauncherStagings, PreserveAPartialFileThatIsNotTheOneOfItsCheckpoint) {
  place_.publish(first_);
  break_off(launcher_manifest_target(), 100);
  place_.publish(second_);
  const Json group = launcher_download_receipts(place_.paths().store).at(0);
  const auto partial = place_.paths().downloads / text_at(group.at("receipt"), "temporary");
  const auto other = place_.root().write("other", "other");
  std::filesystem::rename(other, partial);
  const TreeState before = state();
  expect_refused("launcher_download_uncertain",
                 "A partial download is not the file of its checkpoint; it was preserved");
  EXPECT_TRUE(testing::same_tree(state(), before));
}

class RenumberedDownloads : public LauncherStagings {
 protected:
  RenumberedDownloads() : update_("build-1", testing::noise(100'000)) { place_.publish(update_); }

  void leave_partial(const std::string& target, std::uint64_t bytes) {
    break_off(target, bytes);
    place_.tuf.transport.forget();
    for (const Json& group : launcher_download_receipts(place_.paths().store)) {
      if (is_text(group.at("receipt").at("target"), target)) {
        partial_ = place_.paths().downloads / text_at(group.at("receipt"), "temporary");
      }
    }
  }

  std::filesystem::path checkpoint() const { return partial_.native() + ".resume.json"; }

  // As a volume has another number after a start of the machine.
  void renumber() const {
    edit([](Json& state) { state.at("identity").at(0) = state.at("identity").at(0).get<std::uint64_t>() ^ 1; });
  }

  void edit(const std::function<void(Json& state)>& change) const {
    Json state = Json::parse(testing::bytes_of(checkpoint()));
    change(state);
    testing::write_bytes(checkpoint(), state.dump());
  }

  // As in a copy of the data folder.
  void copy() const {
    const std::string bytes = testing::bytes_of(partial_);
    const std::filesystem::path new_one = place_.root().write("copy", bytes);
    std::filesystem::permissions(new_one, std::filesystem::perms(0600));
    std::filesystem::rename(new_one, partial_);
  }

  void forget_bytes() const {
    edit([](Json& state) {
      state.at("received") = 0;
      state.at("prefix_sha256") = digest("", "sha256");
    });
  }

  // As a write of a checkpoint that ended before the checkpoint had its name.
  std::filesystem::path leave_write(char nonce, std::uint64_t received, const std::string& prefix) const {
    Json state = Json::parse(testing::bytes_of(checkpoint()));
    state.at("received") = received;
    state.at("prefix_sha256") = digest(prefix, "sha256");
    const std::filesystem::path write = checkpoint().native() + testing::write_ending(nonce);
    testing::write_bytes(write, state.dump());
    std::filesystem::permissions(write, std::filesystem::perms(0600));
    return write;
  }

  void expect_begun_anew(const LauncherUpdate& update) {
    EXPECT_EQ(place_.stage(), staged(update));
    for (const testing::RepositoryRequest& request : place_.tuf.transport.requests()) {
      EXPECT_EQ(request.offset, 0u) << request.name;
    }
    EXPECT_EQ(launcher_download_receipts(place_.paths().store).size(), 2u);
    EXPECT_FALSE(std::filesystem::exists(partial_) || std::filesystem::exists(checkpoint()));
    EXPECT_EQ(testing::bytes_of(place_.paths().downloads / update.target()), update.archive);
  }

  void expect_preserved(const std::string& code, const std::string& message) {
    const TreeState before = testing::tree_state(place_.paths().downloads);
    EXPECT_FAILURE(place_.stage(), code, message);
    EXPECT_TRUE(testing::same_tree(testing::tree_state(place_.paths().downloads), before));
  }

  // Neither the same version nor a newer one takes it away.
  void expect_preserved_for_any_version() {
    expect_preserved("allocation_changed", "Prepared file was replaced or changed; reserved content was preserved");
    place_.publish(second_);
    expect_preserved("launcher_download_uncertain",
                     "A partial download is not the file of its checkpoint; it was preserved");
  }

  const LauncherUpdate update_;
  std::filesystem::path partial_;
};

TEST_F(RenumberedDownloads, AreBegunAnew) {
  leave_partial(update_.target(), 50'000);
  renumber();
  expect_begun_anew(update_);
}

TEST_F(RenumberedDownloads, AreBegunAnewWithoutAnyByte) {
  leave_partial(update_.target(), 50'000);
  renumber();
  forget_bytes();
  expect_begun_anew(update_);
}

TEST_F(RenumberedDownloads, AreBegunAnewInACopiedFolder) {
  leave_partial(update_.target(), 50'000);
  copy();
  expect_begun_anew(update_);
}

TEST_F(RenumberedDownloads, GiveWayToANewerVersion) {
  leave_partial(launcher_manifest_target(), 100);
  renumber();
  place_.publish(second_);
  expect_begun_anew(second_);
}

TEST_F(RenumberedDownloads, ArePreservedWhereTheirBytesAreOthers) {
  leave_partial(launcher_manifest_target(), 100);
  renumber();
  std::string bytes = testing::bytes_of(partial_);
  bytes[99] = static_cast<char>(bytes[99] ^ 1);
  testing::write_bytes(partial_, bytes);
  expect_preserved_for_any_version();
}

TEST_F(RenumberedDownloads, ArePreservedWhereTheyAreShorterThanTheirCheckpoint) {
  leave_partial(launcher_manifest_target(), 100);
  renumber();
  std::filesystem::resize_file(partial_, 99);
  expect_preserved_for_any_version();
}

TEST_F(RenumberedDownloads, OfACopiedFolderAreBegunAnewWithoutAnyByte) {
  leave_partial(update_.target(), 50'000);
  copy();
  forget_bytes();
  expect_begun_anew(update_);
}

TEST_F(RenumberedDownloads, AreBegunAnewBesideAWriteOfTheirCheckpointForOtherBytes) {
  leave_partial(update_.target(), 50'000);
  renumber();
  leave_write('b', 40'000, "others");
  leave_write('c', 60'000, "others");
  expect_begun_anew(update_);
}

TEST_F(RenumberedDownloads, WithoutTheirCheckpointAreKnownByOneOfItsWrites) {
  leave_partial(update_.target(), 50'000);
  renumber();
  leave_write('b', 60'000, "others");
  const std::filesystem::path write = leave_write('c', 30'000, update_.archive.substr(0, 30'000));
  std::filesystem::remove(checkpoint());
  std::filesystem::rename(write, place_.root() / "write");
  expect_preserved("launcher_download_uncertain",
                   "A partial download is not the file of its checkpoint; it was preserved");
  std::filesystem::rename(place_.root() / "write", write);
  expect_begun_anew(update_);
}

TEST_F(LauncherStagings, AreRefusedForReceiptsThatAreNotUnderstood) {
  place_.publish(first_);
  const auto foreign = place_.root().write("launcher/download-intents/foreign", "");
  expect_refused_at_once("launcher_download_uncertain", "Unknown download receipt names preserve the target store");
  std::filesystem::remove(foreign);
  place_.root().write("launcher/download-intents/" + testing::nonce_of('1') + ".json" + testing::write_ending('a'),
                      "{\"authority");
  expect_refused_at_once("launcher_download_uncertain", "Unrecognized receipt-write bytes were preserved");
  EXPECT_TRUE(place_.phases.empty());
}

TEST_F(LauncherStagings, AreRefusedForAStoreWithALink) {
  place_.publish(first_);
  std::filesystem::create_symlink("/", place_.paths().staging / "link");
  expect_refused_at_once("unsafe_path", "Tree contains a link or special file");
}

TEST_F(LauncherStagings, AreRefusedForADocumentThatIsNotUnderstood) {
  place_.publish(first_);
  place_.root().write("launcher/installation.json", "{}");
  expect_refused_at_once("launcher_state", "Launcher installation record is malformed; it was preserved");
}

// --- Stopping ---

TEST_F(LauncherStagings, CanBeCancelledAtEveryReport) {
  install(first_);
  place_.publish(second_);
  std::set<std::string> told;
  for (int most = 0;; ++most) {
    const TreeState before = lasting();
    int count = 0;
    const auto failure =
        failure_of([&] { place_.stage(false, [&](std::uint64_t, std::uint64_t) { return count++ < most; }); });
    if (!failure) {
      EXPECT_GT(most, 5);
      break;
    }
    EXPECT_EQ(failure->code, "cancelled") << failure->what();
    told.insert(failure->what());
    EXPECT_EQ(value("candidate"), Json());
    EXPECT_TRUE(
        testing::same_tree(testing::without(lasting(), {"manifests"}), testing::without(before, {"manifests"})));
  }
  // The download, the continued download, the proof of a download and the unpacking each have words of their own.
  EXPECT_EQ(told, (std::set<std::string>{"File verification cancelled", "Operation cancelled at a safe boundary",
                                         "Partial verification cancelled", "Transfer cancelled at a safe boundary"}));
  EXPECT_EQ(value("candidate"), second_.reference());
}

TEST_F(LauncherStagings, LeaveNoFilesOfAnArchiveThatIsNotWhatTheManifestSays) {
  LauncherUpdate update("build-1");
  update.files[2].content = "other";
  update.archive = testing::zstd_frame(testing::tar_archive(testing::members_of(update.files)));
  update.document["archive"]["sha256"] = digest(update.archive, "sha256");
  update.document["archive"]["length"] = update.archive.size();
  place_.publish(update);
  const auto failure = failure_of([&] { place_.stage(); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(value("candidate"), Json());
  for (const auto& folder : {place_.paths().staging, place_.paths().intents, place_.paths().versions}) {
    EXPECT_TRUE(std::filesystem::is_empty(folder)) << folder;
  }
}

TEST_F(LauncherStagings, ChangeNothingWithoutTheRepository) {
  install(first_);
  place_.publish(second_);
  place_.tuf.transport.connected = false;
  const TreeState before = state();
  for (const bool background : {false, true}) {
    EXPECT_TRUE(failure_of([&] { place_.stage(background); })) << background;
    EXPECT_TRUE(testing::same_tree(state(), before));
  }
}

}  // namespace
}  // namespace ravok::launcher_staging_test
