#include "publisher/repository/served_files.hpp"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/repository_layout.hpp"
#include "platform/file/status.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {
namespace {

constexpr const char* served_folder_name = "public";
constexpr const char* repository_folder = "tuf";

// Returns what follows a folder in a path; nothing for a path that is not below it.
std::optional<std::string_view> below(std::string_view folder, std::string_view path) {
  if (path.size() <= folder.size() + 1 || !path.starts_with(folder) || path[folder.size()] != '/') {
    return std::nullopt;
  }
  return path.substr(folder.size() + 1);
}

enum class Use { asked_for, superseded, unreached_root, none };

Use use_of_metadata(std::string_view name, const RepositoryWalk& walk) {
  if (walk.files.contains(std::string(name))) {
    return Use::asked_for;
  }
  if (const std::optional<std::uint64_t> version = version_in(name, "root")) {
    return *version < walk.first_root ? Use::asked_for : Use::unreached_root;
  }
  const bool is_older = std::ranges::any_of(walk.roles, [&](const WalkedRole& role) {
    const std::optional<std::uint64_t> version = version_in(name, role.name);
    return version && *version < role.version;
  });
  return is_older ? Use::superseded : Use::none;
}

}  // namespace

std::optional<std::uint64_t> version_in(std::string_view file, std::string_view role) {
  std::uint64_t version = 0;
  const auto [end, problem] = std::from_chars(file.data(), file.data() + file.size(), version);
  const std::string_view rest = file.substr(static_cast<std::size_t>(end - file.data()));
  if (problem != std::errc() || file.front() == '0' || rest != "." + std::string(role) + ".json") {
    return std::nullopt;
  }
  return version;
}

ServedFiles list_served_files(const std::filesystem::path& served, const RepositoryWalk& walk,
                              const std::set<std::string>& targets) {
  const bool is_published = served.filename() == served_folder_name;
  const std::string start = is_published ? "" : std::string(repository_folder) + "/";
  ServedFiles found;
  std::size_t entries = 0;
  walk_tree(open_tree(is_published ? served : served / repository_folder), [&](const TreeEntry& entry) {
    require(++entries <= maximum_tree_entries, "size_limit", "The folder has too many entries");
    if (entry.type == EntryType::directory) {
      return;
    }
    const std::string path = start + std::string(entry.path);
    const Result<Status> status = link_status_at(entry.directory, entry.name);
    ServedFile file{path, status && is_file(*status) ? status->size : 0};
    Use use = Use::none;
    if (const auto name = below(repository_metadata_folder, path)) {
      use = use_of_metadata(*name, walk);
    } else if (const auto target = below(repository_targets_folder, path)) {
      use = targets.contains(std::string(*target)) ? Use::asked_for : Use::none;
    }
    switch (use) {
      case Use::asked_for:
        break;
      case Use::superseded:
        found.superseded.push_back(std::move(file));
        break;
      case Use::unreached_root:
        found.problems.push_back({"unreached_root",
                                  "No client gets to this root: from version " + std::to_string(walk.newest_root) +
                                      " on it asks for version " + std::to_string(walk.newest_root + 1) +
                                      ", which is not there",
                                  "root", path});
        break;
      case Use::none:
        found.surplus.push_back(std::move(file));
        break;
    }
  });
  std::ranges::sort(found.superseded, {}, &ServedFile::path);
  std::ranges::sort(found.surplus, {}, &ServedFile::path);
  return found;
}

}  // namespace ravok
