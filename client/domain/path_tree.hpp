// File paths as a tree of their components, which tells whether some platform that ignores case
// could not hold all of them.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace ravok {

// A path costs its own length, whatever the others are. The tree keeps views into the paths, which
// must stay where they are.
class PathTree {
 public:
  // Adds a relative file path. Fails with "path_collision" when it equals an earlier one, or one of
  // its directories an earlier directory, but for the case of its letters.
  void add_file(std::string_view path);

  // The name of a directory that is also a file's, if there is one: its last component.
  std::optional<std::string_view> file_above_another() const;

 private:
  static constexpr std::size_t root = 0;

  struct Node {
    bool is_file = false;
    std::string_view spelling;  // as a directory; empty while it is none
  };

  struct Key {
    std::size_t parent;
    std::string_view name;
    bool operator<(const Key& other) const;
  };

  std::size_t find(std::size_t parent, std::string_view name);
  std::size_t find_directory(std::string_view path, bool& spelled_alike);

  std::vector<Node> nodes_ = std::vector<Node>(1);
  std::map<Key, std::size_t> children_;
  std::string_view last_directory_;
  std::size_t last_node_ = root;
};

}  // namespace ravok
