// A publisher's key files: a private one that only its owner may read, and beside it a public one.
#pragma once

#include <filesystem>
#include <string>

#include "domain/json.hpp"
#include "publisher/signing_key.hpp"

namespace ravok {

struct PublishedKey {
  std::filesystem::path private_file;
  std::filesystem::path public_file;
  std::string id;
};

// Makes a key of a scheme and writes it to `path`, with mode 0600, and its public part to `path` with ".pub"
// behind it; neither may exist. What was written is read back. After a failure nothing is left behind. Fails
// with "unknown_scheme", "output_exists", "crypto_failure", and as atomic_create and the readers below do.
PublishedKey publish_key(const std::filesystem::path& path, std::string_view scheme);

// Returns the private key of a file. Fails with "permissions" for a file that others may read, "invalid_key",
// and as read_file and parse_json do; each message begins with the file's path.
SigningKey read_signing_key(const std::filesystem::path& path);

// Returns the public key object of a public or a private key file. Fails with "invalid_key", and as
// read_signing_key does.
Json read_public_key(const std::filesystem::path& path);

// Whether a file says of itself that it holds a private key. Fails as read_public_key does.
bool holds_private_key(const std::filesystem::path& path);

}  // namespace ravok
