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
  // Puts the first root document, byte for byte, into a trusted directory that has none. The document must
  // be signed by its own keys; its expiry is the caller's to judge. Fails with "already_initialized", and
  // as FileLock, parse_json, shape, verify_threshold and atomic_write do; then nothing is written but the
  // lock file.
  static void initialize(const std::filesystem::path& directory, std::string_view root_text);
};

}  // namespace ravok
