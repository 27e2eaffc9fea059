#include "app/package_seal.hpp"

#include <algorithm>

namespace ravok {
namespace {

static_assert(package_seal_mark.size() == PackageSealSlot().mark.size());

bool is_seal(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

}  // namespace

std::string read_seal(const volatile PackageSealSlot& slot) {
  // Read from memory, whatever the compiler knew of the slot when it was built; and without a second copy of the
  // mark in the image.
  const volatile char* const bytes = reinterpret_cast<const volatile char*>(&slot) + offsetof(PackageSealSlot, seal);
  std::string seal;
  for (std::size_t i = 0; i < seal_characters; ++i) {
    seal += bytes[i];
  }
  return is_seal(seal) ? seal : "";
}

}  // namespace ravok
