#include "app/setup/adjacent_package.hpp"

#include <system_error>

#include "platform/process/native_platform.hpp"

namespace ravok {

std::filesystem::path macos_installer_package(const std::filesystem::path& executable) {
  const std::filesystem::path programs = executable.parent_path();
  const std::filesystem::path contents = programs.parent_path();
  if (executable.filename() != "ravok-install-gui" || programs.filename() != "MacOS" ||
      contents.filename() != "Contents" || contents.parent_path().filename() != "RavokInstaller.app") {
    return {};
  }
  return contents / "Resources" / "initial-package";
}

std::filesystem::path linux_installer_package(const std::filesystem::path& executable) {
  const std::filesystem::path program = executable.filename();
  if (program != "ravok-install" && program != "ravok-install-gui") {
    return {};
  }
  return executable.parent_path() / "initial-package";
}

std::filesystem::path adjacent_initial_package(const std::filesystem::path& executable) {
  std::filesystem::path package =
      programs_are_bundles() ? macos_installer_package(executable) : linux_installer_package(executable);
  std::error_code ignored;
  return std::filesystem::is_directory(package, ignored) ? package : std::filesystem::path();
}

}  // namespace ravok
