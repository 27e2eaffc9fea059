// Builds themes for tests: a definition with every colour, and the files that a theme names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok::testing {

// The least that a theme must define, in colours that are easy to read.
inline Json theme_definition() {
  return {{"schema_version", 1},
          {"kind", "ravok-theme"},
          {"colors", {{"background", "#010101"},  {"panel", "#020202"},    {"raised", "#030303"},
                      {"well", "#040404"},        {"border", "#050505"},   {"text", "#f0f0f0"},
                      {"muted", "#e0e0e0"},       {"accent", "#000080"},   {"accent_hover", "#000090"},
                      {"accent_text", "#fefefe"}, {"danger", "#800000"},   {"danger_hover", "#900000"},
                      {"danger_text", "#fdfdfd"}, {"warning", "#f0f000"},  {"success", "#00f000"},
                      {"focus", "#ffff00"},       {"disabled", "#060606"}, {"disabled_text", "#070707"},
                      {"paper", "#080808"},       {"ink", "#d0d0d0"},      {"ink_muted", "#c0c0c0"}}}};
}

// Writes a little-endian number of `size` bytes.
inline void put_number(std::string& bytes, std::size_t offset, std::uint32_t number, std::size_t size = 4) {
  for (std::size_t i = 0; i < size; ++i) {
    bytes[offset + i] = static_cast<char>(number >> (8 * i) & 0xff);
  }
}

// An uncompressed BMP file of 24 bits a pixel.
inline std::string bitmap(std::uint32_t width, std::uint32_t height) {
  std::string bytes(54 + (width * 3 + 3) / 4 * 4 * std::size_t{height}, '\x55');
  bytes.replace(0, 54, 54, '\0');
  bytes.replace(0, 2, "BM");
  put_number(bytes, 2, static_cast<std::uint32_t>(bytes.size()));
  put_number(bytes, 10, 54);
  put_number(bytes, 14, 40);
  put_number(bytes, 18, width);
  put_number(bytes, 22, height);
  put_number(bytes, 26, 1, 2);
  put_number(bytes, 28, 24, 2);
  return bytes;
}

// Bytes that begin as a TrueType font does, and end as told.
inline std::string font_file(std::string_view rest = "font") { return std::string("\0\1\0\0", 4).append(rest); }

}  // namespace ravok::testing
