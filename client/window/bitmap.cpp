#include "window/bitmap.hpp"

#include <cstddef>

#include "domain/bytes.hpp"
#include "domain/error.hpp"

namespace ravok {
namespace {

constexpr std::size_t bitmap_header = 54;
constexpr std::size_t bytes_per_pixel = 3;
constexpr std::uint32_t maximum_bitmap_side = 2048;

std::uint32_t field_at(std::string_view bytes, std::size_t place) { return number_at(bytes, place, 4); }

}  // namespace

Pixels decode_bitmap(std::string_view bytes) {
  constexpr const char* message = "Expected an uncompressed 24-bit BMP file";
  require(bytes.size() >= bitmap_header && bytes.starts_with("BM"), "invalid_bitmap", message);
  Pixels pixels = {field_at(bytes, 18), field_at(bytes, 22), {}};
  require(pixels.width != 0 && pixels.width <= maximum_bitmap_side && pixels.height != 0 &&
              pixels.height <= maximum_bitmap_side,
          "invalid_bitmap", message);
  const std::size_t row = pixels.width * bytes_per_pixel;
  const std::size_t stride = (row + 3) / 4 * 4;
  // One plane of 24 bits a pixel, and no compression.
  require(bytes.size() == bitmap_header + stride * pixels.height && field_at(bytes, 10) == bitmap_header &&
              field_at(bytes, 14) == 40 && field_at(bytes, 26) == (24U << 16U | 1U) && field_at(bytes, 30) == 0,
          "invalid_bitmap", message);
  pixels.rgb.reserve(row * pixels.height);
  for (std::uint32_t line = pixels.height; line-- > 0;) {
    const std::string_view source = bytes.substr(bitmap_header + stride * line, row);
    for (std::size_t at = 0; at < row; at += bytes_per_pixel) {
      pixels.rgb += {source[at + 2], source[at + 1], source[at]};
    }
  }
  return pixels;
}

}  // namespace ravok
