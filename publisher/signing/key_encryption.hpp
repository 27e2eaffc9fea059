// Private keys that a passphrase encrypts: the document that keeps one at rest, and the way back.
#pragma once

#include <cstdint>

#include "domain/json.hpp"
#include "publisher/signing/secret.hpp"
#include "publisher/signing/signing_key.hpp"

namespace ravok {

// What scrypt spends on a passphrase: it takes 128 * n * r bytes of memory, by default 128 MiB, and p times as long as
// filling them does.
struct KeyDerivation {
  std::uint64_t n = 131'072;
  std::uint64_t r = 8;
  std::uint64_t p = 1;
};

// Returns the key as a document that only the passphrase opens. Of the key it shows the public part. Fails with
// "crypto_failure".
Json encrypt_key(const SigningKey& key, const Secret& passphrase, const KeyDerivation& derivation = {});

// Whether the document says of itself that it holds an encrypted key.
bool is_encrypted_key(const Json& document);

// Returns the public key object that the document of an encrypted key shows. Whether it belongs to the private one
// shows when that is decrypted. Fails with "invalid_key".
Json encrypted_public_key(const Json& document);

// Returns the key of a document that encrypt_key has made. What the document asks for is bounded before it is done: at
// most 256 MiB of memory, and eight times as much work as by default. Fails with "invalid_key" for a malformed
// document, "wrong_passphrase", and "crypto_failure".
SigningKey decrypt_key(const Json& document, const Secret& passphrase);

}  // namespace ravok
