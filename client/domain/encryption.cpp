#include "domain/encryption.hpp"

#include <memory>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include "domain/bytes.hpp"
#include "domain/error.hpp"

namespace ravok {
namespace {

constexpr std::size_t tag_bytes = 16;
constexpr std::uint64_t limit_bound = 2'147'483'632;
constexpr std::size_t maximum_associated_bytes = 4096;
constexpr std::size_t maximum_derivation_bytes = 4096;
constexpr std::uint32_t maximum_iterations = 2'147'483'647;

struct Release {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

struct Record {
  std::string_view ciphertext;
  std::string_view tag;
};

Record require_bounded(std::string_view associated, std::string_view record, std::span<std::uint8_t> output,
                       std::uint64_t limit) {
  require(record.size() >= tag_bytes && limit < limit_bound && record.size() <= limit + tag_bytes &&
              output.size() >= record.size() - tag_bytes && associated.size() <= maximum_associated_bytes,
          "encrypted_format", "AEAD record or associated data exceeds its bound");
  return {record.substr(0, record.size() - tag_bytes), record.substr(record.size() - tag_bytes)};
}

// Ends the decryption, which proves the tag. Returns how many bytes the library wrote at the end.
int authenticate(EVP_CIPHER_CTX* context) {
  std::array<std::uint8_t, tag_bytes> scratch{};
  int size = 0;
  const bool authentic = EVP_DecryptFinal_ex(context, scratch.data(), &size) == 1;
  OPENSSL_cleanse(scratch.data(), scratch.size());
  require(authentic, "authentication_failed", "Encrypted chunk authentication failed");
  return size;
}

std::size_t decrypt(std::span<const std::uint8_t, 32> key, std::span<const std::uint8_t, 12> nonce,
                    std::string_view associated, const Record& record, std::span<std::uint8_t> output) {
  const std::unique_ptr<EVP_CIPHER_CTX, Release> context(EVP_CIPHER_CTX_new());
  require(context && EVP_DecryptInit_ex2(context.get(), EVP_chacha20_poly1305(), nullptr, nullptr, nullptr) == 1,
          "crypto_failure", "Cannot initialize authenticated chunk decryption");
  // The library asks for writable bytes, but only reads them.
  std::array<char, tag_bytes> tag{};
  record.tag.copy(tag.data(), tag.size());
  require(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag.size()), tag.data()) == 1 &&
              EVP_DecryptInit_ex2(context.get(), nullptr, key.data(), nonce.data(), nullptr) == 1,
          "crypto_failure", "Cannot set authenticated chunk parameters");
  const auto ciphertext_size = static_cast<int>(record.ciphertext.size());
  int size = 0;
  require(EVP_DecryptUpdate(context.get(), nullptr, &size, bytes_of(associated).data(),
                            static_cast<int>(associated.size())) == 1,
          "crypto_failure", "Cannot decrypt authenticated chunk");
  // With an empty ciphertext `output` may be empty too. A null pointer would make the library take the ciphertext for
  // associated data, so it gets a byte that it does not write.
  std::uint8_t nothing = 0;
  size = 0;
  require(EVP_DecryptUpdate(context.get(), output.empty() ? &nothing : output.data(), &size,
                            bytes_of(record.ciphertext).data(), ciphertext_size) == 1,
          "crypto_failure", "Cannot decrypt authenticated chunk");
  require(size >= 0 && size <= ciphertext_size, "crypto_failure", "Unexpected authenticated chunk output");
  require(authenticate(context.get()) == 0 && size == ciphertext_size, "crypto_failure",
          "Authenticated chunk length differs");
  return record.ciphertext.size();
}

}  // namespace

std::size_t decrypt_chacha20_poly1305(std::span<const std::uint8_t, 32> key, std::span<const std::uint8_t, 12> nonce,
                                      std::string_view associated, std::string_view record,
                                      std::span<std::uint8_t> output, std::uint64_t limit) {
  try {
    return decrypt(key, nonce, associated, require_bounded(associated, record, output, limit), output);
  } catch (...) {
    if (!output.empty()) {
      OPENSSL_cleanse(output.data(), output.size());
    }
    ERR_clear_error();
    throw;
  }
}

std::array<std::uint8_t, 32> pbkdf2_sha256(std::string_view password, std::span<const std::uint8_t> salt,
                                           std::uint32_t iterations) {
  require(password.size() <= maximum_derivation_bytes && salt.size() <= maximum_derivation_bytes && iterations >= 1 &&
              iterations <= maximum_iterations,
          "crypto_failure", "Key derivation input exceeds its bound");
  std::array<std::uint8_t, 32> key{};
  require(
      PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt.data(), static_cast<int>(salt.size()),
                        static_cast<int>(iterations), EVP_sha256(), static_cast<int>(key.size()), key.data()) == 1,
      "crypto_failure", "Cannot derive a key");
  return key;
}

}  // namespace ravok
