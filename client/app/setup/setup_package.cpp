#include "app/setup/setup_package.hpp"

#include <filesystem>

#include "app/brand/brand.hpp"
#include "app/install/data_folder.hpp"
#include "app/install/native_package.hpp"
#include "app/setup/adjacent_package.hpp"
#include "domain/error.hpp"
#include "platform/process/process.hpp"

namespace ravok {

void find_setup_package(SetupCommand& command, std::string_view package_seal, const FindAppendedPlace& find_place) {
  const std::filesystem::path installer = current_executable_path();
  if (const std::optional<AppendedPlace> place = find_place ? find_place() : std::nullopt) {
    // A program that was given its package was given the seal too.
    require(!package_seal.empty(), "content_mismatch", installer_damaged);
    command.appended = AppendedPackage::in_file(installer, *place);
    command.package = installer;
  } else {
    command.package = adjacent_initial_package(installer);
  }
}

void use_package_brand(SetupCommand& command, std::string_view package_seal) {
  const std::optional<Brand> brand =
      command.appended ? package_brand(command.appended, package_seal) : package_brand(command.package, package_seal);
  if (brand) {
    set_product_name(brand->name);
  }
  if (!command.data_root_chosen) {
    command.data_root = default_install_folder(brand);
  }
}

}  // namespace ravok
