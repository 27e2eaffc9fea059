#include "domain/display_text.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

#include "domain/text_rules.hpp"

namespace ravok {
namespace {

bool is_line_break(unsigned char c) { return c == '\t' || c == '\n' || c == '\r'; }

// The first byte of U+0080 to U+00BF in UTF-8; the second is the character's own number.
constexpr unsigned char latin_lead = 0xC2;

// A character and how many bytes it has; a size of 0 stands for bytes that are not UTF-8.
struct Character {
  char32_t number = 0;
  std::size_t size = 0;
};

// What a first byte says of its character: how many bytes it has, and the highest bits of its number.
Character announced_by(unsigned char lead) {
  if (lead < 0x80) {
    return {lead, 1};
  }
  if (lead >= latin_lead && lead < 0xE0) {
    return {static_cast<char32_t>(lead & 0x1F), 2};
  }
  if (lead >= 0xE0 && lead < 0xF0) {
    return {static_cast<char32_t>(lead & 0x0F), 3};
  }
  return lead >= 0xF0 && lead < 0xF5 ? Character{static_cast<char32_t>(lead & 0x07), 4} : Character();
}

// Refuses a form that is longer than needed, half of a surrogate pair, and a number beyond the last character.
bool is_well_formed(const Character& character) {
  switch (character.size) {
    case 3:
      return character.number >= 0x800 && (character.number < 0xD800 || character.number > 0xDFFF);
    case 4:
      return character.number >= 0x10000 && character.number <= 0x10FFFF;
    default:
      return true;
  }
}

// Returns the first character of a text, which must not be empty.
Character first_character(std::string_view text) {
  Character character = announced_by(static_cast<unsigned char>(text.front()));
  if (character.size > text.size()) {
    return {};
  }
  for (std::size_t i = 1; i < character.size; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x80 || byte > 0xBF) {
      return {};
    }
    character.number = character.number << 6 | (byte & 0x3F);
  }
  return is_well_formed(character) ? character : Character();
}

bool steers_a_terminal(char32_t number) {
  return number < 0x20 || (number >= 0x7F && number <= 0x9F) || (number >= 0x202A && number <= 0x202E) ||
         (number >= 0x2066 && number <= 0x2069);
}

std::string escaped(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += {'\\', 'x', lower_hex_digits[byte >> 4], lower_hex_digits[byte & 0x0F]};
  }
  return text;
}

}  // namespace

bool is_displayable(std::string_view text, bool line_breaks) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte < 32 && !(line_breaks && is_line_break(byte))) || byte == 127) {
      return false;
    }
    if (byte == latin_lead && i + 1 < text.size()) {
      const auto next = static_cast<unsigned char>(text[i + 1]);
      if (next >= 0x80 && next <= 0x9F) {
        return false;
      }
    }
  }
  return true;
}

std::string shown_text(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const Character character = first_character(text);
    // Bytes that are not UTF-8 are taken and escaped one by one.
    const std::string_view bytes = text.substr(0, std::max<std::size_t>(character.size, 1));
    shown += character.size == 0 || steers_a_terminal(character.number) ? escaped(bytes) : std::string(bytes);
    text.remove_prefix(bytes.size());
  }
  return shown;
}

std::string shown_size(std::uint64_t bytes) {
  constexpr std::array<const char*, 5> units = {"bytes", "KiB", "MiB", "GiB", "TiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < units.size()) {
    value /= 1024;
    ++unit;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
  return text.data();
}

std::string shown_count(std::uint64_t number, std::string_view one) {
  return std::to_string(number) + " " + std::string(one) + (number == 1 ? "" : "s");
}

}  // namespace ravok
