// The strict parser agrees, value for value and failure for failure, with the JSON library's callback parser. What it
// accepts is one value with nothing but white space around it, and can be written and read again.

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "property.hpp"
#include "support/reference_json.hpp"

namespace {

struct Outcome {
  std::optional<ravok::Json> value;
  std::string code;
  std::string message;
};

template <typename Parser>
Outcome outcome(Parser parser, std::string_view text, std::uint64_t limit) {
  try {
    return {parser(text, limit), "", ""};
  } catch (const ravok::Error& error) {
    return {std::nullopt, error.code, error.what()};
  }
}

bool is_white_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool is_word(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

// Returns what follows the first value of a text that begins with one.
std::string_view behind_value(std::string_view text) {
  std::size_t open = 0;
  bool quoted = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted) {
      quoted = c != '"';
      i += c == '\\' ? 1 : 0;
    } else if (c == '"') {
      quoted = true;
    } else if (c == '{' || c == '[') {
      ++open;
    } else if (c == '}' || c == ']') {
      --open;
    }
    // A number or a word goes on for as long as more of it follows.
    const bool goes_on = (is_word(c) || c == '-') && i + 1 < text.size() && is_word(text[i + 1]);
    if (open == 0 && !quoted && !goes_on) {
      return text.substr(i + 1);
    }
  }
  return {};
}

// Whether a text that the parser accepts is a value with white space before and after it, and at most one byte order
// mark before all.
bool is_value_in_white_space(std::string_view text) {
  constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
  text.remove_prefix(text.starts_with(byte_order_mark) ? byte_order_mark.size() : 0);
  const auto value = std::find_if_not(text.begin(), text.end(), is_white_space);
  text.remove_prefix(static_cast<std::size_t>(value - text.begin()));
  if (text.empty() || std::string_view("{[\"-0123456789tfn").find(text.front()) == std::string_view::npos) {
    return false;
  }
  const std::string_view rest = behind_value(text);
  return std::all_of(rest.begin(), rest.end(), is_white_space);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using ravok::fuzz::must_hold;
  constexpr std::uint64_t limit = 65536;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const Outcome ours = outcome(ravok::parse_json, text, limit);
  const Outcome reference = outcome(ravok::testing::reference_parse_json, text, limit);
  must_hold(ours.code == reference.code, "the code of a refusal is the reference's");
  must_hold(ours.message == reference.message, "the message of a refusal is the reference's");
  must_hold(ours.value == reference.value, "the value is the reference's");
  if (ours.value) {
    must_hold(is_value_in_white_space(text), "nothing but white space stands around the value");
    const std::string dumped = ours.value->dump();
    must_hold(ravok::parse_json(dumped, dumped.size()) == *ours.value, "what is written reads as the same value");
    const std::string canonical = ravok::canonical_json(*ours.value);
    bool printable = true;
    for (const char c : canonical) {
      printable = printable && static_cast<unsigned char>(c) >= 32;
    }
    must_hold(!printable || ravok::parse_json(canonical, canonical.size()) == *ours.value,
              "canonical text without control characters reads as the same value");
  }
  return 0;
}
