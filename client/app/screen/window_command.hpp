// The command line of the setup programs with a window.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "app/command/command_outline.hpp"

namespace ravok {

struct WindowCommand {
  std::filesystem::path package;    // empty if none was chosen; of an installer alone
  std::filesystem::path data_root;  // the chosen or the default data folder
  bool data_root_chosen = false;
  bool smoke = false;  // ends once the window was drawn
  bool help = false;
};

// Returns the command of an argument list, which does not hold the program's name. The last of a repeated option
// counts. `default_data_root` is asked unless the user names a folder or wants help. Fails with "usage", and as it
// does.
WindowCommand parse_window_command(const std::vector<std::string>& arguments, bool installer,
                                   const std::function<std::filesystem::path()>& default_data_root);

// Returns the usage text.
std::string window_usage(std::string_view program_name, bool installer);

// Return the same as data, for the two programs.
ProgramOutline install_window_outline();
ProgramOutline maintenance_window_outline();

}  // namespace ravok
