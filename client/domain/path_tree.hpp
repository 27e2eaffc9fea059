// File paths as a tree of their components, which finds those that a platform without regard to case could not hold
// together.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace ravok {

// Adding a path costs time and memory for its own components only, however long the other paths are. The tree keeps
// views into the paths, so their texts must stay where they are.
class PathTree {
 public:
  // Adds a relative file path. Fails with "path_collision" when, without regard to case, it equals an earlier path, and
  // when one of its directories differs from an earlier directory in case alone.
  void add_file(std::string_view path);

  // Returns the last component of a path that is both a file's and a directory's, if there is one.
  std::optional<std::string_view> file_above_another() const;

 private:
  static constexpr std::size_t root = 0;

  struct Node {
    bool is_file = false;
    std::string_view spelling;  // as a directory; empty while the node is not one
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
