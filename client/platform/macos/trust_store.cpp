#include "platform/network/trust_store.hpp"

namespace ravok {

std::vector<std::filesystem::path> os::trust_bundle_places() { return {}; }

}  // namespace ravok
