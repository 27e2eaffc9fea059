// The table of the client's commands: what each of them may be given, what must hold of it, and what it does. The
// reading of the command line, the manual page and the completion of shells go by it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "app/command/command_outline.hpp"

namespace ravok {

inline constexpr std::size_t maximum_cli_argument_bytes = 16'384;

// A command's operands and options, as views into the arguments.
struct CliCommand {
  std::vector<std::string_view> operands;
  std::vector<std::pair<std::string_view, std::string_view>> options;  // with their values; a flag's is empty

  // Returns the value of an option, which is empty for a flag and for an option that was not given.
  std::string_view value(std::string_view option) const {
    for (const auto& [name, value] : options) {
      if (name == option) {
        return value;
      }
    }
    return {};
  }

  bool has(std::string_view option) const {
    return std::any_of(options.begin(), options.end(), [&](const auto& given) { return given.first == option; });
  }
};

// One command. Each list has one blank between its words.
struct CliRow {
  std::string_view words;
  std::string_view text;           // what the manual says of it
  std::string_view operands = {};  // by the names that the help gives them
  std::string_view values = {};    // the options that take a value, each with "=" and the name that the help gives that
  std::string_view flags = {};     // the options that take none
  std::string_view required = {};  // the options that must be given, which the rule sees to
  void (*rule)(const CliCommand&) = nullptr;  // what must hold beyond the row
  std::string_view form = {};                 // the message for whatever does not fit the row, where it has its own
};

// Returns the table. A command whose words begin with those of another counts as the longer one.
std::span<const CliRow> cli_rows();

// Takes the first word off a list.
std::string_view next_word(std::string_view& words);

bool holds_word(std::string_view words, std::string_view word);
std::size_t count_words(std::string_view words);

// Returns whether an option takes a value in this row.
bool takes_value(const CliRow& row, std::string_view option);

// Returns the client's command line as data, for the program of this name: the global options and the commands, without
// what the program is and says at its end.
ProgramOutline cli_outline(std::string_view program_name);

}  // namespace ravok
