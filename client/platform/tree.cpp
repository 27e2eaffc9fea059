#include "platform/tree.hpp"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file_status.hpp"
#include "platform/files.hpp"
#include "platform/managed_paths.hpp"
#include "platform/posix_files.hpp"
#include "platform/tree_removal.hpp"
#include "platform/tree_walk.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_removed_entries = 250000;

std::filesystem::path parent_of(const std::filesystem::path& path) {
  return path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
}

// Removes what a path names, with all that it holds. Returns 0, or the native error number of the first failure.
int remove_named(const std::filesystem::path& path) {
  const Descriptor parent(
      retry_interrupted([&] { return open(parent_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!parent) {
    return errno == ENOENT || errno == ENOTDIR ? 0 : errno;
  }
  return remove_tree_quietly_at(parent.get(), path.filename());
}

// The size of a file; nothing but directories and files is plain.
std::uint64_t plain_size(const TreeEntry& entry) {
  constexpr const char* not_plain = "Tree contains a link or special file";
  require(entry.type == EntryType::directory || entry.type == EntryType::file, "unsafe_path", not_plain);
  if (entry.type == EntryType::directory) {
    return 0;
  }
  const auto status = link_status_at(entry.directory, entry.name);
  require(status && S_ISREG(status->st_mode), "unsafe_path", not_plain);
  return static_cast<std::uint64_t>(status->st_size);
}

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
      sync_directory(parent_of(root_));
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

std::uint64_t tree_bytes(const std::filesystem::path& path, std::size_t max_entries) {
  const auto status = link_status_of(without_end_separator(path));
  require(status && is_directory(*status), "unsafe_path", "Expected a plain directory");
  Descriptor root = open_tree(path);
  std::uint64_t total = 0;
  std::size_t entries = 0;
  walk_tree(std::move(root), [&](const TreeEntry& entry) {
    require(++entries <= max_entries, "size_limit", "Directory entry count exceeds bounds");
    const std::uint64_t size = plain_size(entry);
    require(size <= std::numeric_limits<std::uint64_t>::max() - total, "size_limit", "Tree size overflowed");
    total += size;
  });
  return total;
}

void remove_plain_tree(const std::filesystem::path& path) {
  const std::filesystem::path tree = without_end_separator(path);
  if (is_missing(tree)) {
    return;
  }
  const auto status = link_status_of(tree);
  require(status && is_directory(*status), "unsafe_path", "Tree cleanup requires an ordinary directory");
  tree_bytes(tree, maximum_removed_entries);
  if (const int problem = remove_named(tree); problem != 0) {
    throw std::filesystem::filesystem_error("Cannot remove a tree", tree,
                                            std::error_code(problem, std::generic_category()));
  }
  sync_directory(parent_of(tree));
}

bool remove_path_quietly(const std::filesystem::path& path) { return remove_named(without_end_separator(path)) == 0; }

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
