// What a draft may hold, whoever has written it, and what becomes of one that cannot be published.

#include "publisher/repository/repository_draft.hpp"

#include <cerrno>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "publisher/repository/discard_draft.hpp"
#include "publisher/repository/repository_files.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/repository_place.hpp"
#include "support/tree_state.hpp"

namespace ravok::repository_draft_test {
namespace {

using testing::PlaceRoles;
using testing::RepositoryPlace;
using testing::same_tree;
using testing::tree_state;
using testing::TreeState;
using Names = std::vector<std::string>;
using Versions = std::vector<std::uint64_t>;

constexpr const char* metadata_folder = "repository/public/tuf/metadata/";
constexpr const char* no_signatures = "Metadata does not meet its authorized signature threshold";

// A repository with a release whose publication was broken off before anything of it appeared.
struct BegunPublication {
  BegunPublication() {
    place.init();
    const std::filesystem::path kept = place.root / "kept";
    std::filesystem::copy(place.folder, kept, std::filesystem::copy_options::recursive);
    place.release({place.launcher("1.0.0")});
    for (const char* const role : repository_roles) {
      if (const std::string file = role_file(role, 2); std::string(role) != "root") {
        documents[role] = {file, place.root.read(metadata_folder + file)};
      }
    }
    const std::filesystem::path served = place.folder / "public/tuf/targets";
    for (const auto& entry : std::filesystem::directory_iterator(served)) {
      targets[entry.path().filename().native()] = RepositoryPlace::bytes(entry.path());
    }
    std::filesystem::remove_all(place.folder);
    std::filesystem::rename(kept, place.folder);
    write();
  }

  void write() const {
    Json named = Json::object();
    for (const auto& [role, document] : documents) {
      named[role] = document.file;
      if (document.file.find('/') == std::string::npos) {
        place.root.write("repository/draft/" + document.file, document.text);
      }
    }
    for (const auto& [name, bytes] : targets) {
      place.root.write("repository/draft/targets/" + name, bytes);
    }
    place.root.write("repository/draft/draft.json",
                     Json({{"schema_version", 1},
                           {"kind", "ravok-repository-draft"},
                           {"documents", named},
                           {"upload", {"tuf/metadata/2.snapshot.json", "tuf/metadata/timestamp.json"}}})
                         .dump());
  }

  // The next run refuses the draft and touches nothing that is served or lies beside the folder.
  void expect_refused(const std::string& why) const {
    write();
    const TreeState before = tree_state(place.root.path());
    EXPECT_FAILURE(RepositorySession(place.folder, place.now), "invalid_draft",
                   "The draft in " + (place.folder / "draft").native() +
                       " cannot be read, and 'ravok-publish repository discard' removes it: " + why);
    EXPECT_TRUE(same_tree(tree_state(place.root.path()), before));
  }

  void change(const std::string& role, const std::string& member, const Json& value) {
    Json document = Json::parse(documents[role].text);
    document["signed"][member] = value;
    documents[role].text = document.dump();
  }

  struct Document {
    std::string file;
    std::string text;
  };

  const RepositoryPlace place;
  std::map<std::string, Document> documents;
  std::map<std::string, std::string> targets;
};

TEST(BegunPublications, AreFinishedByTheNextRun) {
  const BegunPublication begun;
  EXPECT_TRUE(RepositorySession(begun.place.folder, begun.place.now).finished_former());
  EXPECT_EQ(begun.place.versions(), (Versions{1, 2, 2, 2}));
  EXPECT_EQ(begun.place.seen_build(), "1.0.0");
  EXPECT_FALSE(std::filesystem::exists(begun.place.folder / "draft"));
}

TEST(BegunPublications, AreFinishedWhateverOfThemHasAppeared) {
  for (const char* const last : {"targets", "snapshot", "timestamp"}) {
    const BegunPublication begun;
    for (const char* const role : {"targets", "snapshot", "timestamp"}) {
      const auto& document = begun.documents.at(role);
      begun.place.root.write(metadata_folder + document.file, document.text);
      if (std::string(role) == last) {
        break;
      }
    }
    EXPECT_TRUE(RepositorySession(begun.place.folder, begun.place.now).finished_former());
    EXPECT_EQ(begun.place.seen_build(), "1.0.0") << last;
  }
}

TEST(BegunPublications, AreRefusedWithoutTheSignaturesOfTheirRoles) {
  for (const char* const role : {"targets", "snapshot", "timestamp"}) {
    BegunPublication begun;
    Json document = Json::parse(begun.documents[role].text);
    document["signatures"] = Json::array();
    begun.documents[role].text = document.dump(1) + "\n";
    begun.expect_refused(std::string(role) == "timestamp" ? no_signatures
                                                          : "Metadata length does not match its parent");
  }
}

TEST(BegunPublications, AreRefusedWithARootThatThePresentOneDoesNotAuthorize) {
  BegunPublication begun;
  Json root = Json::parse(begun.place.root.read(std::string(metadata_folder) + "1.root.json"));
  root["signed"]["version"] = 2;
  begun.documents["root"] = {"2.root.json", root.dump()};
  begun.expect_refused(no_signatures);
}

TEST(BegunPublications, AreRefusedUnderNamesThatAreNotThoseOfTheirVersions) {
  const std::string wrong_name = "A document of the role targets has another name than its version gives it";
  for (const std::string name : {"../../outside.targets.json", "/outside.targets.json", "3.targets.json"}) {
    BegunPublication begun;
    begun.documents["targets"].file = name;
    begun.expect_refused(wrong_name);
  }
  BegunPublication other_role;
  other_role.documents["../role"] = other_role.documents["targets"];
  other_role.expect_refused("There is no role ../role");
  BegunPublication other_version;
  other_version.change("targets", "version", 3);
  other_version.expect_refused(wrong_name);
}

TEST(BegunPublications, AreRefusedWhenThePresentTimestampIsNewer) {
  const BegunPublication begun;
  const std::filesystem::path draft = begun.place.folder / "draft";
  std::filesystem::rename(draft, begun.place.root / "draft");
  for (int count = 0; count < 2; ++count) {
    refresh_repository({begun.place.folder, {}, true}, begun.place.signers(), begun.place.now);
  }
  std::filesystem::rename(begun.place.root / "draft", draft);
  begun.expect_refused("Timestamp version went backwards");
  EXPECT_EQ(begun.place.versions(), (Versions{1, 1, 1, 3}));
}

TEST(BegunPublications, GiveNoPlaceToFilesThatTheirTargetsDoNotDescribe) {
  BegunPublication begun;
  begun.targets["page.html"] = "not described";
  begun.write();
  EXPECT_TRUE(RepositorySession(begun.place.folder, begun.place.now).finished_former());
  EXPECT_FALSE(std::filesystem::exists(begun.place.folder / "public/tuf/targets/page.html"));
  EXPECT_EQ(begun.place.seen_build(), "1.0.0");
}

TEST(BegunPublications, ProveTheFilesOfTargetsBeforeAnythingAppears) {
  BegunPublication begun;
  auto& [name, bytes] = *begun.targets.begin();
  bytes.back() = static_cast<char>(bytes.back() ^ 1);
  begun.expect_refused("The draft's file is not the one that its name says: " +
                       (begun.place.folder / "draft/targets" / name).native());
}

TEST(BegunPublications, AreRefusedWithoutTheFilesOfTheirTargets) {
  BegunPublication begun;
  const std::string name = begun.targets.begin()->first;
  begun.targets.erase(name);
  std::filesystem::remove(begun.place.folder / "draft/targets" / name);
  begun.expect_refused("The file of the target " + name.substr(65) + " is missing or has another length: " +
                       (begun.place.folder / "public/tuf/targets" / name).native());
  EXPECT_EQ(discard_draft(begun.place.folder, begun.place.now).action, "unknown");
}

// A place where two must sign the targets, and one of them has signed a release.
struct WaitingDraft {
  WaitingDraft() {
    place.init({"online", "ann", "ben"});
    place.release({place.launcher("1.0.0")}, {"ann"});
  }

  RepositoryOutcome sign(const Names& names) const {
    RepositorySession session(place.folder, place.now);
    return session.conclude(session.draft().value(), place.signers(names));
  }

  Json record() const { return Json::parse(place.root.read("repository/draft/draft.json")); }

  RepositoryPlace place = RepositoryPlace({{{"root"}}, {{"ann", "ben"}, 2}, {}, {}, "2050-01-01T00:00:00Z"});
};

TEST(WaitingDrafts, ProveTheFilesOfTargetsBeforeTheyArePublished) {
  const WaitingDraft waiting;
  std::filesystem::path damaged;
  for (const auto& entry : std::filesystem::directory_iterator(waiting.place.folder / "draft/targets")) {
    damaged = entry.path();
  }
  std::string bytes = RepositoryPlace::bytes(damaged);
  bytes.front() = static_cast<char>(bytes.front() ^ 1);
  waiting.place.root.write(damaged.lexically_relative(waiting.place.root.path()).native(), bytes);
  const TreeState before = tree_state(waiting.place.folder / "public");
  EXPECT_FAILURE(waiting.sign({"ben", "online"}), "content_mismatch",
                 "The draft's file is not the one that its name says: " + damaged.native());
  EXPECT_TRUE(same_tree(tree_state(waiting.place.folder / "public"), before));
  bytes.front() = static_cast<char>(bytes.front() ^ 1);
  waiting.place.root.write(damaged.lexically_relative(waiting.place.root.path()).native(), bytes);
  EXPECT_TRUE(waiting.sign({"online"}).published);
  EXPECT_EQ(waiting.place.seen_build(), "1.0.0");
}

TEST(RepositoryLinks, AreRefusedInPlaceOfItsFolders) {
  const WaitingDraft waiting;
  for (const char* const name :
       {"public", "public/tuf", "public/tuf/metadata", "public/tuf/targets", "draft", "draft/targets"}) {
    const std::filesystem::path folder = waiting.place.folder / name;
    std::filesystem::rename(folder, waiting.place.root / "moved");
    std::filesystem::create_directory_symlink(waiting.place.root / "moved", folder);
    const TreeState before = tree_state(waiting.place.root.path());
    EXPECT_FAILURE(waiting.sign({"ben", "online"}), "unsafe_path",
                   "A folder of the repository is a link, and none is followed there: " + folder.native());
    EXPECT_TRUE(same_tree(tree_state(waiting.place.root.path()), before)) << name;
    std::filesystem::remove(folder);
    std::filesystem::rename(waiting.place.root / "moved", folder);
  }
  EXPECT_TRUE(waiting.sign({"ben", "online"}).published);
}

TEST(RepositoryLinks, AreRefusedAmongTheFoldersOfTargets) {
  const RepositoryPlace place;
  place.init();
  std::filesystem::create_directory(place.root / "outside");
  const std::filesystem::path link = place.folder / "public/tuf/targets/games";
  std::filesystem::create_directory_symlink(place.root / "outside", link);
  EXPECT_FAILURE(place.release({place.build(SnapshotKind::game, "7")}), "unsafe_path",
                 "A folder of the repository is a link, and none is followed there: " + link.native());
  EXPECT_TRUE(std::filesystem::is_empty(place.root / "outside"));
  EXPECT_EQ(place.versions(), (Versions{1, 1, 1, 1}));
  std::filesystem::remove(link);
  EXPECT_TRUE(place.release({place.build(SnapshotKind::game, "7")}).repository.published);
}

TEST(RepositoryFiles, RefuseToBeMadeBehindALink) {
  const RepositoryPlace place;
  place.init();
  std::filesystem::create_directory(place.root / "outside");
  std::filesystem::create_directory_symlink(place.root / "outside", place.folder / "link");
  EXPECT_FAILURE(
      replace_file(place.folder, place.folder / "link/file", "bytes"), "unsafe_path",
      "A folder of the repository is a link, and none is followed there: " + (place.folder / "link").native());
  EXPECT_TRUE(std::filesystem::is_empty(place.root / "outside"));
}

TEST(DamagedTargets, AreMadeAnewByTheirRelease) {
  const RepositoryPlace place;
  place.init();
  const std::filesystem::path manifest = place.launcher("1.0.0");
  place.release({manifest});
  EXPECT_FALSE(place.release({manifest}).repository.published);
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(place.folder / "public/tuf/targets")) {
    files.push_back(entry.path());
  }
  for (const std::filesystem::path& file : files) {
    std::filesystem::resize_file(file, 5);
    std::filesystem::remove(place.folder / "upload.txt");
    EXPECT_TRUE(place.release({manifest}).repository.published) << file;
    EXPECT_EQ(place.seen_build(), "1.0.0");
    EXPECT_EQ(place.upload_list().find("tuf/targets/" + file.filename().native() + "\n"), 0u);
  }
}

TEST(WaitingDrafts, AreRefusedWhenTheirDocumentsAreNotWhatTheyAskFor) {
  const WaitingDraft waiting;
  const auto expect_refused = [&](const std::string& why) {
    const TreeState before = tree_state(waiting.place.folder);
    EXPECT_FAILURE(waiting.sign({"ben", "online"}), "invalid_draft",
                   "The draft in " + (waiting.place.folder / "draft").native() +
                       " cannot be read, and 'ravok-publish repository discard' removes it: " + why);
    EXPECT_TRUE(same_tree(tree_state(waiting.place.folder), before));
  };
  const Json asked = waiting.record();
  const auto with = [&](const Json& change) {
    Json record = asked;
    record.update(change);
    waiting.place.root.write("repository/draft/draft.json", record.dump());
  };
  with({{"targets", Json::object()}});
  expect_refused("The document of the role targets is not what the draft asks for");
  with({{"days", {{"targets", 1}, {"snapshot", 30}, {"timestamp", 14}}}});
  expect_refused("The document of the role targets would last longer than the draft asks for");
  with({{"days", {{"targets", 36'501}, {"snapshot", 30}, {"timestamp", 14}}}});
  expect_refused("Documents are valid for 1 to 36500 days, not 36501");
  with({{"days", {{"snapshot", 30}, {"timestamp", 14}}}});
  expect_refused("It does not say how long its documents last");
  with({{"roles", {"snapshot", "targets", "timestamp"}}});
  expect_refused("Its roles are not in their order");
  with({{"roles", {"targets", "other"}}});
  expect_refused("Its roles are not in their order");
  with({{"root", {{"version", 2}}}});
  expect_refused("It asks for what none of its roles makes");
  with({{"documents", {{"targets", "../2.targets.json"}}}});
  expect_refused("A document of the role targets has another name than its version gives it");
  with(Json::object());
  EXPECT_TRUE(waiting.sign({"ben", "online"}).published);
}

TEST(DiscardedDrafts, AreAlsoThoseWhosePublicationCannotBeFinished) {
  const BegunPublication begun;
  begun.place.root.write(std::string(metadata_folder) + "2.targets.json", begun.documents.at("targets").text + " ");
  EXPECT_FAILURE(RepositorySession(begun.place.folder, begun.place.now), "version_taken",
                 "Another document has this name already, and 'ravok-publish repository discard' gives up what was to "
                 "have it: " +
                     (begun.place.folder / "public/tuf/metadata/2.targets.json").native());
  EXPECT_EQ(discard_draft(begun.place.folder, begun.place.now).action, "unknown");
  EXPECT_FALSE(std::filesystem::exists(begun.place.folder / "draft"));
  // Nothing is left on the list that will not come.
  EXPECT_EQ(begun.place.upload_list(),
            "tuf/metadata/1.root.json\ntuf/metadata/1.targets.json\ntuf/metadata/1.snapshot.json\n"
            "tuf/metadata/timestamp.json\n");
  EXPECT_TRUE(begun.place.release({begun.place.launcher("1.0.1")}).repository.published);
  EXPECT_EQ(begun.place.seen_build(), "1.0.1");
}

// What is wrong with the published side is no reason to lose signatures.
TEST(DiscardedDrafts, AreNoneForWhichAPublishedDocumentIsMissing) {
  const auto expect_kept = [](const RepositoryPlace& place, const std::string& file, const std::string& message) {
    const std::filesystem::path document = place.folder / "public/tuf/metadata" / file;
    std::filesystem::rename(document, place.root / "kept");
    const TreeState before = tree_state(place.folder);
    EXPECT_FAILURE(discard_draft(place.folder, place.now), "missing_file", message + document.native());
    EXPECT_TRUE(same_tree(tree_state(place.folder), before));
    std::filesystem::rename(place.root / "kept", document);
  };
  const std::string lacks = "The repository lacks a document: ";
  const WaitingDraft waiting;
  expect_kept(waiting.place, "1.snapshot.json", lacks);
  const std::filesystem::path metadata = waiting.place.folder / "public/tuf/metadata";
  std::filesystem::rename(metadata / "timestamp.json", waiting.place.root / "kept");
  const TreeState before = tree_state(waiting.place.folder);
  EXPECT_FAILURE(discard_draft(waiting.place.folder, waiting.place.now), "missing_file",
                 "timestamp.json is gone; fetch the newest one from your site into " + metadata.native());
  EXPECT_TRUE(same_tree(tree_state(waiting.place.folder), before));
  std::filesystem::rename(waiting.place.root / "kept", metadata / "timestamp.json");
  EXPECT_TRUE(waiting.sign({"ben", "online"}).published);

  const BegunPublication begun;
  expect_kept(begun.place, "1.snapshot.json", lacks);
  expect_kept(begun.place, "1.targets.json", lacks);
  // A publication brings the timestamp itself.
  std::filesystem::remove(begun.place.folder / "public/tuf/metadata/timestamp.json");
  EXPECT_TRUE(discard_draft(begun.place.folder, begun.place.now).repository.finished_former);
  EXPECT_EQ(begun.place.seen_build(), "1.0.0");
}

// The work fails for something in the public folder, which the message names, and discarding fails in the same way.
// When that is gone, what was begun goes on.
template <typename Work>
void expect_kept(const RepositoryPlace& place, const std::filesystem::path& cause, const std::string& code,
                 const std::string& message, Work work) {
  const TreeState before = tree_state(place.folder);
  EXPECT_FAILURE(work(), code, message);
  EXPECT_FAILURE(discard_draft(place.folder, place.now), code, message);
  EXPECT_TRUE(same_tree(tree_state(place.folder), before));
  std::filesystem::remove(cause);
}

TEST(DiscardedDrafts, AreNoneThatOnlyThePublishedSideStandsInTheWayOf) {
  const WaitingDraft waiting;
  const std::filesystem::path metadata = waiting.place.folder / "public/tuf/metadata";
  const std::filesystem::path link = metadata / "2.targets.json";
  std::filesystem::create_symlink("/nowhere", link);
  expect_kept(waiting.place, link, "unsafe_path", "Cannot open file: " + link.native(), [&] {
    waiting.sign({"ben", "online"});
  });
  const std::filesystem::path last = metadata / "18446744073709551615.targets.json";
  std::filesystem::copy_file(metadata / "1.targets.json", last);
  expect_kept(waiting.place, last, "invalid_version", "No number is left for the next version of the role targets",
              [&] {
                waiting.sign({"ben", "online"});
              });
  EXPECT_TRUE(waiting.sign({"ben", "online"}).published);
  EXPECT_EQ(waiting.place.seen_build(), "1.0.0");
}

TEST(DiscardedDrafts, AreNoPublicationsThatALinkStandsInTheWayOf) {
  const RepositoryPlace place;
  place.init();
  std::filesystem::copy(place.folder, place.root / "kept", std::filesystem::copy_options::recursive);
  place.release({place.build(SnapshotKind::game, "7")});
  const std::filesystem::path former = place.root / "former";
  std::filesystem::rename(place.folder, former);
  std::filesystem::rename(place.root / "kept", place.folder);
  Json documents = Json::object();
  for (const char* const role : {"targets", "snapshot", "timestamp"}) {
    documents[role] = role_file(role, 2);
    place.root.write("repository/draft/" + role_file(role, 2),
                     RepositoryPlace::bytes(former / "public/tuf/metadata" / role_file(role, 2)));
  }
  std::filesystem::copy(former / "public/tuf/targets", place.folder / "draft/targets",
                        std::filesystem::copy_options::recursive);
  const Json begun = {{"schema_version", 1},
                      {"kind", "ravok-repository-draft"},
                      {"documents", documents},
                      {"upload", {"tuf/metadata/timestamp.json"}}};
  place.root.write("repository/draft/draft.json", begun.dump());
  const std::filesystem::path link = place.folder / "public/tuf/targets/games";
  std::filesystem::create_directory_symlink(place.root / "elsewhere", link);
  expect_kept(place, link, "unsafe_path",
              "A folder of the repository is a link, and none is followed there: " + link.native(),
              [&] { RepositorySession(place.folder, place.now); });
  EXPECT_TRUE(discard_draft(place.folder, place.now).repository.finished_former);
  EXPECT_EQ(place.seen_build("games/game/linux-x86_64.manifest.json"), "7");
}

// Clients were never led to what was given up, even where all but its timestamp had appeared.
TEST(DiscardedDrafts, AreNothingThatAWithdrawalGoesBackTo) {
  const BegunPublication begun;
  const RepositoryPlace& place = begun.place;
  for (const char* const role : {"targets", "snapshot"}) {
    const auto& document = begun.documents.at(role);
    place.root.write(metadata_folder + document.file, document.text);
  }
  for (const auto& [name, bytes] : begun.targets) {
    place.root.write("repository/public/tuf/targets/" + name, bytes);
  }
  std::filesystem::remove(place.folder / "draft/timestamp.json");
  EXPECT_EQ(discard_draft(place.folder, place.now).action, "unknown");
  EXPECT_EQ(place.versions(), (Versions{1, 1, 1, 1}));
  place.release({place.launcher("0.9.0")});
  place.release({place.launcher("2.0.0", "another")});
  const WithdrawalOutcome outcome = place.withdraw("2.0.0");
  ASSERT_EQ(outcome.builds.size(), 1u);
  EXPECT_EQ(outcome.builds.front().former_build_id, "0.9.0");
  // Its name is free for what is released under it at last.
  EXPECT_TRUE(place.release({place.launcher("1.0.0", "other content")}).repository.published);
  EXPECT_EQ(place.seen_build(), "1.0.0");
}

// To forget that snapshots were published would be to begin again with the first timestamp.
TEST(DiscardedDrafts, StayWhereTheTimestampIsGoneThatTheyStoodOn) {
  const WaitingDraft waiting;
  const std::filesystem::path metadata = waiting.place.folder / "public/tuf/metadata";
  std::filesystem::remove(metadata / "timestamp.json");
  waiting.place.root.write("repository/draft/draft.json", "no draft");
  const TreeState before = tree_state(waiting.place.folder);
  EXPECT_FAILURE(discard_draft(waiting.place.folder, waiting.place.now), "missing_file",
                 "timestamp.json is gone; fetch the newest one from your site into " + metadata.native());
  EXPECT_TRUE(same_tree(tree_state(waiting.place.folder), before));
}

class DiscardedPublication : public ::testing::TestWithParam<const char*> {};

// A disk that is full or cannot be read for a moment is no reason to give up what clients may have seen a part of.
TEST_P(DiscardedPublication, IsFinishedHoweverOftenThisMachineFailsBefore) {
  const BegunPublication begun;
  const RepositoryPlace& place = begun.place;
  std::filesystem::copy(place.folder, place.root / "before", std::filesystem::copy_options::recursive);
  int failed = 0;
  for (bool is_whole = false; !is_whole; ++failed) {
    std::filesystem::remove_all(place.folder);
    std::filesystem::copy(place.root / "before", place.folder, std::filesystem::copy_options::recursive);
    {
      const testing::Planned planned(testing::failing(GetParam(), ENOSPC, failed + 1));
      static_cast<void>(testing::failure_of([&] { EXPECT_EQ(discard_draft(place.folder, place.now).action, ""); }));
      is_whole = !planned.happened();
    }
    EXPECT_EQ(discard_draft(place.folder, place.now).action, "") << failed;
    EXPECT_EQ(place.seen_build(), "1.0.0") << failed;
  }
  EXPECT_GT(failed, 3);
}

INSTANTIATE_TEST_SUITE_P(AtEachCall, DiscardedPublication,
                         ::testing::Values("create", "open", "lstat", "read", "write", "fsync", "rename"));

TEST(LostTimestamps, AreNotReplacedByAFirstOne) {
  const RepositoryPlace place;
  place.init();
  const std::filesystem::path timestamp = place.folder / "public/tuf/metadata/timestamp.json";
  std::filesystem::rename(timestamp, place.root / "kept");
  const TreeState before = tree_state(place.folder);
  const std::string message = "timestamp.json is gone; fetch the newest one from your site into " +
                              (place.folder / "public/tuf/metadata").native();
  EXPECT_FAILURE(place.refresh(), "missing_file", message);
  EXPECT_FAILURE(discard_draft(place.folder, place.now), "missing_file", message);
  EXPECT_TRUE(same_tree(tree_state(place.folder), before));
  std::filesystem::rename(place.root / "kept", timestamp);
  EXPECT_TRUE(place.release({place.launcher("1.0.0")}).repository.published);
}

TEST(RefreshesBesideADraft, WriteTheListBeforeTheTimestamp) {
  WaitingDraft waiting;
  waiting.place.now = parse_tuf_time("2030-01-20T00:00:00Z");
  const std::filesystem::path list = waiting.place.folder / "upload.txt";
  std::filesystem::remove(list);
  std::filesystem::create_directory(list);
  // The list cannot be written, and so no client sees what it would miss.
  EXPECT_TRUE(testing::failure_of([&] { waiting.place.refresh(); }));
  EXPECT_EQ(waiting.place.versions(), (Versions{1, 1, 1, 1}));
  std::filesystem::remove(list);
  waiting.place.refresh();
  EXPECT_EQ(waiting.place.upload_list(), "tuf/metadata/3.snapshot.json\ntuf/metadata/timestamp.json\n");
  EXPECT_EQ(waiting.place.versions(), (Versions{1, 1, 3, 2}));
}

TEST(RefreshesBesideADraft, KeepOnTheListWhatIsNotUploadedWhereverTheyFail) {
  WaitingDraft waiting;
  waiting.place.now = parse_tuf_time("2030-01-20T00:00:00Z");
  const std::filesystem::path before = waiting.place.root / "before";
  std::filesystem::copy(waiting.place.folder, before, std::filesystem::copy_options::recursive);
  int failed = 0;
  for (bool is_whole = false; !is_whole; ++failed) {
    std::filesystem::remove_all(waiting.place.folder);
    std::filesystem::copy(before, waiting.place.folder, std::filesystem::copy_options::recursive);
    {
      const testing::Planned planned(testing::failing("rename", ENOSPC, failed + 1));
      static_cast<void>(testing::failure_of([&] { waiting.place.refresh(); }));
      is_whole = !planned.happened();
    }
    const std::string list = waiting.place.upload_list();
    const RepositoryState state = RepositoryFolder(waiting.place.folder, RepositoryFolder::Use::read).state();
    for (const char* const role : repository_roles) {
      EXPECT_NE(list.find("tuf/metadata/" + state.role(role).file + "\n"), std::string::npos) << failed << ": " << role;
    }
  }
  EXPECT_GT(failed, 3);
  EXPECT_EQ(waiting.place.upload_list(),
            "tuf/metadata/1.root.json\ntuf/metadata/1.targets.json\ntuf/metadata/2.snapshot.json\n"
            "tuf/metadata/timestamp.json\n");
}

TEST(UploadLists, NameTheWholeRepositoryWhereTheyAreLost) {
  const RepositoryPlace place;
  place.init();
  place.release({place.launcher("1.0.0")});
  const std::string whole = place.upload_list();
  const auto expect_whole_again = [&] {
    refresh_repository({place.folder, {}, true}, place.signers(), place.now);
    EXPECT_EQ(place.upload_list(), whole);
  };
  for (const std::string& damaged : {std::string(), whole.substr(0, 20), whole.substr(0, whole.size() - 1)}) {
    place.root.write("repository/upload.txt", damaged);
    expect_whole_again();
  }
  const std::filesystem::path other = place.root.write("other", "tuf/metadata/timestamp.json\n");
  std::filesystem::remove(place.folder / "upload.txt");
  std::filesystem::create_symlink(other, place.folder / "upload.txt");
  expect_whole_again();
  EXPECT_EQ(place.root.read("other"), "tuf/metadata/timestamp.json\n");
  // A list that was removed is none that was lost.
  std::filesystem::remove(place.folder / "upload.txt");
  refresh_repository({place.folder, {}, true}, place.signers(), place.now);
  EXPECT_EQ(place.upload_list(), "tuf/metadata/timestamp.json\n");
}

}  // namespace
}  // namespace ravok::repository_draft_test
