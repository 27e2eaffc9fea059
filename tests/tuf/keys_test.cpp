#include "tuf/keys.hpp"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "support/failure.hpp"
#include "support/signing.hpp"

namespace ravok::keys_test {
namespace {

using testing::key_objects;
using testing::role_body;
using testing::root_document;
using testing::signing_authority;
using testing::TestKey;
using testing::with_signatures;

constexpr const char* bad_shape = "Invalid signing key shape";
constexpr const char* bad_id = "Signing key ID does not identify its canonical key";
constexpr const char* bad_authority = "Invalid signing authority";
constexpr const char* impossible = "Signing threshold exceeds unique authorized keys";
constexpr const char* too_few = "Metadata does not meet its authorized signature threshold";

Json by_id(const Json& key) { return {{digest(canonical_json(key), "sha256"), key}}; }

std::string with_other_bit(std::string signature) {
  signature.front() = signature.front() == '0' ? '1' : '0';
  return signature;
}

TEST(VerifyKeys, TakesKeysByTheirCanonicalDigest) {
  const TestKey first = TestKey::ed25519();
  const TestKey second = TestKey::ed25519();
  EXPECT_NO_THROW(verify_keys(key_objects({&first, &second})));
  EXPECT_NO_THROW(verify_keys(Json::object()));
}

TEST(VerifyKeys, KnowsADigestThatWasMadeElsewhere) {
  const Json key = parse_json(R"({"scheme":"ed25519","keyval":{"public":"00"},"keytype":"ed25519"})", 1000);
  // The digest of {"keytype":"ed25519","keyval":{"public":"00"},"scheme":"ed25519"}, made by a tool of the system.
  const std::string id = "f9ae527b2fd2d931a87f86371d944323c4f73b54c325d0944a92731af733405c";
  EXPECT_NO_THROW(verify_keys({{id, key}}));
}

TEST(VerifyKeys, CountsEveryMemberOfAKeyIntoItsDigest) {
  const TestKey signer = TestKey::ed25519();
  Json key = signer.key();
  key["note"] = "Zoë";
  EXPECT_NO_THROW(verify_keys(by_id(key)));
  EXPECT_FAILURE(verify_keys({{signer.id(), key}}), "keyid_mismatch", bad_id);
}

TEST(VerifyKeys, RefusesAnotherId) {
  const TestKey signer = TestKey::ed25519();
  const TestKey other = TestKey::ed25519();
  std::string upper = signer.id();
  for (char& c : upper) {
    c = static_cast<char>(c >= 'a' && c <= 'f' ? c - 'a' + 'A' : c);
  }
  ASSERT_NE(upper, signer.id());
  for (const std::string& id : {other.id(), upper, std::string(), signer.id() + "0", signer.id().substr(1)}) {
    EXPECT_FAILURE(verify_keys({{id, signer.key()}}), "keyid_mismatch", bad_id) << id;
  }
}

TEST(VerifyKeys, RefusesWhatIsNoObjectOfKeys) {
  for (const Json& keys : {Json(), Json::array(), Json("keys"), Json(1)}) {
    EXPECT_FAILURE(verify_keys(keys), "invalid_metadata", "Signing keys must be an object") << keys;
  }
}

TEST(VerifyKeys, RefusesAnotherShapeBeforeItLooksAtTheId) {
  const TestKey signer = TestKey::ed25519();
  for (const Json& key : {Json(), Json::array(), Json("key"), Json::object()}) {
    EXPECT_FAILURE(verify_keys({{"id", key}}), "invalid_metadata", bad_shape) << key;
  }
  for (const char* member : {"/keytype", "/scheme", "/keyval", "/keyval/public"}) {
    const Json::json_pointer place(member);
    for (const Json& value : {Json(), Json(1), Json::array(), Json::object(), Json(true)}) {
      Json key = signer.key();
      key[place] = value;
      EXPECT_FAILURE(verify_keys(by_id(key)), "invalid_metadata", bad_shape) << key;
    }
    Json key = signer.key();
    key.at(place.parent_pointer()).erase(place.back());
    EXPECT_FAILURE(verify_keys(by_id(key)), "invalid_metadata", bad_shape) << key;
  }
}

TEST(VerifyKeys, BoundsThePublicTextAfterTheId) {
  Json key = {{"keytype", "rsa"}, {"scheme", "rsassa-pss-sha256"}, {"keyval", {{"public", std::string(16'384, 'a')}}}};
  EXPECT_NO_THROW(verify_keys(by_id(key)));
  key["keyval"]["public"] = std::string(16'385, 'a');
  EXPECT_FAILURE(verify_keys(by_id(key)), "size_limit", "Signing key exceeds its size limit");
  EXPECT_FAILURE(verify_keys({{"id", key}}), "keyid_mismatch", bad_id);
}

// Three signers, and a document for them to sign.
class Threshold : public ::testing::Test {
 protected:
  Json all() const { return key_objects({&a_, &b_, &c_}); }
  Json body() const { return role_body("timestamp"); }

  TestKey a_ = TestKey::ed25519();
  TestKey b_ = TestKey::ed25519();
  TestKey c_ = TestKey::ed25519();
};

TEST_F(Threshold, IsMetByEnoughSignatures) {
  const Json authority = signing_authority({&a_, &b_, &c_}, 2);
  EXPECT_NO_THROW(verify_threshold(with_signatures(body(), {&a_, &b_}), all(), authority));
  EXPECT_NO_THROW(verify_threshold(with_signatures(body(), {&c_, &a_}), all(), authority));
  EXPECT_NO_THROW(verify_threshold(with_signatures(body(), {&a_, &b_, &c_}), all(), authority));
}

TEST_F(Threshold, IsNotMetByOneSignatureLess) {
  const Json authority = signing_authority({&a_, &b_, &c_}, 2);
  EXPECT_FAILURE(verify_threshold(with_signatures(body(), {}), all(), authority), "signature_threshold", too_few);
  EXPECT_FAILURE(verify_threshold(with_signatures(body(), {&b_}), all(), authority), "signature_threshold", too_few);
}

TEST_F(Threshold, CountsAKeyOnce) {
  const Json authority = signing_authority({&a_, &b_}, 2);
  EXPECT_FAILURE(verify_threshold(with_signatures(body(), {&a_, &a_}), all(), authority), "signature_threshold",
                 too_few);
  EXPECT_NO_THROW(verify_threshold(with_signatures(body(), {&a_, &a_, &b_}), all(), authority));
}

TEST_F(Threshold, LooksPastABadSignatureToAGoodOneOfTheSameKey) {
  Json document = with_signatures(body(), {&a_, &a_});
  document["signatures"][0]["sig"] = with_other_bit(text_at(document["signatures"][0], "sig"));
  EXPECT_NO_THROW(verify_threshold(document, all(), signing_authority({&a_}, 1)));
}

TEST_F(Threshold, CountsOnlyAuthorizedKeys) {
  EXPECT_FAILURE(verify_threshold(with_signatures(body(), {&b_, &c_}), all(), signing_authority({&a_}, 1)),
                 "signature_threshold", too_few);
  EXPECT_NO_THROW(verify_threshold(with_signatures(body(), {&b_, &a_}), all(), signing_authority({&a_}, 1)));
}

TEST_F(Threshold, CountsOnlyKeysThatAreThere) {
  const Json authority = signing_authority({&a_, &b_}, 1);
  EXPECT_FAILURE(verify_threshold(with_signatures(body(), {&b_}), key_objects({&a_}), authority), "signature_threshold",
                 too_few);
}

TEST_F(Threshold, LeavesTheOthersToMeetItWhenASignatureIsBad) {
  const Json authority = signing_authority({&a_, &b_, &c_}, 2);
  for (const std::string& bad : {std::string(), std::string("zz"), std::string("abc"), std::string(128, '0'),
                                 std::string(20'000, 'a'), text_at(b_.signature("other"), "sig")}) {
    Json document = with_signatures(body(), {&a_, &b_, &c_});
    document["signatures"][1]["sig"] = bad;
    EXPECT_NO_THROW(verify_threshold(document, all(), authority)) << bad;
    EXPECT_FAILURE(verify_threshold(document, all(), signing_authority({&a_, &b_, &c_}, 3)), "signature_threshold",
                   too_few)
        << bad;
  }
}

TEST_F(Threshold, TakesNoKeysSignatureForAnothers) {
  Json document = with_signatures(body(), {&a_});
  document["signatures"][0]["keyid"] = b_.id();
  EXPECT_FAILURE(verify_threshold(document, all(), signing_authority({&a_, &b_}, 1)), "signature_threshold", too_few);
}

TEST_F(Threshold, IsOverTheSignedMemberAndNothingElse) {
  Json document = with_signatures(body(), {&a_});
  document["beside"] = 1;
  EXPECT_NO_THROW(verify_threshold(document, all(), signing_authority({&a_}, 1)));
  document["signed"]["version"] = 2;
  EXPECT_FAILURE(verify_threshold(document, all(), signing_authority({&a_}, 1)), "signature_threshold", too_few);
}

TEST_F(Threshold, DoesNotDependOnTheOrderOfMembersInTransit) {
  const std::string canonical =
      R"({"_type":"timestamp","expires":"2035-01-01T00:00:00Z","spec_version":"1.0.31","version":1})";
  const std::string moved =
      R"({ "version":1, "spec_version":"1.0.31","expires":"2035-01-01T00:00:00Z",  "_type":"\u0074imestamp"})";
  const std::string text = R"({"signed":)" + moved + R"(,"signatures":[)" + a_.signature(canonical).dump() + "]}";
  EXPECT_NO_THROW(verify_threshold(parse_json(text, 10'000), all(), signing_authority({&a_}, 1)));
}

TEST_F(Threshold, CountsARepeatedIdOnceAndRefusesBeforeAnySignature) {
  EXPECT_FAILURE(verify_threshold(with_signatures(body(), {&a_}), all(), signing_authority({&a_, &a_}, 2)),
                 "invalid_threshold", impossible);
  EXPECT_FAILURE(verify_threshold(with_signatures(body(), {&a_, &b_}), all(), signing_authority({&a_, &b_}, 3)),
                 "invalid_threshold", impossible);
  EXPECT_FAILURE(verify_threshold({{"signatures", 1}}, all(), signing_authority({}, 1)), "invalid_threshold",
                 impossible);
  EXPECT_FAILURE(verify_threshold({{"signatures", 1}}, all(), signing_authority({&a_}, ~std::uint64_t{0})),
                 "invalid_threshold", impossible);
}

TEST_F(Threshold, IsAPositiveNumber) {
  const Json document = with_signatures(body(), {&a_});
  EXPECT_FAILURE(verify_threshold(document, all(), signing_authority({&a_}, 0)), "invalid_version",
                 "Metadata version must be positive");
  for (const Json& threshold : {Json("1"), Json(-1), Json(), Json(true), Json(1.0)}) {
    Json authority = signing_authority({&a_}, 1);
    authority["threshold"] = threshold;
    EXPECT_FAILURE(verify_threshold(document, all(), authority), "invalid_version",
                   "Metadata version must be a positive integer")
        << threshold;
  }
}

TEST_F(Threshold, NeedsAnAuthority) {
  const Json document = with_signatures(body(), {&a_});
  for (const Json& authority :
       {Json(), Json::array(), Json("root"), Json::object(), Json{{"threshold", 1}},
        Json{{"threshold", 1}, {"keyids", a_.id()}}, Json{{"threshold", 1}, {"keyids", Json::object()}},
        Json{{"keyids", Json::array({a_.id()})}}}) {
    EXPECT_FAILURE(verify_threshold(document, Json(), authority), "invalid_metadata", bad_authority) << authority;
  }
}

TEST_F(Threshold, RefusesBadKeysBeforeTheThresholdEvenWhereNobodyUsesThem) {
  Json keys = all();
  keys["id"] = a_.key();
  EXPECT_FAILURE(verify_threshold(with_signatures(body(), {&a_}), keys, signing_authority({&a_}, 0)), "keyid_mismatch",
                 bad_id);
}

TEST_F(Threshold, OnlineKeysAreThoseOfTimestampAndSnapshot) {
  Json body = root_document({&a_, &b_, &c_});
  body["roles"]["timestamp"] = signing_authority({&b_}, 1);
  body["roles"]["snapshot"] = signing_authority({&c_, &b_, &c_}, 1);
  EXPECT_EQ(online_keys(with_signatures(body, {})),
            (Json{{"timestamp", key_objects({&b_})}, {"snapshot", key_objects({&b_, &c_})}}));
}

TEST_F(Threshold, OnlineKeysMayBeShared) {
  Json body = root_document({&a_});
  body["roles"]["mirrors"] = signing_authority({&a_}, 1);
  EXPECT_EQ(online_keys(with_signatures(body, {&a_})),
            (Json{{"timestamp", key_objects({&a_})}, {"snapshot", key_objects({&a_})}}));
}

TEST_F(Threshold, OnlineKeysOfEmptyRolesAreNone) {
  Json body = root_document({&a_});
  body["roles"]["timestamp"] = signing_authority({}, 1);
  EXPECT_EQ(online_keys(with_signatures(body, {})).at("timestamp"), Json::object());
}

}  // namespace
}  // namespace ravok::keys_test
