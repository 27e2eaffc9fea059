// The package that a setup program installs from, where the user names no other, and the brand that comes with it.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "app/install/appended_package.hpp"
#include "app/setup/setup_command.hpp"

namespace ravok {

// Answers where the running program's own file carries its package, if it does.
using FindAppendedPlace = std::function<std::optional<AppendedPlace>()>;

// Gives a command the package that the running installer came with: the one in its own file, or the one beside it. The
// command then names none where there is neither. Fails with "content_mismatch" for a package in a program without a
// seal, as AppendedPackage::in_file does, and with what `find_place` throws.
void find_setup_package(SetupCommand& command, std::string_view package_seal, const FindAppendedPlace& find_place);

// Takes over the brand of a command's package: its name becomes that of the process and, unless the user chose a
// folder, its folder that of the command. Fails as package_brand and default_install_folder do.
void use_package_brand(SetupCommand& command, std::string_view package_seal);

}  // namespace ravok
