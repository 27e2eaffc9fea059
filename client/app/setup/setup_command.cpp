#include "app/setup/setup_command.hpp"

#include <array>
#include <cstddef>

#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/paths.hpp"

namespace ravok {
namespace {

// One command. The help shows the lines of `help` behind the command and its options; a command without any stands with
// the next one in a line.
struct SetupRow {
  SetupCommandKind kind;
  std::string_view words;
  std::array<std::string_view, 2> help;
  std::string_view text;  // what the manual says of it
};

constexpr auto setup_rows = std::to_array<SetupRow>({
    {SetupCommandKind::install,
     "install",
     {"Install Ravok (the default command)"},
     "Makes an installation in an empty folder, or in one of an earlier installation; the default command"},
    {SetupCommandKind::repair,
     "repair",
     {"Replace damaged Ravok files; keeps games, saves and settings"},
     "Proves every installed file, and replaces what is damaged, missing or half-finished; games, saves and settings "
     "stay"},
    {SetupCommandKind::status,
     "status",
     {"Show what is installed"},
     "Says what is installed, and how the last install or repair ended"},
    {SetupCommandKind::uninstall,
     "uninstall",
     {"Remove Ravok and its games; saves and settings stay", "unless --remove-data is given"},
     "Removes the client and its games; saves and settings stay"},
    {SetupCommandKind::shortcut_create, "shortcut create", {}, "Puts the client, or a game, into the application menu"},
    {SetupCommandKind::shortcut_remove,
     "shortcut remove",
     {},
     "Takes the entries that the client made, those of games too, out of the menu; entries that were changed since "
     "stay"},
});

bool takes_package(SetupCommandKind kind) { return needs_package(kind); }
bool removes_data(SetupCommandKind kind) { return kind == SetupCommandKind::uninstall; }
bool names_game(SetupCommandKind kind) { return kind == SetupCommandKind::shortcut_create; }

// One option. What is set stands for the option having been given, in `given`.
struct SetupOption {
  std::string_view name;
  std::string_view value;  // by what name the help knows its value; empty for a flag
  std::string_view text;   // what the manual says of it
  void (*set)(SetupCommand& command, const std::string& value);
  bool (*given)(const SetupCommand& command) = nullptr;
  bool (*applies)(SetupCommandKind kind) = nullptr;  // null where it applies to every command
  std::string_view only = {};                        // the commands that it applies to, in words
};

constexpr auto setup_options = std::to_array<SetupOption>({
    {"--package", "DIR",
     "The folder of the initial package to install or repair from; by default the package in the program's own file, "
     "or "
     "the folder initial-package beside it",
     [](SetupCommand& command, const std::string& value) { command.package = path_from_utf8(value); },
     [](const SetupCommand& command) { return !command.package.empty(); }, takes_package, "install and repair"},
    {"--remove-data", "", "Removes saves and settings too",
     [](SetupCommand& command, const std::string&) { command.remove_data = true; },
     [](const SetupCommand& command) { return command.remove_data; }, removes_data, "uninstall"},
    {"--game", "ID", "The game, by its identifier",
     [](SetupCommand& command, const std::string& value) { command.game = value; },
     [](const SetupCommand& command) { return !command.game.empty(); }, names_game, "shortcut create"},
    {"--data-dir", "DIR", "The folder of the installation, in place of the default one",
     [](SetupCommand& command, const std::string& value) {
       command.data_root = path_from_utf8(value);
       command.data_root_chosen = true;
     }},
    {"--json", "", "Prints the result as one JSON document, and a failure after the command line was read too",
     [](SetupCommand& command, const std::string&) { command.json = true; }},
    {"--help", "", "Prints a short help", [](SetupCommand& command, const std::string&) { command.help = true; }},
});

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
  const std::string_view name = argument == "-h" ? std::string_view("--help") : std::string_view(argument);
  for (const SetupOption& option : setup_options) {
    if (option.name == name) {
      option.set(command, option.value.empty() ? std::string() : grammar.value(argument));
      return true;
    }
  }
  return false;
}

SetupCommandKind parse_command_word(const std::string& word, Grammar& grammar) {
  const bool of_two = word == "shortcut";
  const std::string words = of_two ? word + " " + (grammar.done() ? std::string() : grammar.next()) : word;
  for (const SetupRow& row : setup_rows) {
    // One argument with a blank in it is no command of two words.
    if (row.words == words && of_two == (row.words.find(' ') != std::string_view::npos)) {
      return row.kind;
    }
  }
  require(!of_two, "usage", "Use shortcut create or shortcut remove");
  fail("usage", "Unknown command: " + word);
}

void check_combination(const SetupCommand& command) {
  for (const SetupOption& option : setup_options) {
    require(option.applies == nullptr || option.applies(command.command) || !option.given(command), "usage",
            std::string(option.name) + " only applies to " + std::string(option.only));
  }
  if (!command.game.empty()) {
    validate_identifier(command.game);
  }
}

// Returns a command with its own options, as the help shows them.
std::string form_of(const SetupRow& row) {
  std::string form(row.words);
  for (const SetupOption& option : setup_options) {
    if (option.applies != nullptr && option.applies(row.kind)) {
      form += " [" + std::string(option.name) + (option.value.empty() ? "" : " ") + std::string(option.value) + "]";
    }
  }
  return form;
}

OptionOutline setup_outline_of(const SetupOption& option) {
  return {std::string(option.name), std::string(option.value), std::string(option.text)};
}

CommandOutline setup_outline_of(const SetupRow& row) {
  CommandOutline command = {std::string(row.words), std::string(row.text), {}, {}};
  for (const SetupOption& option : setup_options) {
    if (option.applies != nullptr && option.applies(row.kind)) {
      command.options.push_back(setup_outline_of(option));
    }
  }
  return command;
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
  constexpr std::size_t column = 28;
  std::string usage = "Usage: " + std::string(program_name) + " [COMMAND] [--data-dir DIR] [--json]\n\nCommands:\n";
  std::string line;
  for (const SetupRow& row : setup_rows) {
    if (needs_package(row.kind) && !installer) {
      continue;
    }
    line += (line.empty() ? "  " : " | ") + form_of(row);
    for (const std::string_view text : row.help) {
      if (!text.empty()) {
        line.resize(column, ' ');
        usage += line + std::string(text) + "\n";
        line.clear();
      }
    }
  }
  return usage + line + "\n";
}

ProgramOutline setup_outline(std::string_view program_name, bool installer) {
  ProgramOutline outline;
  outline.program = program_name;
  outline.options_anywhere = true;
  for (const SetupOption& option : setup_options) {
    if (option.applies == nullptr) {
      outline.options.push_back(setup_outline_of(option));
    }
  }
  for (const SetupRow& row : setup_rows) {
    if (!needs_package(row.kind) || installer) {
      outline.commands.push_back(setup_outline_of(row));
    }
  }
  if (installer) {
    outline.default_command = setup_rows.front().words;
  }
  return outline;
}

}  // namespace ravok
