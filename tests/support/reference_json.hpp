// A second reader of strict JSON, by the JSON library's callback parser and explicit sets of keys: slow, plain, and
// independent of the reader that it is compared with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "domain/error.hpp"
#include "domain/json.hpp"

namespace ravok::testing {

inline Json reference_parse_json(std::string_view input, std::uint64_t limit) {
  require(input.size() <= limit, "size_limit", "JSON exceeds its size limit");
  std::vector<std::set<std::string>> open;
  const auto check = [&open](int depth, Json::parse_event_t event, Json& value) {
    require(depth < 65, "depth_limit", "JSON nesting exceeds 64 levels");
    switch (event) {
      case Json::parse_event_t::object_start:
        open.emplace_back();
        break;
      case Json::parse_event_t::object_end:
        open.pop_back();
        break;
      case Json::parse_event_t::key:
        require(open.back().insert(value.get<std::string>()).second, "duplicate_key",
                "JSON contains a duplicate object key");
        break;
      case Json::parse_event_t::value:
        require(!value.is_number_float(), "invalid_number", "Floating point numbers are not allowed in protocol data");
        break;
      case Json::parse_event_t::array_start:
      case Json::parse_event_t::array_end:
        break;
    }
    return true;
  };
  try {
    Json value = Json::parse(input, check);
    // The parser stops at a NUL that follows the value.
    if (const std::size_t end = input.find('\0'); end != std::string_view::npos) {
      throw Error("invalid_json", "[json.exception.parse_error.101] parse error at byte " + std::to_string(end + 1) +
                                      ": syntax error while parsing value - invalid literal; last read: '<U+0000>'; "
                                      "expected end of input");
    }
    return value;
  } catch (const Json::exception& problem) {
    throw Error("invalid_json", problem.what());
  }
}

}  // namespace ravok::testing
