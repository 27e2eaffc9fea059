#include "app/command/cli_entry.hpp"

#include <algorithm>
#include <cstddef>
#include <span>
#include <utility>

#include "app/command/cli_rows.hpp"
#include "app/command/program_version.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_cli_arguments = 128;

void identifier(std::string_view text) {
  try {
    validate_identifier(text);
  } catch (const Error& refusal) {
    fail("usage", refusal.what());
  }
}

// Returns how many arguments the words of a command are, or 0 where the arguments do not begin with them.
std::size_t matching_words(std::string_view words, std::span<const std::string> arguments) {
  std::size_t count = 0;
  while (!words.empty()) {
    if (count == arguments.size() || arguments[count] != next_word(words)) {
      return 0;
    }
    ++count;
  }
  return count;
}

// Returns the row with the most words that the arguments begin with, and takes the words off the arguments.
const CliRow& take_row(std::span<const std::string>& arguments) {
  const CliRow* found = nullptr;
  std::size_t longest = 0;
  for (const CliRow& row : cli_rows()) {
    const std::size_t count = matching_words(row.words, arguments);
    if (count > longest) {
      found = &row;
      longest = count;
    }
  }
  require(found != nullptr, "usage", "Unknown command; run ravok --help");
  arguments = arguments.subspan(longest);
  return *found;
}

CliCommand take_apart(const CliRow& row, std::span<const std::string> arguments) {
  CliCommand command;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (!argument.starts_with("--")) {
      command.operands.push_back(argument);
    } else if (holds_word(row.flags, argument)) {
      require(!command.has(argument), "usage", "Duplicate option: " + argument);
      command.options.emplace_back(argument, "");
    } else {
      require(takes_value(row, argument), "usage", "Unsupported option: " + argument);
      ++i;
      require(i < arguments.size() && !command.has(argument), "usage",
              "Duplicate or missing option value: " + argument);
      require(!arguments[i].empty(), "usage", "Option value must not be empty: " + argument);
      command.options.emplace_back(argument, arguments[i]);
    }
  }
  require(command.operands.size() == count_words(row.operands), "usage",
          "Wrong number of command operands; run ravok --help");
  for (const std::string_view operand : command.operands) {
    require(!operand.empty(), "usage", "Command operands must not be empty");
  }
  return command;
}

CliCommand read_command(const CliRow& row, std::span<const std::string> arguments) {
  try {
    return take_apart(row, arguments);
  } catch (const Error&) {
    require(row.form.empty(), "usage", row.form);
    throw;
  }
}

void check_identifiers(const CliRow& row, const CliCommand& command) {
  std::string_view names = row.operands;
  for (const std::string_view operand : command.operands) {
    if (!holds_word("KEY JSON_VALUE PLACE", next_word(names))) {
      identifier(operand);
    }
  }
  if (command.has("--build")) {
    identifier(command.value("--build"));
  }
}

void validate(std::span<const std::string> arguments) {
  const CliRow& row = take_row(arguments);
  const CliCommand command = read_command(row, arguments);
  check_identifiers(row, command);
  if (row.rule != nullptr) {
    row.rule(command);
  }
}

bool is_bounded_argument(std::string_view argument) {
  return argument.size() <= maximum_cli_argument_bytes && !has_nul(argument);
}

// A command does not know --json, and is refused. That refusal too is for a reader of JSON.
bool asks_for_json(const std::vector<std::string>& arguments) {
  bool global = true;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == "--json") {
      return true;
    }
    if (global && arguments[i] == "--data-dir") {
      ++i;
    } else {
      global = global && arguments[i] == "--help";
    }
  }
  return false;
}

void mark_global(bool& given, const std::string& option) {
  require(!given, "usage", "Duplicate global option: " + option);
  given = true;
}

// Takes the global options, and returns how many arguments they are.
std::size_t take_globals(const std::vector<std::string>& arguments, CliEntry& entry) {
  std::size_t next = 0;
  for (; next < arguments.size(); ++next) {
    const std::string& argument = arguments[next];
    if (argument == "--json") {
      mark_global(entry.json, argument);
    } else if (argument == "--help") {
      mark_global(entry.help, argument);
    } else if (argument == "--data-dir") {
      mark_global(entry.data_dir_given, argument);
      ++next;
      require(next < arguments.size() && !arguments[next].empty(), "usage", "--data-dir needs a nonempty path");
      entry.data_dir = path_from_utf8(arguments[next]);
    } else {
      break;
    }
  }
  return next;
}

// Returns the global options, and the other arguments as they are.
CliEntry parse_globals(const std::vector<std::string>& arguments, bool* json_requested) {
  if (json_requested != nullptr && asks_for_json(arguments)) {
    *json_requested = true;
  }
  require(arguments.size() <= maximum_cli_arguments, "usage", "CLI invocation exceeds 128 arguments");
  for (const std::string& argument : arguments) {
    require(is_bounded_argument(argument), "usage", "CLI argument exceeds its bound or contains NUL");
  }
  CliEntry entry;
  const std::size_t globals = take_globals(arguments, entry);
  entry.arguments.assign(arguments.begin() + static_cast<std::ptrdiff_t>(globals), arguments.end());
  return entry;
}

}  // namespace

CliEntry parse_cli_entry(const std::vector<std::string>& arguments, const std::filesystem::path& default_data_dir,
                         bool* json_requested) {
  CliEntry entry = parse_globals(arguments, json_requested);
  if (!entry.data_dir_given) {
    entry.data_dir = default_data_dir;
  }
  require(!entry.data_dir.empty(), "usage", "Data directory must not be empty");
  if (!entry.help) {
    validate(entry.arguments);
  }
  return entry;
}

BootstrapEntry parse_bootstrap_entry(const std::vector<std::string>& arguments, bool* json_requested) {
  CliEntry globals = parse_globals(arguments, json_requested);
  BootstrapEntry entry;
  if (globals.data_dir_given) {
    entry.data_dir = std::move(globals.data_dir);
  }
  entry.arguments = std::move(globals.arguments);
  for (const auto& [given, option] : {std::pair(globals.help, "--help"), std::pair(globals.json, "--json")}) {
    if (given) {
      entry.arguments.insert(entry.arguments.begin(), option);
    }
  }
  entry.help = globals.help;
  const bool starts_game = entry.arguments.size() == 2 && entry.arguments.front() == "--launch";
  entry.interface = entry.arguments.empty() || starts_game ? "gui" : "cli";
  return entry;
}

std::optional<std::string> cli_option(std::vector<std::string>& arguments, std::string_view name,
                                      std::string_view failure_code) {
  const auto option = std::find(arguments.begin(), arguments.end(), name);
  if (option == arguments.end()) {
    return std::nullopt;
  }
  const auto value = option + 1;
  require(value != arguments.end() && std::count(value, arguments.end(), name) == 0, failure_code,
          "Duplicate or missing option value: " + std::string(name));
  require(!value->empty(), failure_code, "Option needs a nonempty value: " + std::string(name));
  require(is_bounded_argument(*value), failure_code, "CLI option value exceeds its bound or contains NUL");
  std::string taken = std::move(*value);
  arguments.erase(option, value + 1);
  return taken;
}

bool cli_flag(std::vector<std::string>& arguments, std::string_view name) {
  const auto flag = std::find(arguments.begin(), arguments.end(), name);
  if (flag == arguments.end()) {
    return false;
  }
  require(std::count(flag + 1, arguments.end(), name) == 0, "usage", "Duplicate option: " + std::string(name));
  arguments.erase(flag);
  return true;
}

std::string cli_help() {
  return "Ravok " + std::string(client_version) +
         "\nUsage: ravok [--data-dir PATH] [--json] COMMAND\n"
         "  repository configure --origin HTTPS_ORIGIN --root FILE [--ca-bundle FILE]\n"
         "  list | status GAME | manage GAME | locations GAME\n"
         "  install GAME [--launch] | update GAME [--launch] | verify GAME | repair GAME | rollback GAME\n"
         "  update GAME --after-exit --build BUILD [--session SESSION]\n"
         "  launch GAME [--play-current]\n"
         "  observe GAME [--session SESSION]\n"
         "  updates check [--background] | updates show GAME | updates defer GAME --build BUILD\n"
         "  preload GAME [--build BUILD] | preloads | preloads discard GAME --build BUILD\n"
         "  self status | self update | self cleanup\n"
         "  self uninstall [--remove-data]\n"
         "  self shortcut create [--game GAME] | self shortcut remove\n"
         "  uninstall GAME --confirm-game GAME [--remove-saves]\n"
         "  operations list | operations show|wait|cancel|retry ID\n"
         "  settings get | settings set KEY JSON_VALUE\n"
         "  channel set GAME CHANNEL\n"
         "  channel unlock GAME      (reads the access code from standard input)\n"
         "  open GAME content|saves|state\n"
         "  available | notices | service status [--cached]\n"
         "  crashes list [--all] | crashes show|discard|restore REPORT | crashes cleanup\n"
         "  crashes delete REPORT --confirm-report REPORT\n"
         "  crashes send REPORT --consent-version VERSION [--age-16-or-older]\n"
         "  agreements | agreements show ID | agreements agree ID --agreement-version VERSION --age-16-or-older | "
         "agreements withdraw ID\n"
         "Commands share the GUI backend.\n";
}

}  // namespace ravok
