// The small rules of plain text that records, names and addresses share. All of them know ASCII alone.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ravok {

constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }
constexpr bool is_lower_letter(char c) { return c >= 'a' && c <= 'z'; }
constexpr bool is_upper_letter(char c) { return c >= 'A' && c <= 'Z'; }
constexpr bool is_letter_or_digit(char c) { return is_lower_letter(c) || is_upper_letter(c) || is_digit(c); }
constexpr bool is_lower_hex(char c) { return is_digit(c) || (c >= 'a' && c <= 'f'); }
constexpr bool is_hex(char c) { return is_lower_hex(c) || (c >= 'A' && c <= 'F'); }

constexpr char lower(char c) { return is_upper_letter(c) ? static_cast<char>(c - 'A' + 'a') : c; }
constexpr char upper(char c) { return is_lower_letter(c) ? static_cast<char>(c - 'a' + 'A') : c; }

// Return the text with all of its letters in lower case, and in upper case.
std::string lower(std::string_view text);
std::string upper(std::string_view text);

// Whether a byte is a control character, DEL included.
constexpr bool is_control(char c) { return (c >= 0 && c < 32) || c == 127; }

// The digits that a number in hexadecimal is written with.
inline constexpr std::string_view lower_hex_digits = "0123456789abcdef";

// The value of a hexadecimal digit, 0 to 15.
constexpr std::uint8_t hex_value(char c) {
  return static_cast<std::uint8_t>(is_digit(c) ? c - '0' : lower(c) - 'a' + 10);
}

// Whether the text holds nothing but lower-case hexadecimal digits. An empty text counts.
constexpr bool is_lower_hex(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return is_lower_hex(c); });
}

// Whether the text is exactly `characters` lower-case hexadecimal digits.
constexpr bool is_lower_hex(std::string_view text, std::size_t characters) {
  return text.size() == characters && is_lower_hex(text);
}

// Whether the text holds nothing but decimal digits. An empty text counts.
constexpr bool are_digits(std::string_view text) { return std::all_of(text.begin(), text.end(), is_digit); }

// The length of a SHA-256 in the text form that documents use, in characters.
inline constexpr std::size_t sha256_characters = 64;

// Whether the text is a SHA-256 in that form: 64 lower-case hexadecimal digits.
constexpr bool is_sha256_text(std::string_view text) { return is_lower_hex(text, sha256_characters); }

// Whether a file name, with whatever extension, is one that Windows keeps for a device: CON, PRN, AUX, NUL, or COM or
// LPT with a digit from 1 to 9, in any case.
bool is_device_name(std::string_view name);

// Whether the text holds a NUL byte, where the system would take the text to end.
constexpr bool has_nul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

}  // namespace ravok
