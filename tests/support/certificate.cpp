#include "support/certificate.hpp"

#include <cstddef>
#include <map>
#include <stdexcept>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace ravok::testing {
namespace {

struct FreeNative {
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
using Key = std::unique_ptr<EVP_PKEY, FreeNative>;
using Certificate = std::unique_ptr<X509, FreeNative>;

constexpr long day = 86'400;  // seconds

void require_success(bool happened) {
  if (!happened) {
    throw std::runtime_error("Cannot make a certificate");
  }
}

Key kept(EVP_PKEY* key) {
  require_success(key != nullptr);
  return Key(key);
}

Key make_key() { return kept(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")); }
Key make_server_key() { return kept(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")); }
Key make_small_key() { return kept(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t{1024})); }

std::string text_of(BIO* bio) {
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio, &text);
  return {text, static_cast<std::size_t>(size)};
}

std::string text_of(X509* certificate) {
  const std::unique_ptr<BIO, FreeNative> bio(BIO_new(BIO_s_mem()));
  require_success(bio && PEM_write_bio_X509(bio.get(), certificate) == 1);
  return text_of(bio.get());
}

std::string text_of(EVP_PKEY* key) {
  const std::unique_ptr<BIO, FreeNative> bio(BIO_new(BIO_s_mem()));
  require_success(bio && PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1);
  return text_of(bio.get());
}

struct Contents {
  std::string name;
  long begins = 0;  // seconds from now
  long ends = day;
  // Values as the library's configuration files have them.
  std::map<int, std::string> extensions = {};
};

struct Signer {
  EVP_PKEY* key;
  const EVP_MD* digest;
  X509* certificate = nullptr;  // null for one that signs its own
};

Certificate make_certificate(const Contents& contents, EVP_PKEY* key, const Signer& signer) {
  Certificate made(X509_new());
  require_success(made != nullptr);
  X509* const issuer = signer.certificate != nullptr ? signer.certificate : made.get();
  X509_NAME* const name = X509_get_subject_name(made.get());
  const auto* const common_name = reinterpret_cast<const unsigned char*>(contents.name.c_str());
  require_success(X509_set_version(made.get(), X509_VERSION_3) == 1);
  require_success(ASN1_INTEGER_set(X509_get_serialNumber(made.get()), 1) == 1);
  require_success(X509_gmtime_adj(X509_getm_notBefore(made.get()), contents.begins) != nullptr);
  require_success(X509_gmtime_adj(X509_getm_notAfter(made.get()), contents.ends) != nullptr);
  require_success(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, common_name, -1, -1, 0) == 1);
  require_success(X509_set_issuer_name(made.get(), X509_get_subject_name(issuer)) == 1);
  require_success(X509_set_pubkey(made.get(), key) == 1);
  X509V3_CTX context{};
  X509V3_set_ctx(&context, issuer, made.get(), nullptr, nullptr, 0);
  for (const auto& [identifier, value] : contents.extensions) {
    const std::unique_ptr<X509_EXTENSION, FreeNative> extension(
        X509V3_EXT_conf_nid(nullptr, &context, identifier, value.c_str()));
    require_success(extension && X509_add_ext(made.get(), extension.get(), -1) == 1);
  }
  require_success(X509_sign(made.get(), signer.key, signer.digest) > 0);
  return made;
}

const std::map<int, std::string> authority_extensions = {{NID_basic_constraints, "critical,CA:TRUE"},
                                                         {NID_key_usage, "critical,keyCertSign,cRLSign"},
                                                         {NID_subject_key_identifier, "hash"},
                                                         {NID_authority_key_identifier, "keyid"}};

Contents server_contents(Flaw flaw) {
  Contents contents{.name = "Test Server",
                    .begins = -day,
                    .extensions = {{NID_basic_constraints, "critical,CA:FALSE"},
                                   {NID_ext_key_usage, "serverAuth"},
                                   {NID_subject_key_identifier, "hash"},
                                   {NID_authority_key_identifier, "keyid"},
                                   {NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1"}}};
  if (flaw == Flaw::expired) {
    contents.begins = -2 * day;
    contents.ends = -day;
  } else if (flaw == Flaw::not_yet_valid) {
    contents.begins = day;
    contents.ends = 2 * day;
  } else if (flaw == Flaw::other_name) {
    contents.extensions[NID_subject_alt_name] = "DNS:other.test,IP:127.0.0.2";
  } else if (flaw == Flaw::other_purpose) {
    contents.extensions[NID_ext_key_usage] = "clientAuth";
  }
  return contents;
}

}  // namespace

std::string certificate(int days) {
  const Key key = make_key();
  return text_of(
      make_certificate({.name = "Test Authority", .ends = days * day}, key.get(), {key.get(), nullptr}).get());
}

std::string private_key() { return text_of(make_key().get()); }

struct CertificateAuthority::Implementation {
  Key root_key = make_server_key();
  Certificate root = make_certificate({.name = "Test Root", .begins = -day, .extensions = authority_extensions},
                                      root_key.get(), {root_key.get(), EVP_sha256()});
  Key intermediate_key = make_server_key();
  Certificate intermediate =
      make_certificate({.name = "Test Intermediate", .begins = -day, .extensions = authority_extensions},
                       intermediate_key.get(), {root_key.get(), EVP_sha256(), root.get()});
};

CertificateAuthority::CertificateAuthority() : implementation_(std::make_unique<const Implementation>()) {}
CertificateAuthority::~CertificateAuthority() = default;

std::string CertificateAuthority::root() const { return text_of(implementation_->root.get()); }

ServerCertificate CertificateAuthority::issue(Flaw flaw) const {
  const Signer intermediate{implementation_->intermediate_key.get(),
                            flaw == Flaw::weak_digest ? EVP_sha1() : EVP_sha256(), implementation_->intermediate.get()};
  const Key key = flaw == Flaw::small_key ? make_small_key() : make_server_key();
  const Contents contents = server_contents(flaw);
  if (flaw == Flaw::self_signed) {
    return {text_of(make_certificate(contents, key.get(), {key.get(), EVP_sha256()}).get()), text_of(key.get())};
  }
  if (flaw == Flaw::missing_intermediate) {
    return {text_of(make_certificate(contents, key.get(), intermediate).get()), text_of(key.get())};
  }
  if (flaw == Flaw::issued_by_a_server) {
    const Key other_key = make_server_key();
    Contents other_contents = contents;
    other_contents.name = "Other Test Server";
    const Certificate other = make_certificate(other_contents, other_key.get(), intermediate);
    const Certificate made = make_certificate(contents, key.get(), {other_key.get(), EVP_sha256(), other.get()});
    return {text_of(made.get()) + text_of(other.get()) + text_of(intermediate.certificate), text_of(key.get())};
  }
  const Certificate made = make_certificate(contents, key.get(), intermediate);
  return {text_of(made.get()) + text_of(intermediate.certificate), text_of(key.get())};
}

}  // namespace ravok::testing
