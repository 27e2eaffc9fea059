// The identity of a directory, by which it is recognised under any name.
#pragma once

#include <cstdint>
#include <filesystem>

namespace ravok {

// No other directory has the same identity while this one exists.
struct DirectoryIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;

  bool operator==(const DirectoryIdentity&) const = default;
};

// Returns the identity of a directory, which must not be a link. Fails with "unsafe_path".
DirectoryIdentity inspect_storage_directory(const std::filesystem::path& path);

}  // namespace ravok
