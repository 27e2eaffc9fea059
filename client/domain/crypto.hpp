// Digests, hexadecimal text and unpredictable identifiers: the one place in which bytes become
// a digest text and a digest text becomes bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ravok {

class DigestContext;

// Starts the cryptographic library once for the process; may be called at any time from any
// thread. Fails with "crypto_failure".
void initialize_client_runtime();

// Returns the bytes as lower-case hexadecimal, two characters a byte.
std::string hex(std::span<const std::uint8_t> bytes);

// Returns the bytes of a hexadecimal text of at most `limit` characters, in either case.
// Fails with "invalid_hex".
std::vector<std::uint8_t> unhex(std::string_view text, std::size_t limit);

// A digest that is fed piece by piece and may be read at any point on the way.
// Used by one thread at a time.
class DigestState {
 public:
  // `algorithm` is "sha256" or "sha512". Fails with "unsupported_hash" or "crypto_failure".
  explicit DigestState(std::string_view algorithm);
  ~DigestState();
  DigestState(DigestState&&) noexcept;
  DigestState& operator=(DigestState&&) noexcept;
  DigestState(const DigestState&) = delete;
  DigestState& operator=(const DigestState&) = delete;

  // Adds bytes. Fails with "crypto_failure".
  void update(std::string_view data);
  // Returns the digest text of all bytes added so far; more may be added afterwards.
  // Fails with "crypto_failure".
  std::string value() const;

 private:
  std::unique_ptr<DigestContext> state_;
};

// Returns the digest text of `data` by "sha256" or "sha512". Fails with "unsupported_hash" or
// "crypto_failure".
std::string digest(std::string_view data, std::string_view algorithm);

// Returns 32 lower-case hexadecimal characters from the library's random source. Fails with
// "crypto_failure", and never falls back to a weaker source.
std::string random_id();

}  // namespace ravok
