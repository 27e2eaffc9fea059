#include "app/launcher/start_marker.hpp"

#include <memory>

#include "app/launcher/launcher_store.hpp"
#include "domain/data_layout.hpp"
#include "domain/paths.hpp"
#include "platform/file/held_directory.hpp"

namespace ravok {

void confirm_launcher_start(const std::filesystem::path& data_root) {
  const LauncherPaths paths(LauncherStore::for_launch(data_root)->store());
  HeldDirectory::open(paths.store).remove(name_of(paths.start_marker));
}

}  // namespace ravok
