#include "tuf/metadata_shape.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/signing.hpp"

namespace ravok::metadata_shape_test {
namespace {

using testing::key_objects;
using testing::role_body;
using testing::root_document;
using testing::signing_authority;
using testing::TestKey;
using testing::with_signatures;

constexpr const char* malformed = "Metadata is missing a required field or has an invalid field type";
constexpr const char* not_signed = "Metadata must contain a signed object and signature array";
constexpr const char* bad_signature = "Signature must contain a key ID and signature string";
constexpr const char* bad_spec = "A stable TUF 1.x[.y] specification version is required";
constexpr const char* bad_version = "Metadata version must be a positive integer";
constexpr const char* zero_version = "Metadata version must be positive";
constexpr const char* bad_keys = "Signing keys must be an object";
constexpr const char* bad_roles = "Root roles must be an object";
constexpr const char* bad_authority = "Invalid signing authority";
constexpr const char* unknown_key = "Role references a key absent from its delegator";
constexpr const char* bad_references = "Metadata references must be an object";
constexpr const char* incomplete = "Timestamp must describe only snapshot.json; snapshot must describe targets.json";
constexpr const char* no_version = "Metadata reference must contain a version";
constexpr const char* no_length = "File description must contain a length";
constexpr const char* bad_length = "Length must be a nonnegative integer";
constexpr const char* no_hashes = "Target has no authenticated hashes";
constexpr const char* empty_hashes = "Hashes must be a nonempty object";
constexpr const char* other_hash = "Only SHA-256 and SHA-512 hashes are supported";
constexpr const char* hash_type = "Hash must be a hexadecimal string";
constexpr const char* hash_text = "Hash has an invalid length or hexadecimal encoding";
constexpr const char* bad_delegations = "Invalid delegations";
constexpr const char* bad_name = "Delegated role name exceeds its bound";
constexpr const char* repeated_name = "Delegated role names must be unique and non-top-level";
constexpr const char* bad_selector = "Delegation needs exactly one path selector and a terminating boolean";
constexpr const char* selector_array = "Delegation selector must be an array";
constexpr const char* selector_text = "Delegation selector must contain strings";
constexpr const char* bad_prefix = "Invalid delegation hash prefix";
constexpr const char* time_form = "Expiry must use a UTC ISO-8601 timestamp";

const std::string sha256_text(64, 'a');
const std::string sha512_text(128, 'B');

Json with(Json document, const char* place, const Json& value) {
  document[Json::json_pointer(place)] = value;
  return document;
}

Json without(Json document, const char* place) {
  const Json::json_pointer pointer(place);
  document.at(pointer.parent_pointer()).erase(pointer.back());
  return document;
}

std::string kind_of(const Json& document) { return text_at(document.at("signed"), "_type"); }

void expect_refused(const Json& document, const std::string& kind, const char* code, const char* message) {
  EXPECT_FAILURE(shape(document, kind), code, message) << document.dump().substr(0, 2000);
}

class Shape : public ::testing::Test {
 protected:
  Json sign(const Json& body) const { return with_signatures(body, {&key_}); }
  Json root() const { return sign(root_document({&key_})); }
  Json timestamp() const { return sign(with(role_body("timestamp"), "/meta/snapshot.json/version", 1)); }
  Json snapshot() const {
    Json body = with(role_body("snapshot"), "/meta/targets.json/version", 1);
    body["meta"]["a/b.json"] = {
        {"version", 3}, {"length", 0}, {"hashes", {{"sha256", sha256_text}, {"sha512", sha512_text}}}};
    return sign(body);
  }
  Json targets() const {
    Json body = role_body("targets");
    body["targets"]["games/one.json"] = {{"length", 5}, {"hashes", {{"sha256", sha256_text}}}};
    return sign(body);
  }
  std::vector<Json> all() const { return {root(), timestamp(), snapshot(), targets()}; }

  Json delegated(const std::string& name) const {
    Json role = signing_authority({&key_}, 1);
    role["name"] = name;
    role["terminating"] = false;
    role["paths"] = Json::array({"games/*"});
    return role;
  }
  Json delegating(const std::vector<Json>& roles) const {
    Json document = targets();
    document["signed"]["delegations"] = {{"keys", key_objects({&key_})}, {"roles", roles}};
    return document;
  }

  TestKey key_ = TestKey::ed25519();
};

TEST_F(Shape, TakesEachKind) {
  for (const Json& document : all()) {
    EXPECT_NO_THROW(shape(document, kind_of(document)));
  }
}

TEST_F(Shape, TakesMembersThatItDoesNotKnow) {
  for (Json document : all()) {
    document["beside"] = 1;
    document["signed"]["beside"] = Json::array();
    document["signatures"][0]["method"] = "x";
    EXPECT_NO_THROW(shape(document, kind_of(document)));
  }
}

TEST_F(Shape, NeedsSignedAndSignatures) {
  for (const Json& document : {Json(), Json::array(), Json("root"), Json(1), Json::object()}) {
    expect_refused(document, "root", "invalid_metadata", not_signed);
  }
  for (const Json& document : all()) {
    for (const char* member : {"/signed", "/signatures"}) {
      expect_refused(without(document, member), kind_of(document), "invalid_metadata", not_signed);
      for (const Json& value : {Json(), Json("x"), Json(1)}) {
        expect_refused(with(document, member, value), kind_of(document), "invalid_metadata", not_signed);
      }
    }
    expect_refused(with(document, "/signed", Json::array()), kind_of(document), "invalid_metadata", not_signed);
    expect_refused(with(document, "/signatures", Json::object()), kind_of(document), "invalid_metadata", not_signed);
  }
}

TEST_F(Shape, NeedsSignaturesThatNameTheirKey) {
  for (const Json& document : all()) {
    for (const Json& value : {Json(), Json("x"), Json::array(), Json::object()}) {
      expect_refused(with(document, "/signatures/0", value), kind_of(document), "invalid_metadata", bad_signature);
    }
    for (const char* member : {"/signatures/0/keyid", "/signatures/0/sig"}) {
      expect_refused(without(document, member), kind_of(document), "invalid_metadata", bad_signature);
      for (const Json& value : {Json(), Json(1), Json::array(), Json::object()}) {
        expect_refused(with(document, member, value), kind_of(document), "invalid_metadata", bad_signature);
      }
    }
    EXPECT_NO_THROW(shape(with(document, "/signatures", Json::array()), kind_of(document)));
  }
}

TEST_F(Shape, RefusesAKeyThatSignsTwiceEvenWell) {
  for (Json document : all()) {
    document["signatures"].push_back(document["signatures"][0]);
    expect_refused(document, kind_of(document), "invalid_metadata", "Metadata repeats a signature key ID");
    document["signatures"][1]["keyid"] = "another";
    EXPECT_NO_THROW(shape(document, kind_of(document)));
  }
}

TEST_F(Shape, NeedsTheTypeThatWasAskedFor) {
  for (const Json& document : all()) {
    for (const char* kind : {"root", "timestamp", "snapshot", "targets", "Root", ""}) {
      if (kind != kind_of(document)) {
        expect_refused(document, kind, "metadata_type", "Unexpected metadata type");
      }
    }
    expect_refused(without(document, "/signed/_type"), kind_of(document), "invalid_metadata", malformed);
  }
}

TEST_F(Shape, TakesStableVersionsOfTheSpecification) {
  for (const char* version : {"1.0", "1.0.31", "1.12", "1.0.0", "1.10.0", "1.999999999999999999999999"}) {
    EXPECT_NO_THROW(shape(with(timestamp(), "/signed/spec_version", version), "timestamp")) << version;
  }
  for (const char* version : {"1",      "2.0",  "1.00",    "1.0.0-rc1", "",     "1.",     ".0",   "1.0.",  "1..0",
                              "1.0.00", "1.01", "1.0.0.0", "01.0",      "11.0", "1.0 ",   " 1.0", "1.0\n", "1.+1",
                              "1.-1",   "1.a",  "1.0.x",   "v1.0",      "1,0",  "1.0.0.", "0.9"}) {
    expect_refused(with(timestamp(), "/signed/spec_version", version), "timestamp", "unsupported_spec", bad_spec);
  }
}

TEST_F(Shape, NeedsThePartsThatAllKindsHave) {
  for (const Json& document : all()) {
    const std::string kind = kind_of(document);
    for (const char* member : {"/signed/spec_version", "/signed/version", "/signed/expires"}) {
      expect_refused(without(document, member), kind, "invalid_metadata", malformed);
    }
    for (const Json& value : {Json(), Json(1), Json::array()}) {
      expect_refused(with(document, "/signed/spec_version", value), kind, "invalid_metadata", malformed);
      expect_refused(with(document, "/signed/expires", value), kind, "invalid_metadata", malformed);
    }
    expect_refused(with(document, "/signed/version", 0U), kind, "invalid_version", zero_version);
    for (const Json& value : {Json(), Json(-1), Json("1"), Json(true), Json(1.0)}) {
      expect_refused(with(document, "/signed/version", value), kind, "invalid_version", bad_version);
    }
    expect_refused(with(document, "/signed/expires", "2035-01-01"), kind, "invalid_expiry", time_form);
  }
}

TEST_F(Shape, RootNeedsItsKeys) {
  expect_refused(without(root(), "/signed/keys"), "root", "invalid_metadata", malformed);
  expect_refused(with(root(), "/signed/keys", Json::array()), "root", "invalid_metadata", bad_keys);
  expect_refused(with(root(), "/signed/keys/id", key_.key()), "root", "keyid_mismatch",
                 "Signing key ID does not identify its canonical key");
  expect_refused(with(root(), "/signed/keys/id", Json()), "root", "invalid_metadata", "Invalid signing key shape");
}

TEST_F(Shape, RootMaySayWhetherItsSnapshotsAreConsistent) {
  EXPECT_NO_THROW(shape(without(root(), "/signed/consistent_snapshot"), "root"));
  EXPECT_NO_THROW(shape(with(root(), "/signed/consistent_snapshot", false), "root"));
  for (const Json& value : {Json(), Json(1), Json("true")}) {
    expect_refused(with(root(), "/signed/consistent_snapshot", value), "root", "invalid_metadata",
                   "consistent_snapshot must be a boolean");
  }
}

TEST_F(Shape, RootNeedsItsFourRoles) {
  expect_refused(without(root(), "/signed/roles"), "root", "invalid_metadata", malformed);
  for (const Json& value : {Json(), Json::array(), Json("x")}) {
    expect_refused(with(root(), "/signed/roles", value), "root", "invalid_metadata", bad_roles);
  }
  for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
    const std::string place = std::string("/signed/roles/") + role;
    expect_refused(without(root(), place.c_str()), "root", "invalid_metadata", malformed);
    for (const Json& value : {Json(), Json::array(), Json("x"), Json::object()}) {
      expect_refused(with(root(), place.c_str(), value), "root", "invalid_metadata", bad_authority);
    }
    expect_refused(with(root(), (place + "/threshold").c_str(), 0U), "root", "invalid_version", zero_version);
    expect_refused(with(root(), (place + "/keyids/0").c_str(), "unknown"), "root", "invalid_metadata", unknown_key);
    expect_refused(with(root(), (place + "/keyids").c_str(), "text"), "root", "invalid_metadata", bad_authority);
  }
}

TEST_F(Shape, RootMayHaveMirrors) {
  EXPECT_NO_THROW(shape(with(root(), "/signed/roles/mirrors", signing_authority({&key_}, 1)), "root"));
  const TestKey other = TestKey::ed25519();
  expect_refused(with(root(), "/signed/roles/mirrors", signing_authority({&other}, 1)), "root", "invalid_metadata",
                 unknown_key);
  expect_refused(with(root(), "/signed/roles/mirrors", Json()), "root", "invalid_metadata", bad_authority);
}

TEST_F(Shape, ReferencesAreAnObject) {
  for (const Json& document : {timestamp(), snapshot()}) {
    const std::string kind = kind_of(document);
    expect_refused(without(document, "/signed/meta"), kind, "invalid_metadata", malformed);
    for (const Json& value : {Json(), Json::array(), Json("x")}) {
      expect_refused(with(document, "/signed/meta", value), kind, "invalid_metadata", bad_references);
    }
    expect_refused(with(document, "/signed/meta", Json::object()), kind, "invalid_metadata", incomplete);
  }
}

TEST_F(Shape, TimestampDescribesTheSnapshotAlone) {
  expect_refused(with(timestamp(), "/signed/meta/targets.json/version", 1), "timestamp", "invalid_metadata",
                 incomplete);
  Json other = timestamp();
  other["signed"]["meta"] = {{"targets.json", {{"version", 1}}}};
  expect_refused(other, "timestamp", "invalid_metadata", incomplete);
}

TEST_F(Shape, SnapshotDescribesTheTargetsAndPerhapsOthers) {
  expect_refused(without(snapshot(), "/signed/meta/targets.json"), "snapshot", "invalid_metadata", incomplete);
  EXPECT_NO_THROW(shape(without(snapshot(), "/signed/meta/a~1b.json"), "snapshot"));
  EXPECT_NO_THROW(shape(with(snapshot(), "/signed/meta/snapshot.json/version", 9), "snapshot"));
}

TEST_F(Shape, EachReferenceIsDescribed) {
  const std::vector<std::pair<Json, std::string>> places = {{timestamp(), "/signed/meta/snapshot.json"},
                                                            {snapshot(), "/signed/meta/targets.json"},
                                                            {snapshot(), "/signed/meta/a~1b.json"}};
  for (const auto& [document, place] : places) {
    const std::string kind = kind_of(document);
    const auto set = [&document = document, &place = place](const char* member, const Json& value) {
      return with(document, (place + member).c_str(), value);
    };
    for (const Json& value : {Json(), Json::array(), Json("x"), Json::object(), Json{{"length", 1}}}) {
      expect_refused(set("", value), kind, "invalid_metadata", no_version);
    }
    expect_refused(set("/version", 0U), kind, "invalid_version", zero_version);
    expect_refused(set("/version", "1"), kind, "invalid_version", bad_version);
    expect_refused(set("/length", -1), kind, "invalid_length", bad_length);
    expect_refused(set("/length", Json()), kind, "invalid_length", bad_length);
    expect_refused(set("/hashes", Json()), kind, "invalid_hashes", empty_hashes);
    expect_refused(set("/hashes", Json::object()), kind, "invalid_hashes", empty_hashes);
    EXPECT_NO_THROW(shape(set("/length", 0), kind));
    EXPECT_NO_THROW(shape(set("/hashes", {{"sha512", sha512_text}}), kind));
  }
}

TEST_F(Shape, TargetsAreAnObject) {
  expect_refused(without(targets(), "/signed/targets"), "targets", "invalid_metadata", malformed);
  for (const Json& value : {Json(), Json::array(), Json("x")}) {
    expect_refused(with(targets(), "/signed/targets", value), "targets", "invalid_metadata",
                   "Targets must be an object");
  }
  EXPECT_NO_THROW(shape(with(targets(), "/signed/targets", Json::object()), "targets"));
}

TEST_F(Shape, TargetPathsAreSafeButNotAlwaysPortable) {
  const auto named = [this](const std::string& path) {
    Json document = targets();
    const Json target = document["signed"]["targets"]["games/one.json"];
    document["signed"]["targets"] = {{path, target}};
    return document;
  };
  EXPECT_NO_THROW(shape(named("con/a?."), "targets"));
  EXPECT_NO_THROW(shape(named(std::string(255, 'a')), "targets"));
  for (const char* path : {"../x", "a/../b", "a//b", "a:b"}) {
    expect_refused(named(path), "targets", "unsafe_path", "Path contains an unsafe component");
  }
  for (const char* path : {"", "/x", "a\\b"}) {
    expect_refused(named(path), "targets", "unsafe_path", "Path must be a safe relative path");
  }
  expect_refused(named("a/"), "targets", "unsafe_path", "Trailing path separator is not allowed");
}

TEST_F(Shape, EachTargetIsDescribed) {
  const std::string place = "/signed/targets/games~1one.json";
  const auto set = [&](const char* member, const Json& value) {
    return with(targets(), (place + member).c_str(), value);
  };
  for (const Json& value : {Json(), Json::array(), Json("x"), Json::object()}) {
    expect_refused(set("", value), "targets", "invalid_metadata", no_length);
  }
  for (const Json& value : {Json(), Json(-1), Json("1"), Json(1.0), Json(true)}) {
    expect_refused(set("/length", value), "targets", "invalid_length", bad_length);
  }
  EXPECT_NO_THROW(shape(set("/length", ~std::uint64_t{0}), "targets"));
  expect_refused(without(targets(), (place + "/hashes").c_str()), "targets", "invalid_hashes", no_hashes);
  expect_refused(set("/hashes", Json::array()), "targets", "invalid_hashes", empty_hashes);
  for (const Json& value : {Json(), Json::array(), Json("x"), Json(1)}) {
    expect_refused(set("/custom", value), "targets", "invalid_metadata", "Target custom data must be an object");
  }
  EXPECT_NO_THROW(shape(set("/custom", {{"anything", Json::array({1})}}), "targets"));
}

TEST_F(Shape, TakesDelegationsOfBothKinds) {
  Json by_hash = delegated("by hash");
  by_hash.erase("paths");
  by_hash["path_hash_prefixes"] = {"0", "abcdef0123456789", std::string(64, 'f')};
  EXPECT_NO_THROW(shape(delegating({delegated("a/b"), by_hash}), "targets"));
  EXPECT_NO_THROW(shape(delegating({}), "targets"));
  by_hash["path_hash_prefixes"] = Json::array();
  EXPECT_NO_THROW(shape(delegating({by_hash}), "targets"));
}

TEST_F(Shape, DelegationsHaveTheirForm) {
  const Json good = delegating({delegated("one")});
  for (const Json& value : {Json(), Json::array(), Json("x"), Json::object()}) {
    expect_refused(with(good, "/signed/delegations", value), "targets", "invalid_metadata", bad_delegations);
  }
  for (const char* member : {"/signed/delegations/keys", "/signed/delegations/roles"}) {
    expect_refused(without(good, member), "targets", "invalid_metadata", bad_delegations);
    for (const Json& value : {Json(), Json("x"), Json(1)}) {
      expect_refused(with(good, member, value), "targets", "invalid_metadata", bad_delegations);
    }
  }
  expect_refused(with(good, "/signed/delegations/keys", Json::array()), "targets", "invalid_metadata", bad_delegations);
  expect_refused(with(good, "/signed/delegations/roles", Json::object()), "targets", "invalid_metadata",
                 bad_delegations);
  expect_refused(with(good, "/signed/delegations/keys/id", key_.key()), "targets", "keyid_mismatch",
                 "Signing key ID does not identify its canonical key");
}

TEST_F(Shape, ADelegationHasANameOfItsOwn) {
  const Json good = delegating({delegated("one"), delegated("two")});
  const char* const place = "/signed/delegations/roles/1/name";
  expect_refused(without(good, place), "targets", "invalid_metadata", "Delegation must have a role name");
  expect_refused(with(good, place, 1), "targets", "invalid_metadata", "Delegation must have a role name");
  for (const Json& value : {Json(), Json::array(), Json("two")}) {
    expect_refused(with(good, "/signed/delegations/roles/1", value), "targets", "invalid_metadata",
                   "Delegation must have a role name");
  }
  expect_refused(with(good, place, ""), "targets", "size_limit", bad_name);
  expect_refused(with(good, place, std::string(4097, 'a')), "targets", "size_limit", bad_name);
  EXPECT_NO_THROW(shape(with(good, place, std::string(4096, 'a')), "targets"));
  for (const char* name : {"one", "root", "timestamp", "snapshot", "targets"}) {
    expect_refused(with(good, place, name), "targets", "invalid_metadata", repeated_name);
  }
  for (const char* name : {"ROOT", "mirrors", "One", "../x", "a/b"}) {
    EXPECT_NO_THROW(shape(with(good, place, name), "targets")) << name;
  }
}

TEST_F(Shape, ADelegationHasAnAuthority) {
  const Json good = delegating({delegated("one")});
  expect_refused(without(good, "/signed/delegations/roles/0/keyids"), "targets", "invalid_metadata", bad_authority);
  expect_refused(without(good, "/signed/delegations/roles/0/threshold"), "targets", "invalid_metadata", bad_authority);
  expect_refused(with(good, "/signed/delegations/roles/0/threshold", 0U), "targets", "invalid_version", zero_version);
  expect_refused(with(good, "/signed/delegations/keys", Json::object()), "targets", "invalid_metadata", unknown_key);
}

TEST_F(Shape, ADelegationHasOneSelectorAndSaysWhetherItTerminates) {
  const Json good = delegating({delegated("one")});
  expect_refused(without(good, "/signed/delegations/roles/0/paths"), "targets", "invalid_metadata", bad_selector);
  expect_refused(with(good, "/signed/delegations/roles/0/path_hash_prefixes", Json::array()), "targets",
                 "invalid_metadata", bad_selector);
  expect_refused(without(good, "/signed/delegations/roles/0/terminating"), "targets", "invalid_metadata", bad_selector);
  for (const Json& value : {Json(), Json(0), Json("false")}) {
    expect_refused(with(good, "/signed/delegations/roles/0/terminating", value), "targets", "invalid_metadata",
                   bad_selector);
  }
}

TEST_F(Shape, ASelectorListsBoundedPatterns) {
  const Json good = delegating({delegated("one")});
  const char* const place = "/signed/delegations/roles/0/paths";
  for (const Json& value : {Json(), Json::object(), Json("games/*")}) {
    expect_refused(with(good, place, value), "targets", "invalid_metadata", selector_array);
  }
  for (const Json& value : {Json(), Json(1), Json::array()}) {
    expect_refused(with(good, place, Json::array({"a", value})), "targets", "invalid_metadata", selector_text);
  }
  EXPECT_NO_THROW(shape(with(good, place, Json::array({"", std::string(4096, 'a')})), "targets"));
  expect_refused(with(good, place, Json::array({std::string(4097, 'a')})), "targets", "size_limit",
                 "Delegation pattern exceeds path limit");
}

TEST_F(Shape, ASelectorListsPrefixesInLowerCase) {
  Json role = delegated("one");
  role.erase("paths");
  role["path_hash_prefixes"] = Json::array();
  const Json good = delegating({role});
  const char* const place = "/signed/delegations/roles/0/path_hash_prefixes";
  for (const Json& value : {Json(), Json::object(), Json("ab")}) {
    expect_refused(with(good, place, value), "targets", "invalid_metadata", selector_array);
  }
  for (const Json& value : {Json(), Json(1), Json::array()}) {
    expect_refused(with(good, place, Json::array({"a", value})), "targets", "invalid_metadata", selector_text);
  }
  for (const std::string& prefix :
       {std::string(), std::string("AB"), std::string("aB"), std::string("g"), std::string("0x"), std::string(" a"),
        std::string("/"), std::string(":"), std::string("`"), std::string(65, 'a')}) {
    expect_refused(with(good, place, Json::array({prefix})), "targets", "invalid_metadata", bad_prefix);
  }
}

// Everything is wrong at once, and is mended in the order in which it is told.
TEST_F(Shape, TellsTheFirstThingThatIsWrong) {
  Json document = {{"signatures", Json::array({1})}, {"signed", Json::object()}};
  Json& body = document["signed"];
  const auto expect = [&](const char* kind, const char* code, const char* message) {
    expect_refused(document, kind, code, message);
  };
  expect("root", "invalid_metadata", bad_signature);
  document["signatures"] = Json::array();
  body = {{"_type", "x"}, {"spec_version", "x"},      {"version", 0U}, {"expires", "x"},
          {"keys", 1},    {"consistent_snapshot", 1}, {"roles", 1}};
  expect("root", "metadata_type", "Unexpected metadata type");
  body["_type"] = "root";
  expect("root", "unsupported_spec", bad_spec);
  body["spec_version"] = "1.0";
  expect("root", "invalid_version", zero_version);
  body["version"] = 1;
  expect("root", "invalid_expiry", time_form);
  body["expires"] = "2035-01-01T00:00:00Z";
  expect("root", "invalid_metadata", bad_keys);
  body["keys"] = key_objects({&key_});
  expect("root", "invalid_metadata", "consistent_snapshot must be a boolean");
  body["consistent_snapshot"] = true;
  expect("root", "invalid_metadata", bad_roles);
  const Json authority = signing_authority({&key_}, 1);
  body["roles"] = {{"root", 1}, {"timestamp", {{"keyids", Json::array({1})}, {"threshold", 0U}}}, {"mirrors", 1}};
  expect("root", "invalid_metadata", bad_authority);
  body["roles"]["root"] = authority;
  expect("root", "invalid_version", zero_version);
  body["roles"]["timestamp"]["threshold"] = 1;
  expect("root", "invalid_metadata", unknown_key);
  body["roles"]["timestamp"] = authority;
  expect("root", "invalid_metadata", malformed);
  body["roles"]["snapshot"] = authority;
  body["roles"]["targets"] = authority;
  expect("root", "invalid_metadata", bad_authority);
  body["roles"].erase("mirrors");
  EXPECT_NO_THROW(shape(document, "root"));
}

TEST_F(Shape, TellsTheFirstThingThatIsWrongWithADelegation) {
  Json document = delegating({delegated("one"), {{"name", ""}, {"terminating", 1}, {"paths", 1}}});
  Json& role = document["signed"]["delegations"]["roles"][1];
  expect_refused(document, "targets", "size_limit", bad_name);
  role["name"] = "one";
  expect_refused(document, "targets", "invalid_metadata", repeated_name);
  role["name"] = "two";
  expect_refused(document, "targets", "invalid_metadata", bad_authority);
  role.update(signing_authority({&key_}, 1));
  expect_refused(document, "targets", "invalid_metadata", bad_selector);
  role["terminating"] = true;
  expect_refused(document, "targets", "invalid_metadata", selector_array);
  role["paths"] = Json::array();
  EXPECT_NO_THROW(shape(document, "targets"));
}

TEST(Hashes, AreOfTwoKindsInEitherCase) {
  EXPECT_NO_THROW(hashes_shape({{"sha256", "0123456789abcdefABCDEF" + std::string(42, '0')}}));
  EXPECT_NO_THROW(hashes_shape({{"sha256", sha256_text}, {"sha512", sha512_text}}));
  for (const Json& hashes : {Json(), Json::array(), Json::object(), Json("x")}) {
    EXPECT_FAILURE(hashes_shape(hashes), "invalid_hashes", empty_hashes) << hashes;
  }
  for (const char* name : {"md5", "sha1", "SHA256", "sha384", "", "zzz"}) {
    EXPECT_FAILURE(hashes_shape({{name, sha256_text}}), "unsupported_hash", other_hash) << name;
  }
  EXPECT_FAILURE(hashes_shape({{"sha256", sha256_text}, {"sha384", std::string(96, 'a')}}), "unsupported_hash",
                 other_hash);
  for (const char* name : {"sha256", "sha512"}) {
    for (const Json& value : {Json(), Json(1), Json::array()}) {
      EXPECT_FAILURE(hashes_shape({{name, value}}), "invalid_hashes", hash_type) << name;
    }
    const std::size_t size = name == std::string("sha256") ? 64 : 128;
    for (const std::string& text :
         {std::string(), std::string(size - 1, 'a'), std::string(size + 1, 'a'), std::string(192 - size, 'a'),
          std::string(size - 1, 'a') + 'g', '/' + std::string(size - 1, 'a'), '@' + std::string(size - 1, 'a'),
          ':' + std::string(size - 1, 'a'), '`' + std::string(size - 1, 'a')}) {
      EXPECT_FAILURE(hashes_shape({{name, text}}), "invalid_hashes", hash_text) << name << text;
    }
  }
}

TEST(Length, IsANumberOfBytes) {
  EXPECT_EQ(length({{"length", 0}}), 0U);
  EXPECT_EQ(length({{"length", 5}}), 5U);
  EXPECT_EQ(length({{"length", ~std::uint64_t{0}}}), ~std::uint64_t{0});
  for (const Json& file : {Json(), Json::array(), Json::object(), Json("length"), Json(1)}) {
    EXPECT_FAILURE(length(file), "invalid_metadata", no_length) << file;
  }
  for (const Json& value : {Json(), Json(-1), Json("5"), Json(5.0), Json(true), Json::array()}) {
    EXPECT_FAILURE(length({{"length", value}}), "invalid_length", bad_length) << value;
  }
}

}  // namespace
}  // namespace ravok::metadata_shape_test
