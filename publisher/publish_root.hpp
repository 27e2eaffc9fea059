// A repository's first root document: which keys speak for which role, signed by its own root keys.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace ravok {

// The keys of a role, as public or private key files, and how many of them must sign.
struct RolePublication {
  std::vector<std::filesystem::path> keys;
  std::uint64_t threshold = 1;
};

struct RootPublication {
  std::filesystem::path output;  // the document, which must not exist yet
  std::string expires;           // such as "2030-01-31T00:00:00Z", in the future
  RolePublication root;          // as many private keys as its threshold, at least
  RolePublication timestamp;
  RolePublication snapshot;
  RolePublication targets;
};

struct PublishedRoot {
  std::filesystem::path file;
  std::uint64_t signatures = 0;
};

// Writes version 1 of the root document, signed by every private key of the root role, and reads it back as the client
// does. After a failure nothing is left behind. Fails with "output_exists", "invalid_threshold", "invalid_key" for a
// role without keys or a key that it names twice, "signature_threshold", "invalid_expiry", "expired_metadata";
// "permissions" and the other codes of the readers of key files; "insufficient_space", "file_write" and "file_sync";
// and as shape and verify_threshold do.
PublishedRoot publish_root(const RootPublication& publication);

// Accepts only a publication of which nothing that can be judged without its key files is refused. Fails with
// "invalid_expiry", "expired_metadata", and with "invalid_key" and "invalid_threshold" for a role.
void require_options(const RootPublication& publication);

// Accepts only a root document that is signed by its own keys and has not expired. Fails with "expired_metadata", and
// as parse_json, shape and verify_threshold do ("invalid_json", "invalid_metadata", "signature_threshold").
void require_first_root(const std::string& text);

}  // namespace ravok
