// Which keys a document of a repository may be trusted on, and whether enough of them signed it.
#pragma once

#include "domain/json.hpp"

namespace ravok {

// Accepts only an object of keys, each under the SHA-256 of its own canonical form and with a public part of at most
// 16,384 bytes. Fails with "invalid_metadata", "keyid_mismatch", "size_limit", and "invalid_number" for a key that
// holds a floating-point number.
void verify_keys(const Json& keys);

// Accepts only a document that was signed by as many of the authority's keys as its threshold asks for. A signature
// that is wrong, unknown or not authorized does not count and is no failure by itself. Fails with "invalid_metadata" or
// "invalid_version" for the authority, "invalid_threshold" for a threshold that its keys cannot meet,
// "signature_threshold" for too few signatures, and as verify_keys does. Throws the JSON library's exception for a
// document without the parts of a signed one.
void verify_threshold(const Json& document, const Json& keys, const Json& authority);

// Returns the keys of the roles that a server signs with, "timestamp" and "snapshot", out of a root document that has
// passed its shape check: an object of these roles, each with its keys by their IDs.
Json online_keys(const Json& root);

}  // namespace ravok
