// Bytes in memory that a library which reads only files can open by a path.
#pragma once

#include <filesystem>
#include <string_view>

#include "platform/file/handle.hpp"

namespace ravok {

// To be used where the system has such files; that is Linux.
class MemoryFile {
 public:
  // Fails with "file_write" when the system has no room for the bytes.
  explicit MemoryFile(std::string_view bytes);

  // A path at which this process finds the bytes, and nobody can change them, for as long as the object lives.
  std::filesystem::path path() const;

 private:
  Handle file_;
};

}  // namespace ravok
