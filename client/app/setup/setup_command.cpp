#include "app/setup/setup_command.hpp"

#include <cstddef>

#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/paths.hpp"

namespace ravok {
namespace {

class Grammar {
 public:
  explicit Grammar(const std::vector<std::string>& arguments) : arguments_(arguments) {}

  bool done() const { return next_ == arguments_.size(); }
  const std::string& next() { return arguments_[next_++]; }

  // Returns the argument after `option`, whatever it begins with.
  const std::string& value(const std::string& option) {
    require(!done() && !arguments_[next_].empty(), "usage", "Option " + option + " needs a value");
    return next();
  }

 private:
  const std::vector<std::string>& arguments_;
  std::size_t next_ = 0;
};

bool parse_option(const std::string& argument, Grammar& grammar, SetupCommand& command) {
  if (argument == "--help" || argument == "-h") {
    command.help = true;
  } else if (argument == "--json") {
    command.json = true;
  } else if (argument == "--remove-data") {
    command.remove_data = true;
  } else if (argument == "--data-dir") {
    command.data_root = path_from_utf8(grammar.value(argument));
    command.data_root_chosen = true;
  } else if (argument == "--package") {
    command.package = path_from_utf8(grammar.value(argument));
  } else if (argument == "--game") {
    command.game = grammar.value(argument);
  } else {
    return false;
  }
  return true;
}

SetupCommandKind parse_shortcut_word(Grammar& grammar) {
  const std::string word = grammar.done() ? std::string() : grammar.next();
  if (word == "create") {
    return SetupCommandKind::shortcut_create;
  }
  require(word == "remove", "usage", "Use shortcut create or shortcut remove");
  return SetupCommandKind::shortcut_remove;
}

SetupCommandKind parse_command_word(const std::string& word, Grammar& grammar) {
  if (word == "install") {
    return SetupCommandKind::install;
  }
  if (word == "repair") {
    return SetupCommandKind::repair;
  }
  if (word == "status") {
    return SetupCommandKind::status;
  }
  if (word == "uninstall") {
    return SetupCommandKind::uninstall;
  }
  require(word == "shortcut", "usage", "Unknown command: " + word);
  return parse_shortcut_word(grammar);
}

void check_combination(const SetupCommand& command) {
  require(command.package.empty() || needs_package(command.command), "usage",
          "--package only applies to install and repair");
  require(!command.remove_data || command.command == SetupCommandKind::uninstall, "usage",
          "--remove-data only applies to uninstall");
  require(command.game.empty() || command.command == SetupCommandKind::shortcut_create, "usage",
          "--game only applies to shortcut create");
  if (!command.game.empty()) {
    validate_identifier(command.game);
  }
}

}  // namespace

bool needs_package(SetupCommandKind command) { return static_cast<std::uint32_t>(command) < 2; }

SetupCommand parse_setup_command(const std::vector<std::string>& arguments,
                                 const std::filesystem::path& default_data_root) {
  SetupCommand command;
  command.data_root = default_data_root;
  Grammar grammar(arguments);
  bool command_seen = false;
  while (!grammar.done()) {
    const std::string& argument = grammar.next();
    if (parse_option(argument, grammar, command)) {
      continue;
    }
    require(!argument.starts_with('-'), "usage", "Unknown option: " + argument);
    require(!command_seen, "usage", "Choose one command");
    command.command = parse_command_word(argument, grammar);
    command_seen = true;
  }
  check_combination(command);
  return command;
}

std::string setup_usage(std::string_view program_name, bool installer) {
  std::string usage = "Usage: " + std::string(program_name) + " [COMMAND] [--data-dir DIR] [--json]\n\nCommands:\n";
  if (installer) {
    usage +=
        "  install [--package DIR]   Install Ravok (the default command)\n"
        "  repair [--package DIR]    Replace damaged Ravok files; keeps games, saves and settings\n";
  }
  usage +=
      "  status                    Show what is installed\n"
      "  uninstall [--remove-data] Remove Ravok and its games; saves and settings stay\n"
      "                            unless --remove-data is given\n"
      "  shortcut create [--game ID] | shortcut remove\n";
  return usage;
}

}  // namespace ravok
