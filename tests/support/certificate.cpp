#include "support/certificate.hpp"

#include <memory>
#include <stdexcept>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace ravok::testing {
namespace {

struct FreeNative {
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
};

void require_success(bool happened) {
  if (!happened) {
    throw std::runtime_error("Cannot make a certificate");
  }
}

std::unique_ptr<EVP_PKEY, FreeNative> make_key() {
  std::unique_ptr<EVP_PKEY, FreeNative> key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
  require_success(key != nullptr);
  return key;
}

std::string text_of(BIO* bio) {
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio, &text);
  return {text, static_cast<std::size_t>(size)};
}

}  // namespace

std::string certificate() {
  constexpr long day = 86'400;
  const auto key = make_key();
  const std::unique_ptr<X509, FreeNative> made(X509_new());
  require_success(made != nullptr);
  X509_NAME* const name = X509_get_subject_name(made.get());
  const auto* const common_name = reinterpret_cast<const unsigned char*>("Test Authority");
  require_success(X509_set_version(made.get(), X509_VERSION_3) == 1);
  require_success(ASN1_INTEGER_set(X509_get_serialNumber(made.get()), 1) == 1);
  require_success(X509_gmtime_adj(X509_getm_notBefore(made.get()), 0) != nullptr);
  require_success(X509_gmtime_adj(X509_getm_notAfter(made.get()), day) != nullptr);
  require_success(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, common_name, -1, -1, 0) == 1);
  require_success(X509_set_issuer_name(made.get(), name) == 1);
  require_success(X509_set_pubkey(made.get(), key.get()) == 1);
  require_success(X509_sign(made.get(), key.get(), nullptr) > 0);
  const std::unique_ptr<BIO, FreeNative> bio(BIO_new(BIO_s_mem()));
  require_success(bio && PEM_write_bio_X509(bio.get(), made.get()) == 1);
  return text_of(bio.get());
}

std::string private_key() {
  const std::unique_ptr<BIO, FreeNative> bio(BIO_new(BIO_s_mem()));
  require_success(bio &&
                  PEM_write_bio_PrivateKey(bio.get(), make_key().get(), nullptr, nullptr, 0, nullptr, nullptr) == 1);
  return text_of(bio.get());
}

}  // namespace ravok::testing
