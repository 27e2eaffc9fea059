// The client of a signed repository: the state that it trusts lies in one directory, which begins with a
// root document that the caller obtained out of band.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string_view>

namespace ravok {

// The most bytes of a root document.
inline constexpr std::size_t tuf_root_limit = 524'288;

class TufClient {
 public:
  // Puts the first root document, byte for byte, into a trusted directory that has none. The document must be signed by
  // its own keys; the caller judges whether it has expired. Fails with "already_initialized"; with "lock_failed",
  // "unsafe_path" or "permissions" for a directory or a lock that is not private; as parse_json, shape and
  // verify_threshold do ("invalid_json", "invalid_metadata", "signature_threshold"); and with "insufficient_space",
  // "file_write" or "file_sync" as atomic_write does. After a failure other than "file_sync", nothing but the lock file
  // was written.
  static void initialize(const std::filesystem::path& directory, std::string_view root_text);
};

}  // namespace ravok
