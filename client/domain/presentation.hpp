// The store page text and the small artwork that a game's manifest may carry. They arrive over the
// network and are shown, so they are bounded tightly, and a picture is one plain bitmap that no
// image decoder has to look at.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

struct GameArtwork {
  std::uint32_t width = 0;   // pixels, 1 to 128
  std::uint32_t height = 0;  // pixels, 1 to 128
  std::string bitmap;        // the bytes of an uncompressed BMP file of 24 bits a pixel
  std::string alternative_text;
};

struct GamePresentation {
  // Returns the presentation of a document under the game's display name. Every key is optional; an unknown key is
  // refused. Fails with "invalid_presentation".
  static GamePresentation parse(std::string_view display_name, const Json& document);

  // Returns everything but the pixels as a JSON object.
  Json summary() const;

  std::string display_name;
  std::string tagline;
  std::string description;
  std::string monogram;  // one to four characters, or none
  std::optional<GameArtwork> artwork;
};

// Accepts only the exact bytes of an uncompressed BMP file of 24 bits a pixel, bottom row first, of this width and
// height, each 1 to 128 pixels. Fails with "invalid_presentation".
void validate_presentation_bitmap(std::string_view bytes, std::uint32_t width, std::uint32_t height);

}  // namespace ravok
