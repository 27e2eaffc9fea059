#include "app/launcher/launcher_cleanup.hpp"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/download/launcher_downloads.hpp"
#include "app/launcher/launcher_staging.hpp"
#include "platform/file/tree.hpp"
#include "support/clock_calls.hpp"
#include "support/download_builder.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/staging_place.hpp"
#include "support/tree_state.hpp"
#include "tuf/target_fetch.hpp"

namespace ravok::launcher_cleanup_test {
namespace {

using testing::failure_of;
using testing::LauncherUpdate;
using testing::nonce_of;
using testing::staged;
using testing::tree_state;
using testing::TreeState;

constexpr const char* record = R"({"kind":"ravok-launcher-cleanup","schema_version":1})";

class LauncherCleanups : public ::testing::Test {
 protected:
  // Breaks off the download of the manifest that is published, after 10 bytes.
  void break_off_the_manifest() {
    const Json description = place_.tuf.repository.targets().targets.at(launcher_manifest_target());
    const std::string name = remote_target_name(launcher_manifest_target(), description, true);
    place_.tuf.transport.on(name, testing::breaks_after(10));
    EXPECT_FAILURE(place_.stage(), "network", "Transferred a partial file");
    place_.tuf.transport.on(name, {});
  }

  Json clean() { return clean_launcher_store(place_.launcher.store); }

  // What was removed, but for what was not.
  static Json removed(const Json& result) {
    Json counts = result.at("removed");
    for (auto count = counts.begin(); count != counts.end();) {
      count = *count == 0 ? counts.erase(count) : std::next(count);
    }
    return counts;
  }
  static Json kept(const std::string& path, const char* reason) { return {{"path", path}, {"reason", reason}}; }

  TreeState state() const { return tree_state(place_.paths().store); }
  std::filesystem::path write(const std::string& path, const std::string& bytes) const {
    const auto file = place_.root().write("launcher/" + path, bytes);
    std::filesystem::permissions(file, std::filesystem::perms(0600));
    return file;
  }
  bool exists(const std::string& path) const { return std::filesystem::exists(place_.paths().store / path); }
  std::filesystem::path payload(const LauncherUpdate& update) const { return place_.paths().version(update.sha256()); }
  std::string version(const LauncherUpdate& update) const { return "versions/" + update.sha256(); }

  // Leaves what a staging has begun to unpack, and returns its intent.
  Json leave_staging() const {
    Json intent = {{"schema_version", 1},
                   {"kind", "ravok-launcher-staging"},
                   {"nonce", nonce_of('1')},
                   {"reference", updates_[1].reference()}};
    write("intents/" + nonce_of('1') + ".json", intent.dump());
    write("staging/" + nonce_of('1') + "/bin/program", "half");
    return intent;
  }

  // Installs four versions one after the other: the active one, the rollback and two that nothing names.
  void install_four() {
    for (const LauncherUpdate& update : updates_) {
      place_.update(update);
    }
  }

  void expect_refused(const char* code, const char* message) {
    const TreeState before = state();
    EXPECT_FAILURE(clean(), code, message);
    EXPECT_TRUE(testing::same_tree(state(), before));
  }

  testing::StagingPlace place_;
  const std::vector<LauncherUpdate> updates_ = {LauncherUpdate("build-1"), LauncherUpdate("build-2"),
                                                LauncherUpdate("build-3"), LauncherUpdate("build-4")};
};

TEST_F(LauncherCleanups, RemoveVersionsThatNothingNamesAndAllDownloads) {
  install_four();
  const TreeState active = tree_state(payload(updates_[3]));
  const TreeState rollback = tree_state(payload(updates_[2]));
  const std::string document = place_.launcher.document_text();
  const std::uint64_t before = tree_bytes(place_.paths().store, 1000);
  const Json result = clean();
  EXPECT_EQ(result.at("cleaned"), true);
  EXPECT_EQ(removed(result), (Json{{"downloads", 5}, {"versions", 2}}));
  EXPECT_EQ(result.at("kept"), Json::array());
  EXPECT_EQ(result.at("bytes"), before - tree_bytes(place_.paths().store, 1000));
  EXPECT_GT(result.at("bytes"), 0);
  EXPECT_EQ(place_.launcher.document_text(), document);
  EXPECT_TRUE(testing::same_tree(tree_state(payload(updates_[3])), active));
  EXPECT_TRUE(testing::same_tree(tree_state(payload(updates_[2])), rollback));
  for (const LauncherUpdate& gone : {updates_[0], updates_[1]}) {
    EXPECT_FALSE(exists(version(gone)));
    EXPECT_FALSE(exists("manifests/" + gone.sha256() + ".json"));
    EXPECT_FALSE(exists("leases/versions/" + gone.sha256() + ".lock"));
  }
  for (const LauncherUpdate& named : {updates_[2], updates_[3]}) {
    EXPECT_EQ(place_.launcher.store.manifest_text(named.reference()), named.text());
  }
  for (const char* folder : {"downloads", "download-intents", "staging", "intents"}) {
    EXPECT_TRUE(std::filesystem::is_empty(place_.paths().store / folder)) << folder;
  }
  EXPECT_FALSE(exists("cleanup.json"));
}

TEST_F(LauncherCleanups, FindNothingToDoTheSecondTime) {
  install_four();
  clean();
  const TreeState before = state();
  const Json result = clean();
  EXPECT_EQ(removed(result), Json::object());
  EXPECT_EQ(result.at("bytes"), 0);
  EXPECT_TRUE(testing::same_tree(state(), before));
  EXPECT_EQ(place_.stage(), (Json{{"staged", false}, {"already_current", true}}));
}

TEST_F(LauncherCleanups, KeepTheCandidateAndTheFailedVersion) {
  install_four();
  place_.launcher.set("candidate", updates_[0].reference());
  place_.launcher.set("failed_candidate", {{"reference", updates_[1].reference()}, {"problem", "startup_failed"}});
  EXPECT_FALSE(removed(clean()).contains("versions"));
  for (const LauncherUpdate& update : updates_) {
    EXPECT_TRUE(exists(version(update)));
  }
}

TEST_F(LauncherCleanups, KeepAVersionThatSomebodyRuns) {
  install_four();
  std::unique_ptr<FileLock> guard = place_.launcher.store.version_guard(updates_[0].reference(), LockMode::shared);
  const TreeState before = tree_state(payload(updates_[0]));
  const Json result = clean();
  EXPECT_EQ(removed(result).at("versions"), 1);
  EXPECT_EQ(result.at("kept"), Json::array({kept(version(updates_[0]), "in_use")}));
  EXPECT_TRUE(testing::same_tree(tree_state(payload(updates_[0])), before));
  EXPECT_EQ(place_.launcher.store.manifest_text(updates_[0].reference()), updates_[0].text());
  EXPECT_TRUE(testing::is_lock_busy(place_.paths().version_lease(updates_[0].sha256())));
  guard.reset();
  EXPECT_EQ(removed(clean()), (Json{{"versions", 1}}));
}

TEST_F(LauncherCleanups, RemoveOnlyTheFilesThatTheManifestNames) {
  install_four();
  testing::write_bytes(payload(updates_[0]) / "data/log", "of a user");
  const Json result = clean();
  EXPECT_EQ(result.at("kept"), Json::array({kept(version(updates_[0]), "unmanaged_files")}));
  EXPECT_EQ(testing::bytes_of(payload(updates_[0]) / "data/log"), "of a user");
  EXPECT_FALSE(exists(version(updates_[0]) + "/bin"));
  // Nobody takes what is left for a version.
  EXPECT_FALSE(exists("manifests/" + updates_[0].sha256() + ".json"));
  std::filesystem::remove(payload(updates_[0]) / "data/log");
  EXPECT_EQ(removed(clean()), (Json{{"versions", 1}}));
  EXPECT_FALSE(exists("manifests/" + updates_[0].sha256() + ".json.removed"));
}

TEST_F(LauncherCleanups, PreserveWhatWasChangedOrIsNotUnderstood) {
  install_four();
  std::filesystem::remove(payload(updates_[0]) / "data/note");
  std::filesystem::create_directory(payload(updates_[0]) / "data/note");
  write("manifests/" + updates_[1].sha256() + ".json", updates_[1].text() + " ");
  std::filesystem::create_directory(place_.paths().versions / "other");
  write("versions/" + std::string(64, 'a') + "/file", "");
  write("versions/" + std::string(64, 'b'), "no folder");
  write("manifests/other.json", "");
  write("staging/" + nonce_of('1') + "/file", "");
  write("intents/" + nonce_of('2') + ".json", "{}");
  write("health/other", "");
  const TreeState versions = tree_state(place_.paths().versions);
  Json expected = Json::array(
      {kept(version(updates_[0]), "changed"), kept(version(updates_[1]), "not_understood"),
       kept("versions/other", "not_understood"), kept("versions/" + std::string(64, 'a'), "not_understood"),
       kept("versions/" + std::string(64, 'b'), "not_understood"), kept("manifests/other.json", "not_understood"),
       kept("staging/" + nonce_of('1'), "not_understood"), kept("intents/" + nonce_of('2') + ".json", "not_understood"),
       kept("health/other", "not_understood")});
  Json result = clean().at("kept");
  std::sort(expected.begin(), expected.end());
  std::sort(result.begin(), result.end());
  EXPECT_EQ(result, expected);
  EXPECT_TRUE(testing::same_tree(tree_state(place_.paths().versions), versions));
  EXPECT_TRUE(exists("staging/" + nonce_of('1') + "/file"));
  EXPECT_TRUE(exists("manifests/other.json"));
}

TEST_F(LauncherCleanups, RemoveWhatStagingsHaveLeft) {
  place_.update(updates_[0]);
  const Json intent = leave_staging();
  Json second = intent;
  second["nonce"] = nonce_of('2');
  write("intents/" + nonce_of('2') + ".json", second.dump());
  write("intents/" + nonce_of('3') + ".json" + testing::write_ending('a'), "{");
  write("manifests/" + updates_[1].sha256() + ".json", updates_[1].text());
  write("manifests/" + updates_[2].sha256() + ".json" + testing::write_ending('a'), "{");
  write("installation.json" + testing::write_ending('a'), "{");
  const Json result = clean();
  EXPECT_EQ(removed(result), (Json{{"downloads", 2}, {"manifests", 1}, {"stagings", 1}}));
  EXPECT_EQ(result.at("kept"), Json::array());
  EXPECT_TRUE(std::filesystem::is_empty(place_.paths().staging));
  EXPECT_TRUE(std::filesystem::is_empty(place_.paths().intents));
  EXPECT_EQ(tree_state(place_.paths().manifests).size(), 1u);
  EXPECT_FALSE(exists("installation.json" + testing::write_ending('a')));
}

TEST_F(LauncherCleanups, PreserveAStagingThatNoIntentOfItsOwnExplains) {
  place_.update(updates_[0]);
  clean();
  const std::string nonce = nonce_of('1');
  const Json intent = {{"schema_version", 1},
                       {"kind", "ravok-launcher-staging"},
                       {"nonce", nonce},
                       {"reference", updates_[1].reference()}};
  const auto expect_kept = [&](const std::string& name, const Json& record_of_it) {
    write("intents/" + name + ".json", record_of_it.dump());
    write("staging/" + name + "/bin/program", "half");
    EXPECT_EQ(clean().at("kept"), Json::array({kept("staging/" + name, "not_understood"),
                                               kept("intents/" + name + ".json", "not_understood")}));
    EXPECT_TRUE(exists("staging/" + name + "/bin/program"));
  };
  for (const auto& [key, value] :
       std::map<std::string, Json>{{"schema_version", 2}, {"kind", "other"}, {"nonce", nonce_of('2')}, {"other", 1}}) {
    SCOPED_TRACE(key);
    Json other = intent;
    other[key] = value;
    expect_kept(nonce, other);
  }
  expect_kept(nonce, "text");
  write("intents/" + nonce + ".json", intent.dump());
  EXPECT_EQ(removed(clean()), (Json{{"stagings", 1}}));
  Json other = intent;
  other["nonce"] = "other";
  expect_kept("other", other);
}

TEST_F(LauncherCleanups, RemoveTheLeasesOfVersionsThatAreGone) {
  install_four();
  for (const LauncherUpdate& update : updates_) {
    write("leases/versions/" + update.sha256() + ".lock", "");
  }
  write("leases/versions/" + std::string(64, 'a') + ".lock", "");
  write("leases/versions/other", "");
  const Json result = clean();
  EXPECT_EQ(result.at("kept"), Json::array({kept("leases/versions/other", "not_understood")}));
  for (const LauncherUpdate& update : updates_) {
    const bool is_named = update.sha256() == updates_[2].sha256() || update.sha256() == updates_[3].sha256();
    EXPECT_EQ(exists("leases/versions/" + update.sha256() + ".lock"), is_named);
  }
  EXPECT_FALSE(exists("leases/versions/" + std::string(64, 'a') + ".lock"));
}

TEST_F(LauncherCleanups, KeepTheFailedVersionAlone) {
  install_four();
  place_.launcher.set("failed_candidate", {{"reference", updates_[1].reference()}, {"problem", "startup_failed"}});
  EXPECT_EQ(removed(clean()).at("versions"), 1);
  EXPECT_FALSE(exists(version(updates_[0])));
  EXPECT_TRUE(exists(version(updates_[1])));
}

TEST_F(LauncherCleanups, RemoveAVersionThatCameBackAfterItsRemoval) {
  install_four();
  write("manifests/" + updates_[0].sha256() + ".json.removed", updates_[0].text());
  EXPECT_EQ(removed(clean()).at("versions"), 2);
  EXPECT_FALSE(exists(version(updates_[0])));
  EXPECT_FALSE(exists("manifests/" + updates_[0].sha256() + ".json.removed"));
  EXPECT_FALSE(exists("manifests/" + updates_[0].sha256() + ".json"));
}

TEST_F(LauncherCleanups, RemoveAnEmptyFolderThatIsAllThatIsLeftOfAVersion) {
  install_four();
  const std::string bare = std::string(64, 'a');
  std::filesystem::create_directory(place_.paths().version(bare));
  // Of a version that is named, not even this goes.
  std::filesystem::remove_all(payload(updates_[2]));
  std::filesystem::create_directory(payload(updates_[2]));
  std::filesystem::remove(place_.launcher.manifest_path(updates_[2].reference()));
  const Json result = clean();
  EXPECT_EQ(removed(result).at("versions"), 3);
  EXPECT_EQ(result.at("kept"), Json::array());
  EXPECT_FALSE(exists("versions/" + bare));
  EXPECT_TRUE(exists(version(updates_[2])));
}

TEST_F(LauncherCleanups, RemoveWhatEndedStartsHaveLeft) {
  place_.update(updates_[0]);
  for (const char digit : {'1', '2', '3'}) {
    write("health/" + nonce_of(digit) + ".json", "{}");
    write("leases/attempts/" + nonce_of(digit) + ".json", "{}");
  }
  write("leases/attempts/" + nonce_of('1') + ".lock", "");
  write("leases/attempts/" + nonce_of('2') + ".lock", "");
  write("health/" + nonce_of('4') + ".json" + testing::write_ending('a'), "{");
  const FileLock running(place_.paths().attempt_lease(nonce_of('2')), false, LockMode::shared);
  const Json result = clean();
  EXPECT_EQ(removed(result).at("attempts"), 2);
  EXPECT_EQ(tree_state(place_.paths().health).size(), 1u);
  EXPECT_EQ(tree_state(place_.paths().attempt_leases).size(), 2u);
  EXPECT_TRUE(exists("health/" + nonce_of('2') + ".json"));
}

TEST_F(LauncherCleanups, EndBesideALeaseThatIsNone) {
  place_.update(updates_[0]);
  const std::string lease = "leases/attempts/" + nonce_of('1') + ".lock";
  write(lease, "");
  std::filesystem::permissions(place_.paths().attempt_lease(nonce_of('1')), std::filesystem::perms(0644));
  const Json result = clean();
  EXPECT_EQ(result.at("kept"), (Json{{{"path", lease}, {"reason", "not_understood"}}}));
  EXPECT_FALSE(removed(result).contains("attempts"));
  EXPECT_TRUE(exists(lease));
  EXPECT_FALSE(exists("cleanup.json"));
}

TEST_F(LauncherCleanups, GiveUpUnfinishedAndDamagedDownloads) {
  place_.update(updates_[0]);
  testing::write_bytes(place_.paths().downloads / updates_[0].target(), "damaged");
  place_.publish(updates_[1]);
  const Json description = place_.tuf.repository.targets().targets.at(updates_[1].target());
  place_.tuf.transport.on(remote_target_name(updates_[1].target(), description, true), testing::breaks_after(10));
  EXPECT_FAILURE(place_.stage(), "network", "Transferred a partial file");
  write("download-intents/" + nonce_of('9') + ".json" + testing::write_ending('a'), "{\"auth");
  write("downloads/stray/file", "");
  EXPECT_EQ(removed(clean()).at("downloads"), 3);
  EXPECT_TRUE(std::filesystem::is_empty(place_.paths().downloads));
  EXPECT_TRUE(std::filesystem::is_empty(place_.paths().download_intents));
  place_.tuf.transport.on(remote_target_name(updates_[1].target(), description, true), {});
  EXPECT_EQ(place_.stage(), staged(updates_[1]));
}

TEST_F(LauncherCleanups, PreserveAPartialDownloadThatIsNotTheOneOfItsCheckpoint) {
  place_.update(updates_[0]);
  place_.publish(updates_[1]);
  break_off_the_manifest();
  std::string partial;
  for (const Json& group : launcher_download_receipts(place_.paths().store)) {
    if (is_text(group.at("receipt").at("phase"), "prepared")) {
      partial = text_at(group.at("receipt"), "temporary");
    }
  }
  std::filesystem::rename(place_.root().write("other", "other"), place_.paths().downloads / partial);
  const Json result = clean();
  EXPECT_EQ(result.at("kept"), Json::array({kept("downloads/" + partial, "changed")}));
  EXPECT_EQ(testing::bytes_of(place_.paths().downloads / partial), "other");
  EXPECT_TRUE(exists("downloads/" + partial + ".resume.json"));
  EXPECT_EQ(launcher_download_receipts(place_.paths().store).size(), 1u);
}

// As on a volume that has got another number.
TEST_F(LauncherCleanups, RemoveAPartialDownloadWithAnotherIdentityAndTheBytesOfItsCheckpoint) {
  place_.update(updates_[0]);
  place_.publish(updates_[1]);
  break_off_the_manifest();
  std::filesystem::path checkpoint;
  for (const auto& entry : std::filesystem::directory_iterator(place_.paths().downloads)) {
    checkpoint = entry.path().native().ends_with(".resume.json") ? entry.path() : checkpoint;
  }
  Json state = Json::parse(testing::bytes_of(checkpoint));
  state.at("identity").at(0) = state.at("identity").at(0).get<std::uint64_t>() ^ 1;
  testing::write_bytes(checkpoint, state.dump());
  const Json result = clean();
  EXPECT_EQ(result.at("kept"), Json::array());
  EXPECT_TRUE(std::filesystem::is_empty(place_.paths().downloads));
  EXPECT_TRUE(std::filesystem::is_empty(place_.paths().download_intents));
}

TEST_F(LauncherCleanups, FinishWhatAnotherHasBegun) {
  install_four();
  write("cleanup.json", record);
  EXPECT_EQ(removed(clean()), (Json{{"downloads", 5}, {"versions", 2}}));
  EXPECT_FALSE(exists("cleanup.json"));
  for (const std::string& other : {std::string("{}"), std::string(record) + " "}) {
    write("cleanup.json", other);
    expect_refused("unsupported_schema", "Unknown launcher cleanup was preserved");
  }
}

TEST_F(LauncherCleanups, RecoverNothingAndMakeNoRoomBesideAMarkOfAnotherVersion) {
  install_four();
  leave_staging();
  place_.launcher.set("attempt", {{"nonce", nonce_of('1')}, {"reference", updates_[2].reference()}});
  write("cleanup.json", "{}");
  {
    const testing::Planned full(testing::failing_to_write("installation.json", ENOSPC));
    expect_refused("unsupported_schema", "Unknown launcher cleanup was preserved");
  }
  expect_refused("unsupported_schema", "Unknown launcher cleanup was preserved");
}

// Who made the mark may have ended before that was durable.
TEST_F(LauncherCleanups, RemoveNothingBeforeTheMarkOfAnotherIsDurable) {
  place_.update(updates_[0]);
  clean();
  write("cleanup.json", record);
  write("downloads/stray", "");
  {
    const testing::Planned plan(testing::failing("fsync", EIO));
    expect_refused("file_sync", "Could not durably synchronize directory");
    EXPECT_TRUE(plan.happened());
  }
  clean();
  EXPECT_FALSE(exists("downloads/stray"));
}

TEST_F(LauncherCleanups, MakeTheRoomThatTheyNeedThemselves) {
  install_four();
  leave_staging();
  write("health/" + nonce_of('2') + ".json", "{}");
  write("health/other", "");
  write("installation.json" + testing::write_ending('a'), "{");
  const testing::Planned full(testing::failing_to_write("cleanup.json", ENOSPC));
  const Json result = clean();
  EXPECT_TRUE(full.happened());
  EXPECT_EQ(removed(result), (Json{{"attempts", 1}, {"downloads", 5}, {"stagings", 1}, {"versions", 2}}));
  EXPECT_EQ(result.at("kept"), Json::array({kept("health/other", "not_understood")}));
  EXPECT_FALSE(exists("cleanup.json"));
}

TEST_F(LauncherCleanups, RemoveWhatLeavesNothingHalfWayWhereNoRoomCanBeMade) {
  install_four();
  const LauncherUpdate next("build-5");
  place_.publish(next);
  break_off_the_manifest();
  leave_staging();
  write("health/" + nonce_of('2') + ".json", "{}");
  write("installation.json" + testing::write_ending('a'), "{");
  const TreeState versions = tree_state(place_.paths().versions);
  {
    testing::Plan plan = testing::failing_to_write("cleanup.json", ENOSPC);
    plan.lasts = true;
    const testing::Planned full(plan);
    EXPECT_FAILURE(clean(), "insufficient_space", "Local storage cannot save data; free space and try again");
  }
  for (const char* folder : {"downloads", "download-intents", "staging", "intents", "health"}) {
    EXPECT_TRUE(std::filesystem::is_empty(place_.paths().store / folder)) << folder;
  }
  EXPECT_FALSE(exists("installation.json" + testing::write_ending('a')));
  EXPECT_FALSE(exists("cleanup.json"));
  EXPECT_TRUE(testing::same_tree(tree_state(place_.paths().versions), versions));
  EXPECT_EQ(place_.stage(), staged(next));
}

TEST_F(LauncherCleanups, RecoverAStartThatWasInterrupted) {
  install_four();
  place_.launcher.set("attempt", {{"nonce", nonce_of('1')}, {"reference", updates_[0].reference()}});
  EXPECT_EQ(removed(clean()), (Json{{"attempts", 1}, {"downloads", 5}, {"versions", 1}}));
  EXPECT_EQ(place_.launcher.value("attempt"), nullptr);
  EXPECT_EQ(place_.launcher.value("failed_candidate"),
            (Json{{"reference", updates_[0].reference()}, {"problem", "startup_interrupted"}}));
  EXPECT_TRUE(exists(version(updates_[0])));
  EXPECT_FALSE(exists(version(updates_[1])));
}

// Neither the document nor a lease can be written on a full volume.
TEST_F(LauncherCleanups, MakeTheRoomToRecoverAStartThatWasInterrupted) {
  install_four();
  for (const std::string& name : {std::string("installation.json"), nonce_of('1')}) {
    SCOPED_TRACE(name);
    leave_staging();
    place_.launcher.set("attempt", {{"nonce", nonce_of('1')}, {"reference", updates_[2].reference()}});
    place_.launcher.set("failed_candidate", nullptr);
    testing::Plan plan = testing::failing_to_write(name, ENOSPC);
    plan.meanwhile = [&] { EXPECT_TRUE(exists("staging/" + nonce_of('1'))); };
    const testing::Planned full(plan);
    EXPECT_EQ(removed(clean()).at("stagings"), 1);
    EXPECT_TRUE(full.happened());
    EXPECT_EQ(place_.launcher.value("attempt"), nullptr);
    EXPECT_EQ(place_.launcher.value("failed_candidate").at("problem"), "startup_interrupted");
  }
}

// That is no lack of room.
TEST_F(LauncherCleanups, RemoveNothingWhereTheLeaseOfAnInterruptedStartIsNone) {
  install_four();
  leave_staging();
  place_.launcher.set("attempt", {{"nonce", nonce_of('1')}, {"reference", updates_[2].reference()}});
  const auto lease = write("leases/attempts/" + nonce_of('1') + ".lock", "");
  std::filesystem::permissions(lease, std::filesystem::perms(0644));
  expect_refused("lock_failed", "Operation lock must be an ordinary private owned file");
}

TEST_F(LauncherCleanups, AreRefusedWhereTheStoreIsNotSettled) {
  place_.launcher.store.owner();
  expect_refused("launcher_missing", "No working launcher is installed");
  install_four();
  place_.launcher.set("attempt", {{"nonce", nonce_of('1')}, {"reference", updates_[0].reference()}});
  {
    const FileLock running(place_.paths().attempt_lease(nonce_of('1')), false, LockMode::shared);
    expect_refused("busy", "A launcher startup must finish before its store is cleaned");
  }
  place_.launcher.set("attempt", nullptr);
  const auto foreign = write("download-intents/foreign", "");
  expect_refused("launcher_download_uncertain", "Unknown download receipt names preserve the target store");
  std::filesystem::remove(foreign);
  std::filesystem::create_symlink("/", place_.paths().staging / "link");
  expect_refused("unsafe_path", "Tree contains a link or special file");
  std::filesystem::remove(place_.paths().staging / "link");
  const std::string document = place_.launcher.document_text();
  write("installation.json", "{}");
  expect_refused("launcher_state", "Launcher installation record is malformed; it was preserved");
  write("installation.json", document);
  EXPECT_EQ(removed(clean()).at("versions"), 2);
}

TEST_F(LauncherCleanups, AreRefusedWhileAnotherHoldsTheStore) {
  install_four();
  const auto owner = place_.launcher.store.owner();
  const testing::StillClock clock;
  expect_refused("busy", "Another Ravok operation is using this state");
}

// A document that was lost must not cost any version.
TEST_F(LauncherCleanups, RemoveNothingWithoutTheDocument) {
  install_four();
  std::filesystem::remove(place_.paths().document);
  expect_refused("launcher_missing", "No working launcher is installed");
}

// A store serves as many updates as ever come, if it is cleaned whenever a staging has no room.
TEST_F(LauncherCleanups, MakeRoomForHundredsOfUpdates) {
  place_.launcher.store.owner();
  int cleanups = 0;
  for (int i = 1; i <= 200; ++i) {
    const LauncherUpdate update("build-" + std::to_string(i));
    place_.tuf.repository.targets().targets.clear();
    place_.publish(update);
    if (const auto failure = failure_of([&] { place_.stage(); })) {
      ASSERT_EQ(failure->code, "launcher_storage_full");
      ASSERT_EQ(removed(clean()).at("versions"), 6);
      ASSERT_EQ(place_.stage(), staged(update));
      ++cleanups;
    }
    // What a start leaves.
    const std::string nonce = digest(std::to_string(i), "sha256").substr(0, 32);
    write("health/" + nonce + ".json", "{}");
    write("leases/attempts/" + nonce + ".json", "{}");
    write("leases/attempts/" + nonce + ".lock", "");
    place_.confirm();
  }
  EXPECT_EQ(place_.launcher.value("active").at("build_id"), "build-200");
  EXPECT_EQ(cleanups, 32);
}

}  // namespace
}  // namespace ravok::launcher_cleanup_test
