// The seal that an installer carries in its own image: the digest of the one package that it may read. It is
// given when the installer is built, or put in afterwards.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace ravok {

inline constexpr std::size_t seal_characters = 64;

// The place of the seal in an installer's image, found by its mark. Without a seal, it holds no digest.
struct PackageSealSlot {
  std::array<char, 24> mark;
  std::array<char, seal_characters> seal;
};

inline constexpr std::string_view package_seal_mark = "ravok initial package = ";

// Returns a slot that holds the text as its seal, cut to its size or filled up with "-".
constexpr PackageSealSlot make_seal_slot(std::string_view seal) {
  PackageSealSlot slot{};
  for (std::size_t i = 0; i < slot.mark.size(); ++i) {
    slot.mark[i] = package_seal_mark[i];
  }
  for (std::size_t i = 0; i < slot.seal.size(); ++i) {
    slot.seal[i] = i < seal.size() ? seal[i] : '-';
  }
  return slot;
}

// Returns the seal in a slot as it is in the running image, or an empty text if it has none.
std::string read_seal(const volatile PackageSealSlot& slot);

}  // namespace ravok
