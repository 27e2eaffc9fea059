#include "app/launcher/bootstrap_update.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/launcher/bootstrap_apply.hpp"
#include "domain/limits.hpp"
#include "platform/file/native_lock.hpp"
#include "support/bootstrap_place.hpp"
#include "support/clock_calls.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/patient_start.hpp"
#include "support/tuf_place.hpp"

namespace ravok::bootstrap_update_test {
namespace {

using testing::bootstrap_release;
using testing::BootstrapPlace;
using testing::BootstrapRelease;
using testing::ending_program;
using testing::failure_of;
using testing::tree_state;
using testing::TreeState;
using testing::TufPlace;
using testing::without;

// --- The contract of a release -------------------------------------------------------------

TEST(BootstrapManifestTarget, NamesThePlatform) {
  EXPECT_EQ(bootstrap_manifest_target(), "bootstrap-" + std::string(native_platform()) + ".manifest.json");
}

using Edit = std::function<void(Json&)>;

struct Refusal {
  const char* name;
  Edit edit;
  const char* code;
  const char* message;
};

std::vector<Refusal> refusals() {
  constexpr const char* incompatible = "launcher_incompatible";
  constexpr const char* lease = "Bootstrap updates require the current native lifetime contract";
  constexpr const char* missing = "Bootstrap update data contract is missing";
  constexpr const char* unsupported = "Bootstrap update data contract is unsupported";
  return {
      {"kind", [](Json& d) { d["kind"] = "ravok-launcher-release"; }, incompatible,
       "Initial bootstrap schema or ABI is unsupported"},
      {"no lease", [](Json& d) { d.erase("runtime_lease_abi"); }, incompatible, lease},
      {"another lease", [](Json& d) { d["runtime_lease_abi"] = 2; }, incompatible, lease},
      {"a float", [](Json& d) { d["runtime_lease_abi"] = 1.0; }, incompatible, lease},
      {"no schema", [](Json& d) { d.erase("application_schema"); }, incompatible, missing},
      {"a schema that is none",
       [](Json& d) {
         d["application_schema"] = Json::array({1, 1});
       },
       incompatible, missing},
      {"no minimum", [](Json& d) { d["application_schema"].erase("minimum"); }, incompatible, unsupported},
      {"another minimum", [](Json& d) { d["application_schema"]["minimum"] = 2; }, incompatible, unsupported},
      {"no maximum", [](Json& d) { d["application_schema"].erase("maximum"); }, incompatible, unsupported},
      {"another maximum", [](Json& d) { d["application_schema"]["maximum"] = "1"; }, incompatible, unsupported},
      {"another platform", [](Json& d) { d["platform"] = "macos-aarch64"; }, incompatible,
       "Bootstrap update targets another platform"},
      {"a large archive", [](Json& d) { d["archive"]["length"] = 1'073'741'825; }, "size_limit",
       "Bootstrap update exceeds its size limit"},
  };
}

// A manifest with so many files, the program included.
Json with_files(std::size_t count) {
  std::vector<testing::SampleFile> files(count - 1);
  for (std::size_t i = 0; i < files.size(); ++i) {
    files[i].path = "f" + std::to_string(i);
  }
  return bootstrap_release("build-1", ending_program(0), files).document;
}

TEST(ValidateBootstrapUpdate, AcceptsWhatKeepsEveryRule) {
  Json document = bootstrap_release("build-1", ending_program(0)).document;
  document["archive"]["length"] = 1'073'741'824;
  validate_bootstrap_update(SnapshotManifest::parse(document));
  validate_bootstrap_update(SnapshotManifest::parse(with_files(4096)));
}

TEST(ValidateBootstrapUpdate, RefusesEachRuleThatIsBroken) {
  for (const Refusal& refusal : refusals()) {
    SCOPED_TRACE(refusal.name);
    Json document = bootstrap_release("build-1", ending_program(0)).document;
    refusal.edit(document);
    const SnapshotManifest manifest = SnapshotManifest::parse(document);
    EXPECT_FAILURE(validate_bootstrap_update(manifest), refusal.code, refusal.message);
  }
  const SnapshotManifest many = SnapshotManifest::parse(with_files(4097));
  EXPECT_FAILURE(validate_bootstrap_update(many), "size_limit", "Bootstrap update exceeds its size limit");
}

TEST(ParseBootstrapUpdate, TurnsEveryFaultOfATextIntoAFailure) {
  const auto code = [](const std::string& text) { return failure_of([&] { parse_bootstrap_update(text); })->code; };
  EXPECT_EQ(code(""), "invalid_json");
  EXPECT_EQ(code("[]"), "unsupported_schema");
  EXPECT_EQ(code("{\"a\": 1, \"a\": 1}"), "duplicate_key");
  EXPECT_EQ(code(std::string(maximum_manifest_bytes + 1, ' ')), "size_limit");
  EXPECT_EQ(code(bootstrap_release("b", ending_program(0), {{"a.old", ""}}).text()), "launcher_incompatible");
}

// --- Staging -------------------------------------------------------------------------------

class StageBootstrapUpdate : public ::testing::Test {
 protected:
  StageBootstrapUpdate() { place.install(old); }

  // Puts a release into the repository, which has nothing published yet.
  void publish(const BootstrapRelease& release) {
    repo().add(bootstrap_manifest_target(), release.text());
    repo().add(release.archive_target(), release.archive);
    publish();
  }
  void publish() {
    if (begun) {
      tuf.repository.publish();
    } else {
      tuf.begin();
      begun = true;
    }
  }
  testing::TestRole& repo() { return tuf.repository.targets(); }

  std::string stage(const ProgressCallback& progress = {}) {
    const auto client = tuf.client();
    return stage_bootstrap_update(place.data.root, *client, progress);
  }
  // All of the data folder but what the repository's client keeps for itself.
  TreeState state() const { return without(tree_state(place.data.root), {"trust", "native/bootstrap-downloads"}); }
  static bool exists(const std::filesystem::path& path) { return std::filesystem::exists(path); }

  void expect_staged(const BootstrapRelease& release) const {
    EXPECT_EQ(BootstrapPlace::read(place.paths.update_manifest), release.text());
    EXPECT_TRUE(
        testing::same_tree(BootstrapPlace::files_in(place.paths.update_tree), BootstrapPlace::files_of(release)));
    EXPECT_FALSE(exists(place.paths.partial_tree));
    EXPECT_FALSE(exists(place.paths.rejected));
    EXPECT_TRUE(place.holds(old));
  }
  // Expects a refusal that leaves everything as it is, and nothing that would be applied.
  void expect_refused(const std::string& code, const std::string& message) {
    const TreeState before = without(state(), {"native/bootstrap-update.lock"});
    EXPECT_FAILURE(stage(), code, message);
    EXPECT_TRUE(testing::same_tree(without(state(), {"native/bootstrap-update.lock"}), before));
  }

  // The name under which the archive of a release is asked for.
  static std::string archive_name(const BootstrapRelease& release) {
    const std::string& target = release.archive_target();
    const std::size_t name = target.rfind('/') + 1;
    return target.substr(0, name) + digest(release.archive, "sha256") + "." + target.substr(name);
  }
  std::string archive_name() const { return archive_name(next); }
  // Breaks the download of the archive of the published release off behind 10 bytes.
  void break_off() { break_off(next); }
  void break_off(const BootstrapRelease& release) {
    tuf.transport.on(archive_name(release), testing::breaks_after(10));
    EXPECT_FAILURE(stage(), "network", "Transferred a partial file");
    tuf.transport.on(archive_name(release), {});
    tuf.transport.forget();
  }
  // The names of the files that were fetched, without those of their folders and their nonces.
  std::multiset<std::string> fetched() const {
    std::multiset<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(place.paths.downloads)) {
      if (!entry.is_directory()) {
        std::string name = entry.path().filename();
        const std::size_t nonce = name.find(".partial");
        names.insert(nonce == std::string::npos ? name : name.erase(nonce - 32, 33));
      }
    }
    return names;
  }
  // The checkpoint of that download.
  std::filesystem::path checkpoint() const {
    for (const auto& entry : std::filesystem::directory_iterator(place.paths.downloads / "bootstrap")) {
      if (entry.path().extension() == ".json") {
        return entry.path();
      }
    }
    return {};
  }
  // Where the only download of its archive since then began.
  std::uint64_t offset() const {
    std::vector<std::uint64_t> offsets;
    for (const testing::RepositoryRequest& request : tuf.transport.requests()) {
      if (request.name == archive_name()) {
        offsets.push_back(request.offset);
      }
    }
    EXPECT_EQ(offsets.size(), 1u);
    return offsets.empty() ? 0 : offsets.front();
  }

  static constexpr std::size_t archive_bytes = 16'384;

  TufPlace tuf;
  bool begun = false;
  const BootstrapPlace place{tuf.root / "data"};
  const BootstrapRelease old = bootstrap_release("build-1", ending_program(0, "old"), {{"data/note", "old note"}});
  // Its archive takes more room than the 10 bytes of one that was broken off.
  const BootstrapRelease next = bootstrap_release(
      "build-2", ending_program(0, "new"), {{"data/note", "new note"}, {"data/noise", testing::noise(archive_bytes)}});
};

TEST_F(StageBootstrapUpdate, PreparesWhatTheRepositoryHas) {
  publish(next);
  std::uint64_t most = 0;
  EXPECT_EQ(stage([&](std::uint64_t done, std::uint64_t total) {
              EXPECT_LE(done, total);
              most = std::max(most, done);
              return true;
            }),
            "staged");
  EXPECT_GE(most, next.archive.size());
  expect_staged(next);
  EXPECT_FALSE(exists(place.paths.downloads));
  EXPECT_EQ(apply_bootstrap_update(place.data.root, testing::endless_trial_clock()).end, BootstrapUpdateEnd::applied);
  EXPECT_TRUE(place.holds(next));
  EXPECT_EQ(stage(), "current");
  EXPECT_FALSE(exists(place.paths.update_manifest));
}

TEST_F(StageBootstrapUpdate, AsksNobodyWhileAnUpdateWaits) {
  publish(next);
  place.prepare(bootstrap_release("build-3", ending_program(0)));
  const TreeState before = state();
  EXPECT_EQ(stage(), "pending");
  EXPECT_EQ(tuf.transport.requests().size(), 0u);
  EXPECT_TRUE(testing::same_tree(state(), before));
}

// Who prepared it may have ended before that was durable.
TEST_F(StageBootstrapUpdate, SaysThatAnUpdateWaitsOnlyOnceNoPowerCutUndoesIt) {
  publish(next);
  place.prepare(bootstrap_release("build-3", ending_program(0)));
  {
    const testing::Planned plan(testing::failing("fsync", EIO));
    EXPECT_FAILURE(stage(), "file_sync", "Could not durably synchronize directory");
    EXPECT_TRUE(plan.happened());
  }
  EXPECT_EQ(stage(), "pending");
}

TEST_F(StageBootstrapUpdate, WaitsFifteenSecondsForTheLock) {
  publish(next);
  const NativeFileLock other(place.paths.update_lock, true, NativeLockSharing::others, LockMode::exclusive);
  const testing::StillClock clock;
  EXPECT_FAILURE(stage(), "busy", "Another worker owns this native installation");
  EXPECT_EQ(clock.slept(), std::chrono::seconds(15));
  EXPECT_EQ(tuf.transport.requests().size(), 0u);
}

TEST_F(StageBootstrapUpdate, GoesOnOnceTheLockIsFree) {
  publish(next);
  auto other =
      std::make_unique<NativeFileLock>(place.paths.update_lock, true, NativeLockSharing::others, LockMode::exclusive);
  const testing::StillClock clock([&] { other.reset(); });
  EXPECT_EQ(stage(), "staged");
  EXPECT_EQ(clock.sleeps(), 1u);
}

TEST_F(StageBootstrapUpdate, WaitsForNoLockThatIsNone) {
  publish(next);
  tuf.root.write("data/native/bootstrap-update.lock", "text");
  const testing::StillClock clock;
  EXPECT_FAILURE(stage(), "lock_failed", "Native ownership requires an ordinary empty private file");
  EXPECT_EQ(clock.sleeps(), 0u);
}

TEST_F(StageBootstrapUpdate, TakesNoFailureOfTheRepositoryForAnAnswer) {
  publish(next);
  tuf.transport.on("timestamp.json", testing::answers_with_status(503));
  expect_refused("http_status", "Could not download timestamp metadata");
}

TEST_F(StageBootstrapUpdate, SaysThatThereIsNone) {
  publish();
  const TreeState before = without(state(), {"native/bootstrap-update.lock"});
  EXPECT_EQ(stage(), "not_published");
  EXPECT_TRUE(testing::same_tree(without(state(), {"native/bootstrap-update.lock"}), before));
}

TEST_F(StageBootstrapUpdate, SaysThatTheInstalledOneIsTheNewest) {
  publish(old);
  tuf.root.write("data/native/bootstrap-update.partial/half", "of it");
  tuf.root.write("data/native/bootstrap-update/whole", "without its manifest");
  EXPECT_EQ(stage(), "current");
  EXPECT_FALSE(exists(place.paths.update_manifest));
  EXPECT_FALSE(exists(place.paths.downloads));
  EXPECT_FALSE(exists(place.paths.partial_tree));
  EXPECT_FALSE(exists(place.paths.update_tree));
}

TEST_F(StageBootstrapUpdate, RemembersOneThatHasFailedAndTakesTheNext) {
  const BootstrapRelease bad = bootstrap_release("build-2", ending_program(1));
  publish(bad);
  EXPECT_EQ(stage(), "staged");
  EXPECT_EQ(apply_bootstrap_update(place.data.root, testing::endless_trial_clock()).end, BootstrapUpdateEnd::rejected);
  tuf.root.write("data/native/bootstrap-update.partial/half", "of it");
  EXPECT_TRUE(exists(place.paths.update_tree));
  EXPECT_EQ(stage(), "rejected");
  EXPECT_FALSE(exists(place.paths.update_manifest));
  EXPECT_FALSE(exists(place.paths.partial_tree));
  EXPECT_FALSE(exists(place.paths.update_tree));
  EXPECT_EQ(BootstrapPlace::read(place.paths.rejected), bad.sha256());
  const BootstrapRelease good = bootstrap_release("build-3", ending_program(0));
  publish(good);
  EXPECT_EQ(stage(), "staged");
  expect_staged(good);
}

TEST_F(StageBootstrapUpdate, RefusesARecordOfRejectionThatIsTooLong) {
  publish(next);
  atomic_write(place.paths.rejected, std::string(129, 'a'));
  expect_refused("size_limit", "File exceeds read limit");
}

TEST_F(StageBootstrapUpdate, WantsAFinishedInstallation) {
  publish(next);
  tuf.root.write("data/.ravok-setup-incomplete", "{}");
  expect_refused("native_install_incomplete", "Ravok setup did not finish in " + place.data.root.native() +
                                                  ". Run the Ravok installer again to repair it.");
  std::filesystem::remove(place.data.installation_record);
  expect_refused("not_installed", "Bootstrap updates need an installed Ravok");
  EXPECT_EQ(tuf.transport.requests().size(), 0u);
}

TEST_F(StageBootstrapUpdate, RefusesAManifestThatIsTooLong) {
  repo().add(bootstrap_manifest_target(), std::string(maximum_manifest_bytes + 1, ' '));
  publish();
  expect_refused("size_limit", "Bootstrap update manifest exceeds 512 KiB");
}

TEST_F(StageBootstrapUpdate, RefusesAManifestOfAnotherKind) {
  BootstrapRelease other = next;
  other.document["runtime_lease_abi"] = 2;
  publish(other);
  expect_refused("launcher_incompatible", "Bootstrap updates require the current native lifetime contract");
}

TEST_F(StageBootstrapUpdate, RefusesAnArchiveThatIsNotSignedAsTheManifestSays) {
  constexpr const char* not_authorized = "Bootstrap archive is not authorized with its declared length and hash";
  repo().add(bootstrap_manifest_target(), next.text());
  repo().add(next.archive_target(), next.archive + "x");
  publish();
  expect_refused("content_mismatch", not_authorized);
  std::string other = next.archive;
  other.back() = static_cast<char>(other.back() ^ 1);
  repo().add(next.archive_target(), other);
  publish();
  expect_refused("content_mismatch", not_authorized);
  repo().add(next.archive_target(), next.archive, {"sha512"});
  publish();
  expect_refused("content_mismatch", not_authorized);
}

TEST_F(StageBootstrapUpdate, RefusesAnArchiveThatHoldsAnother) {
  BootstrapRelease other = next;
  other.document["files"][1]["sha256"] = std::string(64, 'a');
  publish(other);
  const auto failure = failure_of([&] { stage(); });
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->code, "content_mismatch");
  EXPECT_FALSE(exists(place.paths.update_manifest));
  EXPECT_TRUE(place.holds(old));
  // Nothing of it takes room or keeps the next from being prepared.
  EXPECT_FALSE(exists(place.paths.partial_tree));
  const BootstrapRelease good = bootstrap_release("build-3", ending_program(0));
  publish(good);
  EXPECT_EQ(stage(), "staged");
  expect_staged(good);
}

TEST_F(StageBootstrapUpdate, EndsWhereItIsCancelledAndGoesOnFromThere) {
  publish(next);
  for (int calls = 0;; ++calls) {
    int left = calls;
    std::string status;
    const auto failure = failure_of([&] { status = stage([&](std::uint64_t, std::uint64_t) { return left-- > 0; }); });
    EXPECT_TRUE(place.holds(old));
    if (!failure) {
      EXPECT_GT(calls, 3);
      EXPECT_EQ(status, "staged");
      break;
    }
    EXPECT_EQ(failure->code, "cancelled");
    EXPECT_FALSE(exists(place.paths.update_manifest));
    EXPECT_FALSE(exists(place.paths.partial_tree));
  }
  expect_staged(next);
}

// A server that stalls there would otherwise keep the user waiting.
TEST_F(StageBootstrapUpdate, IsCancelledAlreadyWhileItsManifestComes) {
  publish(next);
  const auto failure = failure_of([&] { stage([](std::uint64_t, std::uint64_t) { return false; }); });
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->code, "cancelled");
  for (const std::string& name : tuf.transport.names()) {
    EXPECT_FALSE(name.ends_with(".build-2.tar.zst")) << name;
  }
  EXPECT_TRUE(place.holds(old));
}

TEST_F(StageBootstrapUpdate, GoesOnAfterABrokenDownload) {
  publish(next);
  break_off();
  EXPECT_FALSE(exists(place.paths.update_manifest));
  EXPECT_EQ(stage(), "staged");
  EXPECT_EQ(offset(), 10u);
  expect_staged(next);
}

TEST_F(StageBootstrapUpdate, GoesOnAfterABrokenDownloadThatHadNoRoomForTheRest) {
  publish(next);
  break_off();
  {
    const testing::Planned plan(testing::failing("fallocate", ENOSPC));
    EXPECT_EQ(failure_of([&] { stage(); })->code, "insufficient_space");
    EXPECT_TRUE(plan.happened());
  }
  EXPECT_FALSE(exists(place.paths.downloads / next.archive_target()));
  EXPECT_EQ(stage(), "staged");
  EXPECT_EQ(offset(), 10u);
}

TEST_F(StageBootstrapUpdate, GoesOnAfterABrokenDownloadWhateverTheNetworkSaid) {
  publish(next);
  break_off();
  for (const char* code : {"file_read", "invalid_json"}) {
    tuf.transport.on(archive_name(), testing::fails_with_error(code, "of the network"));
    EXPECT_FAILURE(stage(), code, "of the network");
  }
  tuf.transport.on(archive_name(), {});
  tuf.transport.forget();
  EXPECT_EQ(stage(), "staged");
  EXPECT_EQ(offset(), 10u);
}

TEST_F(StageBootstrapUpdate, BeginsAnewWhatIsLeftOfADownloadThatCannotBeRead) {
  publish(next);
  const std::vector<std::pair<const char*, std::function<void(const std::filesystem::path&)>>> damages = {
      {"no JSON", [](const auto& checkpoint) { atomic_write(checkpoint, "{\"authorization"); }},
      {"a key twice", [](const auto& checkpoint) { atomic_write(checkpoint, R"({"a":1,"a":1})"); }},
      {"too long", [](const auto& checkpoint) { atomic_write(checkpoint, std::string(16'385, ' ')); }},
      {"a directory",
       [](const auto& checkpoint) {
         std::filesystem::remove(checkpoint);
         std::filesystem::create_directory(checkpoint);
       }},
      {"a link to nothing",
       [](const auto& checkpoint) {
         std::filesystem::remove(checkpoint);
         std::filesystem::create_symlink("nothing", checkpoint);
       }},
      {"a partial file of everybody",
       [](const auto& checkpoint) {
         std::filesystem::permissions(std::filesystem::path(checkpoint).replace_extension().replace_extension(),
                                      std::filesystem::perms(0644));
       }},
  };
  for (const auto& [name, damage] : damages) {
    SCOPED_TRACE(name);
    break_off();
    damage(checkpoint());
    EXPECT_EQ(stage(), "staged");
    EXPECT_EQ(offset(), 0u);
    expect_staged(next);
    std::filesystem::remove(place.paths.update_manifest);
  }
}

TEST_F(StageBootstrapUpdate, BeginsAnewWhereTheDiskDoesNotGiveACheckpointBack) {
  publish(next);
  bool is_begun_anew = false;
  for (int countdown = 1; !is_begun_anew; ++countdown) {
    break_off();
    const testing::Planned plan(testing::failing("read", EIO, countdown));
    const auto failure = failure_of([&] { stage(); });
    ASSERT_TRUE(plan.happened());
    is_begun_anew = !failure && offset() == 0;
    std::filesystem::remove(place.paths.update_manifest);
  }
}

TEST_F(StageBootstrapUpdate, FetchesInPlaceOfWhatIsNoDownload) {
  publish(next);
  const std::filesystem::path mine = tuf.root.write("mine/file", "mine");
  const std::filesystem::path folder = place.paths.downloads;
  const std::vector<std::pair<const char*, std::function<void()>>> plants = {
      {"a file", [&] { atomic_write(folder, "no folder"); }},
      {"a link to a folder", [&] { std::filesystem::create_directory_symlink(mine.parent_path(), folder); }},
      {"a link for the manifest",
       [&] {
         std::filesystem::create_directory(folder);
         std::filesystem::create_symlink(mine, folder / bootstrap_manifest_target());
       }},
  };
  for (const auto& [name, plant] : plants) {
    SCOPED_TRACE(name);
    plant();
    EXPECT_EQ(stage(), "staged");
    expect_staged(next);
    EXPECT_FALSE(exists(folder));
    EXPECT_EQ(tree_state(mine.parent_path()).size(), 1u);
    EXPECT_EQ(BootstrapPlace::read(mine), "mine");
    std::filesystem::remove(place.paths.update_manifest);
  }
}

// Its room may be what the next update lacks.
TEST_F(StageBootstrapUpdate, RemovesWhatWasFetchedOfOthersBeforeTheArchiveComes) {
  publish(next);
  break_off();
  // Of a run that was killed, in a folder of its own, and a file in the place of the archive.
  const std::filesystem::path folder = place.paths.downloads / "older/folder";
  std::filesystem::create_directories(folder);
  atomic_write(folder / "build-0.tar.zst", "older");
  atomic_write(place.paths.downloads / "bootstrap/build-3.tar.zst", "no archive");
  atomic_write(place.paths.downloads / "bootstrap" / ("build-3.tar.zst." + std::string(32, 'a') + ".partial"), "half");
  const BootstrapRelease newest =
      bootstrap_release("build-3", ending_program(0), {{"noise", testing::noise(archive_bytes)}});
  publish(newest);
  const std::multiset<std::string> expected = {bootstrap_manifest_target(), "build-3.tar.zst.partial",
                                               "build-3.tar.zst.partial.resume.json"};
  int asked = 0;
  tuf.transport.on(archive_name(newest), [&](const auto&, auto&) {
    ++asked;
    EXPECT_EQ(fetched(), expected);
    EXPECT_FALSE(exists(place.paths.downloads / "older"));
  });
  EXPECT_EQ(stage(), "staged");
  EXPECT_EQ(asked, 1);
  expect_staged(newest);
}

TEST_F(StageBootstrapUpdate, RemovesWhatWasFetchedOfOthersBeforeItsOwnGoesOn) {
  publish(next);
  break_off();
  std::filesystem::rename(place.paths.downloads / "bootstrap", place.data.root / "kept");
  const BootstrapRelease newest =
      bootstrap_release("build-3", ending_program(0), {{"noise", testing::noise(archive_bytes)}});
  publish(newest);
  break_off(newest);
  for (const auto& entry : std::filesystem::directory_iterator(place.data.root / "kept")) {
    std::filesystem::rename(entry.path(), place.paths.downloads / "bootstrap" / entry.path().filename());
  }
  EXPECT_EQ(fetched().count("build-2.tar.zst.partial"), 1u);
  {
    const testing::Planned full(testing::failing("fallocate", ENOSPC));
    EXPECT_EQ(failure_of([&] { stage(); })->code, "insufficient_space");
    EXPECT_TRUE(full.happened());
  }
  const std::multiset<std::string> expected = {bootstrap_manifest_target(), "build-3.tar.zst.partial",
                                               "build-3.tar.zst.partial.resume.json"};
  EXPECT_EQ(fetched(), expected);
  EXPECT_EQ(stage(), "staged");
  expect_staged(newest);
}

// Where the volume cannot reserve it, the room may end at any byte.
TEST_F(StageBootstrapUpdate, KeepsWhatHasComeWhereTheRestHasNoRoom) {
  publish(next);
  std::optional<testing::Planned> full;
  tuf.transport.on(archive_name(), [&](const auto&, auto&) { full.emplace(testing::failing("write", ENOSPC, 2)); });
  EXPECT_EQ(failure_of([&] { stage(); })->code, "insufficient_space");
  ASSERT_TRUE(full && full->happened());
  EXPECT_EQ(offset(), 0u);
  tuf.transport.on(archive_name(), {});
  tuf.transport.forget();
  EXPECT_EQ(stage(), "staged");
  EXPECT_GT(offset(), 0u);
  expect_staged(next);
}

TEST_F(StageBootstrapUpdate, BeginsAnewWhereADownloadCannotBeContinued) {
  publish(next);
  tuf.root.write(
      "data/native/bootstrap-downloads/bootstrap/build-2.tar.zst." + std::string(32, 'a') + ".partial.resume.json",
      "{}");
  for (const std::filesystem::path& folder : {place.paths.downloads, place.paths.downloads / "bootstrap"}) {
    std::filesystem::permissions(folder, std::filesystem::perms(0700));
  }
  EXPECT_EQ(failure_of([&] { stage(); })->code, "download_resume_state");
  EXPECT_EQ(stage(), "staged");
  expect_staged(next);
}

// As in a copied folder, and on a volume that has got another number.
TEST_F(StageBootstrapUpdate, BeginsAnewAtOnceWhereItsPartialFileHasAnotherIdentity) {
  publish(next);
  break_off();
  std::filesystem::rename(place.paths.downloads, place.paths.downloads.native() + ".old");
  std::filesystem::copy(place.paths.downloads.native() + ".old", place.paths.downloads,
                        std::filesystem::copy_options::recursive);
  EXPECT_EQ(stage(), "staged");
  EXPECT_EQ(offset(), 0u);
  expect_staged(next);
}

TEST_F(StageBootstrapUpdate, ReplacesWhatEarlierOnesHaveLeft) {
  publish(next);
  tuf.root.write("data/native/bootstrap-update.partial/half", "of it");
  tuf.root.write("data/native/bootstrap-update/bin/ravok-bootstrap", "another");
  tuf.root.write("data/native/bootstrap-old-files", "");
  tuf.root.write("data/native/bootstrap/data/note.old", "older note");
  atomic_write(place.paths.rejected, std::string(64, 'a'));
  // The room of both trees may be what the update needs.
  tuf.transport.on(archive_name(), [&](const auto&, auto&) {
    EXPECT_FALSE(exists(place.paths.partial_tree));
    EXPECT_FALSE(exists(place.paths.update_tree));
  });
  EXPECT_EQ(stage(), "staged");
  EXPECT_EQ(offset(), 0u);
  expect_staged(next);
  EXPECT_FALSE(exists(place.paths.old_files_mark));
}

TEST_F(StageBootstrapUpdate, LeavesNothingUnpackedWhereItsManifestCannotBeWritten) {
  publish(next);
  {
    const testing::Planned full(testing::failing_to_write("bootstrap-update.json", ENOSPC));
    EXPECT_FAILURE(stage(), "insufficient_space", "Local storage cannot save data; free space and try again");
    EXPECT_TRUE(full.happened());
  }
  EXPECT_FALSE(exists(place.paths.update_tree));
  EXPECT_FALSE(exists(place.paths.partial_tree));
  EXPECT_FALSE(exists(place.paths.update_manifest));
  EXPECT_EQ(stage(), "staged");
  expect_staged(next);
}

// A manifest that is in place but could not be flushed makes the next start look for the tree, also in a data folder
// that has another name by then.
TEST_F(StageBootstrapUpdate, KeepsTheTreeOfAManifestThatIsInPlace) {
  publish(next);
  const std::filesystem::path aside = place.data.root.native() + "-aside";
  for (const bool moves : {false, true}) {
    int kept = 0;
    std::string code = "none yet";
    for (int countdown = 1; !code.empty(); ++countdown) {
      {
        testing::Plan wanted = testing::failing("fsync", EIO, countdown);
        if (moves) {
          wanted.meanwhile = [&] { std::filesystem::rename(place.data.root, aside); };
        }
        const testing::Planned plan(wanted);
        const auto failure = failure_of([&] { stage(); });
        code = failure ? failure->code : "";
      }
      if (exists(aside)) {
        std::filesystem::rename(aside, place.data.root);
      }
      EXPECT_EQ(exists(place.paths.update_manifest), exists(place.paths.update_tree)) << countdown;
      if (exists(place.paths.update_manifest)) {
        kept += code.empty() ? 0 : 1;
        expect_staged(next);
      }
      std::filesystem::remove(place.paths.update_manifest);
      std::filesystem::remove_all(place.paths.update_tree);
    }
    EXPECT_EQ(kept, 1);
  }
}

}  // namespace
}  // namespace ravok::bootstrap_update_test
