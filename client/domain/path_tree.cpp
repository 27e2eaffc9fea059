#include "domain/path_tree.hpp"

#include <algorithm>

#include "domain/error.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

// The order of file systems that ignore case, over the letters that paths may hold.
bool folds_before(std::string_view first, std::string_view second) {
  return std::lexicographical_compare(first.begin(), first.end(), second.begin(), second.end(),
                                      [](char a, char b) { return lower(a) < lower(b); });
}

}  // namespace

void PathTree::add_file(std::string_view path) {
  const std::size_t separator = path.rfind('/');
  const bool has_directory = separator != std::string_view::npos;
  bool spelled_alike = true;
  const std::size_t directory = has_directory ? find_directory(path.substr(0, separator), spelled_alike) : root;
  Node& file = nodes_[find(directory, has_directory ? path.substr(separator + 1) : path)];
  require(!file.is_file, "path_collision", "Package contains duplicate or case-colliding paths");
  require(spelled_alike, "path_collision", "Package directories differ only in case");
  file.is_file = true;
}

std::optional<std::string_view> PathTree::file_above_another() const {
  const auto found = std::find_if(nodes_.begin(), nodes_.end(),
                                  [](const Node& node) { return node.is_file && !node.spelling.empty(); });
  return found == nodes_.end() ? std::nullopt : std::optional(found->spelling);
}

bool PathTree::Key::operator<(const Key& other) const {
  return parent != other.parent ? parent < other.parent : folds_before(name, other.name);
}

std::size_t PathTree::find(std::size_t parent, std::string_view name) {
  const auto [child, is_new] = children_.try_emplace(Key{parent, name}, nodes_.size());
  if (is_new) {
    nodes_.emplace_back();
  }
  return child->second;
}

// Most paths lie in the directory of the path before, which is then not looked up again.
std::size_t PathTree::find_directory(std::string_view path, bool& spelled_alike) {
  if (path == last_directory_) {
    return last_node_;
  }
  std::size_t node = root;
  for (std::string_view rest = path; !rest.empty();) {
    const std::size_t end = std::min(rest.find('/'), rest.size());
    const std::string_view name = rest.substr(0, end);
    node = find(node, name);
    if (nodes_[node].spelling.empty()) {
      nodes_[node].spelling = name;
    }
    spelled_alike = spelled_alike && nodes_[node].spelling == name;
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  if (spelled_alike) {
    last_directory_ = path;
    last_node_ = node;
  }
  return node;
}

}  // namespace ravok
