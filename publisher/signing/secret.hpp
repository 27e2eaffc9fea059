// Bytes that nobody else may see: they are overwritten in memory when they are no longer needed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ravok {

// Never holds more bytes than it was made with, so that it never leaves a copy of them behind.
class Secret {
 public:
  // `size` bytes of value 0.
  explicit Secret(std::size_t size = 0) : bytes_(size) {}
  ~Secret();
  Secret(Secret&&) noexcept = default;
  Secret& operator=(Secret&&) = delete;
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  // Keeps the first `size` bytes, which must be there, and overwrites the others.
  void shorten(std::size_t size);

  std::span<std::uint8_t> bytes() { return bytes_; }
  std::span<const std::uint8_t> bytes() const { return bytes_; }
  std::string_view text() const { return {reinterpret_cast<const char*>(bytes_.data()), bytes_.size()}; }

 private:
  std::vector<std::uint8_t> bytes_;
};

// Overwrites a text that has held a secret.
void wipe(std::string& text);

}  // namespace ravok
