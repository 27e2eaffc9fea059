// Texts as bytes, and the numbers in the bytes of binary files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace ravok {

// Returns the unsigned number of `size` bytes, at most 4, at an offset, the least significant byte first. All of it
// must lie within the bytes.
constexpr std::uint32_t number_at(std::string_view bytes, std::size_t offset, std::size_t size) {
  std::uint32_t number = 0;
  for (std::size_t i = size; i > 0; --i) {
    number = number << 8 | static_cast<unsigned char>(bytes[offset + i - 1]);
  }
  return number;
}

// The bytes of a text, which must outlive them.
inline std::span<const std::uint8_t> bytes_of(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace ravok
