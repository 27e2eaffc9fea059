// What an attacker can do who stands between a client and its repository, or who has stolen some of its keys: what the
// client answers, and what it then trusts.

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "support/failure.hpp"
#include "support/tuf_place.hpp"
#include "tuf/tuf.hpp"

namespace ravok::tuf_attack_test {
namespace {

using testing::answers_with;
using testing::StoredFiles;
using testing::TestKey;
using testing::TestRole;
using testing::TufPlace;
using testing::TufRepository;

constexpr std::uint64_t greatest = std::numeric_limits<std::uint64_t>::max();

constexpr const char* too_few = "Metadata does not meet its authorized signature threshold";
constexpr const char* not_next = "Root version is not exactly the next version";
constexpr const char* has_expired = "Repository metadata has expired; previously installed games remain playable";
constexpr const char* too_large = "JSON exceeds its size limit";
constexpr const char* went_back = "Timestamp version went backwards";
constexpr const char* older_snapshot = "Timestamp references an older snapshot";
constexpr const char* role_lost = "Snapshot removed or rolled back a known targets role";
constexpr const char* other_length = "Metadata length does not match its parent";
constexpr const char* other_hash = "Metadata hash does not match its parent";
constexpr const char* other_version = "Metadata version does not match its parent";
constexpr const char* double_key = "JSON contains a duplicate object key";

// Serves whatever there is, however much a client wants to take.
class UnboundedTransport : public testing::RepositoryTransport {
 public:
  using RepositoryTransport::RepositoryTransport;
  TransportResponse get(std::string_view path, std::uint64_t) override { return RepositoryTransport::get(path, most); }
  TransportResponse get_component(std::string_view component, std::uint64_t) override {
    return RepositoryTransport::get_component(component, most);
  }

 private:
  static constexpr std::uint64_t most = 16'777'216;
};

// A client that has refreshed from an honest repository with a delegated role.
class Attack : public ::testing::Test, protected TufPlace {
 protected:
  void begin_and_refresh() {
    repository.delegate("targets", {.name = "games", .paths = {"games/*"}}).add("games/a", "first");
    begin();
    refresh();
    transport.forget();
  }

  // The repository gets other content for every role.
  void publish_more() {
    repository.role("games").add("games/a", "second");
    repository.targets().add("other", "content");
    repository.publish();
  }

  // A refresh fails and changes nothing of what is trusted.
  void expect_refused(const std::string& code, const std::string& message) {
    const StoredFiles before = stored();
    EXPECT_FAILURE(refresh(), code, message);
    EXPECT_EQ(stored(), before);
  }

  // A refresh fails and takes no more than these documents of the repository.
  void expect_taken(const std::vector<const char*>& roles, const std::string& code, const std::string& message) {
    StoredFiles after = stored();
    EXPECT_FAILURE(refresh(), code, message);
    for (const char* role : roles) {
      after[std::string(role) + ".json"] = repository.text_of(role);
    }
    EXPECT_EQ(stored(), after);
  }

  // A refresh succeeds, and the client trusts what the repository has.
  void expect_current() {
    EXPECT_NO_THROW(refresh());
    StoredFiles expected = stored();
    for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
      expected[std::string(role) + ".json"] = repository.text_of(role);
    }
    EXPECT_EQ(stored(), expected);
  }

  // Loads the role "games" as the client trusts it.
  Json load_games() {
    const auto client = this->client();
    client->refresh();
    const Json& delegations = client->trusted().targets().at("signed").at("delegations");
    return client->load_role("games", client->trusted().snapshot().at("signed").at("meta").at("games.json"),
                             delegations.at("keys"), delegations.at("roles").at(0), "targets");
  }

  // Serves the last file of a role with these bytes.
  void serve(const char* role, const std::string& bytes) {
    transport.on(repository.file_of(role), answers_with(bytes));
  }
};

// Old documents.

TEST_F(Attack, AnOldRepositoryIsNoUpdate) {
  begin_and_refresh();
  const TufRepository old = repository;
  publish_more();
  repository.rotate("root");
  repository.publish();
  expect_current();
  repository = old;
  expect_refused("rollback", went_back);
}

TEST_F(Attack, AnOldRootIsNoNextRoot) {
  begin_and_refresh();
  repository.rotate("root");
  repository.publish();
  repository.rotate("root");
  repository.publish();
  expect_current();
  for (const std::uint64_t version : {1U, 2U, 3U}) {
    transport.on("4.root.json", answers_with(repository.root_text(version)));
    // The keys of the last one signed for neither of the others.
    expect_refused(version == 3 ? "invalid_version" : "signature_threshold", version == 3 ? not_next : too_few);
  }
  EXPECT_EQ(stored().at("root.json"), repository.root_text(3));
}

TEST_F(Attack, AnOldTimestampIsRefused) {
  begin_and_refresh();
  const std::string old = repository.text_of("timestamp");
  publish_more();
  expect_current();
  transport.on("timestamp.json", answers_with(old));
  expect_refused("rollback", went_back);
}

TEST_F(Attack, AnOldSnapshotIsRefusedWhoeverSignsForIt) {
  begin_and_refresh();
  const std::string old = repository.text_of("snapshot");
  publish_more();
  expect_current();
  // Without the key of the timestamp, the old snapshot is not the one that is meant.
  repository.publish();
  std::filesystem::remove(directory / "snapshot.json");
  serve("snapshot", old);
  expect_taken({"timestamp"}, "hash_mismatch", other_hash);
  transport.on(repository.file_of("snapshot"), {});
  expect_current();
  // With it, the timestamp leads back and is refused itself.
  repository.snapshot().version = 1;
  repository.timestamp().version += 1;
  repository.republish();
  expect_refused("rollback", older_snapshot);
}

TEST_F(Attack, OldTargetsAreRefusedWhoeverSignsForThem) {
  begin_and_refresh();
  const std::string old = repository.text_of("targets");
  publish_more();
  serve("targets", old);
  expect_taken({"timestamp", "snapshot"}, "length_mismatch", other_length);
  transport.on(repository.file_of("targets"), {});
  expect_current();
  // With the keys of timestamp and snapshot, the snapshot leads back and is refused itself.
  repository.targets().version = 1;
  repository.snapshot().version += 1;
  repository.timestamp().version += 1;
  repository.republish();
  expect_taken({"timestamp"}, "rollback", role_lost);
}

TEST_F(Attack, OldDelegatedTargetsAreRefusedWhoeverSignsForThem) {
  begin_and_refresh();
  const std::string old = repository.text_of("games");
  publish_more();
  expect_current();
  const std::string current = repository.text_of("games");
  serve("games", old);
  EXPECT_FAILURE(load_games(), "hash_mismatch", other_hash);
  EXPECT_FALSE(stored().contains(delegated_file("games")));
  transport.on(repository.file_of("games"), {});
  load_games();
  EXPECT_EQ(stored().at(delegated_file("games")), current);
  repository.role("games").version = 1;
  repository.snapshot().version += 1;
  repository.timestamp().version += 1;
  repository.republish();
  expect_taken({"timestamp"}, "rollback", role_lost);
  EXPECT_EQ(stored().at(delegated_file("games")), current);
}

TEST_F(Attack, AWithdrawnRoleIsMissed) {
  begin_and_refresh();
  repository.drop("games");
  repository.publish();
  expect_taken({"timestamp"}, "rollback", role_lost);
}

// No news.

TEST_F(Attack, AFrozenRepositoryIsTrustedUntilItsFirstExpiry) {
  repository.timestamp().expires = "2030-01-08T00:00:00Z";
  begin_and_refresh();
  now = parse_tuf_time("2030-01-07T23:59:59.999999Z");
  expect_current();
  now += std::chrono::microseconds(1);
  expect_refused("expired_metadata", has_expired);
  now = parse_tuf_time("2034-01-01T00:00:00Z");
  expect_refused("expired_metadata", has_expired);
  repository.timestamp().expires = "2034-02-01T00:00:00Z";
  repository.publish();
  expect_current();
}

TEST_F(Attack, AFrozenRootHidesItsSuccessorsUntilItExpires) {
  repository.root().expires = "2031-01-01T00:00:00Z";
  begin_and_refresh();
  repository.root().expires = "2035-01-01T00:00:00Z";
  repository.rotate("root");
  repository.publish();
  transport.on("2.root.json", testing::answers_with_status(404));
  EXPECT_NO_THROW(refresh());
  EXPECT_EQ(stored().at("root.json"), repository.root_text(1));
  now = parse_tuf_time("2031-01-01T00:00:00Z");
  expect_refused("expired_metadata", has_expired);
  transport.on("2.root.json", {});
  expect_current();
}

// Documents of different times.

TEST_F(Attack, NewAndOldAreNotMixed) {
  for (const bool described : {true, false}) {
    repository = {};
    std::filesystem::remove_all(directory);
    repository.lengths = described;
    if (!described) {
      repository.hashes = {};
    }
    begin_and_refresh();
    const TufRepository old = repository;
    publish_more();
    // A new timestamp, and the old snapshot in the place of the new one.
    serve("snapshot", old.text_of("snapshot"));
    expect_taken({"timestamp"}, described ? "hash_mismatch" : "version_mismatch",
                 described ? other_hash : other_version);
    transport.on(repository.file_of("snapshot"), {});
    // A new snapshot, and the old targets.
    serve("targets", old.text_of("targets"));
    expect_taken({"snapshot"}, described ? "length_mismatch" : "version_mismatch",
                 described ? other_length : other_version);
    transport.on(repository.file_of("targets"), {});
    expect_current();
    // An old snapshot whose targets are the new ones.
    std::filesystem::remove(directory / "snapshot.json");
    transport.on(repository.file_of("snapshot"), answers_with(old.text_of("snapshot")));
    expect_refused(described ? "hash_mismatch" : "version_mismatch", described ? other_hash : other_version);
    transport.on(repository.file_of("snapshot"), {});
  }
}

TEST_F(Attack, NoRoleStandsInForAnother) {
  for (const bool described : {true, false}) {
    for (const char* wanted : {"timestamp", "snapshot", "targets"}) {
      for (const char* served : {"root", "timestamp", "snapshot", "targets", "games"}) {
        if (std::string(wanted) == served) {
          continue;
        }
        repository = {};
        std::filesystem::remove_all(directory);
        repository.lengths = false;
        repository.hashes = described ? std::vector<std::string>{"sha256"} : std::vector<std::string>();
        // One key for all, so that the signatures tell nothing.
        const TestKey key = TestKey::ed25519();
        for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
          repository.rotate(role, {key});
        }
        repository.delegate("targets", {.name = "games", .paths = {"games/*"}}).keys = {key};
        begin();
        transport.on(repository.file_of(wanted), answers_with(repository.text_of(served)));
        const auto failure = testing::failure_of([&] { refresh(); });
        ASSERT_TRUE(failure || (std::string(served) == "games" && !described)) << wanted << served;
        const bool of_targets = std::string(wanted) == "targets" && std::string(served) == "games";
        if (failure) {
          EXPECT_EQ(failure->code, described && std::string(wanted) != "timestamp" ? "hash_mismatch" : "metadata_type");
          EXPECT_FALSE(stored().contains(std::string(wanted) + ".json")) << wanted << served;
        } else {
          // Nothing but its signature and its version tells targets from targets; the same key signed both.
          EXPECT_TRUE(of_targets && !described);
        }
        transport.on(repository.file_of(wanted), {});
      }
    }
  }
}

// Too much data.

TEST_F(Attack, EndlessDataEndsAtTheBoundEvenIfTheTransportHasNone) {
  for (const bool described : {true, false}) {
    for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
      repository = {};
      std::filesystem::remove_all(directory);
      repository.lengths = described;
      if (!described) {
        repository.hashes = {};
      }
      begin_and_refresh();
      publish_more();
      repository.rotate("root");
      repository.publish();
      UnboundedTransport endless(repository);
      std::string text = repository.text_of(role);
      text.resize(limits.metadata_bytes + 1, ' ');
      endless.on(repository.file_of(role), answers_with(text));
      TufClient client(directory, endless, endless, limits, [this] { return now; });
      const bool length_known = described && (role == std::string("snapshot") || role == std::string("targets"));
      EXPECT_FAILURE(client.refresh(), length_known ? "length_mismatch" : "size_limit",
                     length_known ? other_length : too_large);
      for (const auto& [name, bytes] : stored()) {
        EXPECT_LE(bytes.size(), limits.metadata_bytes) << name;
      }
      EXPECT_NE(stored().at(std::string(role) + ".json"), repository.text_of(role)) << role;
    }
  }
}

TEST_F(Attack, NoMoreIsAskedForThanIsWanted) {
  repository.lengths = false;
  begin_and_refresh();
  publish_more();
  refresh();
  load_games();
  for (const testing::RepositoryRequest& request : transport.requests()) {
    const bool is_root = request.name.ends_with(".root.json");
    EXPECT_EQ(request.limit, is_root                            ? limits.root_bytes
                             : request.name == "timestamp.json" ? limits.timestamp_bytes
                                                                : limits.metadata_bytes)
        << request.name;
  }
}

TEST_F(Attack, AnEndlessChainOfRootsIsLeftAtTheLimit) {
  begin_and_refresh();
  for (int i = 0; i < 20; ++i) {
    repository.rotate("root");
    repository.publish();
  }
  for (const std::uint64_t version : {9U, 17U, 21U}) {
    refresh();
    EXPECT_EQ(stored().at("root.json"), repository.root_text(version));
  }
}

// Documents that two readers read differently.

TEST_F(Attack, NoDocumentSaysAnythingTwice) {
  for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
    repository = {};
    std::filesystem::remove_all(directory);
    begin_and_refresh();
    const auto doubled = [](std::string& text) { text.insert(1, R"("signed":{"version":1},)"); };
    if (role == std::string("root")) {
      repository.rotate("root");
    } else {
      publish_more();
    }
    repository.role(role).deface = doubled;
    repository.publish();
    const StoredFiles before = stored();
    EXPECT_FAILURE(refresh(), "duplicate_key", double_key);
    EXPECT_EQ(stored().at(std::string(role) + ".json"), before.at(std::string(role) + ".json"));
  }
}

TEST_F(Attack, NothingFollowsADocumentUnseen) {
  for (const std::string& tail : {std::string("\0", 1), std::string("\0{}", 3), std::string("{}"), std::string(",")}) {
    repository = {};
    std::filesystem::remove_all(directory);
    begin_and_refresh();
    repository.targets().add("other", "content");
    repository.targets().deface = [&](std::string& text) { text += tail; };
    repository.publish();
    const StoredFiles before = stored();
    EXPECT_EQ(testing::failure_of([&] { refresh(); }).value().code, "invalid_json");
    EXPECT_EQ(stored().at("targets.json"), before.at("targets.json"));
  }
}

// Versions that leave no room.

TEST_F(Attack, AFastForwardedTimestampIsUndoneByItsNextKey) {
  begin_and_refresh();
  repository.timestamp().version = greatest;
  repository.republish();
  expect_current();
  // The repository's own documents are refused from now on.
  repository.timestamp().version = 2;
  repository.republish();
  expect_refused("rollback", went_back);
  repository.rotate("timestamp");
  repository.publish();
  expect_current();
  EXPECT_EQ(repository.timestamp().version, 3u);
}

TEST_F(Attack, AFastForwardedSnapshotIsUndoneByItsNextKey) {
  begin_and_refresh();
  const std::string targets = repository.text_of("targets");
  repository.snapshot().version = greatest;
  repository.snapshot().edit = [](Json& body) { body["meta"]["games.json"]["version"] = greatest; };
  repository.timestamp().version = 2;
  repository.republish();
  expect_current();
  repository.snapshot().version = 2;
  repository.snapshot().edit = {};
  repository.timestamp().version = 3;
  repository.republish();
  expect_refused("rollback", older_snapshot);
  repository.rotate("snapshot");
  repository.publish();
  expect_current();
  EXPECT_EQ(repository.snapshot().version, 3u);
  EXPECT_EQ(stored().at("targets.json"), targets);
}

TEST_F(Attack, FastForwardedTargetsAreUndoneByTheKeysThatVouchForThem) {
  begin_and_refresh();
  repository.targets().version = greatest;
  repository.snapshot().version = 2;
  repository.timestamp().version = 2;
  repository.republish();
  expect_current();
  repository.targets().version = 2;
  repository.snapshot().version = 3;
  repository.timestamp().version = 3;
  repository.republish();
  expect_taken({"timestamp"}, "rollback", role_lost);
  repository.rotate("targets");
  repository.rotate("snapshot");
  repository.publish();
  expect_current();
  EXPECT_EQ(repository.targets().version, 3u);
}

// Stolen keys.

TEST_F(Attack, AKeyBelowTheThresholdIsWorthNothing) {
  for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
    repository = {};
    std::filesystem::remove_all(directory);
    const TestKey stolen = TestKey::ed25519();
    const TestKey other = TestKey::ed25519();
    repository.rotate(role, {TestKey::ed25519(), other, stolen}, 2);
    begin_and_refresh();
    const TufRepository honest = repository;
    publish_more();
    if (role == std::string("root")) {
      // The new root would hand the role "targets" to the thief.
      repository.rotate("targets", {stolen});
    }
    repository.role(role).signers = {{stolen}};
    repository.publish();
    const StoredFiles before = stored();
    EXPECT_FAILURE(refresh(), "signature_threshold", too_few);
    EXPECT_EQ(stored().at(std::string(role) + ".json"), before.at(std::string(role) + ".json")) << role;
    EXPECT_EQ(stored().at("targets.json"), before.at("targets.json")) << role;
    EXPECT_EQ(stored().at("root.json"), before.at("root.json")) << role;
    repository.role(role).signers = {{stolen, other}};
    repository.role(role).version += 1;
    repository.republish();
    if (role != std::string("root")) {
      // At the threshold, the keys are the role.
      repository.snapshot().version += 1;
      repository.timestamp().version += 1;
      repository.republish();
      expect_current();
    }
  }
}

TEST_F(Attack, TheOnlineKeysCannotSignForTargets) {
  begin_and_refresh();
  repository.targets().add("evil", "content");
  repository.targets().signers = {{repository.timestamp().keys[0], repository.snapshot().keys[0]}};
  repository.publish();
  expect_taken({"timestamp", "snapshot"}, "signature_threshold", too_few);
}

TEST_F(Attack, TheKeyOfTargetsCannotDoWithoutTheOnlineKeys) {
  begin_and_refresh();
  const StoredFiles before = stored();
  repository.targets().add("evil", "content");
  repository.snapshot().signers = repository.targets().keys;
  repository.timestamp().signers = repository.targets().keys;
  repository.publish();
  expect_refused("signature_threshold", too_few);
  // In the place of the documents that the honest timestamp leads to.
  transport.on("timestamp.json", answers_with(before.at("timestamp.json")));
  transport.on("1.snapshot.json", answers_with(repository.text_of("snapshot")));
  transport.on("1.targets.json", answers_with(repository.text_of("targets")));
  std::filesystem::remove(directory / "targets.json");
  EXPECT_FAILURE(refresh(), "size_limit", "Server sent more than the authenticated size limit");
  EXPECT_FALSE(stored().contains("targets.json"));
}

TEST_F(Attack, ARevokedKeySignsNoLonger) {
  for (const char* role : {"timestamp", "snapshot", "targets"}) {
    repository = {};
    std::filesystem::remove_all(directory);
    begin_and_refresh();
    const TestKey revoked = repository.role(role).keys[0];
    repository.rotate(role);
    repository.publish();
    expect_current();
    publish_more();
    repository.snapshot().version += 1;
    repository.role(role).signers = {{revoked}};
    repository.timestamp().version += 1;
    repository.republish();
    const std::string before = stored().at(std::string(role) + ".json");
    EXPECT_FAILURE(refresh(), "signature_threshold", too_few);
    EXPECT_EQ(stored().at(std::string(role) + ".json"), before) << role;
  }
}

TEST_F(Attack, EachDocumentNeedsTheKeysOfItsOwnRole) {
  for (const char* role : {"root", "timestamp", "snapshot", "targets", "games"}) {
    for (const char* signer : {"root", "timestamp", "snapshot", "targets", "games"}) {
      if (std::string(role) == signer) {
        continue;
      }
      repository = {};
      std::filesystem::remove_all(directory);
      begin_and_refresh();
      publish_more();
      repository.root().expires = "2036-01-01T00:00:00Z";
      repository.role(role).signers = repository.role(signer).keys;
      repository.publish();
      const StoredFiles before = stored();
      EXPECT_FAILURE(load_games(), "signature_threshold", too_few) << role << signer;
      if (role == std::string("games")) {
        EXPECT_EQ(stored().at("targets.json"), repository.text_of("targets"));
        EXPECT_FALSE(stored().contains(delegated_file("games")));
      } else {
        EXPECT_EQ(stored().at(std::string(role) + ".json"), before.at(std::string(role) + ".json")) << role << signer;
      }
    }
  }
}

// One key under two names.

Json with_note(Json key) {
  key["note"] = "the same key again";
  return key;
}
std::string id_of(const Json& key) { return digest(canonical_json(key), "sha256"); }

// Adds the same signature under another key ID.
void sign_again(std::string& text, const std::string& id) {
  Json document = Json::parse(text);
  Json signature = document["signatures"][0];
  signature["keyid"] = id;
  document["signatures"].push_back(signature);
  text = document.dump();
}

TEST_F(Attack, ASignatureUnderAnUnknownIdDoesNotCountAgain) {
  const TestKey first = TestKey::ed25519();
  const TestKey second = TestKey::ed25519();
  repository.rotate("timestamp", {first, second}, 2);
  begin_and_refresh();
  repository.timestamp().signers = {{first}};
  for (const std::string& id : {id_of(with_note(first.key())), second.id(), repository.root().keys[0].id()}) {
    repository.timestamp().deface = [&](std::string& text) { sign_again(text, id); };
    repository.publish();
    expect_refused("signature_threshold", too_few);
  }
  repository.timestamp().deface = [&](std::string& text) { sign_again(text, first.id()); };
  repository.publish();
  expect_refused("invalid_metadata", "Metadata repeats a signature key ID");
}

TEST_F(Attack, AKeyCannotStandUnderTheIdOfAnother) {
  begin_and_refresh();
  const TestKey thief = TestKey::ed25519();
  const std::string id = repository.timestamp().keys[0].id();
  repository.root().edit = [&](Json& body) { body["keys"][id] = thief.key(); };
  repository.root().expires = "2036-01-01T00:00:00Z";
  repository.publish();
  expect_refused("keyid_mismatch", "Signing key ID does not identify its canonical key");
}

// An ID is what a root counts by. A root that lists one key under two IDs has said so with its own signatures.
TEST_F(Attack, TwoIdsOfOneKeyAreTwoOnlyWhereTheRootListsBoth) {
  const TestKey key = TestKey::ed25519();
  const Json again = with_note(key.key());
  repository.rotate("timestamp", {key}, 2);
  repository.timestamp().deface = [&](std::string& text) { sign_again(text, id_of(again)); };
  begin();
  expect_refused("invalid_threshold", "Signing threshold exceeds unique authorized keys");
  repository.root().edit = [&](Json& body) { body["keys"][id_of(again)] = again; };
  repository.publish();
  StoredFiles left = {{"root.json", repository.root_text(2)}};
  EXPECT_FAILURE(refresh(), "invalid_threshold", "Signing threshold exceeds unique authorized keys");
  EXPECT_EQ(stored(), left);
  repository.root().edit = [&](Json& body) {
    body["keys"][id_of(again)] = again;
    body["roles"]["timestamp"]["keyids"].push_back(id_of(again));
  };
  repository.publish();
  expect_current();
}

// Keys of every scheme.

class SchemeOfAllRoles : public Attack, public ::testing::WithParamInterface<const char*> {};

TEST_P(SchemeOfAllRoles, IsWalkedAsAnyOther) {
  for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
    repository.rotate(role, {TestKey::of_scheme(GetParam()), TestKey::of_scheme(GetParam())}, 2);
  }
  repository.delegate("targets", {.name = "games", .paths = {"*"}}).keys = {TestKey::of_scheme(GetParam())};
  begin();
  expect_current();
  repository.rotate("root", {TestKey::of_scheme(GetParam())});
  repository.rotate("timestamp", {TestKey::of_scheme(GetParam())});
  repository.publish();
  expect_current();
  EXPECT_EQ(load_games(), Json::parse(repository.text_of("games")));
  repository.timestamp().deface = [](std::string& text) {
    Json document = Json::parse(text);
    std::string signature = text_at(document["signatures"][0], "sig");
    signature[signature.size() / 2] = signature[signature.size() / 2] == '0' ? '1' : '0';
    document["signatures"][0]["sig"] = signature;
    text = document.dump();
  };
  repository.publish();
  expect_refused("signature_threshold", too_few);
}

INSTANTIATE_TEST_SUITE_P(Schemes, SchemeOfAllRoles,
                         ::testing::Values("rsassa-pss-sha256", "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384",
                                           "ecdsa-sha2-nistp521", "ed25519", "ml-dsa-44/1", "ml-dsa-65/1",
                                           "ml-dsa-87/1"),
                         [](const auto& instance) { return "Number" + std::to_string(instance.index); });

}  // namespace
}  // namespace ravok::tuf_attack_test
