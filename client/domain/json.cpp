#include "domain/json.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <limits>
#include <vector>

#include "domain/error.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_depth = 64;

// Builds a value from the parser's events and refuses, at the event itself, what the protocol
// does not allow. An object's own members tell whether a key was seen, so no second set of the
// keys is kept.
class StrictBuilder {
 public:
  explicit StrictBuilder(Json& root) : root_(root) {}

  bool null() { return store(nullptr); }
  bool boolean(bool value) { return store(value); }
  bool number_integer(Json::number_integer_t value) { return store(value); }
  bool number_unsigned(Json::number_unsigned_t value) { return store(value); }
  bool string(const Json::string_t& value) { return store(value); }

  [[noreturn]] bool number_float(Json::number_float_t, const Json::string_t&) {
    check_depth();
    fail("invalid_number", "Floating point numbers are not allowed in protocol data");
  }

  // Text never holds a binary value; the parser's interface asks for the event.
  [[noreturn]] bool binary(Json::binary_t&) {
    fail("invalid_number", "Floating point numbers are not allowed in protocol data");
  }

  bool start_object(std::size_t) { return open(Json::value_t::object); }
  bool start_array(std::size_t) { return open(Json::value_t::array); }
  bool end_object() { return close(); }
  bool end_array() { return close(); }

  bool key(const Json::string_t& name) {
    check_depth();
    auto& members = open_.back()->get_ref<Json::object_t&>();
    const std::size_t before = members.size();
    const auto member = members.try_emplace(members.end(), name);
    require(members.size() > before, "duplicate_key", "JSON contains a duplicate object key");
    member_ = &member->second;
    return true;
  }

  [[noreturn]] bool parse_error(std::size_t, const std::string&, const Json::exception& problem) {
    fail("invalid_json", problem.what());
  }

 private:
  // The open containers are those around the event, not the one that it opens or closes.
  void check_depth() const { require(open_.size() <= maximum_depth, "depth_limit", "JSON nesting exceeds 64 levels"); }

  template <typename Value>
  Json* place(Value&& value) {
    if (open_.empty()) {
      root_ = Json(std::forward<Value>(value));
      return &root_;
    }
    Json& parent = *open_.back();
    if (parent.is_array()) {
      return &parent.get_ref<Json::array_t&>().emplace_back(std::forward<Value>(value));
    }
    *member_ = Json(std::forward<Value>(value));
    return member_;
  }

  template <typename Value>
  bool store(const Value& value) {
    check_depth();
    place(value);
    return true;
  }

  bool open(Json::value_t type) {
    check_depth();
    open_.push_back(place(type));
    return true;
  }

  bool close() {
    open_.pop_back();
    return true;
  }

  Json& root_;
  std::vector<Json*> open_;
  Json* member_ = nullptr;
};

// The library takes a NUL after the value for the end of the text, and ignores what follows it. It refuses a NUL
// anywhere else by itself.
void require_no_early_end(std::string_view input) {
  const std::size_t end = input.find('\0');
  if (end != std::string_view::npos) {
    throw Json::parse_error::create(
        101, end + 1,
        "syntax error while parsing value - invalid literal; last read: '<U+0000>'; expected end of input", nullptr);
  }
}

void write_quoted(std::string& out, std::string_view text) {
  out += '"';
  std::size_t written = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"' || text[i] == '\\') {
      out.append(text, written, i - written);
      out += '\\';
      written = i;
    }
  }
  out.append(text, written);
  out += '"';
}

template <typename Integer>
void write_integer(std::string& out, Integer value) {
  std::array<char, std::numeric_limits<Integer>::digits10 + 2> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  out.append(digits.data(), end);
}

void write_canonical(std::string& out, const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
      out += "null";
      return;
    case Json::value_t::boolean:
      out += value.get_ref<const bool&>() ? "true" : "false";
      return;
    case Json::value_t::number_integer:
      write_integer(out, value.get_ref<const Json::number_integer_t&>());
      return;
    case Json::value_t::number_unsigned:
      write_integer(out, value.get_ref<const Json::number_unsigned_t&>());
      return;
    case Json::value_t::string:
      write_quoted(out, value.get_ref<const Json::string_t&>());
      return;
    case Json::value_t::object: {
      char separator = '{';
      for (const auto& [name, member] : value.get_ref<const Json::object_t&>()) {
        out += separator;
        write_quoted(out, name);
        out += ':';
        write_canonical(out, member);
        separator = ',';
      }
      out += value.empty() ? "{}" : "}";
      return;
    }
    case Json::value_t::array: {
      char separator = '[';
      for (const Json& element : value.get_ref<const Json::array_t&>()) {
        out += separator;
        write_canonical(out, element);
        separator = ',';
      }
      out += value.empty() ? "[]" : "]";
      return;
    }
    case Json::value_t::number_float:
    case Json::value_t::binary:
    case Json::value_t::discarded:
      break;
  }
  fail("invalid_number", "Cannot canonicalize floating point data");
}

bool is_integer_of_at_least(const Json& value, std::int64_t minimum) {
  return value.is_number_unsigned() || (value.is_number_integer() && value.get<std::int64_t>() >= minimum);
}

}  // namespace

Json parse_json(std::string_view input, std::uint64_t limit) {
  require(input.size() <= limit, "size_limit", "JSON exceeds its size limit");
  Json value;
  StrictBuilder builder(value);
  try {
    Json::sax_parse(input.begin(), input.end(), &builder);
    require_no_early_end(input);
  } catch (const Json::exception& problem) {
    fail("invalid_json", problem.what());
  }
  return value;
}

std::string canonical_json(const Json& value) {
  std::string out;
  write_canonical(out, value);
  return out;
}

std::uint64_t positive_version(const Json& value) {
  require(is_integer_of_at_least(value, 1), "invalid_version", "Metadata version must be a positive integer");
  const auto version = value.get<std::uint64_t>();
  require(version != 0, "invalid_version", "Metadata version must be positive");
  return version;
}

std::uint64_t size_value(const Json& value) {
  require(is_integer_of_at_least(value, 0), "invalid_manifest", "Manifest length must be a non-negative integer");
  return value.get<std::uint64_t>();
}

std::string sha256(const Json& value) {
  auto text = value.get<std::string>();
  require(is_sha256_text(text), "invalid_manifest", "Manifest needs a lower-case SHA-256 digest");
  return text;
}

const std::string& text_at(const Json& object, const char* key) { return object.at(key).get_ref<const std::string&>(); }

bool is_utf8(std::string_view text) {
  try {
    // The library's writer throws for a text that is not UTF-8.
    static_cast<void>(Json(text).dump());
    return true;
  } catch (const Json::exception&) {
    return false;
  }
}

bool is_integer(const Json& value, std::int64_t expected) {
  // The library compares an unsigned number with a negative one by its bits.
  return value.is_number_integer() && value == expected && (expected >= 0 || !value.is_number_unsigned());
}

bool is_text(const Json& value, std::string_view expected) {
  return value.is_string() && value.get_ref<const std::string&>() == expected;
}

bool has_text(const Json& object, const char* key) { return object.contains(key) && object.at(key).is_string(); }

bool has_exactly(const Json& value, std::initializer_list<std::string_view> keys) {
  return value.is_object() && value.size() == keys.size() &&
         std::all_of(keys.begin(), keys.end(), [&](std::string_view key) { return value.contains(key); });
}

}  // namespace ravok
