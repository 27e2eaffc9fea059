#include "publisher/signing/signing_key.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "domain/bytes.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/signature_scheme.hpp"

namespace ravok {
namespace {

constexpr std::size_t rsa_bits = 3072;
constexpr std::size_t maximum_text = 65'536;
constexpr const char* key_kind = "ravok-signing-key";

[[noreturn]] void library_failed() {
  ERR_clear_error();
  fail("crypto_failure", "The cryptographic library could not use the signing key");
}

const SignatureScheme* find_scheme(std::string_view name) {
  const auto found = std::find_if(signature_schemes.begin(), signature_schemes.end(),
                                  [&](const SignatureScheme& scheme) { return scheme.name == name; });
  return found == signature_schemes.end() ? nullptr : &*found;
}

std::string all_schemes() {
  std::string names;
  for (const SignatureScheme& scheme : signature_schemes) {
    names += (names.empty() ? "" : ", ") + std::string(scheme.name);
  }
  return names;
}

EVP_PKEY* make_key(const SignatureScheme& scheme) {
  switch (scheme.family) {
    case SchemeFamily::rsa:
      return EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", rsa_bits);
    case SchemeFamily::ecdsa:
      return EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", scheme.parameter);
    case SchemeFamily::ed25519:
      return EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
    case SchemeFamily::ml_dsa:
      return EVP_PKEY_Q_keygen(nullptr, nullptr, scheme.parameter);
  }
  return nullptr;
}

// Returns the PEM text that `write` puts into the library's buffer.
template <typename Write>
std::string pem_text(Write write) {
  const std::unique_ptr<BIO, ReleaseOpenssl> buffer(BIO_new(BIO_s_secmem()));
  if (!buffer || !write(buffer.get())) {
    library_failed();
  }
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(buffer.get(), &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

std::string public_text(const SignatureScheme& scheme, EVP_PKEY* key) {
  if (scheme.family != SchemeFamily::ed25519) {
    return pem_text([&](BIO* buffer) { return PEM_write_bio_PUBKEY(buffer, key) == 1; });
  }
  std::array<std::uint8_t, 32> bytes{};
  std::size_t size = bytes.size();
  if (EVP_PKEY_get_raw_public_key(key, bytes.data(), &size) != 1 || size != bytes.size()) {
    library_failed();
  }
  return hex(bytes);
}

// Gives no password: a key that asks for one was not made by this program.
int no_password(char*, int, int, void*) { return -1; }

EVP_PKEY* read_private(const std::string& text) {
  const std::unique_ptr<BIO, ReleaseOpenssl> buffer(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  EVP_PKEY* const key = buffer ? PEM_read_bio_PrivateKey(buffer.get(), nullptr, no_password, nullptr) : nullptr;
  ERR_clear_error();
  return key;
}

struct ReleaseInfo {
  void operator()(PKCS8_PRIV_KEY_INFO* info) const { PKCS8_PRIV_KEY_INFO_free(info); }
};

EVP_PKEY* read_public(std::string_view bytes) {
  const std::unique_ptr<BIO, ReleaseOpenssl> buffer(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  EVP_PKEY* key = buffer ? PEM_read_bio_PUBKEY(buffer.get(), nullptr, no_password, nullptr) : nullptr;
  if (key == nullptr) {
    const unsigned char* place = bytes_of(bytes).data();
    key = d2i_PUBKEY(nullptr, &place, static_cast<long>(bytes.size()));
  }
  ERR_clear_error();
  return key;
}

bool is_hexadecimal(std::string_view text) {
  return text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

Json public_object(const SignatureScheme& scheme, EVP_PKEY* key) {
  return {{"keytype", scheme.keytype}, {"scheme", scheme.name}, {"keyval", {{"public", public_text(scheme, key)}}}};
}

}  // namespace

void SigningKey::Release::operator()(evp_pkey_st* key) const { EVP_PKEY_free(key); }

SigningKey::SigningKey(const SignatureScheme& scheme, Handle handle)
    : scheme_(&scheme), handle_(std::move(handle)), key_(public_object(scheme, handle_.get())), id_(key_id(key_)) {}

SigningKey::~SigningKey() = default;
SigningKey::SigningKey(SigningKey&&) noexcept = default;
SigningKey& SigningKey::operator=(SigningKey&&) noexcept = default;

void wipe_private(Json& document) {
  if (document.is_object() && has_text(document, "private")) {
    wipe(document["private"].get_ref<std::string&>());
  }
}

void require_scheme(std::string_view scheme) {
  require(find_scheme(scheme) != nullptr, "unknown_scheme",
          "There is no scheme " + std::string(scheme) + "; there are " + all_schemes());
}

SigningKey SigningKey::generate(std::string_view scheme) {
  require_scheme(scheme);
  const SignatureScheme* const found = find_scheme(scheme);
  Handle handle(make_key(*found));
  if (!handle) {
    library_failed();
  }
  return SigningKey(*found, std::move(handle));
}

SigningKey SigningKey::parse(const Json& document) {
  constexpr const char* code = "invalid_key";
  return refuse_malformed(code, "The signing key is malformed", [&] {
    require(has_exactly(document, {"schema_version", "kind", "scheme", "private"}) &&
                is_integer(document.at("schema_version"), 1) && is_text(document.at("kind"), key_kind),
            code, "The file holds no signing key");
    const SignatureScheme* const scheme = find_scheme(text_at(document, "scheme"));
    const std::string& text = text_at(document, "private");
    require(scheme != nullptr && text.size() <= maximum_text, code, "The signing key is malformed");
    Handle handle(read_private(text));
    require(handle && fits(handle.get(), *scheme), code, "The signing key is not one of its scheme");
    return SigningKey(*scheme, std::move(handle));
  });
}

SigningKey SigningKey::from_private_bytes(std::string_view scheme, std::span<const std::uint8_t> bytes) {
  const SignatureScheme* const found = find_scheme(scheme);
  const unsigned char* place = bytes.data();
  Handle handle(d2i_AutoPrivateKey(nullptr, &place, static_cast<long>(bytes.size())));
  ERR_clear_error();
  require(found != nullptr && handle && fits(handle.get(), *found), "invalid_key",
          "The signing key is not one of its scheme");
  return SigningKey(*found, std::move(handle));
}

Secret SigningKey::private_bytes() const {
  const std::unique_ptr<PKCS8_PRIV_KEY_INFO, ReleaseInfo> info(EVP_PKEY2PKCS8(handle_.get()));
  const int size = info ? i2d_PKCS8_PRIV_KEY_INFO(info.get(), nullptr) : 0;
  if (size <= 0) {
    library_failed();
  }
  Secret secret(static_cast<std::size_t>(size));
  unsigned char* place = secret.bytes().data();
  if (i2d_PKCS8_PRIV_KEY_INFO(info.get(), &place) != size) {
    library_failed();
  }
  return secret;
}

Json SigningKey::document() const {
  Json document = {{"schema_version", 1}, {"kind", key_kind}, {"scheme", scheme_->name}};
  // The text is moved, since a copy would stay behind in memory.
  document["private"] = pem_text([&](BIO* buffer) {
    return PEM_write_bio_PKCS8PrivateKey(buffer, handle_.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
  });
  return document;
}

std::string SigningKey::sign(std::string_view payload) const {
  const bool ml_dsa = scheme_->family == SchemeFamily::ml_dsa;
  const std::vector<std::uint8_t> own = ml_dsa ? ml_dsa_message(payload) : std::vector<std::uint8_t>();
  const std::span<const std::uint8_t> message = ml_dsa ? std::span<const std::uint8_t>(own) : bytes_of(payload);
  const std::unique_ptr<EVP_MD_CTX, ReleaseOpenssl> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* parameters = nullptr;
  std::size_t size = 0;
  const bool ready = context && (!ml_dsa || !own.empty()) &&
                     EVP_DigestSignInit_ex(context.get(), &parameters, scheme_->digest, nullptr, nullptr, handle_.get(),
                                           nullptr) == 1 &&
                     (scheme_->family != SchemeFamily::rsa || use_pss(parameters, scheme_->digest)) &&
                     EVP_DigestSign(context.get(), nullptr, &size, message.data(), message.size()) == 1;
  std::vector<std::uint8_t> signature(size);
  if (!ready || EVP_DigestSign(context.get(), signature.data(), &size, message.data(), message.size()) != 1) {
    library_failed();
  }
  signature.resize(size);
  return hex(signature);
}

Json import_public_key(std::string_view bytes, std::string_view scheme) {
  if (!scheme.empty()) {
    require_scheme(scheme);
  }
  require(bytes.size() <= maximum_text, "invalid_key", "The file holds no public key");
  const std::unique_ptr<EVP_PKEY, ReleaseOpenssl> key(read_public(bytes));
  require(static_cast<bool>(key), "invalid_key", "The file holds no public key in PEM or DER");
  for (const SignatureScheme& one : signature_schemes) {
    if ((scheme.empty() || one.name == scheme) && fits(key.get(), one)) {
      return public_object(one, key.get());
    }
  }
  fail("invalid_key", scheme.empty() ? "The public key is of no kind that clients verify"
                                     : "The public key is not one of the scheme " + std::string(scheme));
}

void require_verifiable(const Json& key) {
  constexpr const char* message = "Clients cannot verify with this public key";
  refuse_malformed("invalid_key", message, [&] {
    const SignatureScheme* const scheme = find_scheme(text_at(key, "scheme"));
    const std::string& text = text_at(key.at("keyval"), "public");
    require(scheme != nullptr && scheme->keytype == text_at(key, "keytype"), "invalid_key", message);
    if (scheme->family == SchemeFamily::ed25519) {
      require(text.size() == 64 && is_hexadecimal(text), "invalid_key", message);
      return;
    }
    const std::unique_ptr<EVP_PKEY, ReleaseOpenssl> read(read_public(text));
    require(read && fits(read.get(), *scheme), "invalid_key", message);
  });
}

std::string key_id(const Json& key) { return digest(canonical_json(key), "sha256"); }

}  // namespace ravok
