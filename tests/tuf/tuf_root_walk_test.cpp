#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tuf/refreshes.hpp"
#include "tuf/tuf.hpp"

namespace ravok::refresh_tests {
namespace {

// A client is opened.

class OpenedClients : public Refreshes {};

TEST_F(OpenedClients, NeedAStoredRoot) {
  EXPECT_FAILURE(client(), "file_read", "Cannot open file: " + (directory / "root.json").native());
  EXPECT_EQ(stored(), StoredFiles());
}

TEST_F(OpenedClients, KeepOthersFromTheirDirectory) {
  begin();
  auto first = client();
  EXPECT_FAILURE(client(), "busy", "Another Ravok operation is using this state");
  first->refresh();
  EXPECT_FAILURE(client(), "busy", "Another Ravok operation is using this state");
  first.reset();
  EXPECT_NO_THROW(client());
}

TEST_F(OpenedClients, VerifyTheStoredRootAgain) {
  begin();
  const std::string good = repository.root_text();
  Json changed = Json::parse(good);
  changed["signed"]["version"] = 2;
  put("root.json", changed.dump());
  EXPECT_FAILURE(client(), "signature_threshold", too_few);
  EXPECT_EQ(stored(), (StoredFiles{{"root.json", changed.dump()}}));
  put("root.json", good.substr(0, good.size() / 2));
  EXPECT_EQ(testing::failure_of([&] { client(); }).value().code, "invalid_json");
  put("root.json", repository.text_of("timestamp"));
  EXPECT_FAILURE(client(), "metadata_type", "Unexpected metadata type");
}

TEST_F(OpenedClients, BoundTheStoredRoot) {
  begin();
  limits.root_bytes = repository.root_text().size();
  EXPECT_NO_THROW(client());
  --limits.root_bytes;
  EXPECT_FAILURE(client(), "size_limit", "File exceeds read limit");
  limits.root_bytes = greatest;
  put("root.json", repository.root_text() + std::string(4'194'304, ' '));
  EXPECT_FAILURE(client(), "size_limit", too_large);
}

TEST_F(OpenedClients, RefuseARootThatIsNoFile) {
  begin();
  const std::filesystem::path place = directory / "root.json";
  std::filesystem::rename(place, root / "elsewhere.json");
  std::filesystem::create_symlink(root / "elsewhere.json", place);
  EXPECT_FAILURE(client(), "unsafe_path", "Cannot open file: " + place.native());
  std::filesystem::remove(place);
  std::filesystem::create_directory(place);
  EXPECT_FAILURE(client(), "unsafe_path", "Expected an ordinary file: " + place.native());
  std::filesystem::remove(place);
  ASSERT_EQ(mkfifo(place.c_str(), 0600), 0);
  EXPECT_FAILURE(client(), "unsafe_path", "Expected an ordinary file: " + place.native());
}

TEST_F(OpenedClients, LetAnExpiredRootIn) {
  repository.root().expires = "2001-01-01T00:00:00Z";
  begin();
  EXPECT_NO_THROW(client());
}

TEST_F(OpenedClients, FinishABrokenOffChangeOfKeys) {
  begin();
  refresh();
  put("root-invalidation.json", R"({"version":2})");
  put(delegated_file("games"), "of a delegated role");
  transport.connected = false;
  transport.forget();
  client();
  EXPECT_EQ(stored(), (StoredFiles{{"root.json", repository.root_text()},
                                   {"targets.json", repository.text_of("targets")},
                                   {delegated_file("games"), "of a delegated role"}}));
  EXPECT_TRUE(transport.requests().empty());
}

TEST_F(OpenedClients, TakeWhateverHasTheNameOfTheMarkForIt) {
  begin();
  refresh();
  const StoredFiles left = {{"root.json", repository.root_text()}, {"targets.json", repository.text_of("targets")}};
  put("root-invalidation.json", "");
  client();
  EXPECT_EQ(stored(), left);
  refresh();
  std::filesystem::create_symlink("nowhere", directory / "root-invalidation.json");
  client();
  EXPECT_EQ(stored(), left);
  refresh();
  std::filesystem::create_directory(directory / "root-invalidation.json");
  client();
  EXPECT_EQ(stored(), left);
}

TEST_F(OpenedClients, KeepTheMarkUntilTheStateIsCleared) {
  begin();
  refresh();
  put("root-invalidation.json", R"({"version":2})");
  std::filesystem::remove(directory / "snapshot.json");
  root.write("data/trust/snapshot.json/inside", "");
  EXPECT_FAILURE(client(), "file_remove", "Cannot remove " + (directory / "snapshot.json").native());
  EXPECT_EQ(file_text("root-invalidation.json"), R"({"version":2})");
  std::filesystem::remove_all(directory / "snapshot.json");
  client();
  EXPECT_EQ(stored(),
            (StoredFiles{{"root.json", repository.root_text()}, {"targets.json", repository.text_of("targets")}}));
}

TEST_F(OpenedClients, ClearNothingForARootThatIsRefused) {
  begin();
  refresh();
  put("root-invalidation.json", R"({"version":2})");
  put("root.json", "{}");
  const StoredFiles before = stored();
  EXPECT_FAILURE(client(), "invalid_metadata", "Metadata must contain a signed object and signature array");
  EXPECT_EQ(stored(), before);
}

// The walk along the roots.

class RootWalk : public Refreshes {
 protected:
  // Publishes this many more roots, each with another key of the role "targets".
  void publish_roots(int count) {
    for (int i = 0; i < count; ++i) {
      repository.rotate("targets");
      repository.publish();
    }
  }
};

TEST_F(RootWalk, TakesOneRootAfterTheOther) {
  begin();
  publish_roots(3);
  refresh();
  EXPECT_EQ(transport.names(), (Names{"2.root.json", "3.root.json", "4.root.json", "5.root.json", "timestamp.json",
                                      repository.file_of("snapshot"), repository.file_of("targets")}));
  EXPECT_EQ(stored(), all_of_repository());
  EXPECT_EQ(file_text("root.json"), repository.root_text(4));
}

TEST_F(RootWalk, EndsAtItsLimitWithoutFailure) {
  begin();
  publish_roots(5);
  limits.root_rotations = 3;
  // The fourth root's targets would have other keys.
  EXPECT_FAILURE(refresh(), "signature_threshold", too_few);
  EXPECT_EQ(transport.names(), (Names{"2.root.json", "3.root.json", "4.root.json", "timestamp.json",
                                      repository.file_of("snapshot"), repository.file_of("targets")}));
  EXPECT_EQ(file_text("root.json"), repository.root_text(4));
  transport.forget();
  refresh();
  EXPECT_EQ(transport.names().at(0), "5.root.json");
  EXPECT_EQ(stored(), all_of_repository());
}

TEST_F(RootWalk, GoesOnWithTheLastRootOfItsLimit) {
  begin();
  for (int i = 0; i < 5; ++i) {
    repository.rotate("root");
    repository.publish();
  }
  limits.root_rotations = 3;
  refresh();
  EXPECT_EQ(file_text("root.json"), repository.root_text(4));
  EXPECT_EQ(file_text("targets.json"), repository.text_of("targets"));
}

TEST_F(RootWalk, AsksForNoRootWithALimitOfZero) {
  begin();
  repository.rotate("root");
  repository.publish();
  limits.root_rotations = 0;
  refresh();
  EXPECT_EQ(transport.names().at(0), "timestamp.json");
  EXPECT_EQ(file_text("root.json"), repository.root_text(1));
}

TEST_F(RootWalk, TakesTwoStatusesForTheEnd) {
  begin();
  for (const long status : {403, 404}) {
    transport.forget();
    transport.on("2.root.json", answers_with_status(status));
    EXPECT_NO_THROW(refresh()) << status;
    EXPECT_EQ(transport.names().at(1), "timestamp.json") << status;
  }
}

TEST_F(RootWalk, TakesNoOtherStatusForTheEnd) {
  begin();
  for (const long status : {0, 100, 201, 204, 206, 400, 401, 402, 405, 410, 429, 500, 503}) {
    transport.on("2.root.json", answers_with_status(status));
    expect_refused("http_status", no_next_root);
  }
  transport.on("2.root.json", answers_with_status(301));
  expect_refused("redirect_rejected", "Server redirects are not permitted");
}

TEST_F(RootWalk, LooksAtNoBodyOfARootThatIsNotThere) {
  begin();
  transport.on("2.root.json", [](const RepositoryRequest&, testing::RepositoryAnswer& answer) {
    answer.status = 404;
    answer.body = "{";
  });
  EXPECT_NO_THROW(refresh());
}

TEST_F(RootWalk, NeedsTheOldKeysAndTheNew) {
  begin();
  const TestKey old = repository.root().keys[0];
  repository.rotate("root");
  repository.root().signers = repository.root().keys;
  repository.publish();
  expect_refused("signature_threshold", too_few);
  repository.root().signers = {{old}};
  repository.republish();
  expect_refused("signature_threshold", too_few);
  repository.root().signers = {{repository.root().keys[0], old}};
  repository.republish();
  refresh();
  EXPECT_EQ(file_text("root.json"), repository.root_text(2));
}

TEST_F(RootWalk, RefusesAnotherVersionUnderTheName) {
  begin();
  publish_roots(4);
  transport.on("4.root.json", answers_with(repository.root_text(5)));
  EXPECT_FAILURE(refresh(), "invalid_version", not_next);
  EXPECT_EQ(stored(), (StoredFiles{{"root.json", repository.root_text(3)}}));
  transport.on("4.root.json", answers_with(repository.root_text(3)));
  expect_refused("invalid_version", not_next);
  transport.on("4.root.json", answers_with(repository.root_text(1)));
  expect_refused("invalid_version", not_next);
  transport.on("4.root.json", {});
  refresh();
  EXPECT_EQ(stored(), all_of_repository());
}

TEST_F(RootWalk, EndsAtAGap) {
  begin();
  repository.rotate("root");
  repository.publish();
  repository.rotate("root");
  repository.publish();
  repository.rotate("root");
  repository.publish();
  repository.remove("3.root.json");
  refresh();
  EXPECT_EQ(transport.names().at(1), "3.root.json");
  EXPECT_EQ(transport.names().at(2), "timestamp.json");
  EXPECT_EQ(file_text("root.json"), repository.root_text(2));
}

TEST_F(RootWalk, EndsWithTheGreatestVersion) {
  repository.root().version = greatest;
  repository.publish();
  TufClient::initialize(directory, repository.root_text(greatest));
  expect_refused("invalid_version", "Root version cannot be incremented");
  EXPECT_TRUE(transport.requests().empty());
  limits.root_rotations = 0;
  EXPECT_NO_THROW(refresh());
}

TEST_F(RootWalk, GoesThroughAnExpiredRoot) {
  begin();
  repository.root().expires = "2020-01-01T00:00:00Z";
  repository.publish();
  repository.root().expires = "2035-01-01T00:00:00Z";
  repository.publish();
  refresh();
  EXPECT_EQ(stored(), all_of_repository());
  EXPECT_EQ(file_text("root.json"), repository.root_text(3));
}

TEST_F(RootWalk, MayNotEndAtAnExpiredRoot) {
  begin();
  repository.root().expires = "2030-01-01T00:00:00Z";
  repository.publish();
  EXPECT_FAILURE(refresh(), "expired_metadata", has_expired);
  EXPECT_EQ(transport.names(), (Names{"2.root.json", "3.root.json"}));
  EXPECT_EQ(stored(), (StoredFiles{{"root.json", repository.root_text(2)}}));
  now -= std::chrono::microseconds(1);
  EXPECT_NO_THROW(refresh());
}

TEST_F(RootWalk, RefusesWhatIsNoBoundedRootInStrictJson) {
  begin();
  transport.on("2.root.json", answers_with(R"({"signed":{},"signed":{}})"));
  expect_refused("duplicate_key", "JSON contains a duplicate object key");
  transport.on("2.root.json", answers_with("{}"));
  expect_refused("invalid_metadata", "Metadata must contain a signed object and signature array");
  transport.on("2.root.json", answers_with(repository.text_of("timestamp")));
  expect_refused("metadata_type", "Unexpected metadata type");
  transport.on("2.root.json", answers_with(std::string(524'289, ' ')));
  expect_refused("size_limit", "Server sent more than the authenticated size limit");
}

TEST_F(RootWalk, TakesNoNoticeOfMirrors) {
  begin_and_refresh();
  StoredFiles expected = stored();
  const TestKey key = TestKey::ed25519();
  repository.root().edit = [&](Json& body) {
    body["keys"][key.id()] = key.key();
    body["roles"]["mirrors"] = testing::signing_authority({&key}, 1);
  };
  repository.publish();
  refresh();
  expected["root.json"] = repository.root_text(2);
  expected["timestamp.json"] = repository.text_of("timestamp");
  EXPECT_EQ(stored(), expected);
}

TEST_F(RootWalk, TakesNoRootThatTheNextClientCouldNotRead) {
  limits.root_bytes = 8'388'608;
  begin();
  repository.root().edit = [](Json& body) { body["filler"] = std::string(4'194'304, 'x'); };
  repository.publish();
  expect_refused("size_limit", too_large);
  EXPECT_NO_THROW(client());
}

TEST_F(RootWalk, KeepsTheRootsBeforeAFailure) {
  begin();
  publish_roots(3);
  transport.on("4.root.json", answers_with_status(500));
  EXPECT_FAILURE(refresh(), "http_status", no_next_root);
  EXPECT_EQ(stored(), (StoredFiles{{"root.json", repository.root_text(3)}}));
}

// Changes of keys.

class KeyRotation : public Refreshes {
 protected:
  // Publishes a root with another key for the role, and lets a refresh end behind the walk.
  void rotate_and_stop(const std::string& role) {
    begin_and_refresh();
    repository.rotate(role);
    repository.publish();
    transport.on("timestamp.json", answers_with_status(503));
    EXPECT_FAILURE(refresh(), "http_status", no_timestamp);
  }

  // Lets a refresh fail where it stores the next root. Returns what was stored before.
  StoredFiles refresh_where_no_root_can_be_stored() {
    const auto client = this->client();
    // Nothing takes the place of a directory that holds something.
    std::filesystem::rename(directory / "root.json", root / "kept.json");
    root.write("data/trust/root.json/inside", "");
    StoredFiles before = stored();
    EXPECT_EQ(testing::failure_of([&] { client->refresh(); }).value().code, "file_write");
    return before;
  }
};

TEST_F(KeyRotation, OfAnOfflineRoleKeepsTheOnlineRoles) {
  for (const char* role : {"root", "targets"}) {
    transport.on("timestamp.json", {});
    begin_again();
    refresh();
    StoredFiles expected = stored();
    repository.rotate(role);
    repository.publish();
    transport.on("timestamp.json", answers_with_status(503));
    EXPECT_FAILURE(refresh(), "http_status", no_timestamp);
    expected["root.json"] = repository.root_text(2);
    EXPECT_EQ(stored(), expected) << role;
  }
}

TEST_F(KeyRotation, OfTheSnapshotRemovesTheOnlineRoles) {
  rotate_and_stop("snapshot");
  EXPECT_EQ(stored(),
            (StoredFiles{{"root.json", repository.root_text(2)}, {"targets.json", repository.text_of("targets")}}));
}

TEST_F(KeyRotation, OfTheTimestampRemovesTheOnlineRoles) {
  rotate_and_stop("timestamp");
  EXPECT_EQ(stored(),
            (StoredFiles{{"root.json", repository.root_text(2)}, {"targets.json", repository.text_of("targets")}}));
  transport.on("timestamp.json", {});
  refresh();
  EXPECT_EQ(stored(), all_of_repository());
}

TEST_F(KeyRotation, IsMarkedBeforeTheRootIsReplaced) {
  begin_and_refresh();
  repository.rotate("timestamp");
  repository.publish();
  const StoredFiles before = refresh_where_no_root_can_be_stored();
  StoredFiles after = before;
  after["root-invalidation.json"] = R"({"version":2})";
  EXPECT_EQ(stored(), after);
}

TEST_F(KeyRotation, IsFinishedByTheNextRefreshOfTheSameClient) {
  begin_and_refresh();
  repository.rotate("snapshot");
  repository.publish();
  const auto client = this->client();
  std::filesystem::remove(directory / "snapshot.json");
  root.write("data/trust/snapshot.json/inside", "");
  EXPECT_FAILURE(client->refresh(), "file_remove", "Cannot remove " + (directory / "snapshot.json").native());
  EXPECT_EQ(stored(), (StoredFiles{{"root.json", repository.root_text(2)},
                                   {"root-invalidation.json", R"({"version":2})"},
                                   {"snapshot.json", "<directory>"},
                                   {"targets.json", repository.text_of("targets")}}));
  std::filesystem::remove_all(directory / "snapshot.json");
  client->refresh();
  EXPECT_EQ(stored(), all_of_repository());
}

TEST_F(KeyRotation, NeedsNoMarkWithoutOtherOnlineKeys) {
  begin_and_refresh();
  repository.rotate("targets");
  repository.publish();
  const StoredFiles before = refresh_where_no_root_can_be_stored();
  EXPECT_EQ(stored(), before);
}

TEST_F(KeyRotation, IsSeenInTheMiddleOfTheWalk) {
  begin_and_refresh();
  const std::vector<TestKey> first = repository.timestamp().keys;
  repository.rotate("timestamp");
  repository.publish();
  // The last root has the first one's keys again.
  repository.rotate("timestamp", first);
  repository.publish();
  transport.on("timestamp.json", answers_with_status(503));
  EXPECT_FAILURE(refresh(), "http_status", no_timestamp);
  EXPECT_EQ(stored(),
            (StoredFiles{{"root.json", repository.root_text(3)}, {"targets.json", repository.text_of("targets")}}));
}

}  // namespace
}  // namespace ravok::refresh_tests
