#include "domain/digest_context.hpp"

#include <openssl/evp.h>

#include "domain/error.hpp"

namespace ravok {
namespace {

struct ReleaseAlgorithm {
  void operator()(EVP_MD* algorithm) const { EVP_MD_free(algorithm); }
};

using Algorithm = std::unique_ptr<EVP_MD, ReleaseAlgorithm>;

}  // namespace

// The algorithm is fetched once, since looking it up costs more than digesting a small record. Where fetching it fails,
// the built-in description is used, which the library looks up at each use.
const evp_md_st* digest_algorithm(std::string_view name) {
  if (name == "sha256") {
    static const Algorithm algorithm(EVP_MD_fetch(nullptr, "SHA256", nullptr));
    return algorithm ? algorithm.get() : EVP_sha256();
  }
  if (name == "sha512") {
    static const Algorithm algorithm(EVP_MD_fetch(nullptr, "SHA512", nullptr));
    return algorithm ? algorithm.get() : EVP_sha512();
  }
  fail("unsupported_hash", "Only SHA-256 and SHA-512 hashes are supported");
}

void DigestContext::Release::operator()(evp_md_ctx_st* context) const { EVP_MD_CTX_free(context); }

DigestContext::DigestContext() : context_(EVP_MD_CTX_new()) {}

bool DigestContext::start(const evp_md_st* algorithm) {
  return context_ && EVP_DigestInit_ex(context_.get(), algorithm, nullptr) == 1;
}

bool DigestContext::update(std::span<const std::uint8_t> bytes) {
  return EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1;
}

bool DigestContext::copy(const DigestContext& other) {
  return context_ && EVP_MD_CTX_copy_ex(context_.get(), other.context_.get()) == 1;
}

std::vector<std::uint8_t> DigestContext::finish() {
  std::vector<std::uint8_t> value(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(context_.get(), value.data(), &size) != 1) {
    size = 0;
  }
  value.resize(size);
  return value;
}

}  // namespace ravok
