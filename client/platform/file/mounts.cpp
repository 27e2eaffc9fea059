#include "platform/file/mounts.hpp"

#include <optional>
#include <string>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/os.hpp"

namespace ravok {

void require_no_mounts(int directory, const std::filesystem::path& path,
                       const std::function<bool(const std::filesystem::path& place)>& matters) {
  const std::optional<std::string> canonical = os::descriptor_path(directory);
  require(canonical.has_value(), "unsafe_path", "Cannot tell where the data folder is");
  for (const std::string& mount : os::mounts_below(*canonical)) {
    const std::filesystem::path place = path / path_from_utf8(mount).lexically_relative(path_from_utf8(*canonical));
    require(!matters(place), "unsafe_path",
            "A volume is mounted at " + path_utf8(place) + "; unmount it and try again");
  }
}

}  // namespace ravok
