#include "domain/signature.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "domain/crypto.hpp"
#include "domain/digest_context.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_text = 16'384;
constexpr int minimum_rsa_bits = 2048;
constexpr std::size_t ed25519_key_bytes = 32;
constexpr std::size_t ed25519_signature_bytes = 64;

enum class Family { rsa, ecdsa, ed25519, ml_dsa };

struct Scheme {
  std::string_view keytype;
  std::string_view name;
  Family family;
  const char* digest;     // the library's name, none for a scheme that takes the whole message
  const char* parameter;  // the curve, or the kind of key
};

constexpr std::array<Scheme, 10> schemes = {{
    {"rsa", "rsassa-pss-sha256", Family::rsa, "SHA256", nullptr},
    {"rsa", "rsassa-pss-sha384", Family::rsa, "SHA384", nullptr},
    {"rsa", "rsassa-pss-sha512", Family::rsa, "SHA512", nullptr},
    {"ecdsa", "ecdsa-sha2-nistp256", Family::ecdsa, "SHA256", "prime256v1"},
    {"ecdsa", "ecdsa-sha2-nistp384", Family::ecdsa, "SHA384", "secp384r1"},
    {"ecdsa", "ecdsa-sha2-nistp521", Family::ecdsa, "SHA512", "secp521r1"},
    {"ed25519", "ed25519", Family::ed25519, nullptr, nullptr},
    {"ml-dsa", "ml-dsa-44/1", Family::ml_dsa, nullptr, "ML-DSA-44"},
    {"ml-dsa", "ml-dsa-65/1", Family::ml_dsa, nullptr, "ML-DSA-65"},
    {"ml-dsa", "ml-dsa-87/1", Family::ml_dsa, nullptr, "ML-DSA-87"},
}};

struct Release {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  void operator()(BIO* buffer) const { BIO_free(buffer); }
};
using Key = std::unique_ptr<EVP_PKEY, Release>;

const Scheme* find_scheme(std::string_view keytype, std::string_view name) {
  const auto found = std::find_if(schemes.begin(), schemes.end(), [&](const Scheme& scheme) {
    return scheme.keytype == keytype && scheme.name == name;
  });
  return found == schemes.end() ? nullptr : &*found;
}

// A public key needs no password; without this, the library would ask the terminal for one.
int no_password(char*, int, int, void*) { return -1; }

Key read_pem(const std::string& text) {
  if (text.size() > maximum_text) {
    return nullptr;
  }
  const std::unique_ptr<BIO, Release> buffer(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  return Key(buffer ? PEM_read_bio_PUBKEY(buffer.get(), nullptr, no_password, nullptr) : nullptr);
}

Key read_ed25519(const std::string& text) {
  const std::vector<std::uint8_t> bytes = unhex(text, maximum_text);
  return Key(bytes.size() == ed25519_key_bytes
                 ? EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, bytes.data(), bytes.size())
                 : nullptr);
}

bool is_on_curve(const EVP_PKEY* key, std::string_view curve) {
  std::array<char, 80> name{};
  std::size_t size = 0;
  return EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, name.data(), name.size(), &size) == 1 &&
         std::string_view(name.data(), size) == curve;
}

bool fits(const EVP_PKEY* key, const Scheme& scheme) {
  switch (scheme.family) {
    case Family::rsa:
      return EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA && EVP_PKEY_get_bits(key) >= minimum_rsa_bits;
    case Family::ecdsa:
      return is_on_curve(key, scheme.parameter);
    case Family::ed25519:
      return true;
    case Family::ml_dsa:
      return EVP_PKEY_is_a(key, scheme.parameter) == 1;
  }
  return false;
}

bool use_pss(EVP_PKEY_CTX* parameters, const char* digest) {
  return EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PSS_PADDING) == 1 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md_name(parameters, digest, nullptr) == 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(parameters, RSA_PSS_SALTLEN_DIGEST) == 1;
}

std::span<const std::uint8_t> bytes_of(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

bool verify_message(EVP_PKEY* key, const Scheme& scheme, std::span<const std::uint8_t> message,
                    std::span<const std::uint8_t> signature) {
  const std::unique_ptr<EVP_MD_CTX, Release> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* parameters = nullptr;
  return context &&
         EVP_DigestVerifyInit_ex(context.get(), &parameters, scheme.digest, nullptr, nullptr, key, nullptr) == 1 &&
         (scheme.family != Family::rsa || use_pss(parameters, scheme.digest)) &&
         EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(), message.size()) == 1;
}

// A digest of its own domain stands for the payload, so that no signature of another use fits.
std::vector<std::uint8_t> ml_dsa_message(std::string_view payload) {
  DigestContext context;
  std::vector<std::uint8_t> message = {'t', 'u', 'f', 1};
  if (!context.start(digest_algorithm("sha512")) || !context.update(bytes_of(payload))) {
    return {};
  }
  const std::vector<std::uint8_t> digest = context.finish();
  message.insert(message.end(), digest.begin(), digest.end());
  return digest.empty() ? digest : message;
}

bool verify(const Json& key, std::string_view payload, std::string_view signature_text) {
  const std::string& name = text_at(key, "scheme");
  const std::string& keytype = text_at(key, "keytype");
  const std::string& text = text_at(key.at("keyval"), "public");
  const std::vector<std::uint8_t> signature = unhex(signature_text, maximum_text);
  const Scheme* const scheme = find_scheme(keytype, name);
  if (scheme == nullptr) {
    return false;
  }
  const bool raw = scheme->family == Family::ed25519;
  if (raw && signature.size() != ed25519_signature_bytes) {
    return false;
  }
  const Key parsed = raw ? read_ed25519(text) : read_pem(text);
  if (!parsed || !fits(parsed.get(), *scheme)) {
    return false;
  }
  if (scheme->family != Family::ml_dsa) {
    return verify_message(parsed.get(), *scheme, bytes_of(payload), signature);
  }
  const std::vector<std::uint8_t> message = ml_dsa_message(payload);
  return !message.empty() && verify_message(parsed.get(), *scheme, message, signature);
}

}  // namespace

bool verify_signature(const Json& key, std::string_view payload, std::string_view signature) noexcept {
  bool verified = false;
  try {
    verified = verify(key, payload, signature);
  } catch (const std::exception&) {
    // A key or a signature that cannot be read is one that does not count.
  }
  // What the library has to say of a bad key must not be taken for the failure of a later call.
  ERR_clear_error();
  return verified;
}

}  // namespace ravok
