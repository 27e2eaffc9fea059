#include "support/signing.hpp"

#include <array>
#include <stdexcept>

#include <openssl/evp.h>

#include "domain/crypto.hpp"

namespace ravok::testing {
namespace {

void must(bool done) {
  if (!done) {
    throw std::runtime_error("The cryptographic library cannot sign");
  }
}

}  // namespace

TestKey TestKey::ed25519() {
  const std::shared_ptr<EVP_PKEY> pair(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free);
  must(pair != nullptr);
  return TestKey(pair);
}

Json TestKey::key() const {
  std::array<std::uint8_t, 32> bytes{};
  std::size_t size = bytes.size();
  must(EVP_PKEY_get_raw_public_key(pair_.get(), bytes.data(), &size) == 1 && size == bytes.size());
  return {{"keytype", "ed25519"}, {"scheme", "ed25519"}, {"keyval", {{"public", hex(bytes)}}}};
}

std::string TestKey::id() const { return digest(canonical_json(key()), "sha256"); }

Json TestKey::signature(std::string_view bytes) const {
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  std::array<std::uint8_t, 64> signature{};
  std::size_t size = signature.size();
  must(context && EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, pair_.get()) == 1 &&
       EVP_DigestSign(context.get(), signature.data(), &size, reinterpret_cast<const unsigned char*>(bytes.data()),
                      bytes.size()) == 1 &&
       size == signature.size());
  return {{"keyid", id()}, {"sig", hex(signature)}};
}

Json key_objects(TestKeys keys) {
  Json objects = Json::object();
  for (const TestKey* key : keys) {
    objects[key->id()] = key->key();
  }
  return objects;
}

Json signing_authority(TestKeys keys, std::uint64_t threshold) {
  Json ids = Json::array();
  for (const TestKey* key : keys) {
    ids.push_back(key->id());
  }
  return {{"keyids", ids}, {"threshold", threshold}};
}

Json role_body(std::string_view kind, std::uint64_t version, std::string_view expires) {
  return {{"_type", kind}, {"spec_version", "1.0.31"}, {"version", version}, {"expires", expires}};
}

Json root_document(TestKeys keys, std::uint64_t version, std::string_view expires) {
  Json body = role_body("root", version, expires);
  body["consistent_snapshot"] = true;
  body["keys"] = key_objects(keys);
  for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
    body["roles"][role] = signing_authority(keys, keys.size());
  }
  return body;
}

Json with_signatures(const Json& body, TestKeys keys) {
  const std::string payload = canonical_json(body);
  Json signatures = Json::array();
  for (const TestKey* key : keys) {
    signatures.push_back(key->signature(payload));
  }
  return {{"signatures", signatures}, {"signed", body}};
}

std::string signed_document(const Json& body, TestKeys keys) { return with_signatures(body, keys).dump(); }

}  // namespace ravok::testing
