#include "domain/crypto.hpp"

#include <array>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "domain/digest_context.hpp"
#include "domain/error.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

std::span<const std::uint8_t> as_bytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::uint8_t hexadecimal_digit(char c) {
  require(is_hex(c), "invalid_hex", "Invalid hexadecimal character");
  return hex_value(c);
}

}  // namespace

void initialize_client_runtime() {
  // The first caller starts the library. After a failure, the next caller tries again.
  [[maybe_unused]] static const bool started = [] {
    require(OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) == 1, "crypto_failure",
            "Cannot initialize native cryptography");
    return true;
  }();
}

std::string hex(std::span<const std::uint8_t> bytes) {
  std::string text(bytes.size() * 2, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = lower_hex_digits[bytes[i] >> 4];
    text[2 * i + 1] = lower_hex_digits[bytes[i] & 15];
  }
  return text;
}

std::vector<std::uint8_t> unhex(std::string_view text, std::size_t limit) {
  require(text.size() % 2 == 0 && text.size() <= limit, "invalid_hex", "Invalid hexadecimal data");
  std::vector<std::uint8_t> bytes(text.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::uint8_t high = hexadecimal_digit(text[2 * i]);
    bytes[i] = static_cast<std::uint8_t>(high << 4 | hexadecimal_digit(text[2 * i + 1]));
  }
  return bytes;
}

DigestState::DigestState(std::string_view algorithm) : state_(std::make_unique<DigestContext>()) {
  require(state_->start(digest_algorithm(algorithm)), "crypto_failure", "Cannot initialize incremental target hash");
}

DigestState::~DigestState() = default;
DigestState::DigestState(DigestState&&) noexcept = default;
DigestState& DigestState::operator=(DigestState&&) noexcept = default;

void DigestState::update(std::string_view data) {
  require(state_->update(as_bytes(data)), "crypto_failure", "Cannot update target hash");
}

std::string DigestState::value() const {
  DigestContext snapshot;
  const bool copied = snapshot.copy(*state_);
  const std::vector<std::uint8_t> bytes = copied ? snapshot.finish() : std::vector<std::uint8_t>();
  require(!bytes.empty(), "crypto_failure", "Cannot snapshot incremental target hash");
  return hex(bytes);
}

std::string digest(std::string_view data, std::string_view algorithm) {
  const EVP_MD* method = digest_algorithm(algorithm);
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> value;
  unsigned int size = 0;
  require(EVP_Digest(data.data(), data.size(), value.data(), &size, method, nullptr) == 1, "crypto_failure",
          "Could not hash content");
  return hex(std::span(value).first(size));
}

std::string random_id() {
  std::array<std::uint8_t, 16> bytes;
  require(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1, "crypto_failure",
          "Could not create random identifier");
  return hex(bytes);
}

}  // namespace ravok
