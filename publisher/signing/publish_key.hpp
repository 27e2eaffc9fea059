// A publisher's key files: a private one that only its owner may read, and beside it a public one.
#pragma once

#include <filesystem>
#include <string>

#include "domain/json.hpp"
#include "publisher/signing/key_encryption.hpp"
#include "publisher/signing/passphrase.hpp"
#include "publisher/signing/signing_key.hpp"

namespace ravok {

struct PublishedKey {
  std::filesystem::path private_file;
  std::filesystem::path public_file;
  std::string id;
};

// Makes a key of a scheme and writes it to `path`, with mode 0600, and its public part to the same path with ".pub"
// appended; neither may exist. Reads back what it wrote. After a failure nothing is left behind. Fails with
// "unknown_scheme", "output_exists", "crypto_failure", "insufficient_space", "file_write" and "file_sync", and as the
// readers below do.
PublishedKey publish_key(const std::filesystem::path& path, std::string_view scheme);

// The same for a key that a passphrase encrypts. Fails with "passphrase_needed", "invalid_passphrase",
// "passphrase_mismatch" and as the function above does.
PublishedKey publish_encrypted_key(const std::filesystem::path& path, std::string_view scheme,
                                   const PassphraseSource& passphrase, const KeyDerivation& derivation = {});

// Writes the public key of another program, such as a token's, to `path` with ".pub" appended, which may not exist: the
// key of a file in PEM or DER, of a scheme or of the one that its kind has. There is no private file then. Fails as
// import_public_key, read_file and publish_key do.
PublishedKey import_key(const std::filesystem::path& path, const std::filesystem::path& source,
                        std::string_view scheme);

// Returns the private key of a file, which the passphrase opens if it is encrypted. Fails with "permissions" for a file
// that others may read, "invalid_key" for one that holds none, and as known_passphrase, decrypt_key, read_file and
// parse_json do ("passphrase_needed", "wrong_passphrase", "file_read", "unsafe_path", "invalid_json"); each message
// begins with the file's path.
SigningKey read_signing_key(const std::filesystem::path& path, const PassphraseSource& passphrase = {});

// Returns the public key object of a public or a private key file. Fails with "invalid_key", with "invalid_metadata" or
// "size_limit" for a public key that clients would refuse, and as read_signing_key does for a private one.
Json read_public_key(const std::filesystem::path& path);

// Whether a file says of itself that it holds a private key. Fails as read_file and parse_json do.
bool holds_private_key(const std::filesystem::path& path);

}  // namespace ravok
