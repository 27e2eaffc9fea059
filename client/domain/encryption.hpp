// Authenticated decryption of single records, and keys out of passwords.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace ravok {

// Decrypts a record by ChaCha20-Poly1305 into `output` and returns the length of the plaintext. The record is the
// ciphertext followed by its 16-byte tag, so the plaintext is 16 bytes shorter. It may be at most `limit` bytes long,
// which must be less than 2^31 - 16, and `output` must have room for it. The caller chooses the nonce and the
// associated data, which is at most 4096 bytes long.
// Where `output` is longer than the plaintext, a success leaves the bytes after the plaintext as they were. Any failure
// fills all of `output` with zeros.
// Fails with "encrypted_format" beyond a bound, "authentication_failed" when the tag does not match, and
// "crypto_failure" when the library fails.
std::size_t decrypt_chacha20_poly1305(std::span<const std::uint8_t, 32> key, std::span<const std::uint8_t, 12> nonce,
                                      std::string_view associated, std::string_view record,
                                      std::span<std::uint8_t> output, std::uint64_t limit);

// Returns a key derived from a password and a salt of at most 4096 bytes each by PBKDF2 with
// HMAC-SHA-256, in 1 to 2^31 - 1 iterations. Fails with "crypto_failure".
std::array<std::uint8_t, 32> pbkdf2_sha256(std::string_view password, std::span<const std::uint8_t> salt,
                                           std::uint32_t iterations);

}  // namespace ravok
