#include "publisher/repository/upload_list.hpp"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <set>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "publisher/repository/repository_files.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t list_limit = std::uint64_t{1} << 30;
constexpr const char* metadata_prefix = "tuf/metadata/";
constexpr const char* targets_prefix = "tuf/targets/";

// Returns the text of the list, empty where there is none; nothing for a list that is lost.
std::optional<std::string> read_list(const std::filesystem::path& file) {
  if (is_missing(file)) {
    return "";
  }
  try {
    std::string text = read_file(file, list_limit);
    // No list is ever written without a line.
    if (text.ends_with('\n')) {
      return text;
    }
  } catch (const Error&) {
    // Whatever the reason is, nobody knows any more what the list has named.
  }
  return {};
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

std::set<std::string> named_by(const std::optional<std::string>& list) {
  const std::vector<std::string> lines = lines_of(list.value_or(""));
  return {lines.begin(), lines.end()};
}

// All that a client may ask for in one of the states, in the order of the list.
std::vector<std::string> needed_files(std::initializer_list<const RepositoryState*> states) {
  std::vector<std::string> files;
  std::set<std::string> seen;
  const auto add = [&](const std::string& file) {
    if (seen.insert(file).second) {
      files.push_back(file);
    }
  };
  for (const RepositoryState* const state : states) {
    const Json targets = state->targets();
    for (const auto& [path, target] : targets.items()) {
      add(uploaded_target(path, text_at(target.at("hashes"), "sha256")));
    }
  }
  for (const RepositoryState* const state : states) {
    for (const auto& [version, text] : state->roots) {
      add(uploaded_document(role_file("root", version)));
    }
  }
  for (const char* const role : {"targets", "snapshot", "timestamp"}) {
    for (const RepositoryState* const state : states) {
      if (state->role(role).exists()) {
        add(uploaded_document(state->role(role).file));
      }
    }
  }
  return files;
}

// Returns the lines for those of the needed files that a list names; all of them for a list that is lost.
std::string list_of(const std::vector<std::string>& needed, const std::set<std::string>& named, bool is_lost) {
  std::string text;
  for (const std::string& file : needed) {
    if (is_lost || named.contains(file)) {
      text += file + "\n";
    }
  }
  return text;
}

}  // namespace

std::string uploaded_document(const std::string& file) { return metadata_prefix + file; }

std::string uploaded_target(const std::string& path, const std::string& sha256) {
  return targets_prefix + path_utf8(target_file(path, sha256));
}

std::vector<std::string> upload_lines(const std::filesystem::path& list) {
  return lines_of(read_list(list).value_or(""));
}

void add_to_upload_list(const RepositoryFolder& folder, const std::vector<std::string>& files,
                        const RepositoryState& present, const RepositoryState& next) {
  const std::optional<std::string> former = read_list(folder.upload_list());
  std::set<std::string> named = named_by(former);
  named.insert(files.begin(), files.end());
  replace_file(folder.path(), folder.upload_list(), list_of(needed_files({&present, &next}), named, !former));
}

void tidy_upload_list(const RepositoryFolder& folder, const RepositoryState& state) {
  const std::optional<std::string> former = read_list(folder.upload_list());
  const std::string text = list_of(needed_files({&state}), named_by(former), !former);
  if (text.empty()) {
    remove_file(folder.upload_list());
  } else if (text != former) {
    replace_file(folder.path(), folder.upload_list(), text);
  }
}

}  // namespace ravok
