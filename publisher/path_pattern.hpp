// Patterns that choose paths of a tree.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ravok {

// Names of a relative path, separated by "/". In a name, "*" stands for any characters, or none; every other character
// stands for itself. "**" in the place of a name stands for any number of names: none at all between others, one at
// least at the end. A pattern of one name matches that name at any depth.
class PathPattern {
 public:
  // Fails with "usage" for a pattern that no relative path has the form of: one with an empty name, "." or "..", and
  // so with "/" at either end; and for "**" with other characters in one name.
  explicit PathPattern(std::string text);

  bool matches(std::string_view path) const;
  const std::string& text() const { return text_; }

 private:
  std::string text_;
  std::vector<std::string> names_;
};

}  // namespace ravok
