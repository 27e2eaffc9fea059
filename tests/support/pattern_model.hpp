// A second matcher of target paths: it tries every way in which a pattern can match, so its time grows beyond all
// bounds with the number of "*".
#pragma once

#include <cstddef>
#include <string_view>

namespace ravok::testing {

// Whether a byte is one of those between the brackets of a class, without its negation.
inline bool model_class_has(std::string_view text, char c) {
  const auto byte = [](char each) { return static_cast<unsigned char>(each); };
  while (!text.empty()) {
    if (text.size() >= 3 && text[1] == '-') {
      if (byte(text[0]) <= byte(c) && byte(c) <= byte(text[2])) {
        return true;
      }
      text = text.substr(3);
    } else if (text[0] == c) {
      return true;
    } else {
      text = text.substr(1);
    }
  }
  return false;
}

inline bool model_pattern_matches(std::string_view pattern, std::string_view path) {
  if (pattern.empty()) {
    return path.empty();
  }
  if (pattern[0] == '*') {
    for (std::size_t run = 0; run <= path.size(); ++run) {
      if (path.substr(0, run).find('/') == std::string_view::npos &&
          model_pattern_matches(pattern.substr(1), path.substr(run))) {
        return true;
      }
    }
    return false;
  }
  if (path.empty()) {
    return false;
  }
  const std::size_t end = pattern[0] == '[' ? pattern.find(']', 2) : std::string_view::npos;
  if (end != std::string_view::npos) {
    const bool negated = pattern[1] == '!' || pattern[1] == '^';
    const std::size_t begin = negated ? 2 : 1;
    return path[0] != '/' && model_class_has(pattern.substr(begin, end - begin), path[0]) != negated &&
           model_pattern_matches(pattern.substr(end + 1), path.substr(1));
  }
  const bool fits = pattern[0] == '?' ? path[0] != '/' : path[0] == pattern[0];
  return fits && model_pattern_matches(pattern.substr(1), path.substr(1));
}

}  // namespace ravok::testing
