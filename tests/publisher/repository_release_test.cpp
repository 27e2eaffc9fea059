#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "publisher/repository/discard_draft.hpp"
#include "publisher/repository/key_advice.hpp"
#include "publisher/repository/publish_release.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/repository_place.hpp"
#include "support/tree_state.hpp"

namespace ravok::repository_release_test {
namespace {

using testing::PlaceRoles;
using testing::RepositoryPlace;
using testing::same_tree;
using testing::tree_state;
using testing::TreeState;
using Versions = std::vector<std::uint64_t>;

constexpr const char* launcher_target = "launcher-linux-x86_64.manifest.json";

// The work fails so, and the repository's folder stays byte for byte as it is.
template <typename Work>
void expect_refused(const RepositoryPlace& place, Work work, const std::string& code, const std::string& message) {
  const TreeState before = tree_state(place.folder);
  EXPECT_FAILURE(work(), code, message);
  EXPECT_TRUE(same_tree(tree_state(place.folder), before));
}

TEST(RepositoryInit, MakesARepositoryThatAClientCanFollow) {
  const RepositoryPlace place;
  const RepositoryOutcome outcome = place.init();
  EXPECT_TRUE(outcome.published);
  EXPECT_EQ(place.versions(), (Versions{1, 1, 1, 1}));
  EXPECT_EQ(place.seen_build(), "");
  EXPECT_EQ(place.upload_list(),
            "tuf/metadata/1.root.json\ntuf/metadata/1.targets.json\ntuf/metadata/1.snapshot.json\n"
            "tuf/metadata/timestamp.json\n");
  std::vector<std::string> published;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(place.folder / "public")) {
    published.push_back(entry.path().lexically_relative(place.folder).native());
  }
  std::sort(published.begin(), published.end());
  EXPECT_EQ(published,
            (std::vector<std::string>{"public/tuf", "public/tuf/metadata", "public/tuf/metadata/1.root.json",
                                      "public/tuf/metadata/1.snapshot.json", "public/tuf/metadata/1.targets.json",
                                      "public/tuf/metadata/timestamp.json", "public/tuf/targets"}));
  EXPECT_FALSE(std::filesystem::exists(place.folder / "draft"));
}

TEST(RepositoryInit, GivesEachRoleItsDays) {
  const RepositoryPlace place;
  init_repository({place.folder, place.root / "root.json", {{"timestamp", 3}, {"snapshot", 20}}, {}}, place.signers(),
                  place.now);
  const RepositoryState state = RepositoryFolder(place.folder, RepositoryFolder::Use::read).state();
  EXPECT_EQ(tuf_time_text(state.role("timestamp").expires()), "2030-01-04T00:00:00Z");
  EXPECT_EQ(tuf_time_text(state.role("snapshot").expires()), "2030-01-21T00:00:00Z");
  EXPECT_EQ(tuf_time_text(state.role("targets").expires()), "2031-01-01T00:00:00Z");
}

TEST(RepositoryInit, WithoutKeysLeavesTheFirstDocumentsToTheFirstRelease) {
  const RepositoryPlace place;
  EXPECT_FALSE(place.init({}).published);
  EXPECT_EQ(place.versions(), (Versions{1, 0, 0, 0}));
  EXPECT_TRUE(place.release({place.launcher("1.0.0")}).repository.published);
  EXPECT_EQ(place.versions(), (Versions{1, 1, 1, 1}));
  EXPECT_EQ(place.seen_build(), "1.0.0");
}

TEST(RepositoryInit, RefusesWhatIsNoFirstRootAndLeavesNothing) {
  const RepositoryPlace place;
  const auto init_with = [&](const std::string& text) {
    place.root.write("other.json", text);
    init_repository({place.folder, place.root / "other.json", {}, {}}, place.signers(), place.now);
  };
  const std::string name = (place.root / "other.json").native() + ": ";
  Json unsigned_root = Json::parse(place.root.read("root.json"));
  unsigned_root["signatures"] = Json::array();
  EXPECT_FAILURE(init_with(unsigned_root.dump()), "signature_threshold",
                 name + "Metadata does not meet its authorized signature threshold");
  const auto signed_root = [&](const std::string& member, const Json& value) {
    Json body = unsigned_root.at("signed");
    body[member] = value;
    const Signer signer = place.signers({"root"}).front();
    return Json({{"signed", body},
                 {"signatures", Json::array({{{"keyid", signer.id}, {"sig", signer.sign(canonical_json(body))}}})}})
        .dump();
  };
  EXPECT_FAILURE(init_with(signed_root("version", 2)), "invalid_version",
                 name + "A repository begins with a root document of version 1");
  EXPECT_FAILURE(init_with(signed_root("consistent_snapshot", false)), "invalid_root",
                 name + "The root document does not ask for consistent snapshots, which this repository has");
  EXPECT_FAILURE(init_with(signed_root("expires", "2020-01-01T00:00:00Z")), "expired_metadata",
                 name + "The root document would have expired already");
  EXPECT_FAILURE(
      init_repository({place.folder, place.root / "root.json", {{"timestamp", 0}}, {}}, place.signers(), place.now),
      "invalid_expiry", "Documents are valid for 1 to 36500 days, not 0");
  EXPECT_FALSE(std::filesystem::exists(place.folder));
}

TEST(RepositoryInit, OverwritesNothing) {
  const RepositoryPlace place;
  place.init();
  expect_refused(
      place, [&] { place.init(); }, "output_exists", "The output already exists: " + place.folder.native());
}

TEST(RepositoryInit, RemovesTheFolderAgainWhenASignerFails) {
  const RepositoryPlace place;
  std::vector<Signer> signers = place.signers();
  signers.front().sign = [](std::string_view) -> std::string { fail("signer_failed", "The token is locked"); };
  EXPECT_FAILURE(init_repository({place.folder, place.root / "root.json", {}, {}}, signers, place.now), "signer_failed",
                 "The token is locked");
  EXPECT_FALSE(std::filesystem::exists(place.folder));
}

TEST(RepositoryInit, LeavesNothingWhereNoLockCanBeTaken) {
  const RepositoryPlace place;
  const testing::Planned planned(
      {.call = "create", .countdown = 1, .beginning = ".lock", .fails = true, .problem = EPERM, .lasts = true});
  const auto failure = testing::failure_of([&] { place.init(); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "lock_failed");
  EXPECT_FALSE(std::filesystem::exists(place.folder));
}

TEST(RepositoryInit, NamesTheRootOnlyForWhatIsWrongWithIt) {
  const RepositoryPlace place;
  const testing::Planned planned(
      {.call = "create", .countdown = 1, .beginning = "1.root.json", .fails = true, .problem = ENOSPC, .lasts = true});
  const auto failure = testing::failure_of([&] { place.init(); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(std::string(failure->what()).find("root.json: "), std::string::npos) << failure->what();
  EXPECT_FALSE(std::filesystem::exists(place.folder));
}

// An event between the making of a repository and the first lock on it.
testing::Plan before_the_lock(std::function<void()> event) {
  return {.call = "openat", .countdown = 2, .beginning = ".lock", .meanwhile = std::move(event)};
}

TEST(RepositoryInit, LeavesTheRepositoryToARunThatTakesItMeanwhile) {
  const RepositoryPlace place;
  std::optional<RepositoryFolder> other;
  const testing::Planned planned(before_the_lock([&] { other.emplace(place.folder, RepositoryFolder::Use::change); }));
  EXPECT_FAILURE(place.init(), "busy", "Another run is changing this repository: " + place.folder.native());
  ASSERT_TRUE(other);
  other.reset();
  EXPECT_TRUE(place.release({place.launcher("1.0.0")}).repository.published);
}

TEST(RepositoryInit, LeavesWhatARunHasPublishedMeanwhile) {
  const RepositoryPlace place;
  const std::filesystem::path manifest = place.launcher("1.0.0");
  const testing::Planned planned(before_the_lock([&] { place.release({manifest}); }));
  EXPECT_FAILURE(place.init(), "busy", "Another run has changed this repository: " + place.folder.native());
  EXPECT_EQ(place.seen_build(), "1.0.0");
}

TEST(RepositoryInit, HoldsTheLockWhileItRemovesTheFolder) {
  const RepositoryPlace place;
  std::vector<Signer> signers = place.signers();
  std::string met;
  std::optional<testing::Planned> planned;
  signers.front().sign = [&](std::string_view) -> std::string {
    planned.emplace(testing::meanwhile("unlink", [&] {
      const auto failure = testing::failure_of([&] { RepositoryFolder(place.folder, RepositoryFolder::Use::change); });
      met = failure ? failure->code : "nothing";
    }));
    fail("signer_failed", "The token is locked");
  };
  EXPECT_FAILURE(init_repository({place.folder, place.root / "root.json", {}, {}}, signers, place.now), "signer_failed",
                 "The token is locked");
  EXPECT_EQ(met, "busy");
  EXPECT_FALSE(std::filesystem::exists(place.folder));
}

TEST(RepositoryRelease, IsFollowedByClientsThroughTenReleases) {
  const RepositoryPlace place;
  place.init();
  for (int number = 1; number <= 10; ++number) {
    const std::string build_id = "1.0." + std::to_string(number);
    const ReleaseOutcome outcome = place.release({place.launcher(build_id, build_id)});
    ASSERT_EQ(outcome.builds.size(), 1u);
    EXPECT_TRUE(outcome.builds.front().is_new);
    EXPECT_EQ(outcome.builds.front().target, launcher_target);
    EXPECT_EQ(place.seen_build(), build_id);
    // A client that begins with this release sees the same.
    EXPECT_EQ(place.seen_build(launcher_target, "new-" + std::to_string(number)), build_id);
  }
  EXPECT_EQ(place.versions(), (Versions{1, 11, 11, 11}));
  // Only the files of the newest build are targets. The others lie there for those who withdraw it.
  const Json targets = RepositoryFolder(place.folder, RepositoryFolder::Use::read).state().targets();
  EXPECT_EQ(targets.size(), 2u);
  EXPECT_TRUE(targets.contains("launcher-linux-x86_64-1.0.10.tar.zst"));
}

TEST(RepositoryRelease, PutsEveryKindIntoPlace) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1.0.0"), place.build(SnapshotKind::bootstrap, "1.0.0"),
                 place.build(SnapshotKind::game, "7", "note", "windows-x86_64")});
  EXPECT_EQ(place.seen_build(), "1.0.0");
  EXPECT_EQ(place.seen_build("bootstrap-linux-x86_64.manifest.json"), "1.0.0");
  EXPECT_EQ(place.seen_build("games/game/windows-x86_64.manifest.json"), "7");
  // One document for all of them.
  EXPECT_EQ(place.versions(), (Versions{1, 2, 2, 2}));
}

TEST(RepositoryRelease, TakesATargetOfTheUsersChoiceForAGame) {
  const RepositoryPlace place;
  place.init();
  publish_release({place.folder, {{place.build(SnapshotKind::game, "7"), "catalogue/first.manifest.json"}}, {}},
                  place.signers(), place.now, {});
  EXPECT_EQ(place.seen_build("catalogue/first.manifest.json"), "7");
  const std::filesystem::path game = place.build(SnapshotKind::game, "8", "other");
  expect_refused(
      place,
      [&] {
        publish_release({place.folder, {{game, "bootstrap-macos-aarch64.manifest.json"}}, {}}, place.signers(),
                        place.now, {});
      },
      "usage",
      game.native() +
          ": The target bootstrap-macos-aarch64.manifest.json is not one of a game's manifest, which ends in "
          ".manifest.json");
  const std::filesystem::path launcher = place.launcher("1.0.0");
  expect_refused(
      place,
      [&] {
        publish_release({place.folder, {{launcher, "other.json"}}, {}}, place.signers(), place.now, {});
      },
      "usage",
      launcher.native() +
          ": Clients look for the manifest of this launcher under the target launcher-linux-x86_64.manifest.json");
}

TEST(RepositoryRelease, ListsWhatIsToBeUploadedWithTheTimestampLast) {
  const RepositoryPlace place;
  place.init();
  std::filesystem::remove(place.folder / "upload.txt");
  const std::filesystem::path manifest = place.launcher("1.0.0");
  place.release({manifest});
  const Json document = Json::parse(RepositoryPlace::bytes(manifest));
  EXPECT_EQ(place.upload_list(),
            "tuf/targets/" + document.at("archive").at("sha256").get<std::string>() +
                ".launcher-linux-x86_64-1.0.0.tar.zst\n"
                "tuf/targets/" +
                digest(RepositoryPlace::bytes(manifest), "sha256") +
                ".launcher-linux-x86_64.manifest.json\n"
                "tuf/metadata/2.targets.json\ntuf/metadata/2.snapshot.json\ntuf/metadata/timestamp.json\n");
}

TEST(RepositoryRelease, KeepsOnTheListWhatWasNotUploadedYet) {
  const RepositoryPlace place;
  place.init();
  place.release({place.build(SnapshotKind::game, "7")});
  place.release({place.launcher("1.0.0")});
  const std::string list = place.upload_list();
  EXPECT_NE(list.find("linux-x86_64.manifest.json\n"), std::string::npos);
  EXPECT_NE(list.find(".game-linux-x86_64-7.tar.zst\n"), std::string::npos);
  EXPECT_NE(list.find("1.root.json\n"), std::string::npos);
  // Nobody asks for the documents that were overtaken meanwhile.
  EXPECT_EQ(list.find("2.targets.json"), std::string::npos);
  EXPECT_TRUE(list.ends_with("tuf/metadata/3.snapshot.json\ntuf/metadata/timestamp.json\n"));
}

TEST(RepositoryRelease, OfTheSameManifestChangesNothing) {
  const RepositoryPlace place;
  place.init();
  const std::filesystem::path manifest = place.launcher("1.0.0");
  place.release({manifest});
  const TreeState before = tree_state(place.folder);
  const ReleaseOutcome outcome = place.release({manifest});
  EXPECT_FALSE(outcome.builds.front().is_new);
  EXPECT_FALSE(outcome.repository.published);
  EXPECT_TRUE(same_tree(tree_state(place.folder), before));
}

TEST(RepositoryRelease, RefusesABuildThatWasReleasedWithOtherContent) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1.0.0", "one")});
  place.release({place.launcher("1.0.1", "two")});
  const std::filesystem::path other = place.launcher("1.0.0", "three");
  expect_refused(
      place, [&] { place.release({other}); }, "build_released",
      "The launcher build 1.0.0 for linux-x86_64 was released before with other content, in version 2 of "
      "the targets; give the new one another build ID: " +
          other.native());
  // The same identifier may stand for a build of another kind or platform.
  place.release({place.build(SnapshotKind::launcher, "1.0.0", "three", "windows-x86_64"),
                 place.build(SnapshotKind::bootstrap, "1.0.0")});
  EXPECT_EQ(place.seen_build("launcher-windows-x86_64.manifest.json"), "1.0.0");
}

TEST(RepositoryRelease, RefusesAnArchiveThatIsNotTheOneOfItsManifest) {
  const RepositoryPlace place;
  place.init();
  const std::filesystem::path manifest = place.launcher("1.0.0");
  const std::filesystem::path archive = manifest.parent_path() / "launcher-linux-x86_64-1.0.0.tar.zst";
  std::string bytes = RepositoryPlace::bytes(archive);
  bytes.back() = static_cast<char>(bytes.back() ^ 1);
  place.root.write(archive.lexically_relative(place.root.path()).native(), bytes);
  // What is copied before it leaves no trace either.
  const std::filesystem::path other = place.build(SnapshotKind::bootstrap, "1.0.0");
  const auto refused = [&](const std::string& code, const std::string& message) {
    expect_refused(
        place,
        [&] {
          place.release({other, manifest});
        },
        code, message + archive.native());
  };
  refused("content_mismatch", "The file is not the one of its manifest: ");
  std::filesystem::resize_file(archive, 5);
  refused("content_mismatch", "The file is not the one of its manifest: ");
  std::filesystem::remove(archive);
  refused("file_read", "Cannot open the file that the manifest names: ");
  EXPECT_TRUE(place.release({place.launcher("1.0.0")}).repository.published);
  EXPECT_FALSE(std::filesystem::exists(place.folder / "draft"));
}

TEST(RepositoryRelease, RefusesAManifestThatClientsWouldRefuse) {
  const RepositoryPlace place;
  place.init();
  const std::filesystem::path manifest = place.launcher("1.0.0");
  Json document = Json::parse(RepositoryPlace::bytes(manifest));
  document["bootstrap_abi"] = 2;
  place.root.write("bad.json", document.dump());
  expect_refused(
      place, [&] { place.release({place.root / "bad.json"}); }, "launcher_incompatible",
      (place.root / "bad.json").native() + ": This launcher needs another native bootstrap ABI");
  document["bootstrap_abi"] = 1;
  document["padding"] = std::string(524'288, ' ');
  const std::string long_text = document.dump();
  place.root.write("bad.json", long_text);
  expect_refused(
      place, [&] { place.release({place.root / "bad.json"}); }, "size_limit",
      (place.root / "bad.json").native() + ": The manifest has " + std::to_string(long_text.size()) +
          " bytes, and clients take at most 524288");
}

TEST(RepositoryRelease, RefusesTwoManifestsOfOneTarget) {
  const RepositoryPlace place;
  place.init();
  const auto one = place.launcher("1.0.0");
  const auto two = place.launcher("1.0.1");
  expect_refused(
      place,
      [&] {
        place.release({one, two});
      },
      "usage", "Two of the manifests have the target launcher-linux-x86_64.manifest.json");
}

TEST(RepositoryRelease, RefusesTwoManifestsThatNameOneTargetWithOtherContent) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1.0.0")});
  const std::filesystem::path manifest = place.build(SnapshotKind::bootstrap, "1.0.0");
  Json document = Json::parse(RepositoryPlace::bytes(manifest));
  document["archive"]["target"] = "launcher-linux-x86_64-1.0.0.tar.zst";
  place.root.write("other.json", document.dump());
  expect_refused(
      place, [&] { place.release({place.root / "other.json"}); }, "target_conflict",
      "A released manifest names the target launcher-linux-x86_64-1.0.0.tar.zst with other content: " +
          (place.root / "other.json").native());
}

TEST(RepositoryRelease, RefusesToStandOnWhatHasExpired) {
  RepositoryPlace place;
  place.init();
  const std::filesystem::path manifest = place.launcher("1.0.0");
  place.now = parse_tuf_time("2030-01-15T00:00:00Z");
  expect_refused(
      place, [&] { place.release({manifest}); }, "expired_role",
      "The role timestamp has expired on 2030-01-15; sign it anew with 'ravok-publish repository refresh'");
  place.now = parse_tuf_time("2050-01-01T00:00:00Z");
  expect_refused(
      place, [&] { place.release({manifest}); }, "expired_role",
      "The root document has expired on 2050-01-01; give the repository a new one with 'ravok-publish "
      "repository rotate'");
  place.now = parse_tuf_time("2049-12-31T00:00:00Z");
  place.refresh();
  EXPECT_TRUE(place.release({manifest}).repository.published);
  EXPECT_EQ(place.seen_build(), "1.0.0");
}

TEST(RepositoryRelease, WarnsOfARootThatEndsSoonAndOfAKeyThatSignsNothing) {
  RepositoryPlace place;
  place.init();
  place.now = parse_tuf_time("2030-01-02T00:00:00Z");
  EXPECT_EQ(place.release({place.launcher("1.0.0")}, {"online", "root"}).repository.warnings,
            (std::vector<std::string>{"The key root speaks for no document that was made"}));
  PlaceRoles roles;
  roles.root_expires = "2030-03-01T00:00:00Z";
  const RepositoryPlace ends(roles);
  EXPECT_EQ(ends.init({}).warnings.front(),
            "The root document expires on 2030-03-01, and then no client can update any more; give the repository a "
            "new one with 'ravok-publish repository rotate'");
}

TEST(RepositoryRelease, RefusesAKeyOfNoRole) {
  RepositoryPlace place;
  place.init();
  place.key("stranger");
  const TreeState before = tree_state(place.folder);
  EXPECT_FAILURE(place.release({place.launcher("1")}, {"stranger"}), "wrong_key",
                 "The key stranger speaks for no role of this repository");
  EXPECT_TRUE(same_tree(tree_state(place.folder), before));
}

TEST(RepositoryRelease, WaitsForTheSignaturesOfSplitKeys) {
  PlaceRoles roles;
  roles.targets = {{"ann", "ben", "cleo"}, 2};
  const RepositoryPlace place(roles);
  place.init({"online", "ann", "ben"});
  EXPECT_EQ(place.seen_build(), "");
  const ReleaseOutcome outcome = place.release({place.launcher("1.0.0")}, {"ann", "online"});
  EXPECT_FALSE(outcome.repository.published);
  EXPECT_EQ(needs_text(outcome.repository.needs), "the role targets needs 1 more signature, by ben or key " +
                                                      place.signers({"cleo"}).front().id.substr(0, 12));
  EXPECT_EQ(place.seen_build(), "");
  EXPECT_EQ(place.versions(), (Versions{1, 1, 1, 1}));

  // The second signs, and that is not enough for the roles above.
  {
    RepositorySession session(place.folder, place.now);
    ASSERT_TRUE(session.draft());
    const RepositoryOutcome second = session.conclude(*session.draft(), place.signers({"cleo"}));
    EXPECT_EQ(needs_text(second.needs), "the role snapshot needs 1 more signature, by online");
    EXPECT_FALSE(second.published);
  }
  RepositorySession session(place.folder, place.now);
  EXPECT_TRUE(session.conclude(*session.draft(), place.signers({"online"})).published);
  EXPECT_EQ(place.seen_build(), "1.0.0");
  EXPECT_EQ(place.versions(), (Versions{1, 2, 2, 2}));
}

TEST(RepositoryRelease, LeavesADraftThatWaitsAlone) {
  PlaceRoles roles;
  roles.targets = {{"ann", "ben"}, 2};
  const RepositoryPlace place(roles);
  place.init({"online", "ann", "ben"});
  place.release({place.launcher("1.0.0")}, {"ann"});
  const std::filesystem::path other = place.launcher("1.0.1");
  const std::string message =
      "A draft of 'release' waits: the role targets needs 1 more signature, by ben. Sign it with 'ravok-publish "
      "repository sign', or remove it with 'ravok-publish repository discard'";
  expect_refused(
      place, [&] { place.release({other}); }, "draft_pending", message);
  expect_refused(
      place, [&] { place.withdraw("1.0.0"); }, "draft_pending", message);
  EXPECT_EQ(discard_draft(place.folder, place.now).action, "release");
  EXPECT_FALSE(std::filesystem::exists(place.folder / "draft"));
  EXPECT_EQ(discard_draft(place.folder, place.now).action, "");
  EXPECT_TRUE(place.release({other}, {"ann", "ben", "online"}).repository.published);
  EXPECT_EQ(place.seen_build(), "1.0.1");
}

TEST(RepositoryRelease, DiscardsADraftThatNobodyCanRead) {
  const RepositoryPlace place;
  place.init();
  place.root.write("repository/draft/draft.json", "{");
  const auto failure = testing::failure_of([&] { place.release({place.launcher("1.0.0")}); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "invalid_draft");
  EXPECT_EQ(std::string(failure->what())
                .find("The draft in " + (place.folder / "draft").native() +
                      " cannot be read, and 'ravok-publish repository discard' removes it: "),
            0u);
  EXPECT_EQ(discard_draft(place.folder, place.now).action, "unknown");
  EXPECT_TRUE(place.release({place.launcher("1.0.0")}).repository.published);
}

TEST(RepositoryRelease, RefusesASignatureThatClientsWouldRefuse) {
  const RepositoryPlace place;
  place.init();
  std::vector<Signer> signers = place.signers();
  signers.front().sign = [other = place.signers({"root"}).front()](std::string_view text) { return other.sign(text); };
  expect_refused(
      place,
      [&] {
        publish_release({place.folder, {{place.launcher("1.0.0"), ""}}, {}}, signers, place.now, {});
      },
      "invalid_signature", "The signature of online does not fit its key");
}

class FailedRelease : public ::testing::TestWithParam<const char*> {};

TEST_P(FailedRelease, LeavesNoCopyOfAPackageUnlessTheNextRunFinishesIt) {
  const RepositoryPlace place;
  place.init();
  const std::filesystem::path manifest = place.launcher("1.0.0");
  std::filesystem::copy(place.folder, place.root / "before", std::filesystem::copy_options::recursive);
  int failed = 0;
  int begun = 0;
  for (bool is_whole = false; !is_whole; ++failed) {
    std::filesystem::remove_all(place.folder);
    std::filesystem::copy(place.root / "before", place.folder, std::filesystem::copy_options::recursive);
    {
      const testing::Planned planned(testing::failing(GetParam(), ENOSPC, failed + 1));
      static_cast<void>(testing::failure_of([&] { place.release({manifest}); }));
      is_whole = !planned.happened();
    }
    if (std::filesystem::exists(place.folder / "draft")) {
      EXPECT_TRUE(RepositorySession(place.folder, place.now).finished_former()) << failed;
      EXPECT_EQ(place.seen_build(), "1.0.0");
      ++begun;
    }
  }
  EXPECT_GT(failed, begun + 3);
  EXPECT_GT(begun, 3);
}

INSTANTIATE_TEST_SUITE_P(AtEachCall, FailedRelease, ::testing::Values("create", "write", "rename", "fsync"));

TEST(RepositoryRelease, AddsTheArchiveOfAnEncryptedGameLater) {
  const RepositoryPlace place;
  place.init();
  const std::filesystem::path manifest = place.build(SnapshotKind::game, "7");
  const std::filesystem::path out = manifest.parent_path();
  Json document = Json::parse(RepositoryPlace::bytes(manifest));
  const std::uint64_t length = document.at("archive").at("length").get<std::uint64_t>();
  const std::string artifact(length + 16 + 96, 'e');
  const std::string secret(32, 'k');
  document["encrypted"] = {
      {"format", "ravok-chacha20-poly1305-v1"},
      {"artifact", {{"target", "game.enc"}, {"length", artifact.size()}, {"sha256", digest(artifact, "sha256")}}},
      {"key", {{"target", "game.key"}, {"length", 32}, {"sha256", digest(secret, "sha256")}}}};
  const std::string folder = out.lexically_relative(place.root.path()).native() + "/";
  const std::filesystem::path encrypted = place.root.write(folder + "encrypted.json", document.dump());
  place.root.write(folder + "game.enc", artifact);
  const std::filesystem::path archive = out / "game-linux-x86_64-7.tar.zst";
  std::filesystem::rename(archive, place.root / "kept");
  const ReleasedBuild before = place.release({encrypted}).builds.front();
  EXPECT_EQ(before.files, (std::vector<std::string>{"game.enc"}));
  EXPECT_EQ(before.missing, (std::vector<std::string>{"game-linux-x86_64-7.tar.zst", "game.key"}));
  std::filesystem::rename(place.root / "kept", archive);
  place.root.write(folder + "game.key", secret);
  const ReleasedBuild after = place.release({encrypted}).builds.front();
  EXPECT_EQ(after.files, (std::vector<std::string>{"game-linux-x86_64-7.tar.zst", "game.enc", "game.key"}));
  EXPECT_EQ(after.missing, std::vector<std::string>{});
  EXPECT_EQ(place.seen_build("games/game/linux-x86_64.manifest.json"), "7");
}

TEST(RepositoryRelease, IsCancelledWithoutAnyChange) {
  const RepositoryPlace place;
  place.init();
  expect_refused(
      place,
      [&] {
        publish_release({place.folder, {{place.launcher("1.0.0"), ""}}, {}}, place.signers(), place.now,
                        [](std::uint64_t, std::uint64_t) { return false; });
      },
      "cancelled", "Operation cancelled at a safe boundary");
  EXPECT_TRUE(place.release({place.launcher("1.0.0")}).repository.published);
}

TEST(RepositoryRelease, LeavesARepositoryAloneThatAnotherRunChanges) {
  const RepositoryPlace place;
  place.init();
  const RepositoryFolder held(place.folder, RepositoryFolder::Use::change);
  expect_refused(
      place, [&] { place.release({place.root / "any.json"}); }, "busy",
      "Another run is changing this repository: " + place.folder.native());
}

TEST(RepositoryRelease, RefusesAFolderThatIsNoRepository) {
  const RepositoryPlace place;
  EXPECT_FAILURE(place.release({place.root / "any.json"}), "no_repository",
                 "This is no repository's folder; 'ravok-publish repository init' makes one: " + place.folder.native());
}

TEST(KeyWarnings, TellOfRolesThatOneLostKeyStops) {
  const auto root_of = [](const PlaceRoles& roles) {
    const RepositoryPlace place(roles);
    return Json::parse(place.root.read("root.json")).at("signed");
  };
  EXPECT_EQ(key_warnings(root_of({})),
            (std::vector<std::string>{"The role root has a single key: its loss strands every client, since no key of "
                                      "the repository can be replaced any more"}));
  PlaceRoles all;
  all.root = {{"a", "b"}, 2};
  all.targets = {{"a", "b", "c"}, 3};
  EXPECT_EQ(key_warnings(root_of(all)),
            (std::vector<std::string>{"All 2 keys of the role root must sign: the loss of one of them strands every "
                                      "client, since no key of the repository can be replaced any more",
                                      "All 3 keys of the role targets must sign: the loss of one of them stops this "
                                      "role until the root's keys have replaced it"}));
  PlaceRoles spare;
  spare.root = {{"a", "b", "c"}, 2};
  EXPECT_EQ(key_warnings(root_of(spare)), std::vector<std::string>{});
}

}  // namespace
}  // namespace ravok::repository_release_test
