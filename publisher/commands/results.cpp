#include "publisher/commands/results.hpp"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "domain/display_text.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_entries = 65'536;  // of a package that has been proved

}  // namespace

std::string json_text(const std::string& text) { return is_utf8(text) ? text : shown_text(text); }

Json described_file(const std::filesystem::path& path) {
  return {{"path", json_text(path_utf8(path))},
          {"length", std::filesystem::file_size(path)},
          {"sha256", digest_file(path, "sha256")}};
}

Json described_folder(const std::filesystem::path& path) {
  std::vector<std::string> names = names_in(path, maximum_entries);
  std::sort(names.begin(), names.end());
  Json files = Json::array();
  for (const std::string& name : names) {
    Json file = described_file(path / path_from_utf8(name));
    file.erase("path");
    file["name"] = json_text(name);
    files.push_back(std::move(file));
  }
  return {{"path", json_text(path_utf8(path))}, {"files", std::move(files)}};
}

}  // namespace ravok
