#include "domain/signature.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include "domain/bytes.hpp"
#include "domain/crypto.hpp"
#include "domain/signature_scheme.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_text = 16'384;
constexpr std::size_t ed25519_key_bytes = 32;
constexpr std::size_t ed25519_signature_bytes = 64;

using Key = std::unique_ptr<EVP_PKEY, ReleaseOpenssl>;

const SignatureScheme* find_scheme(std::string_view keytype, std::string_view name) {
  const auto found =
      std::find_if(signature_schemes.begin(), signature_schemes.end(),
                   [&](const SignatureScheme& scheme) { return scheme.keytype == keytype && scheme.name == name; });
  return found == signature_schemes.end() ? nullptr : &*found;
}

// A public key needs no password; without this, the library would ask the terminal for one.
int no_password(char*, int, int, void*) { return -1; }

Key read_pem(const std::string& text) {
  if (text.size() > maximum_text) {
    return nullptr;
  }
  const std::unique_ptr<BIO, ReleaseOpenssl> buffer(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  return Key(buffer ? PEM_read_bio_PUBKEY(buffer.get(), nullptr, no_password, nullptr) : nullptr);
}

Key read_ed25519(const std::string& text) {
  const std::vector<std::uint8_t> bytes = unhex(text, maximum_text);
  return Key(bytes.size() == ed25519_key_bytes
                 ? EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, bytes.data(), bytes.size())
                 : nullptr);
}

bool verify_message(EVP_PKEY* key, const SignatureScheme& scheme, std::span<const std::uint8_t> message,
                    std::span<const std::uint8_t> signature) {
  const std::unique_ptr<EVP_MD_CTX, ReleaseOpenssl> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* parameters = nullptr;
  return context &&
         EVP_DigestVerifyInit_ex(context.get(), &parameters, scheme.digest, nullptr, nullptr, key, nullptr) == 1 &&
         (scheme.family != SchemeFamily::rsa || use_pss(parameters, scheme.digest)) &&
         EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(), message.size()) == 1;
}

bool verify(const Json& key, std::string_view payload, std::string_view signature_text) {
  const std::string& name = text_at(key, "scheme");
  const std::string& keytype = text_at(key, "keytype");
  const std::string& text = text_at(key.at("keyval"), "public");
  const std::vector<std::uint8_t> signature = unhex(signature_text, maximum_text);
  const SignatureScheme* const scheme = find_scheme(keytype, name);
  if (scheme == nullptr) {
    return false;
  }
  const bool raw = scheme->family == SchemeFamily::ed25519;
  if (raw && signature.size() != ed25519_signature_bytes) {
    return false;
  }
  const Key parsed = raw ? read_ed25519(text) : read_pem(text);
  if (!parsed || !fits(parsed.get(), *scheme)) {
    return false;
  }
  if (scheme->family != SchemeFamily::ml_dsa) {
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
    // A key or a signature that cannot be read does not count.
  }
  // The library's errors about a bad key must not be taken for those of a later call.
  ERR_clear_error();
  return verified;
}

}  // namespace ravok
