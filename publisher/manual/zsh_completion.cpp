#include "publisher/manual/zsh_completion.hpp"

#include <cstddef>
#include <string_view>
#include <vector>

#include "publisher/manual/command_tree.hpp"

namespace ravok {
namespace {

// A word with what it does: a colon parts them, so the word has none.
std::string zsh_described(std::string_view word, std::string_view text) {
  return posix_quoted(std::string(word) + (text.empty() ? "" : ":") + std::string(text));
}

std::string zsh_choice(const PatternList& patterns, const std::string& action) {
  return patterns.empty() ? "" : "    (" + patterns.text() + ")\n      " + action + " ;;\n";
}

std::string zsh_walk(const std::vector<CommandPlace>& places) {
  PatternList values("|");
  std::string steps;
  for (const CommandPlace& place : places) {
    for (const OptionOutline& option : place.options) {
      if (!option.value.empty()) {
        values.add(posix_quoted(place.words + ":" + option.name));
      }
    }
    for (const CommandWord& next : place.next) {
      steps += "      (" + posix_quoted(place.words + ":" + next.word) +
               ") place=" + posix_quoted(place.words + (place.words.empty() ? "" : " ") + next.word) + " ;;\n";
    }
  }
  std::string text =
      "  for ((index = 2; index < CURRENT; ++index)); do\n"
      "    word=${words[index]}\n"
      "    case \"$place:$word\" in\n";
  if (!values.empty()) {
    text += "      (" + values.text() +
            ")\n"
            "        ((++index))\n"
            "        if ((index == CURRENT)); then value=\"$place:$word\"; fi ;;\n";
  }
  return text + steps +
         "      (*:-*) ;;\n"
         "      (*) ((++position)) ;;\n"
         "    esac\n"
         "  done\n";
}

std::string zsh_values(const std::vector<CommandPlace>& places) {
  PatternList directories("|");
  PatternList files("|");
  for (const CommandPlace& place : places) {
    for (const OptionOutline& option : place.options) {
      const ValueKind kind = option.value.empty() ? ValueKind::none : value_kind(option.value);
      const std::string pattern = posix_quoted(place.words + ":" + option.name);
      if (kind == ValueKind::directory) {
        directories.add(pattern);
      } else if (kind == ValueKind::file) {
        files.add(pattern);
      }
    }
  }
  return "  case \"$value\" in\n    ('') ;;\n" + zsh_choice(directories, "_files -/; return") +
         zsh_choice(files, "_files; return") + "    (*) _message value; return ;;\n  esac\n";
}

std::string zsh_words(const std::vector<CommandPlace>& places) {
  std::string text = "  case \"$place\" in\n";
  for (const CommandPlace& place : places) {
    text += "    (" + posix_quoted(place.words) + ")\n      commands=(";
    for (const CommandWord& next : place.next) {
      text += "\n        " + zsh_described(next.word, next.text);
    }
    text += ")\n      options=(";
    for (const OptionOutline& option : place.options) {
      text += "\n        " + zsh_described(option.name, option.text);
    }
    text += ") ;;\n";
  }
  return text + "  esac\n";
}

std::string zsh_operands(const std::vector<CommandPlace>& places) {
  PatternList directories("|");
  PatternList files("|");
  std::string words;
  for (const CommandPlace& place : places) {
    for (std::size_t i = 0; i < place.operands.size(); ++i) {
      const OperandOutline& operand = place.operands[i];
      PatternList pattern("|");
      pattern.add(posix_quoted(place.words + ":" + std::to_string(i)));
      PatternList given(" ");
      for (const std::string& word : operand.words) {
        given.add(word);
      }
      if (!given.empty()) {
        words += zsh_choice(pattern, "compadd " + given.text());
      } else if (value_kind(operand.name) == ValueKind::directory) {
        directories.add(pattern.text());
      } else if (value_kind(operand.name) == ValueKind::file) {
        files.add(pattern.text());
      }
    }
  }
  return "  case \"$place:$position\" in\n" + words + zsh_choice(directories, "_files -/") +
         zsh_choice(files, "_files") + "    (*) ;;\n  esac\n";
}

}  // namespace

std::string zsh_completion(const ProgramOutline& program) {
  const std::vector<CommandPlace> places = command_places(program);
  const std::string name = "_" + function_name(program.program);
  return "#compdef " + program.program + "\n# Completion of " + program.program + " for zsh.\n\n" + name +
         "() {\n"
         "  local place= value= word=\n"
         "  local -i index position=0\n"
         "  local -a commands options\n" +
         zsh_walk(places) + zsh_values(places) + zsh_words(places) +
         "  if [[ $PREFIX == -* ]]; then\n"
         "    _describe -o option options\n"
         "    return\n"
         "  fi\n" +
         zsh_operands(places) +
         "  if (($#commands)); then _describe command commands; fi\n"
         "}\n\n" +
         name + " \"$@\"\n";
}

}  // namespace ravok
