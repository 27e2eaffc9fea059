// Which keys a document of a repository may be trusted on, and whether enough of them signed it.
#pragma once

#include "domain/json.hpp"

namespace ravok {

// Returns when every key of the object is identified by the SHA-256 of its own canonical form and has a
// public part of at most 16,384 bytes. Fails with "invalid_metadata", "keyid_mismatch" or "size_limit".
void verify_keys(const Json& keys);

// Returns when as many of the authority's keys as its threshold asks for have signed the document. A
// signature that is wrong, unknown or not authorized does not count and is no failure by itself.
// Fails with "invalid_metadata", "invalid_version", "invalid_threshold" or "signature_threshold", and as
// verify_keys does.
void verify_threshold(const Json& document, const Json& keys, const Json& authority);

// Returns the keys of the roles that a server signs with, "timestamp" and "snapshot", by their IDs, out
// of a root document that has passed its shape check.
Json online_keys(const Json& root);

}  // namespace ravok
