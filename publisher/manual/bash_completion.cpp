#include "publisher/manual/bash_completion.hpp"

#include <cstddef>
#include <vector>

#include "publisher/manual/command_tree.hpp"

namespace ravok {
namespace {

// The options that take a value, as "PLACE:OPTION": those of one kind, or all.
std::string bash_value_patterns(const std::vector<CommandPlace>& places, const ValueKind* kind) {
  PatternList patterns(" | ");
  for (const CommandPlace& place : places) {
    for (const OptionOutline& option : place.options) {
      if (!option.value.empty() && (kind == nullptr || value_kind(option.value) == *kind)) {
        patterns.add(posix_quoted(place.words + ":" + option.name));
      }
    }
  }
  return patterns.text();
}

std::string bash_operand_patterns(const std::vector<CommandPlace>& places, ValueKind kind) {
  PatternList patterns(" | ");
  for (const CommandPlace& place : places) {
    for (std::size_t i = 0; i < place.operands.size(); ++i) {
      if (place.operands[i].words.empty() && value_kind(place.operands[i].name) == kind) {
        patterns.add(posix_quoted(place.words + ":" + std::to_string(i)));
      }
    }
  }
  return patterns.text();
}

std::string bash_choice(const std::string& patterns, const std::string& action) {
  return patterns.empty() ? "" : "    " + patterns + ")\n      " + action + " ;;\n";
}

std::string bash_walk(const std::vector<CommandPlace>& places) {
  std::string text =
      "  for ((index = 1; index < COMP_CWORD; ++index)); do\n"
      "    word=${COMP_WORDS[index]}\n"
      "    case $place:$word in\n";
  if (const std::string values = bash_value_patterns(places, nullptr); !values.empty()) {
    text += "      " + values +
            ")\n"
            "        index=$((index + 1))\n"
            "        [ \"$index\" -lt \"$COMP_CWORD\" ] || value=$place:$word ;;\n";
  }
  for (const CommandPlace& place : places) {
    for (const CommandWord& next : place.next) {
      text += "      " + posix_quoted(place.words + ":" + next.word) +
              ") place=" + posix_quoted(place.words + (place.words.empty() ? "" : " ") + next.word) + " ;;\n";
    }
  }
  return text +
         "      *:-*) ;;\n"
         "      *) position=$((position + 1)) ;;\n"
         "    esac\n"
         "  done\n";
}

std::string bash_words(const std::vector<CommandPlace>& places) {
  std::string text = "  case $place in\n";
  for (const CommandPlace& place : places) {
    PatternList words(" ");
    PatternList options(" ");
    for (const CommandWord& next : place.next) {
      words.add(next.word);
    }
    for (const OptionOutline& option : place.options) {
      options.add(option.name);
    }
    text += "    " + posix_quoted(place.words) + ")\n      words=" + posix_quoted(words.text()) +
            "\n      options=" + posix_quoted(options.text()) + " ;;\n";
  }
  text += "  esac\n";
  std::string operands;
  for (const CommandPlace& place : places) {
    for (std::size_t i = 0; i < place.operands.size(); ++i) {
      PatternList words(" ");
      for (const std::string& word : place.operands[i].words) {
        words.add(word);
      }
      if (!words.empty()) {
        operands +=
            bash_choice(posix_quoted(place.words + ":" + std::to_string(i)), "words=" + posix_quoted(words.text()));
      }
    }
  }
  return operands.empty() ? text : text + "  case $place:$position in\n" + operands + "  esac\n";
}

}  // namespace

std::string bash_completion(const ProgramOutline& program) {
  const std::vector<CommandPlace> places = command_places(program);
  const std::string name = "_" + function_name(program.program);
  constexpr ValueKind directory = ValueKind::directory;
  constexpr ValueKind file = ValueKind::file;
  const std::string files = "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$current\")";
  const std::string directories = "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- \"$current\")";
  std::string text = "# Completion of " + program.program + " for bash.\n\n" + name +
                     "() {\n"
                     "  local current=${COMP_WORDS[COMP_CWORD]} place= value= words= options= word\n"
                     "  local index position=0 IFS=$' \\t\\n'\n"
                     "  COMPREPLY=()\n" +
                     bash_walk(places) + "  IFS=$'\\n'\n  case $value in\n    '') ;;\n" +
                     bash_choice(bash_value_patterns(places, &directory), directories + "; return") +
                     bash_choice(bash_value_patterns(places, &file), files + "; return") +
                     "    *) return ;;\n"
                     "  esac\n" +
                     bash_words(places) +
                     "  IFS=$' \\t\\n'\n"
                     "  case $current in\n"
                     "    -*) words=$options ;;\n"
                     "  esac\n"
                     "  COMPREPLY=($(compgen -W \"$words\" -- \"$current\"))\n";
  const std::string operands = bash_choice(bash_operand_patterns(places, directory), directories) +
                               bash_choice(bash_operand_patterns(places, file), files);
  if (!operands.empty()) {
    text += "  case $current in\n    -*) return ;;\n  esac\n  IFS=$'\\n'\n  case $place:$position in\n" + operands +
            "  esac\n";
  }
  return text + "}\n\ncomplete -F " + name + " " + program.program + "\n";
}

}  // namespace ravok
