#include "publisher/repository/upload_list.hpp"

#include <algorithm>
#include <cstdint>
#include <set>
#include <tuple>

#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "publisher/repository/repository_files.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t list_limit = std::uint64_t{1} << 30;
constexpr const char* metadata_prefix = "tuf/metadata/";
constexpr const char* targets_prefix = "tuf/targets/";

std::set<std::string> listed(const std::filesystem::path& file) {
  std::set<std::string> lines;
  if (is_missing(file)) {
    return lines;
  }
  const std::string text = read_file(file, list_limit);
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    lines.insert(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

// All that a client may ask for, in the order of the list.
std::vector<std::string> needed_files(const RepositoryState& state) {
  std::vector<std::string> files;
  const Json targets = state.targets();
  for (const auto& [path, target] : targets.items()) {
    files.push_back(uploaded_target(path, text_at(target.at("hashes"), "sha256")));
  }
  for (const auto& [version, text] : state.roots) {
    files.push_back(uploaded_document(role_file("root", version)));
  }
  for (const char* const role : {"targets", "snapshot", "timestamp"}) {
    if (state.role(role).exists()) {
      files.push_back(uploaded_document(state.role(role).file));
    }
  }
  return files;
}

}  // namespace

std::string uploaded_document(const std::string& file) { return metadata_prefix + file; }

std::string uploaded_target(const std::string& path, const std::string& sha256) {
  return targets_prefix + path_utf8(target_file(path, sha256));
}

void add_to_upload_list(const RepositoryFolder& folder, const std::vector<std::string>& files) {
  add_to_upload_list(folder, files, folder.state());
}

void add_to_upload_list(const RepositoryFolder& folder, const std::vector<std::string>& files,
                        const RepositoryState& state) {
  std::set<std::string> wanted = listed(folder.upload_list());
  wanted.insert(files.begin(), files.end());
  std::string text;
  for (const std::string& file : needed_files(state)) {
    if (wanted.erase(file) > 0) {
      text += file + "\n";
    }
  }
  replace_file(folder.path(), folder.upload_list(), text);
}

}  // namespace ravok
