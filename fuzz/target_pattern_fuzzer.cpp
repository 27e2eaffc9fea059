// The first line is a pattern and the rest is a path. Whether they match is what trying every way of matching finds,
// for patterns of which there are not too many ways.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "property.hpp"
#include "support/pattern_model.hpp"
#include "tuf/target_pattern.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using ravok::fuzz::must_hold;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::size_t line = std::min(text.find('\n'), size);
  const std::string_view pattern = text.substr(0, line);
  const std::string_view path = text.substr(std::min(line + 1, size));
  try {
    const bool matches = ravok::path_pattern_matches(pattern, path);
    if (std::count(pattern.begin(), pattern.end(), '*') <= 4 && path.size() <= 80) {
      must_hold(matches == ravok::testing::model_pattern_matches(pattern, path), "both matchers agree");
    }
  } catch (const ravok::Error& error) {
    must_hold(error.code == "size_limit", "nothing but a length is refused");
    must_hold(pattern.size() > ravok::maximum_path_bytes || path.size() > ravok::maximum_path_bytes,
              "what is refused is too long");
  }
  return 0;
}
