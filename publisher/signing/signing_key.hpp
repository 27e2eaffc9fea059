// A publisher's private key: made, kept as a document, and used to sign what clients verify.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "domain/json.hpp"
#include "publisher/signing/secret.hpp"

struct evp_pkey_st;

namespace ravok {

struct SignatureScheme;

class SigningKey {
 public:
  // Makes a new key of one of the ten schemes, by its name; RSA keys have 3072 bits. Fails with
  // "unknown_scheme" or "crypto_failure".
  static SigningKey generate(std::string_view scheme);

  // Returns the key of a document that document() has made. Fails with "invalid_key".
  static SigningKey parse(const Json& document);

  // Returns the key of a scheme out of what private_bytes() has made. Fails with "invalid_key".
  static SigningKey from_private_bytes(std::string_view scheme, std::span<const std::uint8_t> bytes);

  ~SigningKey();
  SigningKey(SigningKey&&) noexcept;
  SigningKey& operator=(SigningKey&&) noexcept;
  SigningKey(const SigningKey&) = delete;
  SigningKey& operator=(const SigningKey&) = delete;

  // Returns the private key as a document, which nobody but its owner may read. Fails with "crypto_failure".
  Json document() const;

  // Returns the private key in the encoding that the cryptographic library reads. Fails with "crypto_failure".
  Secret private_bytes() const;

  // The public key object as role documents hold it, and its identifier.
  const Json& key() const { return key_; }
  const std::string& id() const { return id_; }

  // Returns the signature of the payload as lower-case hexadecimal. Fails with "crypto_failure".
  std::string sign(std::string_view payload) const;

 private:
  struct Release {
    void operator()(evp_pkey_st* key) const;
  };
  using Handle = std::unique_ptr<evp_pkey_st, Release>;
  SigningKey(const SignatureScheme& scheme, Handle handle);

  const SignatureScheme* scheme_;
  Handle handle_;
  Json key_;
  std::string id_;
};

// Overwrites the private key in the document of a key, if it has one.
void wipe_private(Json& document);

// Accepts only the name of one of the ten schemes. Fails with "unknown_scheme".
void require_scheme(std::string_view scheme);

// Returns the public key object of a public key in PEM or DER, as the subject's public key info of a certificate holds
// it. The scheme is found by the kind of the key unless it is named; for an RSA key it is then "rsassa-pss-sha256".
// Fails with "unknown_scheme", and with "invalid_key" for bytes that are no such key and for a key that does not fit
// the scheme.
Json import_public_key(std::string_view bytes, std::string_view scheme);

// Accepts only a public key object that clients can verify with: of a scheme that they know, and with a key that fits
// it. Fails with "invalid_key".
void require_verifiable(const Json& key);

// Returns the identifier of a public key object: the digest of its canonical form. Fails with
// "invalid_number".
std::string key_id(const Json& key);

}  // namespace ravok
