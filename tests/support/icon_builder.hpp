// Builds icon files for tests, and the PNG images in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ravok::testing {

// A number of 4 bytes as PNG files have it: the most significant first.
inline std::string big_number(std::uint32_t number) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) {
    bytes += static_cast<char>(number >> shift & 0xff);
  }
  return bytes;
}

// A number of `size` bytes as icon files have it: the least significant first.
inline std::string small_number(std::uint32_t number, std::size_t size) {
  std::string bytes;
  for (std::size_t i = 0; i < size; ++i) {
    bytes += static_cast<char>(number >> (8 * i) & 0xff);
  }
  return bytes;
}

// The checksum of PNG files, taken one bit after the other.
inline std::uint32_t png_checksum(std::string_view bytes) {
  std::uint32_t sum = 0xffffffff;
  for (const char c : bytes) {
    const std::uint32_t byte = static_cast<unsigned char>(c);
    for (int bit = 0; bit < 8; ++bit) {
      const bool odd = ((sum ^ byte >> bit) & 1) != 0;
      sum = odd ? sum >> 1 ^ 0xedb88320 : sum >> 1;
    }
  }
  return ~sum;
}

inline std::string png_chunk(const std::string& type, const std::string& data) {
  return big_number(static_cast<std::uint32_t>(data.size())) + type + data + big_number(png_checksum(type + data));
}

inline const std::string png_signature("\x89PNG\r\n\x1a\n", 8);

// The first chunk of an image of 8 bits of gray a pixel.
inline std::string png_header(std::uint32_t width, std::uint32_t height) {
  return png_chunk("IHDR", big_number(width) + big_number(height) + std::string("\x08\0\0\0\0", 5));
}

// The pixels of such an image, in stored blocks of the compression.
inline std::string png_pixels(std::uint32_t width, std::uint32_t height, char level = '\x80') {
  std::string rows;
  for (std::uint32_t row = 0; row < height; ++row) {
    rows += '\0' + std::string(width, level);
  }
  std::uint32_t low = 1;
  std::uint32_t high = 0;
  for (const char c : rows) {
    low = (low + static_cast<unsigned char>(c)) % 65'521;
    high = (high + low) % 65'521;
  }
  constexpr std::size_t longest_block = 65'535;
  std::string stream("\x78\x01", 2);
  for (std::size_t start = 0; start < rows.size(); start += longest_block) {
    const std::string block = rows.substr(start, longest_block);
    const auto size = static_cast<std::uint32_t>(block.size());
    stream += start + block.size() == rows.size() ? '\1' : '\0';
    stream += small_number(size, 2) + small_number(~size & 0xffff, 2) + block;
  }
  return stream + big_number(high << 16 | low);
}

// A PNG file that any reader takes.
inline std::string png_image(std::uint32_t width, std::uint32_t height, char level = '\x80') {
  return png_signature + png_header(width, height) + png_chunk("IDAT", png_pixels(width, height, level)) +
         png_chunk("IEND", "");
}

// An image as icon files have it in place of a PNG: the header of a bitmap, and bytes that nothing here looks at.
inline std::string icon_bitmap() { return small_number(40, 4) + std::string(60, 'b'); }

// An icon file of these images, one behind the other.
inline std::string icon_of(const std::vector<std::string>& images) {
  std::string directory = std::string("\0\0\1\0", 4) + small_number(static_cast<std::uint32_t>(images.size()), 2);
  std::string content;
  const std::size_t start = directory.size() + 16 * images.size();
  for (const std::string& image : images) {
    directory += std::string("\x10\x10\0\0\1\0\x20\0", 8) + small_number(static_cast<std::uint32_t>(image.size()), 4) +
                 small_number(static_cast<std::uint32_t>(start + content.size()), 4);
    content += image;
  }
  return directory + content;
}

}  // namespace ravok::testing
