// Strict JSON: the only reader of incoming documents, the writer of signed ones, and the
// field readers that record parsers share.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "domain/error.hpp"

namespace ravok {

using Json = nlohmann::json;

// Returns the value of the one JSON document in `input`. One byte order mark may come first; white space may stand
// before and after the value.
// Fails with "size_limit" when `input` is longer than `limit` bytes, before anything is parsed; "depth_limit" for
// anything inside more than 64 containers; "duplicate_key" for a key that stands twice in one object, even if it is
// escaped in two ways; "invalid_number" for a number that is not an integer of 64 bits; and "invalid_json", with the
// JSON library's own words, for all that is not JSON. That includes anything but white space after the value, and a
// number such as 1e400, which is too large for a floating-point number.
Json parse_json(std::string_view input, std::uint64_t limit);

// Returns the byte-exact text that signatures and digests are made over: no white space, keys
// in ascending byte order, and in texts only the double quote and the backslash escaped.
// Control characters therefore stand as they are, and the result need not be valid JSON.
// Fails with "invalid_number" for a floating-point, binary or discarded value.
std::string canonical_json(const Json& value);

// Returns a version number, which is at least 1. Fails with "invalid_version".
std::uint64_t positive_version(const Json& value);

// Returns a size in bytes, which may be 0. Fails with "invalid_manifest".
std::uint64_t size_value(const Json& value);

// Returns a SHA-256 digest as 64 lower-case hexadecimal characters. Fails with "invalid_manifest" for any other text,
// and throws the JSON library's type error for a value that is not a text.
std::string sha256(const Json& value);

// Returns the text under a key. Throws the JSON library's exception when the key is missing or its value is not a text.
const std::string& text_at(const Json& object, const char* key);

// Whether the text is UTF-8, as every text of a document is.
bool is_utf8(std::string_view text);

// Whether the value is of an integer type and equal to `expected`.
bool is_integer(const Json& value, std::int64_t expected);

// Whether the value is exactly this text. Takes no memory, unlike the library's comparison with a text, which would end
// the process where there is none.
bool is_text(const Json& value, std::string_view expected);

// Whether the object has a text under the key.
bool has_text(const Json& object, const char* key);

// Whether the value is an object with exactly these keys.
bool has_exactly(const Json& value, std::initializer_list<std::string_view> keys);

// Returns what `work` returns. Turns every exception of the JSON library, such as that for a missing key or for a value
// of another type, into a failure with this code and this message.
template <typename Work>
auto refuse_malformed(std::string_view code, std::string_view message, Work work) {
  try {
    return work();
  } catch (const Json::exception&) {
    fail(code, message);
  }
}

}  // namespace ravok
