// A thousand verifications with each scheme, beside the library's own of the same keys and bytes: each reads the key
// from its text and verifies once, with nothing kept in between.

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "domain/crypto.hpp"
#include "domain/signature.hpp"
#include "publisher/signing/signing_key.hpp"

namespace {

constexpr int verifications = 1000;

void check(bool passed) {
  if (!passed) {
    std::abort();
  }
}

struct Release {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  void operator()(BIO* buffer) const { BIO_free(buffer); }
};

// A key of a scheme, what it signed, and both as the library takes them.
struct Signed {
  Signed(const std::string& scheme, const char* digest_name) : digest(digest_name) {
    const ravok::SigningKey pair = ravok::SigningKey::generate(scheme);
    key = pair.key();
    signature = pair.sign(payload);
    public_text = key.at("keyval").at("public").get<std::string>();
    bytes = ravok::unhex(signature, signature.size());
    raw = scheme == "ed25519";
    pss = scheme.starts_with("rsassa");
    message = payload;
    if (scheme.starts_with("ml-dsa")) {
      const std::vector<std::uint8_t> hash = ravok::unhex(ravok::digest(payload, "sha512"), 128);
      message = std::string("tuf\1") + std::string(hash.begin(), hash.end());
    }
  }

  // The size of a role document of a small repository.
  const std::string payload = std::string(2048, 'p');
  const char* digest;
  ravok::Json key;
  std::string signature;
  std::string public_text;
  std::vector<std::uint8_t> bytes;
  std::string message;
  bool raw = false;
  bool pss = false;
};

void verify_bare(const Signed& sample) {
  std::unique_ptr<EVP_PKEY, Release> key;
  if (sample.raw) {
    const std::vector<std::uint8_t> text = ravok::unhex(sample.public_text, 64);
    key.reset(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, text.data(), text.size()));
  } else {
    const std::unique_ptr<BIO, Release> buffer(
        BIO_new_mem_buf(sample.public_text.data(), static_cast<int>(sample.public_text.size())));
    key.reset(PEM_read_bio_PUBKEY(buffer.get(), nullptr, nullptr, nullptr));
  }
  const std::unique_ptr<EVP_MD_CTX, Release> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* parameters = nullptr;
  check(EVP_DigestVerifyInit_ex(context.get(), &parameters, sample.digest, nullptr, nullptr, key.get(), nullptr) == 1);
  check(!sample.pss || (EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PSS_PADDING) == 1 &&
                        EVP_PKEY_CTX_set_rsa_pss_saltlen(parameters, RSA_PSS_SALTLEN_DIGEST) == 1));
  check(EVP_DigestVerify(context.get(), sample.bytes.data(), sample.bytes.size(),
                         reinterpret_cast<const unsigned char*>(sample.message.data()), sample.message.size()) == 1);
}

void verify(benchmark::State& state, const Signed& sample) {
  for (auto _ : state) {
    for (int i = 0; i < verifications; ++i) {
      check(ravok::verify_signature(sample.key, sample.payload, sample.signature));
    }
  }
}

void verify_yardstick(benchmark::State& state, const Signed& sample) {
  for (auto _ : state) {
    for (int i = 0; i < verifications; ++i) {
      verify_bare(sample);
    }
  }
}

struct Figure {
  const char* name;
  const char* scheme;
  const char* digest;
};

constexpr std::array<Figure, 10> figures = {{
    {"signature_rsa_sha256", "rsassa-pss-sha256", "SHA256"},
    {"signature_rsa_sha384", "rsassa-pss-sha384", "SHA384"},
    {"signature_rsa_sha512", "rsassa-pss-sha512", "SHA512"},
    {"signature_ecdsa_p256", "ecdsa-sha2-nistp256", "SHA256"},
    {"signature_ecdsa_p384", "ecdsa-sha2-nistp384", "SHA384"},
    {"signature_ecdsa_p521", "ecdsa-sha2-nistp521", "SHA512"},
    {"signature_ed25519", "ed25519", nullptr},
    {"signature_ml_dsa_44", "ml-dsa-44/1", nullptr},
    {"signature_ml_dsa_65", "ml-dsa-65/1", nullptr},
    {"signature_ml_dsa_87", "ml-dsa-87/1", nullptr},
}};

const bool registered = [] {
  for (const Figure& figure : figures) {
    const auto sample = std::make_shared<const Signed>(figure.scheme, figure.digest);
    const auto add = [&](const std::string& name, auto* function) {
      benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) { function(state, *sample); })
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime();
    };
    add(figure.name, verify);
    add(std::string(figure.name) + "_yardstick", verify_yardstick);
  }
  return true;
}();

}  // namespace
