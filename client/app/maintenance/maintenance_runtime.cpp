#include "app/maintenance/maintenance_runtime.hpp"

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/snapshot/complete_install.hpp"

namespace ravok {
namespace {

// How the name of a temporary folder with a copy of the helper begins.
constexpr std::string_view copy_prefix = "ravok-maintenance-";

}  // namespace

void require_maintenance_runtime_image(const std::filesystem::path& executable) {
  visit_image_folders(executable, [](const std::filesystem::path& folder) {
    require(!name_of(folder).starts_with(copy_prefix), "maintenance_copy",
            "A temporary maintenance helper cannot start Ravok");
  });
}

}  // namespace ravok
