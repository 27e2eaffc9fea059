#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/ordinary_user.hpp"
#include "tuf/refreshes.hpp"
#include "tuf/tuf.hpp"

namespace ravok::refresh_tests {
namespace {

// The first refresh.

class FirstRefresh : public Refreshes {};

TEST_F(FirstRefresh, StoresEveryRoleByteForByte) {
  for (const char* role : {"timestamp", "snapshot", "targets"}) {
    repository.role(role).deface = [](std::string& text) { text = "\n\t" + Json::parse(text).dump(2) + " \n"; };
  }
  begin();
  refresh();
  EXPECT_EQ(stored(), all_of_repository());
  EXPECT_EQ(file_text("targets.json").substr(0, 3), "\n\t{");
}

TEST_F(FirstRefresh, AsksForEachRoleOnceInOrderAndWithinItsBound) {
  begin();
  refresh();
  struct Expected {
    RepositoryRequest::Kind kind;
    std::string name;
    std::uint64_t limit;
  };
  const std::vector<Expected> expected = {
      {RepositoryRequest::Kind::get, "2.root.json", 524'288},
      {RepositoryRequest::Kind::get, "timestamp.json", 65'536},
      {RepositoryRequest::Kind::component, "1.snapshot.json", repository.text_of("snapshot").size()},
      {RepositoryRequest::Kind::component, "1.targets.json", repository.text_of("targets").size()}};
  ASSERT_EQ(transport.requests().size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(transport.requests().at(i).kind, expected[i].kind) << i;
    EXPECT_EQ(transport.requests().at(i).name, expected[i].name);
    EXPECT_EQ(transport.requests().at(i).limit, expected[i].limit) << i;
  }
}

TEST_F(FirstRefresh, BoundsRolesOfUnknownOrGreaterLengthByTheLimit) {
  repository.lengths = false;
  begin();
  refresh();
  EXPECT_EQ(transport.requests().at(2).limit, 1'048'576u);
  EXPECT_EQ(transport.requests().at(3).limit, 1'048'576u);
}

TEST_F(FirstRefresh, BoundsRolesOfAGreaterLengthByTheLimit) {
  begin();
  limits.metadata_bytes = repository.text_of("snapshot").size() - 1;
  EXPECT_FAILURE(refresh(), "size_limit", "Server sent more than the authenticated size limit");
  EXPECT_EQ(transport.requests().back().name, "1.snapshot.json");
  EXPECT_EQ(transport.requests().back().limit, limits.metadata_bytes);
}

TEST_F(FirstRefresh, AsksForPlainNamesWithoutConsistentSnapshots) {
  repository.consistent = false;
  begin();
  refresh();
  EXPECT_EQ(transport.names(), (Names{"2.root.json", "timestamp.json", "snapshot.json", "targets.json"}));
  EXPECT_EQ(stored(), all_of_repository());
}

TEST_F(FirstRefresh, TakesAnAbsentFlagForNoConsistentSnapshots) {
  repository.consistent = false;
  repository.root().edit = [](Json& body) { body.erase("consistent_snapshot"); };
  begin();
  refresh();
  EXPECT_EQ(transport.names(), (Names{"2.root.json", "timestamp.json", "snapshot.json", "targets.json"}));
}

TEST_F(FirstRefresh, GivesTheClientItsRoles) {
  begin();
  const auto client = this->client();
  EXPECT_TRUE(client->trusted().timestamp().is_null());
  EXPECT_TRUE(transport.requests().empty());
  client->refresh();
  EXPECT_EQ(client->trusted().root(), Json::parse(repository.root_text()));
  EXPECT_EQ(client->trusted().timestamp(), Json::parse(repository.text_of("timestamp")));
  EXPECT_EQ(client->trusted().snapshot(), Json::parse(repository.text_of("snapshot")));
  EXPECT_EQ(client->trusted().targets(), Json::parse(repository.text_of("targets")));
}

TEST_F(FirstRefresh, TakesTheTimeOnce) {
  begin();
  const auto client = this->client();
  client->refresh();
  EXPECT_EQ(clock_reads, 1);
  client->refresh();
  EXPECT_EQ(clock_reads, 2);
}

TEST_F(FirstRefresh, MakesPrivateFiles) {
  begin();
  refresh();
  for (const auto& [name, text] : stored()) {
    EXPECT_EQ(link_status_of(directory / name)->permissions, permissions::private_file) << name;
  }
}

// The timestamp.

class TimestampRefresh : public Refreshes {
 protected:
  void publish_timestamp(std::uint64_t version, const std::function<void(Json&)>& edit = {}) {
    repository.timestamp().version = version;
    repository.timestamp().edit = edit;
    repository.republish();
  }
};

TEST_F(TimestampRefresh, NeedsAnAnswer) {
  begin_and_refresh();
  for (const long status : {0, 204, 403, 404, 500}) {
    transport.on("timestamp.json", answers_with_status(status));
    expect_refused("http_status", no_timestamp);
  }
}

TEST_F(TimestampRefresh, NeedsABoundedTimestampInStrictJson) {
  begin_and_refresh();
  transport.on("timestamp.json", answers_with(R"({"signed":{},"signed":{}})"));
  expect_refused("duplicate_key", "JSON contains a duplicate object key");
  transport.on("timestamp.json", answers_with(repository.text_of("snapshot")));
  expect_refused("metadata_type", "Unexpected metadata type");
  transport.on("timestamp.json", answers_with(std::string(65'537, ' ')));
  expect_refused("size_limit", "Server sent more than the authenticated size limit");
  transport.on("timestamp.json", answers_with(repository.text_of("timestamp") + "x"));
  EXPECT_EQ(testing::failure_of([&] { refresh(); }).value().code, "invalid_json");
}

TEST_F(TimestampRefresh, NeverGoesBack) {
  begin();
  publish_timestamp(5);
  refresh();
  publish_timestamp(4);
  expect_refused("rollback", went_back);
  publish_timestamp(1);
  expect_refused("rollback", went_back);
}

TEST_F(TimestampRefresh, NeverRefersToAnOlderSnapshot) {
  begin();
  repository.snapshot().version = 7;
  repository.republish();
  refresh();
  repository.snapshot().version = 6;
  repository.timestamp().version = 2;
  repository.republish();
  expect_refused("rollback", "Timestamp references an older snapshot");
}

TEST_F(TimestampRefresh, KeepsTheStoredOneOfTheSameVersion) {
  begin_and_refresh();
  const StoredFiles before = stored();
  const std::uint64_t file = inode("timestamp.json");
  // The other one refers to a snapshot that does not exist.
  publish_timestamp(1, [](Json& body) { body["meta"]["snapshot.json"] = {{"version", 99}}; });
  ASSERT_NE(repository.text_of("timestamp"), before.at("timestamp.json"));
  refresh();
  EXPECT_EQ(stored(), before);
  EXPECT_EQ(inode("timestamp.json"), file);
  EXPECT_EQ(transport.names(), (Names{"2.root.json", "timestamp.json"}));
}

TEST_F(TimestampRefresh, JudgesTheStoredOneOfTheSameVersionByTheTime) {
  begin_and_refresh();
  publish_timestamp(1, [](Json& body) { body["expires"] = "2040-01-01T00:00:00Z"; });
  repository.root().expires = "2040-01-01T00:00:00Z";
  repository.root().version = 2;
  repository.republish();
  now = parse_tuf_time("2035-01-01T00:00:00Z");
  StoredFiles left = stored();
  left["root.json"] = repository.root_text(2);
  expect_left("expired_metadata", has_expired, left);
  now -= std::chrono::microseconds(1);
  EXPECT_NO_THROW(refresh());
}

TEST_F(TimestampRefresh, RefusesAnExpiredOne) {
  repository.timestamp().expires = "2030-01-01T00:00:00Z";
  begin();
  expect_refused("expired_metadata", has_expired);
  EXPECT_EQ(transport.names().back(), "timestamp.json");
  now -= std::chrono::microseconds(1);
  EXPECT_NO_THROW(refresh());
}

TEST_F(TimestampRefresh, RefusesAnExpiredSuccessor) {
  begin_and_refresh();
  repository.timestamp().expires = "2029-12-31T23:59:59Z";
  repository.publish();
  expect_refused("expired_metadata", has_expired);
}

TEST_F(TimestampRefresh, StopsAtAStoredOneThatIsDamaged) {
  begin_and_refresh();
  std::string deep = std::string(66, '[') + std::string(66, ']');
  for (const std::string& text : {std::string(), std::string("{"), std::string(R"({"a":1,"a":2})"),
                                  std::string("[1.5]"), std::string("\0", 1), deep}) {
    put("timestamp.json", text);
    expect_refused("invalid_trusted_metadata", damaged("timestamp"));
    EXPECT_EQ(file_text("timestamp.json"), text);
  }
}

TEST_F(TimestampRefresh, StopsAtAStoredOneOfAnotherShape) {
  begin_and_refresh();
  put("timestamp.json", "{}");
  expect_refused("invalid_metadata", "Metadata must contain a signed object and signature array");
  put("timestamp.json", repository.text_of("snapshot"));
  expect_refused("metadata_type", "Unexpected metadata type");
}

TEST_F(TimestampRefresh, StopsAtAStoredOneThatCannotBeRead) {
  begin_and_refresh();
  const std::filesystem::path place = directory / "timestamp.json";
  put("timestamp.json", std::string(1'048'577, ' '));
  expect_refused("size_limit", "File exceeds read limit");
  std::filesystem::rename(place, root / "kept.json");
  std::filesystem::create_symlink(root / "kept.json", place);
  expect_refused("unsafe_path", link_in_path);
  std::filesystem::remove(place);
  std::filesystem::create_directory(place);
  expect_refused("unsafe_path", "Expected an ordinary file: " + place.native());
  std::filesystem::remove(place);
  ASSERT_EQ(mkfifo(place.c_str(), 0600), 0);
  expect_refused("unsafe_path", "Expected an ordinary file: " + place.native());
}

TEST_F(TimestampRefresh, LooksAtTheStoredSnapshotBeforeItIsStored) {
  begin_and_refresh();
  repository.publish();
  ASSERT_NE(repository.text_of("timestamp"), file_text("timestamp.json"));
  put("snapshot.json", "{");
  expect_refused("invalid_trusted_metadata", damaged("snapshot"));
  put("snapshot.json", "{}");
  expect_refused("invalid_metadata", "Metadata must contain a signed object and signature array");
}

TEST_F(TimestampRefresh, IsStoredBeforeTheSnapshotIsAskedFor) {
  begin_and_refresh();
  StoredFiles left = stored();
  repository.targets().expires = "2036-01-01T00:00:00Z";
  repository.publish();
  left["timestamp.json"] = repository.text_of("timestamp");
  transport.on("2.snapshot.json", answers_with_status(404));
  expect_left("http_status", "Could not download metadata for role snapshot", left);
}

TEST_F(TimestampRefresh, ReplacesAStoredOneOfTheSameVersionThatTheRootNoLongerVouchesFor) {
  const TestKey first = TestKey::ed25519();
  const TestKey second = TestKey::ed25519();
  repository.rotate("timestamp", {first, second}, 1);
  repository.timestamp().signers = {{first}};
  begin_and_refresh();
  // The same two keys must both sign from now on, and do so for the same version.
  repository.timestamp().threshold = 2;
  repository.timestamp().signers = {{first, second}};
  repository.root().version = 2;
  repository.republish();
  ASSERT_EQ(repository.timestamp().version, 1u);
  ASSERT_NE(repository.text_of("timestamp"), file_text("timestamp.json"));
  refresh();
  EXPECT_EQ(stored(), all_of_repository());
}

TEST_F(TimestampRefresh, TrustsNothingForLyingOnTheDisk) {
  begin_and_refresh();
  Json forged = Json::parse(file_text("timestamp.json"));
  forged["signed"]["meta"]["snapshot.json"] = {{"version", 1}};
  forged["signed"]["expires"] = "2999-01-01T00:00:00Z";
  put("timestamp.json", forged.dump());
  refresh();
  EXPECT_EQ(stored(), all_of_repository());
}

// The snapshot and the targets.

class RoleRefresh : public Refreshes {
 protected:
  // Publishes a document of a role that is wrong in some way, and expects the refresh to refuse it.
  void expect_role_refused(const char* name, const std::string& code, const std::string& message) {
    StoredFiles left = stored();
    repository.timestamp().version += 1;
    repository.republish();
    left["timestamp.json"] = repository.text_of("timestamp");
    if (std::string(name) == "targets") {
      left["snapshot.json"] = repository.text_of("snapshot");
    }
    expect_left(code, message, left);
    EXPECT_EQ(transport.names().back(), repository.file_of(name));
  }
};

TEST_F(RoleRefresh, AsksForNothingThatIsStored) {
  begin_and_refresh();
  const StoredFiles before = stored();
  refresh();
  EXPECT_EQ(transport.names(), (Names{"2.root.json", "timestamp.json"}));
  EXPECT_EQ(stored(), before);
}

TEST_F(RoleRefresh, AsksOnlyForWhatIsNew) {
  begin_and_refresh();
  repository.publish();
  refresh();
  EXPECT_EQ(transport.names(), (Names{"2.root.json", "timestamp.json"}));
  transport.forget();
  repository.targets().expires = "2036-01-01T00:00:00Z";
  repository.publish();
  refresh();
  EXPECT_EQ(transport.names(), (Names{"2.root.json", "timestamp.json", "2.snapshot.json", "2.targets.json"}));
  EXPECT_EQ(stored(), all_of_repository());
}

TEST_F(RoleRefresh, NeedsAnAnswer) {
  begin();
  for (const long status : {0, 204, 403, 404, 500}) {
    transport.on("1.snapshot.json", answers_with_status(status));
    EXPECT_FAILURE(refresh(), "http_status", "Could not download metadata for role snapshot");
    EXPECT_EQ(stored().size(), 2u);
  }
  transport.on("1.snapshot.json", {});
  transport.on("1.targets.json", answers_with_status(404));
  EXPECT_FAILURE(refresh(), "http_status", "Could not download metadata for role targets");
  EXPECT_EQ(stored().size(), 3u);
  EXPECT_EQ(file_text("snapshot.json"), repository.text_of("snapshot"));
}

TEST_F(RoleRefresh, RefusesAnotherFileThanTheParentDescribes) {
  begin();
  for (const char* name : {"snapshot", "targets"}) {
    const std::string file = repository.file_of(name);
    const std::string text = repository.text_of(name);
    transport.on(file, answers_with(text.substr(0, text.size() - 1)));
    EXPECT_FAILURE(refresh(), "length_mismatch", other_length);
    transport.on(file, answers_with(text + " "));
    EXPECT_FAILURE(refresh(), "size_limit", "Server sent more than the authenticated size limit");
    std::string changed = text;
    changed.back() = ' ';
    transport.on(file, answers_with(changed));
    EXPECT_FAILURE(refresh(), "hash_mismatch", other_hash);
    EXPECT_FALSE(stored().contains(std::string(name) + ".json"));
    transport.on(file, {});
  }
  refresh();
  EXPECT_EQ(stored(), all_of_repository());
}

TEST_F(RoleRefresh, RefusesAnotherVersionThanTheParentNames) {
  repository.lengths = false;
  repository.hashes = {};
  begin();
  for (const char* name : {"snapshot", "targets"}) {
    const std::string first = repository.text_of(name);
    repository.role(name).version += 1;
    repository.timestamp().version += 1;
    repository.republish();
    transport.on(repository.file_of(name), answers_with(first));
    EXPECT_FAILURE(refresh(), "version_mismatch", other_version);
    EXPECT_FALSE(stored().contains(std::string(name) + ".json"));
    transport.on(repository.file_of(name), {});
  }
}

TEST_F(RoleRefresh, RefusesTheKeysOfOthers) {
  for (const char* name : {"snapshot", "targets"}) {
    begin_again();
    refresh();
    for (const char* other : {"root", "timestamp", "snapshot", "targets"}) {
      if (std::string(name) != other) {
        repository.role(name).signers = repository.role(other).keys;
        repository.role(name).version += 1;
        if (std::string(name) == "targets") {
          repository.snapshot().version += 1;
        }
        expect_role_refused(name, "signature_threshold", too_few);
      }
    }
  }
}

TEST_F(RoleRefresh, RefusesAnExpiredOne) {
  begin_and_refresh();
  repository.snapshot().expires = "2030-01-01T00:00:00Z";
  repository.snapshot().version = 2;
  expect_role_refused("snapshot", "expired_metadata", has_expired);
  repository.snapshot().expires = "2035-01-01T00:00:00Z";
  repository.snapshot().version = 3;
  repository.targets().expires = "2030-01-01T00:00:00Z";
  repository.targets().version = 2;
  expect_role_refused("targets", "expired_metadata", has_expired);
}

TEST_F(RoleRefresh, AsksAgainForWhatHasExpiredOnTheDisk) {
  repository.targets().expires = "2031-01-01T00:00:00Z";
  begin_and_refresh();
  now = parse_tuf_time("2031-01-01T00:00:00Z");
  expect_refused("expired_metadata", has_expired);
  EXPECT_EQ(transport.names(), (Names{"2.root.json", "timestamp.json", "1.targets.json"}));
  repository.targets().expires = "2032-01-01T00:00:00Z";
  repository.publish();
  refresh();
  EXPECT_EQ(stored(), all_of_repository());
}

TEST_F(RoleRefresh, AsksAgainForTargetsThatAreDamagedOnTheDisk) {
  begin_and_refresh();
  for (const std::string& text : {std::string(), std::string("{"), std::string(2'000'000, ' '),
                                  file_text("targets.json") + " ", file_text("snapshot.json")}) {
    put("targets.json", text);
    transport.forget();
    refresh();
    EXPECT_EQ(transport.names(), (Names{"2.root.json", "timestamp.json", "1.targets.json"}));
    EXPECT_EQ(stored(), all_of_repository());
  }
}

TEST_F(RoleRefresh, AsksAgainForTargetsThatAreNoFile) {
  begin_and_refresh();
  const std::filesystem::path place = directory / "targets.json";
  std::filesystem::remove(place);
  ASSERT_EQ(mkfifo(place.c_str(), 0600), 0);
  refresh();
  EXPECT_EQ(stored(), all_of_repository());
  std::filesystem::remove(place);
  root.write("data/trust/targets.json/inside", "");
  const StoredFiles before = stored();
  EXPECT_EQ(testing::failure_of([&] { refresh(); }).value().code, "file_write");
  EXPECT_EQ(stored(), before);
  EXPECT_EQ(root.read("data/trust/targets.json/inside"), "");
}

TEST_F(RoleRefresh, FollowsNoLink) {
  begin_and_refresh();
  for (const char* name : {"snapshot.json", "targets.json"}) {
    std::filesystem::rename(directory / name, root / name);
    std::filesystem::create_symlink(root / name, directory / name);
    expect_refused("unsafe_path", link_in_path);
    std::filesystem::remove(directory / name);
    std::filesystem::rename(root / name, directory / name);
  }
  refresh();
}

TEST_F(RoleRefresh, StopsAtAStoredSnapshotThatIsDamaged) {
  begin_and_refresh();
  put("snapshot.json", "{");
  expect_refused("invalid_trusted_metadata", damaged("snapshot"));
  put("snapshot.json", "{}");
  expect_refused("invalid_metadata", "Metadata must contain a signed object and signature array");
}

TEST_F(RoleRefresh, RefusesASnapshotThatLosesARole) {
  repository.delegate("targets", {.name = "games", .paths = {"games/*"}});
  begin_and_refresh();
  const std::string known = file_text("snapshot.json");
  repository.drop("games");
  repository.snapshot().version = 2;
  expect_role_refused("snapshot", "rollback", role_lost);
  EXPECT_EQ(file_text("snapshot.json"), known);
}

TEST_F(RoleRefresh, RefusesASnapshotThatTakesARoleBack) {
  repository.targets().version = 4;
  begin_and_refresh();
  repository.targets().version = 3;
  repository.snapshot().version = 2;
  expect_role_refused("snapshot", "rollback", role_lost);
}

TEST_F(RoleRefresh, ComparesWithAStoredSnapshotThatIsNotTrusted) {
  begin_and_refresh();
  Json planted = Json::parse(file_text("snapshot.json"));
  planted["signed"]["meta"]["targets.json"]["version"] = 9;
  put("snapshot.json", planted.dump());
  expect_refused("rollback", role_lost);
  EXPECT_EQ(transport.names(), (Names{"2.root.json", "timestamp.json", "1.snapshot.json"}));
}

// State from call to call.

class ClientState : public Refreshes {};

TEST_F(ClientState, HoldsNoRoleAfterAFailure) {
  begin();
  const auto client = this->client();
  client->refresh();
  transport.connected = false;
  EXPECT_FAILURE(client->refresh(), "network", no_connection);
  EXPECT_TRUE(client->trusted().timestamp().is_null());
  EXPECT_TRUE(client->trusted().snapshot().is_null());
  EXPECT_TRUE(client->trusted().targets().is_null());
  transport.connected = true;
  client->refresh();
  EXPECT_EQ(client->trusted().targets(), Json::parse(repository.text_of("targets")));
}

TEST_F(ClientState, GoesOnFromTheRootOfAFailedRefresh) {
  begin();
  repository.rotate("root");
  repository.publish();
  const auto client = this->client();
  transport.on("timestamp.json", answers_with_status(500));
  EXPECT_FAILURE(client->refresh(), "http_status", no_timestamp);
  transport.on("timestamp.json", {});
  transport.forget();
  client->refresh();
  EXPECT_EQ(transport.names().at(0), "3.root.json");
  EXPECT_EQ(stored(), all_of_repository());
}

// The network ends at each request in turn; what was finished before stays, and the next refresh finishes the rest.
TEST_F(ClientState, SurvivesTheLossOfTheNetworkAtEachRequest) {
  // What is new on the disk when the requests for two roots, the timestamp, the snapshot and the targets fail.
  const std::vector<Names> finished = {{},
                                       {"root.json"},
                                       {"root.json"},
                                       {"root.json", "timestamp.json"},
                                       {"root.json", "timestamp.json", "snapshot.json"}};
  for (const char* rotated : {"targets", "timestamp"}) {
    for (std::size_t request = 1; request <= finished.size(); ++request) {
      begin_again();
      refresh();
      transport.forget();
      StoredFiles expected = stored();
      repository.rotate(rotated);
      repository.targets().expires = "2036-01-01T00:00:00Z";
      repository.publish();
      if (request > 1 && rotated == std::string("timestamp")) {
        expected.erase("timestamp.json");
        expected.erase("snapshot.json");
      }
      for (const std::string& name : finished[request - 1]) {
        expected[name] = all_of_repository()[name];
      }
      transport.at(request, fails_with_error("network", no_connection));
      EXPECT_FAILURE(refresh(), "network", no_connection);
      EXPECT_EQ(transport.requests().size(), request);
      EXPECT_EQ(stored(), expected) << rotated << request;
      transport.at(request, {});
      refresh();
      EXPECT_EQ(stored(), all_of_repository()) << rotated << request;
    }
  }
}

TEST_F(ClientState, WorksFromTheDiskWithoutANetwork) {
  begin_and_refresh();
  transport.connected = false;
  const StoredFiles before = stored();
  const auto client = this->client();
  client->load_selected_metadata();
  EXPECT_EQ(client->trusted().targets(), Json::parse(repository.text_of("targets")));
  EXPECT_TRUE(transport.requests().empty());
  EXPECT_EQ(stored(), before);
  EXPECT_EQ(clock_reads, 2);
}

TEST_F(ClientState, WorksFromTheDiskUntilSomethingExpires) {
  for (const char* name : {"root", "timestamp", "snapshot", "targets"}) {
    now = parse_tuf_time("2030-01-01T00:00:00Z");
    begin_again([&] { repository.role(name).expires = "2031-01-01T00:00:00Z"; });
    refresh();
    now = parse_tuf_time("2031-01-01T00:00:00Z");
    const auto client = this->client();
    EXPECT_FAILURE(client->load_selected_metadata(), "expired_metadata", has_expired) << name;
    EXPECT_TRUE(client->trusted().targets().is_null());
    now -= std::chrono::microseconds(1);
    EXPECT_NO_THROW(client->load_selected_metadata()) << name;
  }
}

TEST_F(ClientState, NeedsAStoredTimestampToWorkFromTheDisk) {
  begin();
  transport.connected = false;
  EXPECT_FAILURE(client()->load_selected_metadata(), "missing_metadata",
                 "No timestamp metadata is stored; refresh the repository first");
  transport.connected = true;
  refresh();
  transport.connected = false;
  Json forged = Json::parse(file_text("timestamp.json"));
  forged["signed"]["expires"] = "2999-01-01T00:00:00Z";
  put("timestamp.json", forged.dump());
  EXPECT_FAILURE(client()->load_selected_metadata(), "signature_threshold", too_few);
  put("timestamp.json", "{");
  EXPECT_FAILURE(client()->load_selected_metadata(), "invalid_trusted_metadata", damaged("timestamp"));
}

TEST_F(ClientState, WorksFromTheDiskAfterARefreshWithoutANetwork) {
  begin_and_refresh();
  transport.connected = false;
  const auto client = this->client();
  EXPECT_FAILURE(client->refresh(), "network", no_connection);
  client->load_selected_metadata();
  EXPECT_EQ(client->trusted().targets(), Json::parse(repository.text_of("targets")));
}

TEST_F(ClientState, LetsTheClockGoBackButNoVersion) {
  begin_and_refresh();
  repository.timestamp().expires = "2030-06-01T00:00:00Z";
  repository.publish();
  now = parse_tuf_time("2030-06-01T00:00:00Z");
  expect_refused("expired_metadata", has_expired);
  const std::string first = file_text("timestamp.json");
  now = parse_tuf_time("2029-01-01T00:00:00Z");
  refresh();
  EXPECT_EQ(stored(), all_of_repository());
  transport.on("timestamp.json", answers_with(first));
  expect_refused("rollback", went_back);
}

TEST_F(ClientState, IsGivenUpWhenItsDirectoryIsReplaced) {
  begin_and_refresh();
  const auto client = this->client();
  std::filesystem::rename(directory, root / "moved");
  EXPECT_FAILURE(client->refresh(), "lock_failed", "Trusted metadata directory changed while it was in use");
  std::filesystem::create_directory(directory);
  root.write("data/trust/.lock", "");
  EXPECT_FAILURE(client->refresh(), "lock_failed", "Trusted metadata directory changed while it was in use");
  EXPECT_EQ(stored(), StoredFiles());
  EXPECT_TRUE(transport.requests().empty());
}

TEST_F(ClientState, IsNotWrittenIntoADirectoryThatTookThePlaceOfItsOwn) {
  begin_and_refresh();
  const StoredFiles others = {{"root.json", repository.root_text()}};
  for (const bool rotates : {false, true}) {
    repository.targets().add("x", rotates ? "b" : "a");
    if (rotates) {
      repository.rotate("snapshot");
    }
    repository.publish();
    for (const std::string& name : {std::string("2.root.json"), std::string("timestamp.json"),
                                    repository.file_of("snapshot"), repository.file_of("targets")}) {
      const auto client = this->client();
      bool replaced = false;
      transport.before = [&](const RepositoryRequest& request) {
        if (request.name == name && !std::exchange(replaced, true)) {
          std::filesystem::rename(directory, root / "moved");
          TufClient::initialize(directory, others.at("root.json"));
        }
      };
      EXPECT_FAILURE(client->refresh(), "lock_failed", "Trusted metadata directory changed while it was in use");
      EXPECT_TRUE(replaced) << name;
      EXPECT_EQ(stored(), others) << name;
      transport.before = {};
      std::filesystem::remove_all(directory);
      std::filesystem::rename(root / "moved", directory);
    }
  }
}

// Links of the system's own user are the system's, and followed.
TEST_F(ClientState, IsNeverWrittenThroughALink) {
  begin();
  const testing::OrdinaryUser user(root);
  const auto client = this->client();
  const StoredFiles before = stored();
  for (const std::filesystem::path& place : {directory, directory.parent_path()}) {
    std::filesystem::rename(place, root / "moved");
    std::filesystem::create_directory_symlink(root / "moved", place);
    EXPECT_EQ(testing::failure_of([&] { client->refresh(); }).value().code, "unsafe_path");
    EXPECT_EQ(stored(), before);
    EXPECT_EQ(testing::failure_of([&] { TufClient(directory, transport, transport, limits, [] { return TufTime(); }); })
                  .value()
                  .code,
              "unsafe_path");
    std::filesystem::remove(place);
    std::filesystem::rename(root / "moved", place);
  }
  client->refresh();
  EXPECT_EQ(stored(), all_of_repository());
}

}  // namespace
}  // namespace ravok::refresh_tests
