#include "publisher/signing/key_encryption.hpp"

#include <array>
#include <bit>
#include <memory>
#include <string>
#include <vector>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "domain/bytes.hpp"
#include "domain/crypto.hpp"
#include "domain/encryption.hpp"
#include "domain/error.hpp"
#include "tuf/keys.hpp"

namespace ravok {
namespace {

constexpr const char* encrypted_kind = "ravok-encrypted-signing-key";
constexpr const char* cipher_name = "chacha20-poly1305";
constexpr const char* derivation_name = "scrypt";
constexpr std::size_t salt_bytes = 32;
constexpr std::size_t nonce_bytes = 12;
constexpr std::size_t tag_size = 16;
constexpr std::size_t maximum_private_bytes = 32'768;
constexpr std::uint64_t maximum_derivation_memory = 256ULL * 1024 * 1024;
constexpr std::uint64_t maximum_derivation_work = 8ULL * 131'072 * 8;
constexpr std::uint64_t maximum_factor = 1'048'576;
constexpr const char* malformed = "The encrypted signing key is malformed";

struct ReleaseCipher {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

[[noreturn]] void encryption_failed() {
  ERR_clear_error();
  fail("crypto_failure", "The cryptographic library could not encrypt or decrypt the signing key");
}

template <std::size_t size>
std::array<std::uint8_t, size> random_bytes() {
  std::array<std::uint8_t, size> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    encryption_failed();
  }
  return bytes;
}

void require_bounded(const KeyDerivation& derivation) {
  const bool small = derivation.n <= maximum_factor && derivation.r <= maximum_factor && derivation.p <= maximum_factor;
  require(small && derivation.n >= 2 && std::has_single_bit(derivation.n) && derivation.r >= 1 && derivation.p >= 1 &&
              derivation.n * derivation.r <= maximum_derivation_memory / 128 &&
              derivation.n * derivation.r <= maximum_derivation_work / derivation.p,
          "invalid_key", "The encrypted signing key asks for more memory or work than is spent on a passphrase");
}

Secret derive(const Secret& passphrase, std::span<const std::uint8_t> salt, const KeyDerivation& derivation) {
  require_bounded(derivation);
  // The library counts a little more than the memory that the parameters stand for.
  constexpr std::uint64_t library_memory = maximum_derivation_memory + 16ULL * 1024 * 1024;
  Secret key(32);
  if (EVP_PBE_scrypt(passphrase.text().data(), passphrase.text().size(), salt.data(), salt.size(), derivation.n,
                     derivation.r, derivation.p, library_memory, key.bytes().data(), key.bytes().size()) != 1) {
    encryption_failed();
  }
  return key;
}

// Binds all that a document says in the clear to what it keeps encrypted.
std::string associated_text(Json document) {
  document.erase("private");
  return digest(canonical_json(document), "sha256");
}

std::vector<std::uint8_t> encrypt(const Secret& key, std::span<const std::uint8_t> nonce, std::string_view associated,
                                  const Secret& plain) {
  const std::unique_ptr<EVP_CIPHER_CTX, ReleaseCipher> context(EVP_CIPHER_CTX_new());
  std::vector<std::uint8_t> record(plain.bytes().size() + tag_size);
  std::uint8_t nothing = 0;
  int size = 0;
  const bool done =
      context &&
      EVP_EncryptInit_ex2(context.get(), EVP_chacha20_poly1305(), key.bytes().data(), nonce.data(), nullptr) == 1 &&
      EVP_EncryptUpdate(context.get(), nullptr, &size, bytes_of(associated).data(),
                        static_cast<int>(associated.size())) == 1 &&
      EVP_EncryptUpdate(context.get(), record.data(), &size, plain.bytes().data(),
                        static_cast<int>(plain.bytes().size())) == 1 &&
      EVP_EncryptFinal_ex(context.get(), &nothing, &size) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(tag_size),
                          record.data() + plain.bytes().size()) == 1;
  if (!done) {
    encryption_failed();
  }
  return record;
}

std::uint64_t factor_at(const Json& derivation, const char* name) {
  const Json& value = derivation.at(name);
  require(value.is_number_unsigned(), "invalid_key", malformed);
  return value.get<std::uint64_t>();
}

std::vector<std::uint8_t> bytes_at(const Json& object, const char* name, std::size_t limit) {
  try {
    return unhex(text_at(object, name), 2 * limit);
  } catch (const Error&) {
    fail("invalid_key", malformed);
  }
}

void require_form(const Json& document) {
  require(has_exactly(document, {"schema_version", "kind", "key", "derivation", "cipher", "nonce", "private"}) &&
              is_integer(document.at("schema_version"), 1) && is_text(document.at("kind"), encrypted_kind) &&
              is_text(document.at("cipher"), cipher_name) &&
              has_exactly(document.at("derivation"), {"name", "n", "r", "p", "salt"}) &&
              is_text(document.at("derivation").at("name"), derivation_name),
          "invalid_key", malformed);
}

}  // namespace

Json encrypt_key(const SigningKey& key, const Secret& passphrase, const KeyDerivation& derivation) {
  const auto salt = random_bytes<salt_bytes>();
  const auto nonce = random_bytes<nonce_bytes>();
  Json document = {
      {"schema_version", 1},
      {"kind", encrypted_kind},
      {"key", key.key()},
      {"derivation",
       {{"name", derivation_name}, {"n", derivation.n}, {"r", derivation.r}, {"p", derivation.p}, {"salt", hex(salt)}}},
      {"cipher", cipher_name},
      {"nonce", hex(nonce)}};
  document["private"] =
      hex(encrypt(derive(passphrase, salt, derivation), nonce, associated_text(document), key.private_bytes()));
  return document;
}

bool is_encrypted_key(const Json& document) {
  return document.is_object() && document.contains("kind") && is_text(document.at("kind"), encrypted_kind);
}

Json encrypted_public_key(const Json& document) {
  return refuse_malformed("invalid_key", malformed, [&] {
    require_form(document);
    const Json& key = document.at("key");
    verify_keys({{key_id(key), key}});
    return key;
  });
}

SigningKey decrypt_key(const Json& document, const Secret& passphrase) {
  return refuse_malformed("invalid_key", malformed, [&] {
    require_form(document);
    const Json& parameters = document.at("derivation");
    const KeyDerivation derivation = {factor_at(parameters, "n"), factor_at(parameters, "r"),
                                      factor_at(parameters, "p")};
    require_bounded(derivation);
    const std::vector<std::uint8_t> salt = bytes_at(parameters, "salt", salt_bytes);
    const std::vector<std::uint8_t> nonce = bytes_at(document, "nonce", nonce_bytes);
    const std::vector<std::uint8_t> record = bytes_at(document, "private", maximum_private_bytes);
    require(salt.size() == salt_bytes && nonce.size() == nonce_bytes && record.size() > tag_size, "invalid_key",
            malformed);
    const Secret key = derive(passphrase, salt, derivation);
    Secret plain(record.size() - tag_size);
    try {
      decrypt_chacha20_poly1305(std::span<const std::uint8_t, 32>(key.bytes()),
                                std::span<const std::uint8_t, nonce_bytes>(nonce), associated_text(document),
                                {reinterpret_cast<const char*>(record.data()), record.size()}, plain.bytes(),
                                maximum_private_bytes);
    } catch (const Error& error) {
      require(error.code != "authentication_failed", "wrong_passphrase", "The passphrase does not open this key");
      throw;
    }
    SigningKey opened = SigningKey::from_private_bytes(text_at(document.at("key"), "scheme"), plain.bytes());
    require(opened.key() == document.at("key"), "invalid_key", malformed);
    return opened;
  });
}

}  // namespace ravok
