// Walking a tree and opening what lies in it by descriptors, never through a link.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file/file_operations.hpp"

namespace ravok {

// An entry that a walk has reached. Its members are valid during the visit only.
struct TreeEntry {
  std::string_view path;  // relative to the root
  const char* name;       // the last component of it
  int directory;          // the open directory that holds it
  EntryType type;         // for a link, EntryType::link
};

// Opens a directory to walk it. Refused when the path names no directory, or a link.
Result<Handle> open_tree(const std::filesystem::path& root);

// What a walk calls.
struct TreeVisitor {
  // Told of every entry: all those of a directory first, in the order in which the file system tells them, and then
  // what lies in its directories, one after the other.
  std::function<void(const TreeEntry&)> visit;
  // Told of a directory once all that it holds has been visited, with its own open handle; not told of the root. It may
  // remove the directory. May be empty.
  std::function<void(const TreeEntry& entry, int self)> leave;
  // Told of a directory that cannot be opened, which the walk then passes by. Where it is empty, the walk fails.
  std::function<void(const TreeEntry& entry, const Problem& problem)> unreadable;
  // Whether a volume that is mounted inside the tree ends the walk before anything of it is visited.
  bool refuse_mounts = false;
};

// Visits everything below an open directory. A root that could not be opened fails like one that cannot be read. At
// most 34 directories are open at a time, however deep the tree is, and the time grows with the number of entries.
// Fails with "tree_read" when a directory cannot be read or is moved meanwhile, with "too_many_files" when the system
// gives no more descriptors, with "unsafe_path" for a mounted volume where those are refused; what the visitor throws
// goes on.
void walk_tree(Result<Handle> root, const TreeVisitor& visitor);
void walk_tree(Result<Handle> root, const std::function<void(const TreeEntry&)>& visit);

// Returns the names in an open directory, the first `limit` of them in the order in which the file system tells them.
// Fails with "tree_read" when the directory cannot be read, and with "too_many_files".
std::vector<std::string> names_in(int directory, std::size_t limit);

// The same by a directory's path; links in it are followed.
std::vector<std::string> names_in(const std::filesystem::path& directory, std::size_t limit);

// Opens files of a tree by their relative paths. The last 32 directories on the way stay open for the next
// path, so that files of one directory cost one call each.
class TreePaths {
 public:
  explicit TreePaths(Handle root) : root_(std::move(root)) {}

  // Opens what a relative path names, through no link. `how` is none of those that go through one.
  Result<Handle> open(const std::string& path, os::OpenAs how);

  // Returns the open directory that holds what the path names. It stays open until the next call.
  Result<int> parent_of(std::string_view path);

 private:
  struct Level {
    std::string name;
    Handle directory;  // none for all but the last levels
  };

  // Keeps the levels that a path has in common with the last one, and returns the rest of it.
  std::string_view keep_shared(std::string_view wanted);
  int last() const { return levels_.empty() ? root_.get() : levels_.back().directory.get(); }

  Handle root_;
  std::string directory_;  // the path of the last level
  std::vector<Level> levels_;
};

}  // namespace ravok
