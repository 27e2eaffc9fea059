#include "support/signing.hpp"

#include "publisher/signing/signing_key.hpp"

namespace ravok::testing {

TestKey TestKey::ed25519() { return of_scheme("ed25519"); }

TestKey TestKey::of_scheme(std::string_view scheme) {
  return TestKey(std::make_shared<const SigningKey>(SigningKey::generate(scheme)));
}

const Json& TestKey::key() const { return pair_->key(); }

const std::string& TestKey::id() const { return pair_->id(); }

Json TestKey::signature(std::string_view bytes) const { return {{"keyid", id()}, {"sig", pair_->sign(bytes)}}; }

Json key_objects(const TestKeys& keys) {
  Json objects = Json::object();
  for (const TestKey* key : keys) {
    objects[key->id()] = key->key();
  }
  return objects;
}

Json signing_authority(const TestKeys& keys, std::uint64_t threshold) {
  Json ids = Json::array();
  for (const TestKey* key : keys) {
    ids.push_back(key->id());
  }
  return {{"keyids", ids}, {"threshold", threshold}};
}

Json role_body(std::string_view kind, std::uint64_t version, std::string_view expires) {
  return {{"_type", kind}, {"spec_version", "1.0.31"}, {"version", version}, {"expires", expires}};
}

Json root_document(const TestKeys& keys, std::uint64_t version, std::string_view expires) {
  Json body = role_body("root", version, expires);
  body["consistent_snapshot"] = true;
  body["keys"] = key_objects(keys);
  for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
    body["roles"][role] = signing_authority(keys, keys.size());
  }
  return body;
}

Json with_signatures(const Json& body, const TestKeys& keys) {
  const std::string payload = canonical_json(body);
  Json signatures = Json::array();
  for (const TestKey* key : keys) {
    signatures.push_back(key->signature(payload));
  }
  return {{"signatures", signatures}, {"signed", body}};
}

std::string signed_document(const Json& body, const TestKeys& keys) { return with_signatures(body, keys).dump(); }

}  // namespace ravok::testing
