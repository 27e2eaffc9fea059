// From a command line to what a setup window works with: the package, the brand, the theme and the folder.
#pragma once

#include <string>
#include <string_view>

#include "app/screen/setup_dialog.hpp"
#include "app/screen/window_command.hpp"
#include "app/setup/setup_package.hpp"

namespace ravok {

struct SetupWindow {
  SetupSubject subject;
  std::string icon;  // the bytes of the brand's .ico file; empty if it has none
};

// Finds the package of an installer, and makes its name and its theme those of the process. A package that cannot be
// used is no failure here: the subject says what is wrong with it. Fails with "native_install_incomplete" and
// "launcher_identity" for a program in a place where none may run, as require_complete_native_install_image does.
SetupWindow find_install_window(const WindowCommand& command, std::string_view package_seal,
                                const FindAppendedPlace& find_place);

// Returns the same for the removal of an installation, whose name and theme become those of the process as far as they
// can be read. Fails in the same cases.
SetupWindow find_maintenance_window(const WindowCommand& command);

}  // namespace ravok
