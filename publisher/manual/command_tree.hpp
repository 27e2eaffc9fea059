// A program's command line as a completion sees it: a word leads from one place to the next.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "app/command/command_outline.hpp"

namespace ravok {

// What a shell offers for a value.
enum class ValueKind { none, file, directory };

// Returns the kind of an option's value or of an operand by the name that the help gives it.
ValueKind value_kind(std::string_view name);

// A word that may follow, with what it does.
struct CommandWord {
  std::string word;
  std::string text;
};

// What may follow once some words of a command stand there.
struct CommandPlace {
  std::string words;  // those that stand there, with one blank between them; empty at the program itself
  std::vector<CommandWord> next;
  std::vector<OptionOutline> options;
  std::vector<OperandOutline> operands;
};

// Returns all places of a program, its own first and each before those that it leads to.
std::vector<CommandPlace> command_places(const ProgramOutline& program);

// Returns the name of a program as one of a shell's functions: with "_" in place of "-".
std::string function_name(std::string_view program);

// Returns the text in single quotes for a shell of POSIX, and for fish, which takes a backslash for what it is not.
std::string posix_quoted(std::string_view text);
std::string fish_quoted(std::string_view text);

// A list that grows by patterns which a shell's choice takes, such as "'a' | 'b'".
class PatternList {
 public:
  explicit PatternList(std::string_view between) : between_(between) {}
  void add(const std::string& quoted) { text_ += (text_.empty() ? "" : between_) + quoted; }
  bool empty() const { return text_.empty(); }
  const std::string& text() const { return text_; }

 private:
  std::string between_;
  std::string text_;
};

}  // namespace ravok
