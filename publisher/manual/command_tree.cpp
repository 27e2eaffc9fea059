#include "publisher/manual/command_tree.hpp"

#include <algorithm>
#include <array>
#include <iterator>

namespace ravok {
namespace {

constexpr std::array<std::string_view, 3> directory_names = {"DIR", "PACKAGE", "TREE"};
constexpr std::array<std::string_view, 6> file_names = {"FILE",  "OUTPUT",     "PATH",
                                                        "PLACE", "PUBLIC_KEY", "[TARGET=]FILE"};

template <std::size_t size>
bool holds(const std::array<std::string_view, size>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

CommandPlace& place_of(std::vector<CommandPlace>& places, const std::string& words) {
  const auto found =
      std::find_if(places.begin(), places.end(), [&](const CommandPlace& place) { return place.words == words; });
  return found == places.end() ? places.emplace_back(CommandPlace{words, {}, {}, {}}) : *found;
}

// Makes the places on the way to a command.
void lead_to(std::vector<CommandPlace>& places, const CommandOutline& command) {
  for (std::size_t start = 0; start < command.words.size();) {
    const std::size_t end = std::min(command.words.find(' ', start), command.words.size());
    CommandPlace& place = place_of(places, command.words.substr(0, start == 0 ? 0 : start - 1));
    const std::string word = command.words.substr(start, end - start);
    const auto known =
        std::find_if(place.next.begin(), place.next.end(), [&](const CommandWord& next) { return next.word == word; });
    // Words that lead on have no text unless they are a command too.
    const std::string text = end == command.words.size() ? command.text : "";
    if (known == place.next.end()) {
      place.next.push_back({word, text});
    } else if (!text.empty()) {
      known->text = text;
    }
    place_of(places, command.words.substr(0, end));
    start = end + 1;
  }
}

}  // namespace

ValueKind value_kind(std::string_view name) {
  if (holds(directory_names, name)) {
    return ValueKind::directory;
  }
  return holds(file_names, name) ? ValueKind::file : ValueKind::none;
}

std::vector<CommandPlace> command_places(const ProgramOutline& program) {
  std::vector<CommandPlace> places = {{"", {}, program.options, {}}};
  for (const CommandOutline& command : program.commands) {
    lead_to(places, command);
    CommandPlace& place = place_of(places, command.words);
    place.options.insert(place.options.end(), command.options.begin(), command.options.end());
    place.operands = command.operands;
    if (command.words == program.default_command) {
      places.front().options.insert(places.front().options.end(), command.options.begin(), command.options.end());
    }
  }
  if (program.options_anywhere) {
    for (CommandPlace& place : places) {
      if (!place.words.empty()) {
        std::copy_if(program.options.begin(), program.options.end(), std::back_inserter(place.options),
                     [](const OptionOutline& option) { return !option.alone; });
      }
    }
  }
  return places;
}

std::string function_name(std::string_view program) {
  std::string name(program);
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

std::string posix_quoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return quoted + "'";
}

std::string fish_quoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted += (c == '\'' || c == '\\' ? "\\" : "") + std::string(1, c);
  }
  return quoted + "'";
}

}  // namespace ravok
