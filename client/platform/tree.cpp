#include "platform/tree.hpp"

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "domain/error.hpp"
#include "platform/file_status.hpp"
#include "platform/files.hpp"
#include "platform/managed_paths.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_removed_entries = 250000;

using Iterator = std::filesystem::recursive_directory_iterator;

// The status of what the path names, or nothing when there is nothing of that name.
std::optional<std::filesystem::file_status> existing(const std::filesystem::path& path) {
  std::error_code ignored;
  const auto status = std::filesystem::symlink_status(path, ignored);
  return status.type() == std::filesystem::file_type::not_found ? std::nullopt : std::optional(status);
}

bool is_empty_directory(const std::filesystem::path& path) {
  std::error_code problem;
  return std::filesystem::is_empty(path, problem) && !problem;
}

void remove_entry(const std::filesystem::path& path, std::string_view message) {
  std::error_code problem;
  const bool removed = std::filesystem::remove(path, problem);
  require(removed && !problem, "file_remove", message);
}

std::filesystem::path parent_of(const std::filesystem::path& path) {
  const std::filesystem::path trimmed = path.has_filename() ? path : path.parent_path();
  return trimmed.has_parent_path() ? trimmed.parent_path() : std::filesystem::path(".");
}

std::ptrdiff_t depth_of(const std::filesystem::path& path) { return std::distance(path.begin(), path.end()); }

// The directories, relative to the root, that hold the files, the deepest first.
std::vector<std::filesystem::path> deepest_first(const std::set<std::filesystem::path>& directories) {
  std::vector<std::filesystem::path> sorted(directories.begin(), directories.end());
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto& a, const auto& b) { return depth_of(a) > depth_of(b); });
  return sorted;
}

void retire_file(const std::filesystem::path& file) {
  const auto status = existing(file);
  if (!status) {
    return;
  }
  require(std::filesystem::is_regular_file(*status), "unsafe_path", "Changed managed paths were preserved");
  remove_entry(file, "Cannot remove a declared managed file");
}

void retire_directory(const std::filesystem::path& directory) {
  const auto status = existing(directory);
  if (!status) {
    return;
  }
  require(std::filesystem::is_directory(*status), "unsafe_path", "Changed managed directory was preserved");
  if (is_empty_directory(directory)) {
    remove_entry(directory, "Cannot retire empty managed directory");
  }
}

}  // namespace

std::uint64_t tree_bytes(const std::filesystem::path& path, std::size_t max_entries) {
  const auto root = existing(path);
  require(root && std::filesystem::is_directory(*root), "unsafe_path", "Expected a plain directory");
  std::uint64_t total = 0;
  std::size_t entries = 0;
  std::error_code problem;
  for (Iterator entry(path, problem); !problem && entry != Iterator(); entry.increment(problem)) {
    require(++entries <= max_entries, "size_limit", "Directory entry count exceeds bounds");
    const auto status = link_status_of(entry->path());
    require(status && (is_directory(*status) || S_ISREG(status->st_mode)), "unsafe_path",
            "Tree contains a link or special file");
    if (S_ISREG(status->st_mode)) {
      const auto size = static_cast<std::uint64_t>(status->st_size);
      require(size <= std::numeric_limits<std::uint64_t>::max() - total, "size_limit", "Tree size overflowed");
      total += size;
    }
  }
  require(!problem, "tree_read", "Cannot read a directory of the tree");
  return total;
}

void remove_plain_tree(const std::filesystem::path& path) {
  const auto status = existing(path);
  if (!status) {
    return;
  }
  require(std::filesystem::is_directory(*status), "unsafe_path", "Tree cleanup requires an ordinary directory");
  tree_bytes(path, maximum_removed_entries);
  std::filesystem::remove_all(path);
  sync_directory(parent_of(path));
}

bool remove_path_quietly(const std::filesystem::path& path) {
  std::error_code problem;
  std::filesystem::remove_all(path, problem);
  return !problem;
}

void validate_snapshot_retirement(const SnapshotManifest& manifest, const std::filesystem::path& root) {
  const auto status = existing(root);
  if (!status) {
    return;
  }
  require(std::filesystem::is_directory(*status), "unsafe_path",
          "Managed snapshot retirement requires an ordinary directory");
  for (const auto& [path, file] : manifest.files) {
    const auto managed = existing(safe_join(root, path, true));
    require(!managed || std::filesystem::is_regular_file(*managed), "unsafe_path",
            "A managed snapshot path became a link or special file; it was preserved");
  }
}

void retire_snapshot_files(const SnapshotManifest& manifest, const std::filesystem::path& root,
                           const std::function<void()>& hook) {
  validate_snapshot_retirement(manifest, root);
  if (!existing(root)) {
    return;
  }
  std::set<std::filesystem::path> relative_parents;
  for (const auto& [path, file] : manifest.files) {
    if (hook) {
      hook();
    }
    retire_file(safe_join(root, path, true));
    for (std::filesystem::path parent = std::filesystem::path(path).parent_path();
         !parent.empty() && relative_parents.insert(parent).second;) {
      parent = parent.parent_path();
    }
  }
  std::vector<std::filesystem::path> touched = {root};
  for (const std::filesystem::path& relative : deepest_first(relative_parents)) {
    touched.push_back(root / relative);
    retire_directory(touched.back());
  }
  if (is_empty_directory(root)) {
    remove_entry(root, "Cannot retire empty snapshot directory");
    touched.push_back(parent_of(root));
  }
  for (const std::filesystem::path& directory : touched) {
    if (existing(directory)) {
      sync_directory(directory);
    }
  }
}

}  // namespace ravok
