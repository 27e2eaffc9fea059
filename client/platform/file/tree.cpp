#include "platform/file/tree.hpp"

#include <limits>
#include <system_error>
#include <utility>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/tree_removal.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {
namespace {

// Removes what a path names, with all that it holds. Returns the problem of the first failure.
Problem remove_named(const std::filesystem::path& path) {
  const Result<Handle> parent = os::open(folder_of(path), os::OpenAs::linked_directory);
  if (!parent) {
    const Problem& problem = parent.problem();
    return problem == Cause::missing || problem == Cause::not_a_directory ? Problem() : problem;
  }
  return remove_tree_quietly_at(parent->get(), path_utf8(path.filename()));
}

// The size of a file; nothing but directories and files is plain.
std::uint64_t plain_size(const TreeEntry& entry) {
  constexpr const char* not_plain = "Tree contains a link or special file";
  require(entry.type == EntryType::directory || entry.type == EntryType::file, "unsafe_path", not_plain);
  if (entry.type == EntryType::directory) {
    return 0;
  }
  const auto status = link_status_at(entry.directory, entry.name);
  require(status && is_file(*status), "unsafe_path", not_plain);
  return status->size;
}

}  // namespace

std::uint64_t tree_bytes(const std::filesystem::path& path, std::size_t max_entries) {
  const auto status = link_status_of(without_end_separator(path));
  require(status && is_directory(*status), "unsafe_path", "Expected a plain directory");
  Result<Handle> root = open_tree(path);
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
  tree_bytes(tree, maximum_tree_entries);
  if (const Problem problem = remove_named(tree)) {
    throw std::filesystem::filesystem_error("Cannot remove a tree", tree,
                                            std::error_code(problem.number, std::generic_category()));
  }
  sync_directory(folder_of(tree));
}

bool remove_path_quietly(const std::filesystem::path& path) { return !remove_named(without_end_separator(path)); }

}  // namespace ravok
