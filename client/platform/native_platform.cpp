#include "platform/native_platform.hpp"

#include "platform/os.hpp"

namespace ravok {

std::string_view native_platform() { return os::platform_name(); }

}  // namespace ravok
