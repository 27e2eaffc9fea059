// Paths as the documents of setup show them.
#pragma once

#include <filesystem>
#include <vector>

#include "domain/json.hpp"
#include "domain/paths.hpp"

namespace ravok {

// Returns an array of the paths' texts, in their order.
inline Json paths_json(const std::vector<std::filesystem::path>& paths) {
  Json array = Json::array();
  for (const std::filesystem::path& path : paths) {
    array.push_back(path_utf8(path));
  }
  return array;
}

}  // namespace ravok
