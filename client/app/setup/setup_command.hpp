// The command line of the setup programs.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "app/command/command_outline.hpp"
#include "app/install/appended_package.hpp"

namespace ravok {

// The numbers are fixed; the two below 2 need an initial package.
enum class SetupCommandKind : std::uint32_t {
  install = 0,
  repair = 1,
  status = 2,
  uninstall = 3,
  shortcut_create = 4,
  shortcut_remove = 5,
};

struct SetupCommand {
  SetupCommandKind command = SetupCommandKind::install;
  std::filesystem::path package;    // empty if none was chosen
  std::filesystem::path data_root;  // the chosen or the default data folder
  bool data_root_chosen = false;    // whether --data-dir was given
  std::string game;                 // empty if none was named; of an install or a repair, only a front end names one
  bool remove_data = false;
  bool json = false;
  bool help = false;
  // The package in the running installer's own file, which is then the one at `package`; null for one in a directory.
  std::shared_ptr<const AppendedPackage> appended = nullptr;
  // What a front end knows of the game that the command line does not: the name of its shortcut. Empty for the ID.
  std::string game_name;
};

// Returns whether the command is install or repair, which only an installer may run.
bool needs_package(SetupCommandKind command);

// Returns the command of an argument list, which does not hold the program's name. Options and the command word may
// stand in any order, and the last of a repeated option counts. Fails with "usage", and for a bad game with
// "invalid_identity" or "unsafe_path".
SetupCommand parse_setup_command(const std::vector<std::string>& arguments,
                                 const std::filesystem::path& default_data_root);

// Returns the usage text; `installer` adds the two commands that only an installer has.
std::string setup_usage(std::string_view program_name, bool installer);

// Returns the same as data: the commands and options, and what each does, without what the program is and says at its
// end.
ProgramOutline setup_outline(std::string_view program_name, bool installer);

}  // namespace ravok
