// Whether a key signed some bytes: the one question that trust in a repository rests on.
#pragma once

#include <string_view>

#include "domain/json.hpp"

namespace ravok {

// Returns whether `signature`, in hexadecimal, is that of `payload` by a key object with "keytype", "scheme" and
// "keyval"."public". Ten pairs of type and scheme are known: RSA-PSS with SHA-256, -384 or -512 and at least 2048 bits;
// ECDSA on the curves P-256, P-384 and P-521; Ed25519; and ML-DSA-44, -65 and -87, which sign "tuf", a byte of value 1
// and the SHA-512 of the payload. Never fails: returns false for a key or a signature that cannot be read.
bool verify_signature(const Json& key, std::string_view payload, std::string_view signature) noexcept;

}  // namespace ravok
