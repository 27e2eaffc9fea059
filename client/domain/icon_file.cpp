#include "domain/icon_file.hpp"

#include <array>
#include <cstddef>

#include "domain/bytes.hpp"

namespace ravok {
namespace {

constexpr std::string_view icon_start("\0\0\1\0", 4);
// Far above what icons have, so that a directory cannot ask for the same bytes to be proved without end.
constexpr std::size_t maximum_images = 64;
constexpr std::size_t directory_start = 6;
constexpr std::size_t entry_bytes = 16;
constexpr std::size_t size_offset = 8;    // in an entry: the bytes of its image
constexpr std::size_t place_offset = 12;  // in an entry: where they begin in the file

constexpr std::string_view png_signature("\x89PNG\r\n\x1a\n", 8);
constexpr std::size_t chunk_frame_bytes = 12;  // a chunk's length, its type, and its checksum behind its data
constexpr std::size_t header_bytes = 13;

// The remainders of one byte each, for the checksum of PNG files.
constexpr std::array<std::uint32_t, 256> make_remainders() {
  std::array<std::uint32_t, 256> remainders{};
  for (std::uint32_t byte = 0; byte < remainders.size(); ++byte) {
    std::uint32_t remainder = byte;
    for (int bit = 0; bit < 8; ++bit) {
      remainder = (remainder & 1) != 0 ? remainder >> 1 ^ 0xedb88320 : remainder >> 1;
    }
    remainders[byte] = remainder;
  }
  return remainders;
}

std::uint32_t checksum(std::string_view bytes) {
  static constexpr std::array<std::uint32_t, 256> remainders = make_remainders();
  std::uint32_t sum = 0xffffffff;
  for (const char c : bytes) {
    sum = remainders[(sum ^ static_cast<unsigned char>(c)) & 0xff] ^ sum >> 8;
  }
  return ~sum;
}

// Returns the number of 4 bytes at an offset, the most significant first. All of it must lie within the bytes.
std::uint32_t big_number_at(std::string_view bytes, std::size_t offset) {
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    number = number << 8 | static_cast<unsigned char>(bytes[offset + i]);
  }
  return number;
}

struct Chunk {
  std::string_view type;
  std::string_view data;
};

// Takes the next chunk off the front, or nothing where no whole one is there.
std::optional<Chunk> take_chunk(std::string_view& rest) {
  if (rest.size() < chunk_frame_bytes) {
    return std::nullopt;
  }
  const std::uint32_t length = big_number_at(rest, 0);
  if (length > rest.size() - chunk_frame_bytes) {
    return std::nullopt;
  }
  const std::string_view proved = rest.substr(4, 4 + std::size_t{length});
  if (checksum(proved) != big_number_at(rest, 4 + proved.size())) {
    return std::nullopt;
  }
  rest.remove_prefix(chunk_frame_bytes + length);
  return Chunk{proved.substr(0, 4), proved.substr(4)};
}

struct PngImage {
  std::string_view bytes;
  std::uint64_t pixels = 0;
};

// Returns the PNG file that begins the bytes, without what stands behind its last chunk.
std::optional<PngImage> png_image(std::string_view bytes) {
  if (!bytes.starts_with(png_signature)) {
    return std::nullopt;
  }
  std::string_view rest = bytes.substr(png_signature.size());
  const std::optional<Chunk> header = take_chunk(rest);
  if (!header || header->type != "IHDR" || header->data.size() != header_bytes) {
    return std::nullopt;
  }
  const std::uint32_t width = big_number_at(header->data, 0);
  const std::uint32_t height = big_number_at(header->data, 4);
  if (width == 0 || height == 0 || width > maximum_icon_side || height > maximum_icon_side) {
    return std::nullopt;
  }
  bool has_data = false;
  for (;;) {
    const std::optional<Chunk> chunk = take_chunk(rest);
    if (!chunk || chunk->type == "IHDR") {
      return std::nullopt;
    }
    has_data = has_data || (chunk->type == "IDAT" && !chunk->data.empty());
    if (chunk->type == "IEND") {
      break;
    }
  }
  if (!has_data) {
    return std::nullopt;
  }
  return PngImage{bytes.substr(0, bytes.size() - rest.size()), std::uint64_t{width} * height};
}

}  // namespace

std::optional<std::string_view> largest_png_image(std::string_view icon) {
  if (icon.size() < directory_start || !icon.starts_with(icon_start)) {
    return std::nullopt;
  }
  const std::size_t count = number_at(icon, icon_start.size(), 2);
  const std::size_t directory_end = directory_start + count * entry_bytes;
  if (count > maximum_images || directory_end > icon.size()) {
    return std::nullopt;
  }
  std::optional<PngImage> largest;
  for (std::size_t entry = directory_start; entry < directory_end; entry += entry_bytes) {
    const std::size_t size = number_at(icon, entry + size_offset, 4);
    const std::size_t place = number_at(icon, entry + place_offset, 4);
    if (place < directory_end || place > icon.size() || size > icon.size() - place) {
      return std::nullopt;
    }
    const std::optional<PngImage> image = png_image(icon.substr(place, size));
    if (image && (!largest || image->pixels > largest->pixels)) {
      largest = image;
    }
  }
  return largest ? std::optional(largest->bytes) : std::nullopt;
}

}  // namespace ravok
