#include "publisher/manual/fish_completion.hpp"

#include <cstddef>
#include <string_view>
#include <vector>

#include "publisher/manual/command_tree.hpp"

namespace ravok {
namespace {

constexpr std::string_view fish_directories = "'(__fish_complete_directories)'";

// The function that answers whether the words so far lead to a place and, where that is asked, to an operand there.
std::string fish_walk(const std::string& name, const std::vector<CommandPlace>& places) {
  PatternList values(" ");
  std::string steps;
  for (const CommandPlace& place : places) {
    for (const OptionOutline& option : place.options) {
      if (!option.value.empty()) {
        values.add(fish_quoted(place.words + ":" + option.name));
      }
    }
    for (const CommandWord& next : place.next) {
      steps += "      case " + fish_quoted(place.words + ":" + next.word) + "\n        set place " +
               fish_quoted(place.words + (place.words.empty() ? "" : " ") + next.word) + "\n";
    }
  }
  std::string text = "function " + name +
                     "\n"
                     "  set -l place ''\n"
                     "  set -l position 0\n"
                     "  set -l is_value 0\n"
                     "  set -l words (commandline -opc)\n"
                     "  set -e words[1]\n"
                     "  for word in $words\n"
                     "    if test $is_value = 1\n"
                     "      set is_value 0\n"
                     "      continue\n"
                     "    end\n"
                     "    switch \"$place:$word\"\n";
  if (!values.empty()) {
    text += "      case " + values.text() + "\n        set is_value 1\n";
  }
  return text + steps +
         "      case '*:-*'\n"
         "      case '*'\n"
         "        set position (math $position + 1)\n"
         "    end\n"
         "  end\n"
         "  test \"$place\" = \"$argv[1]\"; and test (count $argv) -lt 2 -o \"$position\" = \"$argv[2]\"\n"
         "end\n";
}

std::string fish_option(const std::string& begin, const OptionOutline& option) {
  std::string line = begin + " -l " + option.name.substr(2);
  if (!option.value.empty()) {
    const ValueKind kind = value_kind(option.value);
    line += kind == ValueKind::file ? " -r -F" : " -x";
    line += kind == ValueKind::directory ? " -a " + std::string(fish_directories) : "";
  }
  return line + " -d " + fish_quoted(option.text) + "\n";
}

std::string fish_operand(const std::string& begin, const OperandOutline& operand) {
  if (!operand.words.empty()) {
    PatternList words(" ");
    for (const std::string& word : operand.words) {
      words.add(word);
    }
    return begin + " -a " + fish_quoted(words.text()) + "\n";
  }
  switch (value_kind(operand.name)) {
    case ValueKind::directory:
      return begin + " -a " + std::string(fish_directories) + "\n";
    case ValueKind::file:
      return begin + " -F\n";
    case ValueKind::none:
      break;
  }
  return {};
}

}  // namespace

std::string fish_completion(const ProgramOutline& program) {
  const std::vector<CommandPlace> places = command_places(program);
  const std::string name = "__" + function_name(program.program) + "_at";
  std::string text = "# Completion of " + program.program + " for fish.\n\n" + fish_walk(name, places) +
                     "\ncomplete -c " + program.program + " -f\n";
  for (const CommandPlace& place : places) {
    const auto begin = [&](const std::string& position) {
      // The name of a place holds blanks, and no quotes.
      return "complete -c " + program.program + " -n \"" + name + " " + fish_quoted(place.words) + position + "\"";
    };
    for (const CommandWord& next : place.next) {
      text += begin("") + " -a " + next.word + (next.text.empty() ? "" : " -d " + fish_quoted(next.text)) + "\n";
    }
    for (const OptionOutline& option : place.options) {
      text += fish_option(begin(""), option);
    }
    for (std::size_t i = 0; i < place.operands.size(); ++i) {
      text += fish_operand(begin(" " + std::to_string(i)), place.operands[i]);
    }
  }
  return text;
}

}  // namespace ravok
