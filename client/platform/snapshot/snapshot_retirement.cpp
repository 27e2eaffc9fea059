#include "platform/snapshot/snapshot_retirement.hpp"

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {
namespace {

std::vector<std::string_view> deepest_first(const std::set<std::string_view>& directories) {
  const auto depth = [](std::string_view path) { return std::count(path.begin(), path.end(), '/'); };
  std::vector<std::string_view> sorted(directories.begin(), directories.end());
  std::stable_sort(sorted.begin(), sorted.end(), [&](auto a, auto b) { return depth(a) > depth(b); });
  return sorted;
}

// The retirement of one snapshot. Everything happens in open directories, even if their paths lead elsewhere
// later.
class Retirement {
 public:
  Retirement(const std::filesystem::path& root, Handle directory)
      : root_(root), identity_(status_of(directory.get())), paths_(std::move(directory)) {}

  void remove_file(const std::string& path) {
    constexpr const char* failed = "Cannot remove a declared managed file";
    const std::optional<Found> found = find(path, failed);
    if (!found) {
      return;
    }
    if (!is_file(found->status)) {
      // For a link, this fails with a message of its own.
      safe_join(root_, path, true);
      fail("unsafe_path", "Changed managed paths were preserved");
    }
    require(!os::remove_at(found->parent, found->name), "file_remove", failed);
  }

  // Removes an empty directory; flushes any other.
  void remove_directory(const std::string& path) {
    constexpr const char* failed = "Cannot retire empty managed directory";
    const std::optional<Found> found = find(path, failed);
    if (!found) {
      return;
    }
    require(is_directory(found->status), "unsafe_path", "Changed managed directory was preserved");
    if (const Problem problem = os::remove_directory_at(found->parent, found->name)) {
      require(is_not_empty(problem), "file_remove", failed);
      flush(paths_.open(path, os::OpenAs::directory));
    }
  }

  // Removes an empty root and flushes the directory above; flushes a root that still holds something.
  void finish() {
    flush(paths_.open(".", os::OpenAs::directory));
    const auto named = link_status_of(root_);
    require(named && identity_ && same_file(*named, *identity_), "unsafe_path",
            "Changed managed directory was preserved");
    const Problem problem = os::remove_directory(root_);
    if (!problem) {
      sync_directory(folder_of(root_));
      return;
    }
    require(is_not_empty(problem), "file_remove", "Cannot retire empty snapshot directory");
  }

 private:
  // An entry of the tree, by its name in an open directory.
  struct Found {
    int parent;
    const char* name;
    Status status;
  };

  // Finds what a path names; none where nothing does. Fails with "file_remove" and this message when that cannot be
  // told, and for a link on the way.
  std::optional<Found> find(const std::string& path, std::string_view failed) {
    const std::optional<int> parent = find_parent(path);
    if (!parent) {
      return std::nullopt;
    }
    const char* const name = name_in(path);
    const Result<Status> status = link_status_at(*parent, name);
    if (!status) {
      require(status.problem() == Cause::missing, "file_remove", failed);
      return std::nullopt;
    }
    return Found{*parent, name, *status};
  }

  static const char* name_in(const std::string& path) {
    const std::size_t separator = path.rfind('/');
    return path.c_str() + (separator == std::string::npos ? 0 : separator + 1);
  }

  // The open directory of a path, or none where it is missing. Fails for a link on the way.
  std::optional<int> find_parent(const std::string& path) {
    const Result<int> parent = paths_.parent_of(path);
    if (parent) {
      return *parent;
    }
    const Problem& problem = parent.problem();
    require_handles(problem);
    safe_join(root_, path, true);
    require(problem == Cause::missing || problem == Cause::not_a_directory, "unsafe_path",
            "Changed managed paths were preserved");
    return std::nullopt;
  }

  static void flush(const Result<Handle>& directory) {
    require_handles(directory.problem());
    require(directory && !os::flush(directory->get()), "file_sync", "Could not durably synchronize directory");
  }

  const std::filesystem::path& root_;
  Result<Status> identity_;
  TreePaths paths_;
};

}  // namespace

void validate_snapshot_retirement(const SnapshotManifest& manifest, const std::filesystem::path& root) {
  const std::filesystem::path tree = without_end_separator(root);
  if (is_missing(tree)) {
    return;
  }
  const auto status = link_status_of(tree);
  require(status && is_directory(*status), "unsafe_path", "Managed snapshot retirement requires an ordinary directory");
  for (const auto& [path, file] : manifest.files) {
    const std::filesystem::path managed = safe_join(tree, path, true);
    const auto found = link_status_of(managed);
    require(found ? is_file(*found) : is_missing(managed), "unsafe_path",
            "A managed snapshot path became a link or special file; it was preserved");
  }
}

void retire_snapshot_files(const SnapshotManifest& manifest, const std::filesystem::path& root,
                           const std::function<void()>& hook) {
  const std::filesystem::path tree = without_end_separator(root);
  validate_snapshot_retirement(manifest, tree);
  if (is_missing(tree)) {
    return;
  }
  Result<Handle> directory = open_tree(tree);
  require(directory.has_value(), "unsafe_path", "Managed snapshot retirement requires an ordinary directory");
  Retirement retirement(tree, *std::move(directory));
  for (const auto& [path, file] : manifest.files) {
    if (hook) {
      hook();
    }
    retirement.remove_file(path);
  }
  for (const std::string_view managed : deepest_first(manifest.directories())) {
    retirement.remove_directory(std::string(managed));
  }
  retirement.finish();
}

}  // namespace ravok
