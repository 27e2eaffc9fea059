#include "domain/presentation.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

#include "domain/bytes.hpp"
#include "domain/crypto.hpp"
#include "domain/display_text.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::string_view invalid_presentation = "invalid_presentation";
constexpr std::uint32_t maximum_pixels = 128;
constexpr std::size_t artwork_header_bytes = 54;
constexpr std::size_t maximum_bitmap_bytes = 49'206;
constexpr std::size_t maximum_hex_characters = 2 * maximum_bitmap_bytes;
constexpr std::array<std::string_view, 4> known_keys = {"tagline", "description", "monogram", "artwork"};
constexpr const char* artwork_format = "bmp-rgb24-v1";

void require_text(std::string_view text, std::size_t limit, bool allow_line_breaks) {
  require(text.size() <= limit, invalid_presentation, "Game presentation text exceeds its bound");
  require(is_displayable(text, allow_line_breaks), invalid_presentation,
          "Game presentation contains unsupported control characters");
}

std::string read_text(const Json& value, std::size_t limit, bool allow_line_breaks) {
  require(value.is_string(), invalid_presentation, "Game presentation must contain text");
  require_text(value.get_ref<const std::string&>(), limit, allow_line_breaks);
  return value.get<std::string>();
}

std::ptrdiff_t count_characters(std::string_view text) {
  return std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; });
}

std::string read_monogram(const Json& value) {
  std::string monogram = read_text(value, 16, false);
  const std::ptrdiff_t characters = count_characters(monogram);
  require(characters >= 1 && characters <= 4, invalid_presentation,
          "Game monogram must contain one to four characters");
  return monogram;
}

// Returns a number of pixels, or 0 for a value that is not one.
std::uint32_t read_pixels(const Json& value) {
  const bool positive = value.is_number_unsigned() || (value.is_number_integer() && value.get<std::int64_t>() > 0);
  return positive && value.get<std::uint64_t>() <= maximum_pixels ? value.get<std::uint32_t>() : 0;
}

std::string read_pixels_text(const Json& value) {
  require(value.is_string(), invalid_presentation, "Game artwork pixels are missing");
  const std::string& text = value.get_ref<const std::string&>();
  require(text.size() <= maximum_hex_characters && text.size() % 2 == 0 && is_lower_hex(text), invalid_presentation,
          "Game artwork encoding exceeds its bound");
  const std::vector<std::uint8_t> bytes = unhex(text, maximum_hex_characters);
  return {bytes.begin(), bytes.end()};
}

GameArtwork read_artwork(const Json& document) {
  require(has_exactly(document, {"format", "width", "height", "bmp_hex", "alternative_text"}) &&
              is_text(document.at("format"), artwork_format),
          invalid_presentation, "Unknown game artwork descriptor");
  GameArtwork artwork;
  artwork.width = read_pixels(document.at("width"));
  artwork.height = read_pixels(document.at("height"));
  require(artwork.width != 0 && artwork.height != 0, invalid_presentation, "Game artwork dimensions exceed 128 pixels");
  artwork.alternative_text = read_text(document.at("alternative_text"), 200, false);
  require(!artwork.alternative_text.empty(), invalid_presentation, "Game artwork needs alternative text");
  artwork.bitmap = read_pixels_text(document.at("bmp_hex"));
  validate_presentation_bitmap(artwork.bitmap, artwork.width, artwork.height);
  return artwork;
}

void require_known_fields(const Json& document) {
  require(document.is_object() && document.size() <= known_keys.size(), invalid_presentation,
          "Unknown game presentation fields");
  for (const auto& [key, value] : document.items()) {
    require(std::find(known_keys.begin(), known_keys.end(), key) != known_keys.end(), invalid_presentation,
            "Unknown game presentation field");
  }
}

}  // namespace

GamePresentation GamePresentation::parse(std::string_view display_name, const Json& document) {
  GamePresentation presentation;
  require_text(display_name, 200, false);
  require(!display_name.empty(), invalid_presentation, "Game display name is empty");
  presentation.display_name = display_name;
  require_known_fields(document);
  if (document.contains("tagline")) {
    presentation.tagline = read_text(document.at("tagline"), 200, false);
  }
  if (document.contains("description")) {
    presentation.description = read_text(document.at("description"), 4096, true);
  }
  if (document.contains("monogram")) {
    presentation.monogram = read_monogram(document.at("monogram"));
  }
  if (document.contains("artwork")) {
    presentation.artwork = read_artwork(document.at("artwork"));
  }
  return presentation;
}

Json GamePresentation::summary() const {
  Json document = {
      {"display_name", display_name}, {"tagline", tagline}, {"description", description}, {"monogram", monogram}};
  if (artwork) {
    document["artwork"] = {{"format", artwork_format},
                           {"width", artwork->width},
                           {"height", artwork->height},
                           {"alternative_text", artwork->alternative_text}};
  }
  return document;
}

void validate_presentation_bitmap(std::string_view bytes, std::uint32_t width, std::uint32_t height) {
  require(width >= 1 && width <= maximum_pixels && height >= 1 && height <= maximum_pixels &&
              bytes.size() >= artwork_header_bytes && bytes.size() <= maximum_bitmap_bytes,
          invalid_presentation, "Game artwork exceeds its 128-pixel bitmap bound");
  const std::uint32_t stride = (width * 3 + 3) / 4 * 4;
  const std::uint32_t image_bytes = stride * height;
  const bool exact = bytes.starts_with("BM") && number_at(bytes, 2, 4) == bytes.size() &&
                     number_at(bytes, 10, 4) == artwork_header_bytes && number_at(bytes, 14, 4) == 40 &&
                     number_at(bytes, 18, 4) == width && number_at(bytes, 22, 4) == height &&
                     number_at(bytes, 26, 2) == 1 && number_at(bytes, 28, 2) == 24 && number_at(bytes, 30, 4) == 0 &&
                     number_at(bytes, 34, 4) == image_bytes && bytes.size() == artwork_header_bytes + image_bytes;
  require(exact, invalid_presentation, "Game artwork must be an exact uncompressed RGB24 BMP");
}

}  // namespace ravok
