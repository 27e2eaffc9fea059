#include "platform/process/native_platform.hpp"

#include "domain/launcher_contract.hpp"
#include "platform/os.hpp"

namespace ravok {

std::string_view native_platform() { return os::platform_name(); }

bool programs_are_bundles() { return os::programs_are_bundles(); }

std::string launcher_manifest_target() { return launcher_manifest_target(native_platform()); }

}  // namespace ravok
