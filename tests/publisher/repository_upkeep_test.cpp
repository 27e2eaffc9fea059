// What keeps a repository alive between its releases: refresh, withdraw, and drafts that are signed over a long time.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/download/installed_repository.hpp"
#include "domain/crypto.hpp"
#include "publisher/repository/discard_draft.hpp"
#include "publisher/repository/key_rotation.hpp"
#include "publisher/repository/repository_draft.hpp"
#include "publisher/repository/repository_status.hpp"
#include "support/failure.hpp"
#include "support/repository_place.hpp"
#include "support/tree_state.hpp"

namespace ravok::repository_upkeep_test {
namespace {

using testing::PlaceRoles;
using testing::RepositoryPlace;
using testing::same_tree;
using testing::tree_state;
using testing::TreeState;
using Names = std::vector<std::string>;
using Versions = std::vector<std::uint64_t>;

constexpr const char* launcher_target = "launcher-linux-x86_64.manifest.json";

void expect_unchanged(const RepositoryPlace& place, const TreeState& before) {
  EXPECT_TRUE(same_tree(tree_state(place.folder), before));
}

TEST(RepositoryRefresh, SaysThatNothingIsDueWhileHalfOfTheDaysAreLeft) {
  RepositoryPlace place;
  place.init();
  place.now = parse_tuf_time("2030-01-08T00:00:00Z");
  const TreeState before = tree_state(place.folder);
  const RefreshOutcome outcome = place.refresh();
  EXPECT_FALSE(outcome.was_due);
  EXPECT_FALSE(outcome.repository.published);
  ASSERT_TRUE(outcome.next_due);
  EXPECT_EQ(tuf_time_text(*outcome.next_due), "2030-01-08T00:00:00Z");
  expect_unchanged(place, before);
}

TEST(RepositoryRefresh, RemovesWhatAKilledRunHasLeftWhenNothingIsDue) {
  const RepositoryPlace place;
  place.init();
  const TreeState before = tree_state(place.folder);
  place.root.write("repository/draft/targets/copied", "bytes");
  EXPECT_FALSE(place.refresh().was_due);
  expect_unchanged(place, before);
  place.release({place.launcher("1.0.0")}, {});
  const TreeState waiting = tree_state(place.folder);
  EXPECT_FALSE(place.refresh().was_due);
  expect_unchanged(place, waiting);
}

TEST(RepositoryRefresh, RenewsOnlyWhatIsDue) {
  RepositoryPlace place;
  place.init();
  place.now = parse_tuf_time("2030-01-08T00:00:01Z");
  const RefreshOutcome first = place.refresh();
  EXPECT_EQ(first.repository.roles, (Names{"timestamp"}));
  EXPECT_EQ(place.versions(), (Versions{1, 1, 1, 2}));
  EXPECT_EQ(tuf_time_text(*first.next_due), "2030-01-15T00:00:01Z");
  place.now = parse_tuf_time("2030-01-16T00:00:01Z");
  EXPECT_EQ(place.refresh().repository.roles, (Names{"snapshot", "timestamp"}));
  EXPECT_EQ(place.versions(), (Versions{1, 1, 2, 3}));
  place.now = parse_tuf_time("2030-07-10T00:00:00Z");
  EXPECT_EQ(place.refresh().repository.roles, (Names{"targets", "snapshot", "timestamp"}));
  EXPECT_EQ(place.versions(), (Versions{1, 2, 3, 4}));
  EXPECT_EQ(place.seen_build(), "");
}

TEST(RepositoryRefresh, GivesAsManyDaysAsItIsTold) {
  const RepositoryPlace place;
  place.init();
  const RefreshOutcome outcome = refresh_repository({place.folder, 40, false}, place.signers(), place.now);
  EXPECT_EQ(outcome.repository.roles, (Names{"timestamp"}));
  EXPECT_EQ(tuf_time_text(outcome.repository.state.role("timestamp").expires()), "2030-02-10T00:00:00Z");
  EXPECT_FAILURE(refresh_repository({place.folder, 36'501, false}, place.signers(), place.now), "invalid_expiry",
                 "Documents are valid for 1 to 36500 days, not 36501");
}

TEST(RepositoryRefresh, MakesATimestampOnRequestWhenNothingIsDue) {
  const RepositoryPlace place;
  place.init();
  EXPECT_TRUE(refresh_repository({place.folder, {}, true}, place.signers(), place.now).was_due);
  EXPECT_EQ(place.versions(), (Versions{1, 1, 1, 2}));
}

TEST(RepositoryRefresh, BringsBackARepositoryThatHasExpired) {
  RepositoryPlace place;
  place.init();
  place.release({place.launcher("1.0.0")});
  EXPECT_EQ(place.seen_build(), "1.0.0");
  place.now = parse_tuf_time("2040-01-01T00:00:00Z");
  EXPECT_FAILURE(place.seen_build(), "expired_metadata",
                 "Repository metadata has expired; previously installed games remain playable");
  place.refresh();
  EXPECT_EQ(place.seen_build(), "1.0.0");
  EXPECT_EQ(place.versions(), (Versions{1, 3, 3, 3}));
}

TEST(RepositoryRefresh, NeedsTheKeysOfTheTimestampAloneWhileTheOthersLast) {
  PlaceRoles roles;
  roles.targets = {{"offline"}, 1};
  roles.snapshot = {{"offline"}, 1};
  RepositoryPlace place(roles);
  place.init({"online", "offline"});
  place.now = parse_tuf_time("2030-01-25T00:00:00Z");
  const RefreshOutcome outcome = place.refresh();
  EXPECT_TRUE(outcome.repository.published);
  EXPECT_EQ(outcome.repository.roles, (Names{"timestamp"}));
  EXPECT_EQ(outcome.left, (Names{"snapshot"}));
  // What has expired is made all the same, and waits for its keys.
  place.now = parse_tuf_time("2030-02-01T00:00:00Z");
  const RefreshOutcome waiting = place.refresh();
  EXPECT_FALSE(waiting.repository.published);
  EXPECT_EQ(needs_text(waiting.repository.needs), "the role snapshot needs 1 more signature, by offline");
}

TEST(RepositoryRefresh, RefusesARootThatHasExpired) {
  PlaceRoles roles;
  roles.root_expires = "2040-01-01T00:00:00Z";
  RepositoryPlace place(roles);
  place.init();
  place.now = parse_tuf_time("2040-01-01T00:00:00Z");
  const TreeState before = tree_state(place.folder);
  EXPECT_FAILURE(place.refresh(), "expired_role",
                 "The root document has expired on 2040-01-01; give the repository a new one with 'ravok-publish "
                 "repository rotate'");
  expect_unchanged(place, before);
}

TEST(RepositoryRefresh, RefusesAKeyOfNoRole) {
  RepositoryPlace place;
  place.init();
  place.key("stranger");
  const std::string message = "The key stranger speaks for no role of this repository";
  for (const char* const time : {"2030-01-01T00:00:00Z", "2030-01-10T00:00:00Z"}) {
    place.now = parse_tuf_time(time);
    const TreeState before = tree_state(place.folder);
    EXPECT_FAILURE(place.refresh({"stranger"}), "wrong_key", message);
    EXPECT_FAILURE(place.refresh({"online", "stranger"}), "wrong_key", message);
    expect_unchanged(place, before);
  }
}

TEST(RepositoryRefresh, WorksBesideADraftThatWaits) {
  PlaceRoles roles;
  roles.targets = {{"ann", "ben"}, 2};
  RepositoryPlace place(roles);
  place.init({"online", "ann", "ben"});
  place.release({place.launcher("1.0.0")}, {"ann"});
  place.now = parse_tuf_time("2030-01-20T00:00:00Z");
  const RefreshOutcome outcome = place.refresh();
  EXPECT_TRUE(outcome.repository.published);
  EXPECT_EQ(place.versions(), (Versions{1, 1, 2, 2}));
  EXPECT_EQ(place.seen_build(), "");
  // The draft lives on, with numbers above those that were used meanwhile.
  RepositorySession session(place.folder, place.now);
  ASSERT_TRUE(session.draft());
  EXPECT_TRUE(session.conclude(*session.draft(), place.signers({"ben", "online"})).published);
  EXPECT_EQ(place.versions(), (Versions{1, 2, 3, 3}));
  EXPECT_EQ(place.seen_build(), "1.0.0");
}

TEST(RepositoryRefresh, MakesWhatHasWaitedTooLongAnew) {
  PlaceRoles roles;
  roles.timestamp = {{"ann", "ben"}, 2};
  RepositoryPlace place(roles);
  place.init({"online", "ann", "ben"});
  place.release({place.launcher("1.0.0")}, {"online", "ann"});
  place.now = parse_tuf_time("2030-01-16T00:00:00Z");
  RepositorySession session(place.folder, place.now);
  ASSERT_TRUE(session.draft());
  // The signature of the first has gone with the timestamp that would have expired.
  EXPECT_EQ(needs_text(session.draft()->needs()), "the role timestamp needs 2 more signatures, by ann or ben");
  EXPECT_TRUE(session.conclude(*session.draft(), place.signers({"ann", "ben"})).published);
  EXPECT_EQ(place.seen_build(), "1.0.0");
}

TEST(RepositoryWithdrawal, PublishesTheFormerBuildAsSomethingNewer) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1.0.0", "one")});
  place.release({place.launcher("1.0.1", "two")});
  EXPECT_EQ(place.seen_build(), "1.0.1");
  const WithdrawalOutcome outcome = place.withdraw("1.0.1");
  ASSERT_EQ(outcome.builds.size(), 1u);
  EXPECT_EQ(outcome.builds.front().target, launcher_target);
  EXPECT_EQ(outcome.builds.front().build, "launcher build 1.0.1 for linux-x86_64");
  EXPECT_EQ(outcome.builds.front().former_build_id, "1.0.0");
  // The client that has seen 1.0.1 takes it for no rollback.
  EXPECT_EQ(place.seen_build(), "1.0.0");
  EXPECT_EQ(place.versions(), (Versions{1, 4, 4, 4}));
  EXPECT_TRUE(place.release({place.launcher("1.0.2", "three")}).repository.published);
  EXPECT_EQ(place.seen_build(), "1.0.2");
}

TEST(RepositoryWithdrawal, GoesBackPastWhatWasWithdrawnBefore) {
  const RepositoryPlace place;
  place.init();
  const std::filesystem::path second = place.launcher("2", "two");
  place.release({place.launcher("1", "one")});
  place.release({second});
  place.release({place.launcher("3", "three")});
  place.withdraw("3");
  EXPECT_EQ(place.seen_build(), "2");
  place.withdraw("2");
  EXPECT_EQ(place.seen_build(), "1");
  // A build that is released again, as it was, is withdrawn again.
  place.release({second});
  EXPECT_EQ(place.seen_build(), "2");
  place.withdraw("2");
  EXPECT_EQ(place.seen_build(), "1");
  place.withdraw("1");
  EXPECT_EQ(place.seen_build(), "");
}

TEST(RepositoryWithdrawal, LeavesOtherTargetsAsTheyAre) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1", "one"), place.build(SnapshotKind::bootstrap, "2")});
  place.release({place.launcher("2", "two")});
  place.release({place.build(SnapshotKind::game, "7")});
  const WithdrawalOutcome outcome = place.withdraw("2");
  ASSERT_EQ(outcome.builds.size(), 2u);
  EXPECT_EQ(outcome.builds.front().build, "bootstrap build 2 for linux-x86_64");
  EXPECT_EQ(outcome.builds.front().former_build_id, "");
  EXPECT_EQ(place.seen_build(), "1");
  EXPECT_EQ(place.seen_build("bootstrap-linux-x86_64.manifest.json"), "");
  EXPECT_EQ(place.seen_build("games/game/linux-x86_64.manifest.json"), "7");
}

TEST(RepositoryWithdrawal, RefusesABuildThatIsNotThereAndOneWhoseFormerFilesAreGone) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1", "one")});
  const std::filesystem::path first_archive =
      place.folder / "public/tuf/targets" /
      target_file("launcher-linux-x86_64-1.tar.zst", RepositoryFolder(place.folder, RepositoryFolder::Use::read)
                                                         .state()
                                                         .targets()
                                                         .at("launcher-linux-x86_64-1.tar.zst")
                                                         .at("hashes")
                                                         .at("sha256")
                                                         .get<std::string>());
  place.release({place.launcher("2", "two")});
  const TreeState before = tree_state(place.folder);
  EXPECT_FAILURE(place.withdraw("3"), "build_not_published",
                 "The repository describes no build 3 now, so there is nothing to withdraw");
  expect_unchanged(place, before);
  std::filesystem::remove(first_archive);
  EXPECT_FAILURE(place.withdraw("2"), "missing_file",
                 "The file of the target launcher-linux-x86_64-1.tar.zst is missing or has another length: " +
                     first_archive.native());
  EXPECT_EQ(place.seen_build(), "2");
  EXPECT_TRUE(place.release({place.launcher("3", "three")}).repository.published);
}

TEST(RepositoryWithdrawal, RefusesAKeyOfNoRole) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1")});
  place.key("stranger");
  const TreeState before = tree_state(place.folder);
  EXPECT_FAILURE(place.withdraw("1", {"stranger"}), "wrong_key",
                 "The key stranger speaks for no role of this repository");
  expect_unchanged(place, before);
}

// Signers of which one fails: the one that is asked for a signature after so many others.
std::vector<Signer> failing_signers(const RepositoryPlace& place, const Names& names, std::size_t good) {
  const auto made = std::make_shared<std::size_t>(0);
  std::vector<Signer> signers = place.signers(names);
  for (Signer& signer : signers) {
    signer.sign = [made, good, sign = signer.sign](std::string_view payload) {
      require((*made)++ < good, "signer_failed", "The token is locked");
      return sign(payload);
    };
  }
  return signers;
}

TEST(FailedSigners, LeaveNoDraftOfAWithdrawalOrARefresh) {
  RepositoryPlace place;
  place.init();
  place.release({place.launcher("1")});
  place.now = parse_tuf_time("2030-07-10T00:00:00Z");
  place.refresh();
  const TreeState before = tree_state(place.folder);
  for (std::size_t good = 0; good < 3; ++good) {
    const auto signers = [&] { return failing_signers(place, {"online"}, good); };
    EXPECT_FAILURE(withdraw_build({place.folder, "1", {}}, signers(), place.now), "signer_failed",
                   "The token is locked");
    expect_unchanged(place, before);
    EXPECT_FAILURE(refresh_repository({place.folder, 800, false}, signers(), place.now), "signer_failed",
                   "The token is locked");
    expect_unchanged(place, before);
  }
  EXPECT_FAILURE(sign_draft(place.folder, place.signers(), place.now), "no_draft",
                 "Nothing waits for signatures in this repository");
}

TEST(FailedSigners, OfARefreshLeaveTheDraftBesideWhichItWorks) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1")}, {});
  const TreeState before = tree_state(place.folder);
  EXPECT_FAILURE(refresh_repository({place.folder, {}, true}, failing_signers(place, {"online"}, 0), place.now),
                 "signer_failed", "The token is locked");
  expect_unchanged(place, before);
}

// Gives the archive of a manifest another name, in a folder of its own, and returns the manifest there.
std::filesystem::path with_archive(const RepositoryPlace& place, const std::filesystem::path& manifest,
                                   const std::string& folder, const std::string& archive) {
  Json document = Json::parse(RepositoryPlace::bytes(manifest));
  const auto made = document.at("archive").at("target").get<std::string>();
  document["archive"]["target"] = archive;
  const std::filesystem::path changed = place.root.write(folder + "/manifest.json", document.dump());
  std::filesystem::copy_file(manifest.parent_path() / made, changed.parent_path() / archive);
  return changed;
}

TEST(RepositoryWithdrawal, RefusesAFormerFileWhoseTargetAnotherManifestNamesNow) {
  const RepositoryPlace place;
  place.init();
  place.release({with_archive(place, place.launcher("1", "one"), "launcher", "shared.tar.zst")});
  place.release({place.launcher("2", "two")});
  place.release({with_archive(place, place.build(SnapshotKind::game, "7"), "game", "shared.tar.zst")});
  const TreeState before = tree_state(place.folder);
  EXPECT_FAILURE(place.withdraw("2"), "target_conflict",
                 "The former build has another file under the target shared.tar.zst, which stays because of "
                 "games/game/linux-x86_64.manifest.json");
  expect_unchanged(place, before);
  EXPECT_EQ(place.seen_build(), "2");
  EXPECT_EQ(place.seen_build("games/game/linux-x86_64.manifest.json"), "7");
}

TEST(RepositoryWithdrawal, GoesBackToNothingThatNoSnapshotHasNamed) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1", "one")});
  // Whoever has the key can sign such a document, but clients have never been led to it.
  Json body = Json::parse(place.root.read("repository/public/tuf/metadata/2.targets.json")).at("signed");
  body["version"] = 3;
  body["targets"].erase(launcher_target);
  const Signer online = place.signers().front();
  const Json forged = {{"signed", body},
                       {"signatures", {{{"keyid", online.id}, {"sig", online.sign(canonical_json(body))}}}}};
  place.root.write("repository/public/tuf/metadata/3.targets.json", forged.dump());
  place.release({place.launcher("2", "two")});
  EXPECT_EQ(place.versions(), (Versions{1, 4, 3, 3}));
  const WithdrawalOutcome outcome = place.withdraw("2");
  ASSERT_EQ(outcome.builds.size(), 1u);
  EXPECT_EQ(outcome.builds.front().former_build_id, "1");
  EXPECT_EQ(place.seen_build(), "1");
}

TEST(RepositoryWithdrawal, PassesOverNoBuildThatCannotBeReadNow) {
  const RepositoryPlace place;
  place.init();
  for (const char* const build_id : {"1", "2", "3"}) {
    place.release({place.launcher(build_id, build_id)});
  }
  // The snapshot that led clients to the second build.
  const std::filesystem::path snapshot = place.folder / "public/tuf/metadata/3.snapshot.json";
  std::filesystem::rename(snapshot, place.root / "kept");
  std::filesystem::create_symlink("/nowhere", snapshot);
  const TreeState before = tree_state(place.folder);
  const std::string message = "Cannot open file: " + snapshot.native();
  EXPECT_FAILURE(place.withdraw("3"), "unsafe_path", message);
  EXPECT_FAILURE(place.release({place.launcher("2", "other content")}), "unsafe_path", message);
  expect_unchanged(place, before);
  std::filesystem::remove(snapshot);
  std::filesystem::rename(place.root / "kept", snapshot);
  EXPECT_EQ(place.withdraw("3").builds.at(0).former_build_id, "2");
}

TEST(RepositoryWithdrawal, PutsTheFormerFilesOnTheUploadListOnceMore) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1", "one")});
  place.release({place.launcher("2", "two")});
  std::filesystem::remove(place.folder / "upload.txt");
  place.withdraw("2");
  EXPECT_NE(place.upload_list().find(".launcher-linux-x86_64-1.tar.zst\n"), std::string::npos);
  EXPECT_TRUE(place.upload_list().ends_with("tuf/metadata/4.snapshot.json\ntuf/metadata/timestamp.json\n"));
}

// The next root of a place, with other keys for a role.
Json next_root(const RepositoryPlace& place, const std::string& role, const Names& keys, std::uint64_t threshold = 1) {
  Json body = RepositoryFolder(place.folder, RepositoryFolder::Use::read).state().root();
  Json ids = Json::array();
  for (const Signer& signer : place.signers(keys)) {
    body["keys"][signer.id] = signer.key;
    ids.push_back(signer.id);
  }
  body["roles"][role] = {{"keyids", ids}, {"threshold", threshold}};
  return body;
}

RepositoryOutcome rotate(const RepositoryPlace& place, const Json& root, const Names& keys) {
  RepositorySession session(place.folder, place.now);
  DraftChanges changes;
  changes.action = "rotate";
  changes.root = root;
  return session.conclude(RepositoryDraft::begin(session.folder(), session.state(), changes, place.now),
                          place.signers(keys));
}

TEST(RepositoryDrafts, OfANewRootBringTheRolesWhoseKeysItChanges) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1.0.0")});
  EXPECT_EQ(place.seen_build(), "1.0.0");
  // Other keys of the root alone: nothing else is made.
  EXPECT_EQ(rotate(place, next_root(place, "root", {"root-2"}), {"root", "root-2"}).roles, (Names{"root"}));
  EXPECT_EQ(place.versions(), (Versions{2, 2, 2, 2}));
  EXPECT_EQ(place.seen_build(), "1.0.0");
  // Another key of the targets: whatever refers to them is made too.
  EXPECT_EQ(rotate(place, next_root(place, "targets", {"targets-2"}), {"root-2", "targets-2", "online"}).roles,
            (Names{"root", "targets", "snapshot", "timestamp"}));
  EXPECT_EQ(place.versions(), (Versions{3, 3, 3, 3}));
  EXPECT_EQ(place.seen_build(), "1.0.0");
  EXPECT_EQ(rotate(place, next_root(place, "timestamp", {"online-2"}), {"root-2", "online-2"}).roles,
            (Names{"root", "timestamp"}));
  EXPECT_EQ(place.seen_build(), "1.0.0");
  EXPECT_EQ(place.seen_build(launcher_target, "one-that-begins-with-root-1"), "1.0.0");
}

TEST(RepositoryDrafts, OfANewRootWaitForTheOldKeysAndTheNew) {
  PlaceRoles roles;
  roles.root = {{"root", "spare"}, 2};
  const RepositoryPlace place(roles);
  place.init({"online", "root", "spare"});
  const Json root = next_root(place, "root", {"root", "other"}, 2);
  const RepositoryOutcome first = rotate(place, root, {"root"});
  EXPECT_FALSE(first.published);
  EXPECT_EQ(needs_text(first.needs),
            "the new root needs 1 more signature of the present root's keys, by spare; the new root needs 1 more "
            "signature of its own keys, by key " +
                place.signers({"other"}).front().id.substr(0, 12));
  {
    RepositorySession session(place.folder, place.now);
    EXPECT_FALSE(session.conclude(*session.draft(), place.signers({"other"})).published);
  }
  EXPECT_EQ(place.versions(), (Versions{1, 1, 1, 1}));
  RepositorySession session(place.folder, place.now);
  EXPECT_TRUE(session.conclude(*session.draft(), place.signers({"spare"})).published);
  EXPECT_EQ(place.versions(), (Versions{2, 1, 1, 1}));
  EXPECT_EQ(place.seen_build(), "");
}

TEST(RepositoryDrafts, KeepTheTargetsThatTheyStandOnFromARefresh) {
  PlaceRoles roles;
  roles.targets = {{"online", "ann"}, 1};
  RepositoryPlace place(roles);
  place.init();
  EXPECT_FALSE(place.release({place.launcher("1.0.0")}, {}).repository.published);
  const RefreshOutcome asked =
      refresh_repository({place.folder, {}, true}, place.signers({"online", "ann"}), place.now);
  EXPECT_EQ(asked.left, (Names{"targets"}));
  EXPECT_TRUE(asked.left_though_asked);
  EXPECT_EQ(place.versions(), (Versions{1, 1, 1, 2}));
  place.now = parse_tuf_time("2030-07-10T00:00:00Z");
  const RefreshOutcome outcome = place.refresh();
  EXPECT_FALSE(outcome.left_though_asked);
  EXPECT_EQ(outcome.repository.roles, (Names{"snapshot", "timestamp"}));
  EXPECT_EQ(outcome.left, (Names{"targets"}));
  EXPECT_TRUE(outcome.left_for_draft);
  EXPECT_EQ(place.versions(), (Versions{1, 1, 2, 3}));
  EXPECT_TRUE(sign_draft(place.folder, place.signers(), place.now).published);
  EXPECT_EQ(place.versions(), (Versions{1, 2, 3, 4}));
  EXPECT_EQ(place.seen_build(), "1.0.0");
}

// A root may wait for weeks, and wants no other targets than there are.
TEST(RepositoryDrafts, OfARootLeaveTheTargetsToTheRefresh) {
  PlaceRoles roles;
  roles.root = {{"root", "bob"}, 2};
  roles.root_expires = "2040-01-01T00:00:00Z";
  for (const char* const role : {"root", "targets"}) {
    RepositoryPlace place(roles);
    place.init();
    place.release({place.launcher("1.0.0")});
    const Json root = std::string(role) == "root" ? next_root(place, role, {"root", "bob", "fresh"}, 2)
                                                  : next_root(place, role, {"fresh"});
    EXPECT_FALSE(rotate(place, root, {"root", "fresh"}).published);
    for (const int days : {200, 400, 800}) {
      place.now = days_after(parse_tuf_time("2030-01-01T00:00:00Z"), static_cast<std::uint64_t>(days));
      const RefreshOutcome outcome = place.refresh();
      EXPECT_TRUE(outcome.repository.published);
      EXPECT_EQ(outcome.repository.roles, (Names{"targets", "snapshot", "timestamp"}));
      EXPECT_TRUE(outcome.left.empty());
      EXPECT_EQ(place.seen_build(), "1.0.0");
    }
    EXPECT_TRUE(sign_draft(place.folder, place.signers({"bob", "fresh", "online"}), place.now).published);
    EXPECT_EQ(place.versions().front(), 2u);
    EXPECT_EQ(place.seen_build(), "1.0.0");
  }
}

TEST(RepositoryDrafts, AreStaleOnceWhatTheyStandOnHasChanged) {
  PlaceRoles roles;
  roles.targets = {{"ann", "ben"}, 2};
  const RepositoryPlace place(roles);
  place.init({"online", "ann", "ben"});
  place.release({place.launcher("1")}, {"ann"});
  std::filesystem::rename(place.folder / "draft", place.root / "kept");
  place.release({place.launcher("2")}, {"ann", "ben", "online"});
  std::filesystem::rename(place.root / "kept", place.folder / "draft");
  {
    RepositorySession session(place.folder, place.now);
    ASSERT_TRUE(session.draft());
    EXPECT_TRUE(session.draft()->is_stale());
    EXPECT_FAILURE(session.conclude(*session.draft(), place.signers({"ben"})), "stale_draft",
                   "The repository has changed since this draft was begun; remove it with 'ravok-publish repository "
                   "discard'");
  }
  EXPECT_EQ(place.seen_build(), "2");
  // It is in nobody's way.
  EXPECT_TRUE(place.release({place.launcher("3")}, {"ann", "ben", "online"}).repository.published);
  EXPECT_EQ(place.seen_build(), "3");
}

TEST(RepositoryFolders, NeverGiveADocumentsNameToOtherBytes) {
  const RepositoryPlace place;
  place.init();
  // A run was killed after it had put a snapshot there.
  place.root.write("repository/public/tuf/metadata/7.snapshot.json", "left over");
  place.release({place.launcher("1.0.0")});
  EXPECT_EQ(place.versions(), (Versions{1, 2, 8, 2}));
  EXPECT_EQ(place.root.read("repository/public/tuf/metadata/7.snapshot.json"), "left over");
  const RepositoryFolder folder(place.folder, RepositoryFolder::Use::change);
  EXPECT_FAILURE(
      folder.publish_document("7.snapshot.json", "other"), "version_taken",
      "Another document has this name already, and 'ravok-publish repository discard' gives up what was to have it: " +
          (place.folder / "public/tuf/metadata/7.snapshot.json").native());
}

TEST(RepositoryFolders, TakeDocumentsAsLargeAsInstalledClientsDo) {
  const TufLimits limits = installed_tuf_limits();
  EXPECT_EQ(limits.root_bytes, tuf_root_limit);
  EXPECT_EQ(limits.timestamp_bytes, repository_timestamp_limit);
  EXPECT_EQ(limits.metadata_bytes, repository_metadata_limit);
}

TEST(RepositoryFolders, TellWhatClientsWouldRefuse) {
  const RepositoryPlace place;
  place.init();
  Json timestamp = Json::parse(place.root.read("repository/public/tuf/metadata/timestamp.json"));
  timestamp["signatures"] = Json::array();
  place.root.write("repository/public/tuf/metadata/timestamp.json", timestamp.dump());
  EXPECT_EQ(repository_status(place.folder, place.now).roles.back().problem,
            "Metadata does not meet its authorized signature threshold");
}

// A repository whose folder somebody can write to who has none of its keys.
struct ForgedPlace : RepositoryPlace {
  explicit ForgedPlace(const PlaceRoles& roles = {}) : RepositoryPlace(roles) {
    init();
    release({launcher("1.0.0")});
  }

  // Changes the "signed" part of a published document without any key.
  void forge(const std::string& file, const Json& change) const {
    const std::string path = "repository/public/tuf/metadata/" + file;
    Json document = Json::parse(root.read(path));
    document["signed"].merge_patch(change);
    root.write(path, document.dump());
  }

  // Adds a target, with its file, to the targets that are published.
  void forge_target() const {
    const std::string bytes = "evil";
    root.write("repository/public/tuf/targets/" + target_file("evil.bin", digest(bytes, "sha256")).native(), bytes);
    const Json target = {{"length", bytes.size()}, {"hashes", {{"sha256", digest(bytes, "sha256")}}}};
    forge("2.targets.json", {{"targets", {{"evil.bin", target}}}});
  }

  // No command signs anything, and the folder stays byte for byte as it is.
  void expect_refused(const std::string& role, const std::string& file, const std::string& why) const {
    const TreeState before = tree_state(folder);
    const std::string message = "The document of the role " + role +
                                " is none that the keys of this repository have signed: " + why + "; fetch " + file +
                                " from your site into " + (folder / "public/tuf/metadata").native();
    const auto refused = [&](const auto& work) {
      EXPECT_FAILURE(work(), "unsigned_role", message);
      expect_unchanged(*this, before);
    };
    refused([&] { refresh(); });
    refused([&] { release({launcher("1.0.1")}); });
    refused([&] { withdraw("1.0.0"); });
    refused([&] { sign_draft(folder, signers({"ann", "online"}), now); });
    refused([&] { discard_draft(folder, now); });
  }
};

constexpr const char* other_length = "Metadata length does not match its parent";

TEST(ForgedDocuments, AreNotSignedByTheRefresh) {
  const ForgedPlace place;
  place.forge_target();
  place.expect_refused("targets", "2.targets.json", other_length);
}

TEST(ForgedDocuments, AreNotSignedByTheLastSignatureOfADraft) {
  PlaceRoles roles;
  roles.root = {{"root", "ann"}, 2};
  const ForgedPlace place(roles);
  ASSERT_FALSE(rotate(place, next_root(place, "snapshot", {"online", "online-2"}), {"root"}).published);
  place.forge_target();
  place.expect_refused("targets", "2.targets.json", other_length);
  EXPECT_FAILURE(repository_status(place.folder, place.now), "unsigned_role",
                 "The document of the role targets is none that the keys of this repository have signed: Metadata "
                 "length does not match its parent; fetch 2.targets.json from your site into " +
                     (place.folder / "public/tuf/metadata").native());
}

TEST(ForgedDocuments, DoNotTakeTheNumbersOfLaterOnes) {
  const ForgedPlace place;
  place.forge("timestamp.json", {{"version", UINT64_MAX - 2}});
  place.expect_refused("timestamp", "timestamp.json", "Metadata does not meet its authorized signature threshold");
}

TEST(ForgedDocuments, AreNoReasonToFinishOrGiveUpAPublication) {
  const ForgedPlace place;
  const std::filesystem::path kept = place.root / "kept";
  std::filesystem::copy(place.folder, kept, std::filesystem::copy_options::recursive);
  refresh_repository({place.folder, {}, true}, place.signers(), place.now);
  const std::string next = place.root.read("repository/public/tuf/metadata/timestamp.json");
  std::filesystem::remove_all(place.folder);
  std::filesystem::rename(kept, place.folder);
  place.root.write("repository/draft/timestamp.json", next);
  const Json begun = {{"schema_version", 1},
                      {"kind", "ravok-repository-draft"},
                      {"documents", {{"timestamp", "timestamp.json"}}},
                      {"upload", {"tuf/metadata/timestamp.json"}}};
  place.root.write("repository/draft/draft.json", begun.dump());
  place.forge("timestamp.json", {{"version", UINT64_MAX - 2}});
  place.expect_refused("timestamp", "timestamp.json", "Metadata does not meet its authorized signature threshold");
}

// The present root may ask for other keys or more of them, and time may have passed.
TEST(ForgedDocuments, AreNoneThatAFormerRootHasAuthorized) {
  ForgedPlace place;
  const std::string former = place.root.read("repository/public/tuf/metadata/timestamp.json");
  ASSERT_TRUE(rotate(place, next_root(place, "snapshot", {"online-2"}), {"root", "online", "online-2"}).published);
  ASSERT_TRUE(
      rotate(place, next_root(place, "targets", {"online", "online-2"}, 2), {"root", "online", "online-2"}).published);
  place.root.write("repository/public/tuf/metadata/timestamp.json", former);
  EXPECT_EQ(place.versions(), (Versions{3, 2, 2, 2}));
  EXPECT_FAILURE(place.release({place.launcher("1.0.1")}), "unsigned_role",
                 "Clients would refuse the document of the role targets: Metadata does not meet its authorized "
                 "signature threshold; sign it anew with 'ravok-publish repository refresh'");
  place.now = parse_tuf_time("2040-01-01T00:00:00Z");
  EXPECT_TRUE(place.refresh({"online", "online-2"}).repository.published);
  EXPECT_EQ(place.seen_build(), "1.0.0");
}

// A repository into whose public folder somebody without its keys has put a repository of his own: its root lets his
// key and the operator's sign, so that the operator's next signature would be one for it.
struct StolenPlace : ForgedPlace {
  explicit StolenPlace(const PlaceRoles& own = {}) : ForgedPlace(own) {
    RootPublication publication;
    publication.output = root / "their-root.json";
    publication.expires = "2050-01-01T00:00:00Z";
    publication.root = {{key("evil"), key("root")}, 1};
    publication.targets = publication.snapshot = publication.timestamp = {{key("evil"), key("online")}, 1};
    publish_root(publication);
    theirs = root / "theirs";
    init_repository({theirs, publication.output, {}, {}}, signers({"evil"}), now);
    publish_release({theirs, {{launcher("6.6.6"), ""}}, {}}, signers({"evil"}), now, {});
  }

  void put_their_public_folder() const {
    std::filesystem::remove_all(folder / "public");
    std::filesystem::copy(theirs / "public", folder / "public", std::filesystem::copy_options::recursive);
  }

  // No command signs anything, and the folder stays byte for byte as it is.
  void expect_refused(const std::string& code, const std::string& message) const {
    const TreeState before = tree_state(folder);
    KeyRotation rotation;
    rotation.folder = folder;
    rotation.expires = "2060-01-01T00:00:00Z";
    const std::vector<std::function<void()>> commands = {
        [&] { refresh(); },
        [&] { release({launcher("1.0.1")}); },
        [&] { withdraw("1.0.0"); },
        [&] {
          rotate_keys(rotation, signers({"root", "online"}), now);
        },
        [&] {
          sign_draft(folder, signers({"root", "online"}), now);
        },
        [&] { discard_draft(folder, now); },
        [&] { repository_status(folder, now); },
    };
    for (const auto& command : commands) {
      EXPECT_FAILURE(command(), code, message);
      expect_unchanged(*this, before);
    }
  }

  std::string not_ours(const std::string& file) const {
    return "The root document " + file + " is none that this repository had; fetch it from your site into " +
           (folder / "public/tuf/metadata").native();
  }

  Json known_roots() const { return Json::parse(root.read("repository/repository.json")).at("roots"); }

  std::string sha256_of(const std::string& file) const {
    return digest(root.read("repository/public/tuf/metadata/" + file), "sha256");
  }

  std::filesystem::path theirs;
};

TEST(ForgedRoots, AreNotBelieved) {
  const StolenPlace place;
  place.put_their_public_folder();
  place.expect_refused("unsigned_role", place.not_ours("1.root.json"));
}

TEST(ForgedRoots, AreNoReasonToGiveUpADraft) {
  PlaceRoles roles;
  roles.root = {{"root", "ann"}, 2};
  const StolenPlace place(roles);
  ASSERT_FALSE(rotate(place, next_root(place, "snapshot", {"online", "online-2"}), {"root"}).published);
  place.put_their_public_folder();
  place.expect_refused("unsigned_role", place.not_ours("1.root.json"));
  place.root.write("repository/draft/draft.json", "no draft");
  EXPECT_FAILURE(discard_draft(place.folder, place.now), "unsigned_role", place.not_ours("1.root.json"));
  EXPECT_TRUE(std::filesystem::exists(place.folder / "draft/draft.json"));
}

TEST(ForgedRoots, StandBeforeNoKnownOne) {
  const StolenPlace place;
  ASSERT_TRUE(rotate(place, next_root(place, "timestamp", {"online", "online-2"}), {"root", "online"}).published);
  std::filesystem::copy_file(place.theirs / "public/tuf/metadata/1.root.json",
                             place.folder / "public/tuf/metadata/0.root.json");
  EXPECT_EQ(place.versions(), (Versions{2, 2, 2, 2}));
  EXPECT_TRUE(place.release({place.launcher("1.0.1")}).repository.published);
  EXPECT_EQ(place.seen_build(), "1.0.1");
}

TEST(ForgedRoots, TakeTheNewestOnesAwayInVain) {
  const StolenPlace place;
  ASSERT_TRUE(rotate(place, next_root(place, "timestamp", {"online", "online-2"}), {"root", "online"}).published);
  const std::filesystem::path newest = place.folder / "public/tuf/metadata/2.root.json";
  std::filesystem::rename(newest, place.root / "kept");
  place.expect_refused("missing_file", "The repository lacks a document: " + newest.native());
  std::filesystem::rename(place.root / "kept", newest);
  EXPECT_TRUE(place.release({place.launcher("1.0.1")}).repository.published);
}

TEST(KnownRoots, AreThoseOfTheFolderAndGrowWithIt) {
  const StolenPlace place;
  EXPECT_EQ(place.known_roots(), (Json{{"1", place.sha256_of("1.root.json")}}));
  ASSERT_TRUE(rotate(place, next_root(place, "timestamp", {"online", "online-2"}), {"root", "online"}).published);
  EXPECT_EQ(place.known_roots(), (Json{{"1", place.sha256_of("1.root.json")}, {"2", place.sha256_of("2.root.json")}}));
}

TEST(KnownRoots, OfAnOlderRecordAreThoseThatTheNextChangeFinds) {
  const StolenPlace place;
  ASSERT_TRUE(rotate(place, next_root(place, "timestamp", {"online", "online-2"}), {"root", "online"}).published);
  const Json known = place.known_roots();
  Json record = Json::parse(place.root.read("repository/repository.json"));
  record.erase("roots");
  record.erase("given_up_snapshots");
  place.root.write("repository/repository.json", record.dump());
  const TreeState before = tree_state(place.folder);
  EXPECT_EQ(repository_status(place.folder, place.now).roles.at(0).version, 2u);
  expect_unchanged(place, before);
  EXPECT_FALSE(place.refresh().repository.published);
  EXPECT_EQ(place.known_roots(), known);
  place.put_their_public_folder();
  place.expect_refused("unsigned_role", place.not_ours("1.root.json"));
}

TEST(KnownRoots, AreReadAsTheyAreWritten) {
  const RepositoryPlace place;
  place.init();
  const Json sound = Json::parse(place.root.read("repository/repository.json"));
  const std::string sha256(64, 'a');
  for (const Json& change :
       {Json{{"roots", Json::array()}}, Json{{"roots", {{"01", sha256}}}}, Json{{"roots", {{"one", sha256}}}},
        Json{{"roots", {{"1", sha256.substr(1)}}}}, Json{{"roots", {{"1", std::string(64, 'A')}}}},
        Json{{"roots", {{"1", 1}}}}, Json{{"given_up_snapshots", Json::object()}}, Json{{"given_up_snapshots", {-1}}},
        Json{{"given_up_snapshots", {"1"}}}}) {
    Json record = sound;
    record.update(change);
    place.root.write("repository/repository.json", record.dump());
    EXPECT_FAILURE(RepositoryFolder(place.folder, RepositoryFolder::Use::read), "invalid_record",
                   (place.folder / "repository.json").native() + ": The repository's record is malformed");
  }
}

}  // namespace
}  // namespace ravok::repository_upkeep_test
