// Keys that sign for tests, and documents of a repository that they have signed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "domain/json.hpp"

namespace ravok {

class SigningKey;

}  // namespace ravok

namespace ravok::testing {

// A copy is the same key.
class TestKey {
 public:
  // A fresh key.
  static TestKey ed25519();
  // A fresh key of one of the ten schemes, by its name: "rsassa-pss-sha256", "ecdsa-sha2-nistp384", "ml-dsa-65/1".
  static TestKey of_scheme(std::string_view scheme);

  // The key object, which holds the public half.
  const Json& key() const;
  // The ID that the key object has by its canonical form.
  const std::string& id() const;
  // Returns the element of "signatures" that this key makes for these bytes.
  Json signature(std::string_view bytes) const;

 private:
  explicit TestKey(std::shared_ptr<const SigningKey> pair) : pair_(std::move(pair)) {}

  std::shared_ptr<const SigningKey> pair_;
};

using TestKeys = std::vector<const TestKey*>;

// The key objects by their IDs.
Json key_objects(const TestKeys& keys);

// The authority of these keys.
Json signing_authority(const TestKeys& keys, std::uint64_t threshold);

// Returns the "signed" part of a role document with what all kinds have in common, and nothing else.
Json role_body(std::string_view kind, std::uint64_t version = 1, std::string_view expires = "2035-01-01T00:00:00Z");

// The "signed" part of a root in which all of these keys must sign for each of the four roles.
Json root_document(const TestKeys& keys, std::uint64_t version = 1, std::string_view expires = "2035-01-01T00:00:00Z");

// The document with this "signed" part and the signature of each key over its canonical form.
Json with_signatures(const Json& body, const TestKeys& keys);

// The text of that document.
std::string signed_document(const Json& body, const TestKeys& keys);

}  // namespace ravok::testing
