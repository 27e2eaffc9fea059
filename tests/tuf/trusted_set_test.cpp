#include "tuf/trusted_set.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "support/failure.hpp"
#include "support/signing.hpp"

namespace ravok::trusted_set_test {
namespace {

using testing::key_objects;
using testing::role_body;
using testing::signed_document;
using testing::signing_authority;
using testing::TestKey;
using testing::with_signatures;

constexpr std::uint64_t limit = 1 << 20;
constexpr std::uint64_t greatest = std::numeric_limits<std::uint64_t>::max();

constexpr const char* too_few = "Metadata does not meet its authorized signature threshold";
constexpr const char* not_next = "Root version is not exactly the next version";
constexpr const char* has_expired = "Repository metadata has expired; previously installed games remain playable";
constexpr const char* too_large = "JSON exceeds its size limit";
constexpr const char* wrong_type = "Unexpected metadata type";
constexpr const char* went_back = "Timestamp version went backwards";
constexpr const char* older_snapshot = "Timestamp references an older snapshot";
constexpr const char* role_lost = "Snapshot removed or rolled back a known targets role";

const TufTime now = parse_tuf_time("2030-01-01T00:00:00Z");

Json reference(std::uint64_t version) { return {{"version", version}}; }

Json timestamp_body(std::uint64_t version, std::uint64_t snapshot, const char* expires = "2035-01-01T00:00:00Z") {
  Json body = role_body("timestamp", version, expires);
  body["meta"]["snapshot.json"] = reference(snapshot);
  return body;
}

Json snapshot_body(std::uint64_t version, const std::vector<std::pair<const char*, std::uint64_t>>& roles = {},
                   const char* expires = "2035-01-01T00:00:00Z") {
  Json body = role_body("snapshot", version, expires);
  body["meta"]["targets.json"] = reference(1);
  for (const auto& [name, of_role] : roles) {
    body["meta"][name] = reference(of_role);
  }
  return body;
}

// A root with a key for each role.
class Trusted : public ::testing::Test {
 protected:
  Json root_body(std::uint64_t version = 1) const {
    Json body = role_body("root", version);
    body["consistent_snapshot"] = true;
    body["keys"] = key_objects({&root_, &timestamp_, &snapshot_, &targets_});
    body["roles"] = {{"root", signing_authority({&root_}, 1)},
                     {"timestamp", signing_authority({&timestamp_}, 1)},
                     {"snapshot", signing_authority({&snapshot_}, 1)},
                     {"targets", signing_authority({&targets_}, 1)}};
    return body;
  }

  // Gives a role of a root other keys.
  static void assign(Json& body, const char* role, testing::TestKeys keys, std::uint64_t threshold = 1) {
    body["keys"].update(key_objects(keys));
    body["roles"][role] = signing_authority(keys, threshold);
  }

  TrustedSet set(std::uint64_t version = 1) const { return set_of(root_body(version)); }
  TrustedSet set_of(const Json& body) const { return TrustedSet(signed_document(body, {&root_})); }

  Json signed_timestamp(std::uint64_t version, std::uint64_t snapshot) const {
    return with_signatures(timestamp_body(version, snapshot), {&timestamp_});
  }

  TestKey root_ = TestKey::ed25519();
  TestKey timestamp_ = TestKey::ed25519();
  TestKey snapshot_ = TestKey::ed25519();
  TestKey targets_ = TestKey::ed25519();
  TestKey other_ = TestKey::ed25519();
};

// The first root.

class FirstRoot : public Trusted {};

TEST_F(FirstRoot, IsTrustedOnceItsOwnKeysHaveSignedIt) {
  const TrustedSet set = set_of(root_body(7));
  EXPECT_EQ(set.root().at("signed"), root_body(7));
  EXPECT_TRUE(set.timestamp().is_null());
  EXPECT_TRUE(set.snapshot().is_null());
  EXPECT_TRUE(set.targets().is_null());
}

TEST_F(FirstRoot, NeedsItsOwnSignatures) {
  EXPECT_FAILURE(TrustedSet(signed_document(root_body(), {})), "signature_threshold", too_few);
  EXPECT_FAILURE(TrustedSet(signed_document(root_body(), {&other_, &timestamp_, &targets_})), "signature_threshold",
                 too_few);
}

TEST_F(FirstRoot, MayHaveExpired) {
  Json body = root_body();
  body["expires"] = "2001-01-01T00:00:00Z";
  EXPECT_NO_THROW(set_of(body));
}

TEST_F(FirstRoot, IsARootInStrictJson) {
  EXPECT_FAILURE(TrustedSet(signed_document(timestamp_body(1, 1), {&root_})), "metadata_type", wrong_type);
  EXPECT_FAILURE(TrustedSet(R"({"signed":{},"signed":{}})"), "duplicate_key", "JSON contains a duplicate object key");
  EXPECT_EQ(testing::failure_of([] { TrustedSet(""); }).value().code, "invalid_json");
}

TEST_F(FirstRoot, HasAtMostFourMebibytes) {
  std::string text = signed_document(root_body(), {&root_});
  text.resize(4'194'304, ' ');
  EXPECT_NO_THROW((TrustedSet(text)));
  EXPECT_FAILURE(TrustedSet(text + " "), "size_limit", too_large);
}

TEST_F(FirstRoot, SaysWhetherFilesAreNamedWithTheirVersions) {
  Json body = root_body();
  EXPECT_TRUE(set_of(body).has_consistent_snapshot());
  body["consistent_snapshot"] = false;
  EXPECT_FALSE(set_of(body).has_consistent_snapshot());
  body.erase("consistent_snapshot");
  EXPECT_FALSE(set_of(body).has_consistent_snapshot());
}

// The next root.

class NextRoots : public Trusted {
 protected:
  Json verified(const Json& body, testing::TestKeys signers) const {
    return set().verified_next_root(signed_document(body, signers), limit).document;
  }
  bool rotates(const std::function<void(Json&)>& change) const {
    Json body = root_body(2);
    change(body);
    return set().verified_next_root(signed_document(body, {&root_}), limit).rotates_online_keys;
  }
};

TEST_F(NextRoots, TakesTheNextVersion) {
  EXPECT_EQ(verified(root_body(2), {&root_}).at("signed"), root_body(2));
  EXPECT_EQ(set().next_root_version(), 2u);
}

TEST_F(NextRoots, TakesNoOtherVersion) {
  const TrustedSet fifth = set(5);
  for (const std::uint64_t version :
       {std::uint64_t{1}, std::uint64_t{4}, std::uint64_t{5}, std::uint64_t{7}, greatest}) {
    EXPECT_FAILURE(fifth.verified_next_root(signed_document(root_body(version), {&root_}), limit), "invalid_version",
                   not_next)
        << version;
  }
}

TEST_F(NextRoots, EndWithTheGreatestVersion) {
  EXPECT_EQ(set(greatest - 1).next_root_version(), greatest);
  EXPECT_NO_THROW(set(greatest - 1).verified_next_root(signed_document(root_body(greatest), {&root_}), limit));
  EXPECT_FAILURE(set(greatest).next_root_version(), "invalid_version", "Root version cannot be incremented");
}

TEST_F(NextRoots, NeedTheSignaturesOfTheRootBeforeAndTheirOwn) {
  Json body = root_body(2);
  assign(body, "root", {&other_});
  EXPECT_FAILURE(verified(body, {&other_}), "signature_threshold", too_few);
  EXPECT_FAILURE(verified(body, {&root_}), "signature_threshold", too_few);
  EXPECT_NO_THROW(verified(body, {&other_, &root_}));
}

TEST_F(NextRoots, NeedTheThresholdOfEachOfTheTwo) {
  const TestKey third = TestKey::ed25519();
  Json before = root_body(1);
  assign(before, "root", {&root_, &other_}, 2);
  const TrustedSet set(signed_document(before, {&root_, &other_}));
  Json after = root_body(2);
  assign(after, "root", {&root_, &third}, 2);
  const auto taken = [&](testing::TestKeys signers) {
    return set.verified_next_root(signed_document(after, signers), limit);
  };
  EXPECT_FAILURE(taken({&root_, &other_}), "signature_threshold", too_few);
  EXPECT_FAILURE(taken({&root_, &third}), "signature_threshold", too_few);
  EXPECT_FAILURE(taken({&third, &other_}), "signature_threshold", too_few);
  EXPECT_NO_THROW(taken({&root_, &other_, &third}));
}

TEST_F(NextRoots, AreJudgedByTheRootBeforeFirst) {
  // The new root's threshold cannot be met at all, and fails in another way than the old one's.
  Json body = root_body(2);
  assign(body, "root", {&other_}, 2);
  EXPECT_FAILURE(verified(body, {&other_}), "signature_threshold", too_few);
  EXPECT_FAILURE(verified(body, {&root_, &other_}), "invalid_threshold",
                 "Signing threshold exceeds unique authorized keys");
}

TEST_F(NextRoots, AreJudgedByTheirSignaturesBeforeTheirVersion) {
  Json body = root_body(9);
  assign(body, "root", {&other_});
  EXPECT_FAILURE(verified(body, {&root_}), "signature_threshold", too_few);
  EXPECT_FAILURE(verified(body, {&root_, &other_}), "invalid_version", not_next);
}

TEST_F(NextRoots, AreBoundedRootsInStrictJson) {
  const std::string text = signed_document(root_body(2), {&root_});
  EXPECT_NO_THROW(set().verified_next_root(text, text.size()));
  EXPECT_FAILURE(set().verified_next_root(text, text.size() - 1), "size_limit", too_large);
  EXPECT_FAILURE(verified(timestamp_body(2, 1), {&root_}), "metadata_type", wrong_type);
  EXPECT_FAILURE(set().verified_next_root(R"({"signed":1,"signed":1})", limit), "duplicate_key",
                 "JSON contains a duplicate object key");
}

TEST_F(NextRoots, HaveAtMostFourMebibytesWhateverTheLimit) {
  std::string text = signed_document(root_body(2), {&root_});
  text.resize(4'194'304, ' ');
  EXPECT_NO_THROW(set().verified_next_root(text, 8'388'608));
  EXPECT_FAILURE(set().verified_next_root(text + " ", 8'388'608), "size_limit", too_large);
}

TEST_F(NextRoots, MayHaveExpired) {
  Json body = root_body(2);
  body["expires"] = "2001-01-01T00:00:00Z";
  EXPECT_NO_THROW(verified(body, {&root_}));
}

TEST_F(NextRoots, SayWhetherTheOnlineRolesHaveOtherKeys) {
  EXPECT_FALSE(rotates([](Json&) {}));
  EXPECT_TRUE(rotates([&](Json& body) { assign(body, "timestamp", {&other_}); }));
  EXPECT_TRUE(rotates([&](Json& body) { assign(body, "snapshot", {&other_}); }));
  EXPECT_TRUE(rotates([&](Json& body) { assign(body, "timestamp", {&timestamp_, &other_}); }));
  EXPECT_TRUE(rotates([&](Json& body) { assign(body, "timestamp", {&snapshot_}); }));
  EXPECT_FALSE(rotates([&](Json& body) { assign(body, "targets", {&other_}); }));
  EXPECT_FALSE(rotates([&](Json& body) { assign(body, "mirrors", {&other_}); }));
  EXPECT_FALSE(rotates([&](Json& body) { body["keys"].update(key_objects({&other_})); }));
  EXPECT_FALSE(rotates(
      [](Json& body) { body["roles"]["timestamp"]["keyids"].push_back(body["roles"]["timestamp"]["keyids"][0]); }));
}

TEST_F(NextRoots, TakeTheRolesBelowWithThem) {
  TrustedSet set = this->set();
  set.trust_timestamp(signed_timestamp(1, 1));
  set.trust_snapshot(with_signatures(snapshot_body(1), {&snapshot_}));
  set.trust_targets(with_signatures(role_body("targets"), {&targets_}));
  set.trust_root(set.verified_next_root(signed_document(root_body(2), {&root_}), limit));
  EXPECT_EQ(set.root().at("signed"), root_body(2));
  EXPECT_TRUE(set.timestamp().is_null());
  EXPECT_TRUE(set.snapshot().is_null());
  EXPECT_TRUE(set.targets().is_null());
}

// The timestamp.

class Timestamps : public Trusted {
 protected:
  bool keeps(const Json& stored, const Json& verified) const { return set().keeps_timestamp(stored, verified); }
};

TEST_F(Timestamps, NeedTheirOwnKeys) {
  const Json body = timestamp_body(3, 2);
  EXPECT_EQ(set().verified_timestamp(signed_document(body, {&timestamp_}), limit).at("signed"), body);
  for (const TestKey* wrong : {&root_, &snapshot_, &targets_, &other_}) {
    EXPECT_FAILURE(set().verified_timestamp(signed_document(body, {wrong}), limit), "signature_threshold", too_few);
  }
}

TEST_F(Timestamps, AreBoundedTimestampsInStrictJson) {
  const std::string text = signed_document(timestamp_body(1, 1), {&timestamp_});
  EXPECT_NO_THROW(set().verified_timestamp(text, text.size()));
  EXPECT_FAILURE(set().verified_timestamp(text, text.size() - 1), "size_limit", too_large);
  EXPECT_FAILURE(set().verified_timestamp(signed_document(snapshot_body(1), {&timestamp_}), limit), "metadata_type",
                 wrong_type);
}

TEST_F(Timestamps, KeepTheStoredOneOfTheSameVersion) {
  EXPECT_TRUE(keeps(signed_timestamp(4, 2), signed_timestamp(4, 2)));
  EXPECT_TRUE(keeps(signed_timestamp(4, 2), signed_timestamp(4, 9)));
  // Its signed content stays in force, whatever else is said under the same version.
  EXPECT_TRUE(keeps(signed_timestamp(4, 2), signed_timestamp(4, 1)));
}

TEST_F(Timestamps, MakeRoomForALaterOne) {
  EXPECT_FALSE(keeps(signed_timestamp(4, 2), signed_timestamp(5, 2)));
  EXPECT_FALSE(keeps(signed_timestamp(4, 2), signed_timestamp(greatest, greatest)));
}

TEST_F(Timestamps, NeverGoBack) {
  EXPECT_FAILURE(keeps(signed_timestamp(4, 2), signed_timestamp(3, 2)), "rollback", went_back);
  EXPECT_FAILURE(keeps(signed_timestamp(4, 2), signed_timestamp(3, 1)), "rollback", went_back);
  EXPECT_FAILURE(keeps(signed_timestamp(4, 2), signed_timestamp(5, 1)), "rollback", older_snapshot);
}

TEST_F(Timestamps, CompareWithAStoredOneThatNobodyHasSigned) {
  const Json unsigned_one = with_signatures(timestamp_body(4, 2), {});
  EXPECT_FAILURE(keeps(unsigned_one, signed_timestamp(3, 2)), "rollback", went_back);
  EXPECT_FAILURE(keeps(unsigned_one, signed_timestamp(5, 1)), "rollback", older_snapshot);
  EXPECT_FALSE(keeps(unsigned_one, signed_timestamp(5, 2)));
}

TEST_F(Timestamps, DoNotKeepAStoredOneThatTheRootDoesNotVouchFor) {
  EXPECT_FALSE(keeps(with_signatures(timestamp_body(4, 2), {}), signed_timestamp(4, 2)));
  EXPECT_FALSE(keeps(with_signatures(timestamp_body(4, 2), {&snapshot_}), signed_timestamp(4, 3)));
  EXPECT_FAILURE(keeps(with_signatures(timestamp_body(4, 2), {}), signed_timestamp(4, 1)), "rollback", older_snapshot);
  EXPECT_FAILURE(set().require_stored_timestamp(with_signatures(timestamp_body(4, 2), {})), "signature_threshold",
                 too_few);
  EXPECT_NO_THROW(set().require_stored_timestamp(signed_timestamp(4, 2)));
}

TEST_F(Timestamps, RefuseAStoredOneOfAnotherShape) {
  EXPECT_FAILURE(keeps(with_signatures(snapshot_body(1), {&timestamp_}), signed_timestamp(4, 2)), "metadata_type",
                 wrong_type);
  EXPECT_FAILURE(keeps(Json::object(), signed_timestamp(4, 2)), "invalid_metadata",
                 "Metadata must contain a signed object and signature array");
  EXPECT_FAILURE(set().require_stored_timestamp(Json::object()), "invalid_metadata",
                 "Metadata must contain a signed object and signature array");
}

TEST_F(Timestamps, TakeTheRolesBelowWithThem) {
  TrustedSet set = this->set();
  set.trust_timestamp(signed_timestamp(1, 1));
  set.trust_snapshot(with_signatures(snapshot_body(1), {&snapshot_}));
  set.trust_targets(with_signatures(role_body("targets"), {&targets_}));
  set.trust_timestamp(signed_timestamp(2, 1));
  EXPECT_EQ(set.timestamp(), signed_timestamp(2, 1));
  EXPECT_TRUE(set.snapshot().is_null());
  EXPECT_TRUE(set.targets().is_null());
}

// A role and its parent.

class Children : public Trusted {
 protected:
  Children() : keys_(key_objects({&snapshot_, &other_})), authority_(signing_authority({&snapshot_}, 1)) {}

  Json verified(std::string_view text, const Json& meta, std::uint64_t most = limit, TufTime time = now) const {
    return verified_role(text, {meta, keys_, authority_}, "snapshot", most, time);
  }

  Json keys_;
  Json authority_;
};

TEST_F(Children, AreWhatTheirParentSays) {
  const std::string text = signed_document(snapshot_body(3), {&snapshot_});
  Json meta = reference(3);
  EXPECT_EQ(verified(text, meta).at("signed"), snapshot_body(3));
  meta["length"] = text.size();
  EXPECT_NO_THROW(verified(text, meta));
  meta["hashes"] = {{"sha256", digest(text, "sha256")}, {"sha512", digest(text, "sha512")}};
  EXPECT_NO_THROW(verified(text, meta));
}

// One document is wrong in every way. Each step puts one thing right, and the next check refuses it.
TEST_F(Children, AreCheckedInOneOrder) {
  Json meta = {{"version", 2}, {"length", 1}, {"hashes", {{"sha256", std::string(64, '0')}}}};
  const auto describe = [&](const std::string& text) {
    meta["length"] = text.size();
    meta["hashes"]["sha256"] = digest(text, "sha256");
  };
  const char* past = "2030-01-01T00:00:00Z";

  std::string text = "{";
  EXPECT_FAILURE(verified(text + " ", meta), "length_mismatch", "Metadata length does not match its parent");
  EXPECT_FAILURE(verified(text, meta), "hash_mismatch", "Metadata hash does not match its parent");
  describe(text);
  EXPECT_FAILURE(verified(text, meta, 0), "size_limit", too_large);
  EXPECT_EQ(testing::failure_of([&] { verified(text, meta); }).value().code, "invalid_json");
  text = signed_document(role_body("targets", 1, past), {&other_});
  describe(text);
  EXPECT_FAILURE(verified(text, meta), "metadata_type", wrong_type);
  text = signed_document(snapshot_body(1, {}, past), {&other_});
  describe(text);
  EXPECT_FAILURE(verified(text, meta), "signature_threshold", too_few);
  text = signed_document(snapshot_body(1, {}, past), {&snapshot_});
  describe(text);
  EXPECT_FAILURE(verified(text, meta), "version_mismatch", "Metadata version does not match its parent");
  text = signed_document(snapshot_body(2, {}, past), {&snapshot_});
  describe(text);
  EXPECT_FAILURE(verified(text, meta), "expired_metadata", has_expired);
  text = signed_document(snapshot_body(2), {&snapshot_});
  describe(text);
  EXPECT_NO_THROW(verified(text, meta));
}

TEST_F(Children, HaveExactlyTheLength) {
  const std::string text = signed_document(snapshot_body(1), {&snapshot_});
  for (const std::uint64_t length : {std::uint64_t{0}, text.size() - 1, text.size() + 1, greatest}) {
    Json meta = reference(1);
    meta["length"] = length;
    EXPECT_FAILURE(verified(text, meta), "length_mismatch", "Metadata length does not match its parent") << length;
  }
}

TEST_F(Children, HaveEachOfTheDigestsInLowerCase) {
  const std::string text = signed_document(snapshot_body(1), {&snapshot_});
  std::string upper = digest(text, "sha256");
  for (char& c : upper) {
    c = static_cast<char>(c >= 'a' && c <= 'f' ? c - 'a' + 'A' : c);
  }
  ASSERT_NE(upper, digest(text, "sha256"));
  for (const Json& hashes : {Json{{"sha256", std::string(64, '0')}}, Json{{"sha256", upper}}, Json{{"sha256", 1}},
                             Json{{"sha256", digest(text, "sha256")}, {"sha512", std::string(128, '0')}},
                             Json{{"sha256", std::string(64, '0')}, {"sha512", digest(text, "sha512")}},
                             Json{{"sha512", digest(text, "sha256")}}}) {
    Json meta = reference(1);
    meta["hashes"] = hashes;
    EXPECT_FAILURE(verified(text, meta), "hash_mismatch", "Metadata hash does not match its parent") << hashes;
  }
}

TEST_F(Children, NeedWellFormedDigestsIfAny) {
  const std::string text = signed_document(snapshot_body(1), {&snapshot_});
  for (const Json& hashes : {Json(), Json::object(), Json::array(), Json("sha256"), Json(1)}) {
    Json meta = reference(1);
    meta["hashes"] = hashes;
    EXPECT_FAILURE(verified(text, meta), "invalid_hashes", "Metadata hashes must be a nonempty object") << hashes;
  }
  Json meta = reference(1);
  meta["hashes"] = {{"md5", "00"}};
  EXPECT_EQ(testing::failure_of([&] { verified(text, meta); }).value().code, "unsupported_hash");
}

TEST_F(Children, AreBoundedEvenIfNoLengthIsKnown) {
  const std::string text = signed_document(snapshot_body(1), {&snapshot_});
  EXPECT_NO_THROW(verified(text, reference(1), text.size()));
  EXPECT_FAILURE(verified(text, reference(1), text.size() - 1), "size_limit", too_large);
}

TEST_F(Children, HaveExactlyTheVersion) {
  const std::string text = signed_document(snapshot_body(5), {&snapshot_});
  for (const std::uint64_t version : {std::uint64_t{1}, std::uint64_t{4}, std::uint64_t{6}, greatest}) {
    EXPECT_FAILURE(verified(text, reference(version)), "version_mismatch", "Metadata version does not match its parent")
        << version;
  }
}

TEST_F(Children, NeedTheKeysOfTheirParent) {
  EXPECT_FAILURE(verified(signed_document(snapshot_body(1), {&other_}), reference(1)), "signature_threshold", too_few);
  authority_ = signing_authority({&snapshot_, &other_}, 2);
  EXPECT_FAILURE(verified(signed_document(snapshot_body(1), {&other_}), reference(1)), "signature_threshold", too_few);
  EXPECT_FAILURE(verified(signed_document(snapshot_body(1), {&other_, &other_}), reference(1)), "invalid_metadata",
                 "Metadata repeats a signature key ID");
  EXPECT_NO_THROW(verified(signed_document(snapshot_body(1), {&other_, &snapshot_}), reference(1)));
}

TEST_F(Children, EndAtTheirExpiryAndNotAfterIt) {
  const std::string text = signed_document(snapshot_body(1, {}, "2030-01-01T00:00:00.000001Z"), {&snapshot_});
  EXPECT_NO_THROW(verified(text, reference(1), limit, now));
  EXPECT_FAILURE(verified(text, reference(1), limit, now + std::chrono::microseconds(1)), "expired_metadata",
                 has_expired);
}

TEST_F(Children, ComeFromTheParentsThatAreTrusted) {
  TrustedSet set = this->set();
  set.trust_timestamp(signed_timestamp(1, 6));
  EXPECT_EQ(set.snapshot_reference().meta, reference(6));
  EXPECT_EQ(set.snapshot_reference().keys, set.root().at("signed").at("keys"));
  EXPECT_EQ(set.snapshot_reference().authority, signing_authority({&snapshot_}, 1));
  Json snapshot = snapshot_body(6);
  snapshot["meta"]["targets.json"] = reference(8);
  set.trust_snapshot(with_signatures(snapshot, {&snapshot_}));
  EXPECT_EQ(set.targets_reference().meta, reference(8));
  EXPECT_EQ(set.targets_reference().authority, signing_authority({&targets_}, 1));
}

// The snapshot after another.

void compare(const std::vector<std::pair<const char*, std::uint64_t>>& stored,
             const std::vector<std::pair<const char*, std::uint64_t>>& fresh) {
  require_no_role_lost(with_signatures(snapshot_body(1, stored), {}), with_signatures(snapshot_body(2, fresh), {}));
}

TEST(SnapshotSuccession, KeepsEveryRoleAtItsVersionOrALaterOne) {
  EXPECT_NO_THROW(compare({}, {}));
  EXPECT_NO_THROW(compare({}, {{"a.json", 1}}));
  EXPECT_NO_THROW(compare({{"a.json", 3}}, {{"a.json", 3}}));
  EXPECT_NO_THROW(compare({{"a.json", 3}, {"b.json", 1}}, {{"a.json", 4}, {"b.json", greatest}, {"c.json", 1}}));
}

TEST(SnapshotSuccession, LosesNoRoleAndTakesNoneBack) {
  EXPECT_FAILURE(compare({{"a.json", 1}}, {}), "rollback", role_lost);
  EXPECT_FAILURE(compare({{"a.json", 1}}, {{"b.json", 1}}), "rollback", role_lost);
  EXPECT_FAILURE(compare({{"a.json", 3}}, {{"a.json", 2}}), "rollback", role_lost);
  EXPECT_FAILURE(compare({{"a.json", 3}, {"z.json", 2}}, {{"a.json", 3}, {"z.json", 1}}), "rollback", role_lost);
  EXPECT_FAILURE(compare({{"targets.json", 2}}, {}), "rollback", role_lost);
}

// The time.

TEST(Unexpired, MeansLaterThanNow) {
  const auto expiring = [](const char* expires) { return with_signatures(role_body("root", 1, expires), {}); };
  EXPECT_NO_THROW(unexpired(expiring("2030-01-01T00:00:01Z"), now));
  EXPECT_NO_THROW(unexpired(expiring("2030-01-01T00:00:00.000001Z"), now));
  EXPECT_FAILURE(unexpired(expiring("2030-01-01T00:00:00Z"), now), "expired_metadata", has_expired);
  EXPECT_FAILURE(unexpired(expiring("2029-12-31T23:59:59.999999Z"), now), "expired_metadata", has_expired);
  EXPECT_NO_THROW(unexpired(expiring("9999-12-31T23:59:59Z"), TufTime::min()));
  EXPECT_FAILURE(unexpired(expiring("9999-12-31T23:59:59Z"), TufTime::max()), "expired_metadata", has_expired);
}

}  // namespace
}  // namespace ravok::trusted_set_test
