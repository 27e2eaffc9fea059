// What the client accepts as a role document of a TUF repository: checked before any signature is
// counted and before any value is trusted. Stricter than the framework in fixed ways: hashes are
// SHA-256 and SHA-512, a key is identified by its canonical form, a delegation has exactly one path
// selector, names and patterns are bounded, and no key signs twice.
#pragma once

#include <cstdint>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

// Accepts only a role document of this kind: "root", "timestamp", "snapshot" or "targets". Fails with
// "invalid_metadata", "metadata_type", "unsupported_spec", "invalid_version", "invalid_expiry", "invalid_length",
// "invalid_hashes", "unsupported_hash", "size_limit", "keyid_mismatch" and "invalid_number" for a key, and
// "unsafe_path" for the path of a target.
void shape(const Json& document, std::string_view kind);

// Accepts only an authority that has a positive threshold and names only keys of `keys`. Fails with "invalid_metadata"
// or "invalid_version".
void authority_shape(const Json& authority, const Json& keys);

// Accepts only a non-empty object of SHA-256 and SHA-512 digests, in either case. Fails with "invalid_hashes" or
// "unsupported_hash".
void hashes_shape(const Json& hashes);

// Returns the "length" of a file description, in bytes. Fails with "invalid_metadata" without one, and with
// "invalid_length" for a value that is not a size.
std::uint64_t length(const Json& file);

}  // namespace ravok
