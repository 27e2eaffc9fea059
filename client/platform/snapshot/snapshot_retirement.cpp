#include "platform/snapshot/snapshot_retirement.hpp"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <unistd.h>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_status.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {
namespace {

std::vector<std::string_view> deepest_first(const std::set<std::string_view>& directories) {
  const auto depth = [](std::string_view path) { return std::count(path.begin(), path.end(), '/'); };
  std::vector<std::string_view> sorted(directories.begin(), directories.end());
  std::stable_sort(sorted.begin(), sorted.end(), [&](auto a, auto b) { return depth(a) > depth(b); });
  return sorted;
}

// A snapshot's tree of which the files are taken away that its manifest names. Everything happens in
// directories that are held open, whatever becomes of their paths.
class Retirement {
 public:
  Retirement(const std::filesystem::path& root, Descriptor directory)
      : root_(root), identity_(status_of(directory.get())), paths_(std::move(directory)) {}

  void remove_file(const std::string& path) {
    const int parent = open_parent(path);
    if (parent < 0) {
      return;
    }
    const char* const name = name_in(path);
    const auto status = link_status_at(parent, name);
    if (!status) {
      require(errno == ENOENT, "file_remove", "Cannot remove a declared managed file");
      return;
    }
    if (!S_ISREG(status->st_mode)) {
      // The joining names a link as what it is.
      safe_join(root_, path, true);
      fail("unsafe_path", "Changed managed paths were preserved");
    }
    require(unlinkat(parent, name, 0) == 0, "file_remove", "Cannot remove a declared managed file");
  }

  // Removes a directory that holds nothing any more, and flushes one that still holds something.
  void remove_directory(const std::string& path) {
    const int parent = open_parent(path);
    if (parent < 0) {
      return;
    }
    const char* const name = name_in(path);
    const auto status = link_status_at(parent, name);
    if (!status) {
      require(errno == ENOENT, "file_remove", "Cannot retire empty managed directory");
      return;
    }
    require(is_directory(*status), "unsafe_path", "Changed managed directory was preserved");
    if (unlinkat(parent, name, AT_REMOVEDIR) != 0) {
      require(errno == ENOTEMPTY || errno == EEXIST, "file_remove", "Cannot retire empty managed directory");
      flush(paths_.open(path, posix_files::walk_flags));
    }
  }

  // Removes the root where it holds nothing any more, and flushes what is left: it, or the directory that
  // held it.
  void finish() {
    flush(paths_.open(".", posix_files::walk_flags));
    const auto named = link_status_of(root_);
    require(named && identity_ && same_file(*named, *identity_), "unsafe_path",
            "Changed managed directory was preserved");
    if (rmdir(root_.c_str()) == 0) {
      sync_directory(folder_of(root_));
      return;
    }
    require(errno == ENOTEMPTY || errno == EEXIST, "file_remove", "Cannot retire empty snapshot directory");
  }

 private:
  static const char* name_in(const std::string& path) {
    const std::size_t separator = path.rfind('/');
    return path.c_str() + (separator == std::string::npos ? 0 : separator + 1);
  }

  // The open directory of a path, or -1 where it is missing. Fails for a link on the way.
  int open_parent(const std::string& path) {
    const int parent = paths_.parent_of(path);
    if (parent < 0) {
      const int problem = errno;
      require_descriptors(problem);
      safe_join(root_, path, true);
      require(problem == ENOENT || problem == ENOTDIR, "unsafe_path", "Changed managed paths were preserved");
    }
    return parent;
  }

  static void flush(const Descriptor& directory) {
    require_descriptors(directory ? 0 : errno);
    require(directory && posix_files::sync(directory.get()) == 0, "file_sync",
            "Could not durably synchronize directory");
  }

  const std::filesystem::path& root_;
  std::optional<FileStatus> identity_;
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
    require(found ? S_ISREG(found->st_mode) : is_missing(managed), "unsafe_path",
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
  Descriptor directory = open_tree(tree);
  require(static_cast<bool>(directory), "unsafe_path", "Managed snapshot retirement requires an ordinary directory");
  Retirement retirement(tree, std::move(directory));
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
