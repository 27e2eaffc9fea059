#include "domain/signature_scheme.hpp"

#include <cstddef>

#include <openssl/core_names.h>
#include <openssl/rsa.h>

#include "domain/bytes.hpp"
#include "domain/digest_context.hpp"

namespace ravok {
namespace {

constexpr int minimum_rsa_bits = 2048;

bool is_on_curve(const EVP_PKEY* key, std::string_view curve) {
  std::array<char, 80> name{};
  std::size_t size = 0;
  return EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, name.data(), name.size(), &size) == 1 &&
         std::string_view(name.data(), size) == curve;
}

}  // namespace

bool fits(const EVP_PKEY* key, const SignatureScheme& scheme) {
  switch (scheme.family) {
    case SchemeFamily::rsa:
      return EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA && EVP_PKEY_get_bits(key) >= minimum_rsa_bits;
    case SchemeFamily::ecdsa:
      return is_on_curve(key, scheme.parameter);
    case SchemeFamily::ed25519:
      return EVP_PKEY_is_a(key, "ED25519") == 1;
    case SchemeFamily::ml_dsa:
      return EVP_PKEY_is_a(key, scheme.parameter) == 1;
  }
  return false;
}

bool use_pss(EVP_PKEY_CTX* parameters, const char* digest) {
  return EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PSS_PADDING) == 1 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md_name(parameters, digest, nullptr) == 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(parameters, RSA_PSS_SALTLEN_DIGEST) == 1;
}

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

}  // namespace ravok
