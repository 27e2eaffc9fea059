#include "app/install/package_seal.hpp"

#include <cstddef>

#include "domain/text_rules.hpp"

namespace ravok {
namespace {

static_assert(package_seal_mark.size() == PackageSealSlot().mark.size());

}  // namespace

std::string read_seal(const volatile PackageSealSlot& slot) {
  // Reads the seal from the running image, since it may have been put there after the compiler saw the slot. Leaves the
  // mark alone, so that the compiler puts no second copy of it into the image.
  const volatile char* const bytes = reinterpret_cast<const volatile char*>(&slot) + offsetof(PackageSealSlot, seal);
  std::string seal;
  for (std::size_t i = 0; i < seal_characters; ++i) {
    seal += bytes[i];
  }
  return is_lower_hex(seal) ? seal : "";
}

}  // namespace ravok
