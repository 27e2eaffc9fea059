// Publishing an installer: a folder ready to ship, with the installer program sealed for one package and that
// package beside it.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "platform/progress.hpp"

namespace ravok {

struct InstallerPublication {
  std::filesystem::path package;  // as publish_package wrote it
  std::filesystem::path program;  // ravok-install, whatever its seal
  std::filesystem::path output;   // the folder to make
};

struct PublishedInstaller {
  std::filesystem::path program;
  std::filesystem::path package;
  std::string seal;
};

// Returns an installer's image with this seal in its slot. Fails with "invalid_installer" for bytes that have not
// exactly one slot.
std::string with_seal(std::string image, std::string_view seal);

// Writes "ravok-install" and "initial-package" into a new folder and reads the package there with the seal in the
// program. `progress`, which may be empty, is told of the bytes proved, copied and proved again. After a failure
// nothing is left behind. Fails with "output_exists", "invalid_installer" for a program without a place for a
// seal, and as read_native_package, read_file and ExportFile do.
PublishedInstaller publish_installer(const InstallerPublication& publication, const ProgressCallback& progress);

}  // namespace ravok
