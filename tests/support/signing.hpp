// Keys that sign for tests, and documents of a repository that they have signed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "domain/json.hpp"

struct evp_pkey_st;

namespace ravok::testing {

class TestKey {
 public:
  // A fresh key.
  static TestKey ed25519();

  // The key object, which holds the public half.
  Json key() const;
  // The ID that the key object has by its canonical form.
  std::string id() const;
  // Returns the element of "signatures" that this key makes for these bytes.
  Json signature(std::string_view bytes) const;

 private:
  explicit TestKey(std::shared_ptr<evp_pkey_st> pair) : pair_(std::move(pair)) {}

  std::shared_ptr<evp_pkey_st> pair_;
};

using TestKeys = std::initializer_list<const TestKey*>;

// The key objects by their IDs.
Json key_objects(TestKeys keys);

// The authority of these keys.
Json signing_authority(TestKeys keys, std::uint64_t threshold);

// Returns the "signed" part of a role document with what all kinds have in common, and nothing else.
Json role_body(std::string_view kind, std::uint64_t version = 1, std::string_view expires = "2035-01-01T00:00:00Z");

// The "signed" part of a root in which all of these keys must sign for each of the four roles.
Json root_document(TestKeys keys, std::uint64_t version = 1, std::string_view expires = "2035-01-01T00:00:00Z");

// The document with this "signed" part and the signature of each key over its canonical form.
Json with_signatures(const Json& body, TestKeys keys);

// The text of that document.
std::string signed_document(const Json& body, TestKeys keys);

}  // namespace ravok::testing
