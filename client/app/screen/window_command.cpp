#include "app/screen/window_command.hpp"

#include <array>
#include <cstddef>

#include "domain/error.hpp"
#include "domain/paths.hpp"

namespace ravok {
namespace {

struct WindowOption {
  std::string_view name;
  std::string_view value;  // by what name the help knows its value; empty for a flag
  std::string_view help;   // what it does, in the words of the help and of the manual
  bool installer_only;
  void (*set)(WindowCommand& command, const std::string& value);
};

constexpr auto window_options = std::to_array<WindowOption>({
    {"--package", "DIR", "The folder of the initial package, in place of the one that comes with the program", true,
     [](WindowCommand& command, const std::string& value) { command.package = path_from_utf8(value); }},
    {"--data-dir", "DIR", "The folder of the installation, in place of the default one", false,
     [](WindowCommand& command, const std::string& value) {
       command.data_root = path_from_utf8(value);
       command.data_root_chosen = true;
     }},
    {"--smoke", "", "Ends the program once its window was drawn, to try whether it can", false,
     [](WindowCommand& command, const std::string&) { command.smoke = true; }},
    {"--help", "", "Prints a short help", false,
     [](WindowCommand& command, const std::string&) { command.help = true; }},
});

const WindowOption* find_window_option(std::string_view argument, bool installer) {
  const std::string_view name = argument == "-h" ? "--help" : argument;
  for (const WindowOption& option : window_options) {
    if (option.name == name && (installer || !option.installer_only)) {
      return &option;
    }
  }
  return nullptr;
}

ProgramOutline window_outline(std::string_view program_name, bool installer) {
  ProgramOutline outline;
  outline.program = program_name;
  for (const WindowOption& option : window_options) {
    if (installer || !option.installer_only) {
      outline.options.push_back({std::string(option.name), std::string(option.value), std::string(option.help)});
    }
  }
  return outline;
}

}  // namespace

WindowCommand parse_window_command(const std::vector<std::string>& arguments, bool installer,
                                   const std::function<std::filesystem::path()>& default_data_root) {
  WindowCommand command;
  for (std::size_t next = 0; next < arguments.size();) {
    const std::string& argument = arguments[next++];
    const WindowOption* const option = find_window_option(argument, installer);
    require(option != nullptr, "usage",
            (argument.starts_with('-') ? "Unknown option: " : "Unexpected argument: ") + argument);
    if (option->value.empty()) {
      option->set(command, {});
      continue;
    }
    require(next < arguments.size() && !arguments[next].empty(), "usage", "Option " + argument + " needs a value");
    option->set(command, arguments[next++]);
  }
  if (!command.data_root_chosen && !command.help) {
    command.data_root = default_data_root();
  }
  return command;
}

std::string window_usage(std::string_view program_name, bool installer) {
  constexpr std::size_t column = 20;
  std::string usage = "Usage: " + std::string(program_name) + " [OPTION]...\n\nOptions:\n";
  for (const WindowOption& option : window_options) {
    if (installer || !option.installer_only) {
      std::string line =
          "  " + std::string(option.name) + (option.value.empty() ? "" : " ") + std::string(option.value);
      line.resize(column, ' ');
      usage += line + std::string(option.help) + "\n";
    }
  }
  return usage;
}

ProgramOutline install_window_outline() { return window_outline("ravok-install-gui", true); }

ProgramOutline maintenance_window_outline() { return window_outline("ravok-maintenance-gui", false); }

}  // namespace ravok
