#include "app/package_seal.hpp"

#include <algorithm>

#include "domain/error.hpp"

namespace ravok {
namespace {

static_assert(package_seal_mark.size() == PackageSealSlot().mark.size());

bool is_seal(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

}  // namespace

std::string read_seal(const volatile PackageSealSlot& slot) {
  // Read from memory, whatever the compiler knew of the slot when it was built.
  const volatile char* const bytes = reinterpret_cast<const volatile char*>(&slot) + package_seal_mark.size();
  std::string seal;
  for (std::size_t i = 0; i < seal_characters; ++i) {
    seal += bytes[i];
  }
  return is_seal(seal) ? seal : "";
}

std::string with_seal(std::string image, std::string_view seal) {
  const std::size_t slot = image.find(package_seal_mark);
  require(slot != std::string::npos && image.find(package_seal_mark, slot + 1) == std::string::npos &&
              image.size() - slot >= sizeof(PackageSealSlot),
          "invalid_installer", "The program has no place for a package seal");
  image.replace(slot + package_seal_mark.size(), seal_characters, seal);
  return image;
}

}  // namespace ravok
