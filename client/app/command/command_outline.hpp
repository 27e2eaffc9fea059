// A program's command line as data: what its manual page and the completion of shells are made of. Each program makes
// it from the table that its own reading of the command line uses.
#pragma once

#include <string>
#include <vector>

namespace ravok {

struct OptionOutline {
  std::string name;       // with its dashes
  std::string value;      // by what name the help knows its value; empty for a flag
  std::string text;       // what it does, in one or more sentences, the last without its full stop
  bool required = false;  // the command is refused without it
  bool alone = false;     // no command may stand beside it
};

struct OperandOutline {
  std::string name;
  std::string text;                // empty where the name says it all
  std::vector<std::string> words;  // the only values that there are, where these are few
};

struct CommandOutline {
  std::string words;  // with one blank between them
  std::string text;
  std::vector<OperandOutline> operands;
  std::vector<OptionOutline> options;
};

struct ExitCodeOutline {
  int code;
  std::string text;
};

struct ProgramOutline {
  std::string program;
  std::string text;                     // what the program is, in a few words
  std::vector<std::string> paragraphs;  // what its user should know first
  // The options that stand before the command or, with `options_anywhere`, before it and after it.
  std::vector<OptionOutline> options;
  bool options_anywhere = false;
  // The command of a line that names none, or empty where a command is needed.
  std::string default_command;
  std::vector<CommandOutline> commands;
  std::vector<ExitCodeOutline> exit_codes;
  std::string other_exit_codes;       // when there may be others, in one or more sentences; empty for never
  std::vector<std::string> see_also;  // other manual pages of section 1
};

}  // namespace ravok
