// A repository's first root document: which keys speak for which role, signed by its own root keys.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "publisher/signing/signer.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

// The keys of a role, as public or private key files, and how many of them must sign.
struct RolePublication {
  std::vector<std::filesystem::path> keys;
  std::uint64_t threshold = 1;
};

struct RootPublication {
  std::filesystem::path output;  // the document, which must not exist yet
  std::string expires;           // such as "2030-01-31T00:00:00Z", in the future
  RolePublication root;          // with its private keys or signers, as many as its threshold, at least
  RolePublication timestamp;
  RolePublication snapshot;
  RolePublication targets;
  SignerOptions signing = {};  // who signs besides the private keys of the role root, and what opens those
};

struct PublishedRoot {
  std::filesystem::path file;
  std::uint64_t signatures = 0;
};

// Writes version 1 of the root document, signed by every private key of the root role and by the signers, and reads it
// back as the client does. After a failure nothing is left behind. Fails with "output_exists", "invalid_threshold",
// "invalid_key" for a role without keys or a key that it names twice, "wrong_key" for a signer whose key is none of the
// role root, "signature_threshold", "invalid_expiry", "expired_metadata"; as open_signers and the signers do;
// "insufficient_space", "file_write" and "file_sync"; and as shape and verify_threshold do.
PublishedRoot publish_root(const RootPublication& publication);

// Accepts only a publication of which nothing that can be judged without its key files is refused. Fails with
// "invalid_expiry", "expired_metadata", and with "invalid_key" and "invalid_threshold" for a role.
void require_options(const RootPublication& publication);

// Accepts only a root document that is signed by its own keys and has not expired. Fails with "expired_metadata", and
// as parse_json, shape and verify_threshold do ("invalid_json", "invalid_metadata", "signature_threshold").
void require_first_root(const std::string& text);

// Returns the time from which on a root document has expired. Fails as parse_json and shape do.
TufTime root_expiry(std::string_view text);

}  // namespace ravok
