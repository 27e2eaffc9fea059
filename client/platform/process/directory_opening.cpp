#include "platform/process/directory_opening.hpp"

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/status.hpp"
#include "platform/os.hpp"
#include "platform/process/process_operations.hpp"

namespace ravok {

void open_directory(const std::filesystem::path& path) {
  const auto status = link_status_of(without_end_separator(path));
  require(status && is_directory(*status), "location_unavailable", "Local directory is unavailable");
  const os::ProgramEnd end = os::run_program({std::string(os::directory_opener()), path_utf8(path)});
  require(end != os::ProgramEnd::not_prepared, "desktop_unavailable", "Cannot initialize native directory opening");
  require(end != os::ProgramEnd::not_started, "desktop_unavailable", "No native directory opener is available");
  require(end == os::ProgramEnd::succeeded, "desktop_unavailable", "Native directory opening failed");
}

}  // namespace ravok
