// Which directory it is, whatever its name.
#pragma once

#include <cstdint>
#include <filesystem>

namespace ravok {

// What tells a directory from every other while it exists.
struct DirectoryIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;

  bool operator==(const DirectoryIdentity&) const = default;
};

// Returns the identity of a directory, which must not be a link. Fails with "unsafe_path".
DirectoryIdentity inspect_storage_directory(const std::filesystem::path& path);

}  // namespace ravok
