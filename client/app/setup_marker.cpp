#include "app/setup_marker.hpp"

#include "domain/json.hpp"
#include "platform/files.hpp"
#include "platform/native_files.hpp"

namespace ravok {

void write_setup_marker(const DataPaths& paths) {
  const Json marker = {{"schema_version", 1}, {"kind", "ravok-setup-incomplete"}};
  atomic_write(paths.incomplete_marker, marker.dump());
}

void remove_setup_marker(const DataPaths& paths) { native_files::remove_or_trash(paths.incomplete_marker, {}); }

}  // namespace ravok
