// Walking a tree and opening what lies in it by descriptors, never through a link.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/descriptor.hpp"

namespace ravok {

enum class EntryType { directory, file, link, other };

// What a walk has come to. All of it lasts for the visit only.
struct TreeEntry {
  std::string_view path;  // relative to the root
  const char* name;       // the last component of it
  int directory;          // the open directory that holds it
  EntryType type;         // a link's is not that of what it points to
};

// Opens a directory to walk it; none when there is none of that name, or a link in its place.
Descriptor open_tree(const std::filesystem::path& root);

// Visits everything below an open directory in the order in which the file system tells it, a
// directory ahead of what it holds. Takes one open descriptor for each level. Fails with "tree_read"
// when a directory cannot be read; what `visit` throws goes on.
void walk_tree(Descriptor root, const std::function<void(const TreeEntry&)>& visit);

// Opens files of a tree by their relative paths. The directories on the way stay open for the next
// path, so that files of one directory cost one call each.
class TreePaths {
 public:
  explicit TreePaths(Descriptor root) : root_(std::move(root)) {}

  // Opens what a relative path names, with these flags and O_NOFOLLOW. Returns none with errno set.
  Descriptor open(const std::string& path, int flags);

  // Returns the open directory that holds what the path names, or -1 with errno set. It stays open
  // until the next call.
  int parent_of(std::string_view path);

 private:
  struct Level {
    std::string name;
    Descriptor directory;
  };

  int last() const { return levels_.empty() ? root_.get() : levels_.back().directory.get(); }

  Descriptor root_;
  std::string directory_;  // the path of the last level
  std::vector<Level> levels_;
};

}  // namespace ravok
