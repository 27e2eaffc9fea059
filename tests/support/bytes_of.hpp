// The content of a file.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

namespace ravok::testing {

// Whatever is there to be read, even while another process writes the file or removes it; nothing where no file is.
inline std::string bytes_of(const std::filesystem::path& path) {
  std::ostringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  return std::move(bytes).str();
}

}  // namespace ravok::testing
