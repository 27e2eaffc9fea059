// Authenticated decryption of single records, and keys out of passwords.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace ravok {

// Decrypts a record, which is the ciphertext with its 16-byte tag behind it, by ChaCha20-Poly1305 into
// `output`, and returns the plaintext's length: that of the record less 16 bytes, at most `limit`. Nonce
// and associated data, at most 4096 bytes, are the caller's own.
// Fails with "encrypted_format" beyond a bound, "authentication_failed" when the tag does not match, and
// "crypto_failure" when the library fails. After any failure all of `output` is cleared.
std::size_t decrypt_chacha20_poly1305(std::span<const std::uint8_t, 32> key, std::span<const std::uint8_t, 12> nonce,
                                      std::string_view associated, std::string_view record,
                                      std::span<std::uint8_t> output, std::uint64_t limit);

// Returns a key derived from a password and a salt of at most 4096 bytes each by PBKDF2 with
// HMAC-SHA-256, in 1 to 2^31 - 1 iterations. Fails with "crypto_failure".
std::array<std::uint8_t, 32> pbkdf2_sha256(std::string_view password, std::span<const std::uint8_t> salt,
                                           std::uint32_t iterations);

}  // namespace ravok
