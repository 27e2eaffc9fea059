#include "app/install/setup_marker.hpp"

#include "domain/json.hpp"
#include "platform/snapshot/complete_install.hpp"

namespace ravok {

void write_setup_marker(const HeldDirectory& root) {
  const Json marker = {{"schema_version", 1}, {"kind", "ravok-setup-incomplete"}};
  root.write(incomplete_install_marker, marker.dump());
}

void remove_setup_marker(const HeldDirectory& root) { root.remove(incomplete_install_marker); }

}  // namespace ravok
