// What the client's own commands under the word "self" come to that need no launcher: the removal of the client, which
// becomes a command of the maintenance helper, and the shortcuts.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "domain/json.hpp"

namespace ravok {

// Returns the arguments without any "--json", in their order. `found` becomes true where there was one, and is left
// alone otherwise.
std::vector<std::string> without_json(const std::vector<std::string>& arguments, bool& found);

// Returns the arguments of a command that is answered here, or handed to the helper, with --json once and first, where
// the grammar wants it; it may stand in any place. All other arguments are returned as they are.
std::vector<std::string> with_json_first(const std::vector<std::string>& arguments);

// Returns the helper's arguments for "self uninstall", and none for any other command. "--json" may stand anywhere. The
// helper runs in another directory, so `data_root` is absolute. Fails with "usage" for a tail that the command does not
// have, and as path_utf8 does.
std::vector<std::string> maintenance_arguments(const std::vector<std::string>& arguments,
                                               const std::filesystem::path& data_root);

// Runs a command of the family "self shortcut" and returns its document, or null for any other command, for which
// nothing is done. "--json" may stand anywhere. Making a shortcut gives this process the name of the installed product,
// so this is for a program that has no other thread yet. Fails with "usage" for another form than the two of the
// family, as validate_identifier does for the game, and as NativeInstaller's create_shortcut and remove_shortcuts do.
Json native_maintenance_control(const std::filesystem::path& data_root, const std::vector<std::string>& arguments);

}  // namespace ravok
