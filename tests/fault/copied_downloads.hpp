// Unfinished downloads in a copy of a data folder. Their records know the partial files by number, which another file
// has in a copy.
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include <sys/stat.h>

#include "support/bytes_of.hpp"

namespace ravok::testing {

// Gives the records below a folder, torn ones too, the numbers of the files that lie beside them.
inline void adopt_downloads(const std::filesystem::path& folder) {
  static const std::regex identity("\"identity\":\\[[0-9]+,[0-9]+\\]");
  static const std::regex torn_identity("\"identity\":\\[[0-9]*,?[0-9]*$");
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    const std::size_t ending = name.find(".resume.json");
    const std::filesystem::path partial = entry.path().parent_path() / name.substr(0, ending);
    struct stat status {};
    if (ending == std::string::npos || stat(partial.c_str(), &status) != 0) {
      continue;
    }
    const std::string start = "\"identity\":[";
    const std::string numbers = std::to_string(status.st_dev) + "," + std::to_string(status.st_ino) + "]";
    std::string text = std::regex_replace(bytes_of(entry.path()), identity, start + numbers);
    text = std::regex_replace(text, torn_identity, start);
    std::ofstream(entry.path(), std::ios::binary) << text;
  }
}

}  // namespace ravok::testing
