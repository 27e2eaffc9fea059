#include "app/install/package_seal.hpp"

#include <cstddef>

#include "domain/text_rules.hpp"

namespace ravok {
namespace {

static_assert(package_seal_mark.size() == PackageSealSlot().mark.size());

}  // namespace

std::string read_seal(const volatile PackageSealSlot& slot) {
  // Read from memory, whatever the compiler knew of the slot when it was built; and without a second copy of the
  // mark in the image.
  const volatile char* const bytes = reinterpret_cast<const volatile char*>(&slot) + offsetof(PackageSealSlot, seal);
  std::string seal;
  for (std::size_t i = 0; i < seal_characters; ++i) {
    seal += bytes[i];
  }
  return is_lower_hex(seal) ? seal : "";
}

}  // namespace ravok
