#include "publisher/path_pattern.hpp"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "domain/error.hpp"

namespace ravok {
namespace {

constexpr std::string_view any_names = "**";

std::vector<std::string> split(std::string_view path) {
  std::vector<std::string> names;
  std::size_t begin = 0;
  for (std::size_t end = path.find('/'); end != std::string_view::npos; end = path.find('/', begin)) {
    names.emplace_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  names.emplace_back(path.substr(begin));
  return names;
}

// Whether the pattern has the form of the sequence. Only the last wildcard is ever tried again, so that the time is at
// most the product of both lengths.
template <typename Pattern, typename Sequence, typename IsWildcard, typename Equals>
bool has_form(const Pattern& pattern, const Sequence& sequence, IsWildcard is_wildcard, Equals equals) {
  std::size_t at = 0;
  std::size_t in_pattern = 0;
  std::size_t after_wildcard = 0;  // 0 before the first one
  std::size_t resumed = 0;
  while (at < sequence.size()) {
    if (in_pattern < pattern.size() && is_wildcard(pattern[in_pattern])) {
      after_wildcard = ++in_pattern;
      resumed = at;
    } else if (in_pattern < pattern.size() && equals(pattern[in_pattern], sequence[at])) {
      ++in_pattern;
      ++at;
    } else if (after_wildcard > 0) {
      in_pattern = after_wildcard;
      at = ++resumed;
    } else {
      return false;
    }
  }
  while (in_pattern < pattern.size() && is_wildcard(pattern[in_pattern])) {
    ++in_pattern;
  }
  return in_pattern == pattern.size();
}

bool name_matches(const std::string& pattern, const std::string& name) {
  return has_form(
      pattern, name, [](char c) { return c == '*'; }, [](char a, char b) { return a == b; });
}

}  // namespace

PathPattern::PathPattern(std::string text) : text_(std::move(text)), names_(split(text_)) {
  for (const std::string& name : names_) {
    require(!name.empty() && name != "." && name != "..", "usage",
            "A pattern is a relative path without empty names, \".\" and \"..\": " + text_);
    require(name == any_names || name.find(any_names) == std::string::npos, "usage",
            "In a pattern, ** takes the place of a whole name: " + text_);
  }
  if (names_.size() == 1) {
    names_.insert(names_.begin(), std::string(any_names));
  }
  if (names_.back() == any_names) {
    names_.emplace_back("*");
  }
}

bool PathPattern::matches(std::string_view path) const {
  return has_form(
      names_, split(path), [](const std::string& name) { return name == any_names; }, name_matches);
}

}  // namespace ravok
