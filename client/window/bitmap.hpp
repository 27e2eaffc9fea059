// The pixels of the plain bitmaps that themes and games bring.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ravok {

struct Pixels {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::string rgb;  // three bytes for each, row by row from the top
};

// Returns the pixels of an uncompressed BMP file of 24 bits a pixel, bottom row first, of at most 2048 by 2048 pixels.
// Fails with "invalid_bitmap" for any other bytes.
Pixels decode_bitmap(std::string_view bytes);

}  // namespace ravok
