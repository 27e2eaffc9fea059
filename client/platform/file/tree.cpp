#include "platform/file/tree.hpp"

#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_status.hpp"
#include "platform/file/files.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/tree_removal.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_removed_entries = 250000;

// Removes what a path names, with all that it holds. Returns 0, or the native error number of the first failure.
int remove_named(const std::filesystem::path& path) {
  const Descriptor parent(
      retry_interrupted([&] { return open(folder_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
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
  sync_directory(folder_of(tree));
}

bool remove_path_quietly(const std::filesystem::path& path) { return remove_named(without_end_separator(path)) == 0; }

}  // namespace ravok
