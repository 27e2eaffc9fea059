// The signature schemes that a repository may use: their names, and what they are in the cryptographic library. Those
// who sign share them with those who verify.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include <openssl/evp.h>

namespace ravok {

enum class SchemeFamily { rsa, ecdsa, ed25519, ml_dsa };

struct SignatureScheme {
  std::string_view keytype;
  std::string_view name;
  SchemeFamily family;
  const char* digest;     // the library's name; null for a scheme that signs the whole message
  const char* parameter;  // the curve, or the kind of key; null where the scheme needs neither
};

inline constexpr std::array<SignatureScheme, 10> signature_schemes = {{
    {"rsa", "rsassa-pss-sha256", SchemeFamily::rsa, "SHA256", nullptr},
    {"rsa", "rsassa-pss-sha384", SchemeFamily::rsa, "SHA384", nullptr},
    {"rsa", "rsassa-pss-sha512", SchemeFamily::rsa, "SHA512", nullptr},
    {"ecdsa", "ecdsa-sha2-nistp256", SchemeFamily::ecdsa, "SHA256", "prime256v1"},
    {"ecdsa", "ecdsa-sha2-nistp384", SchemeFamily::ecdsa, "SHA384", "secp384r1"},
    {"ecdsa", "ecdsa-sha2-nistp521", SchemeFamily::ecdsa, "SHA512", "secp521r1"},
    {"ed25519", "ed25519", SchemeFamily::ed25519, nullptr, nullptr},
    {"ml-dsa", "ml-dsa-44/1", SchemeFamily::ml_dsa, nullptr, "ML-DSA-44"},
    {"ml-dsa", "ml-dsa-65/1", SchemeFamily::ml_dsa, nullptr, "ML-DSA-65"},
    {"ml-dsa", "ml-dsa-87/1", SchemeFamily::ml_dsa, nullptr, "ML-DSA-87"},
}};

struct ReleaseOpenssl {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  void operator()(BIO* buffer) const { BIO_free(buffer); }
};

// Whether the scheme may be used with the key.
bool fits(const EVP_PKEY* key, const SignatureScheme& scheme);

// Sets the padding of a signing or verifying operation. Returns whether that worked.
bool use_pss(EVP_PKEY_CTX* parameters, const char* digest);

// Returns what an ML-DSA key signs in place of the payload: a mark of its own and a digest of the payload, so that a
// signature that was made for another use never fits. Empty when the library failed.
std::vector<std::uint8_t> ml_dsa_message(std::string_view payload);

}  // namespace ravok
