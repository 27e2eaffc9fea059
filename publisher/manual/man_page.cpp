#include "publisher/manual/man_page.hpp"

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <string_view>
#include <vector>

#include "app/command/program_version.hpp"

namespace ravok {
namespace {

constexpr std::size_t page_width = 78;

// Returns the text with what the typesetter would take for something else written so that it shows.
std::string typeset(std::string_view text) {
  std::string shown;
  for (const char c : text) {
    switch (c) {
      case '\\':
        shown += "\\e";
        break;
      case '-':
        shown += "\\-";
        break;
      case '~':
        shown += "\\(ti";
        break;
      case '^':
        shown += "\\(ha";
        break;
      case '\'':
        shown += "\\(aq";
        break;
      case '`':
        shown += "\\(ga";
        break;
      case '"':
        shown += "\\(dq";
        break;
      default:
        shown += c;
    }
  }
  return shown;
}

bool ends_sentence(std::string_view word) { return word.ends_with('.') || word.ends_with('?') || word.ends_with('!'); }

// Returns running text in lines, of which none is taken for a macro; each sentence begins one.
std::string paragraph(const std::string& text) {
  std::string lines;
  std::string line;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const std::string shown = (word.starts_with('.') ? "\\&" : "") + typeset(word);
    if (!line.empty() && line.size() + 1 + shown.size() > page_width) {
      lines += line + "\n";
      line.clear();
    }
    line += (line.empty() ? "" : " ") + shown;
    if (ends_sentence(word)) {
      lines += line + "\n";
      line.clear();
    }
  }
  return line.empty() ? lines : lines + line + "\n";
}

// A description begins with a capital, and ends as a sentence does.
std::string sentence(std::string text) { return paragraph(text + (text.empty() || ends_sentence(text) ? "" : ".")); }

std::string bold(std::string_view text) { return "\\fB" + typeset(text) + "\\fR"; }
std::string italic(std::string_view text) { return "\\fI" + typeset(text) + "\\fR"; }

std::string option_form(const OptionOutline& option) {
  return bold(option.name) + (option.value.empty() ? "" : " " + italic(option.value));
}

std::string operand_form(const OperandOutline& operand) {
  std::string form;
  for (const std::string& word : operand.words) {
    form += (form.empty() ? "" : "|") + bold(word);
  }
  return form.empty() ? italic(operand.name) : form;
}

std::string described_options(const std::vector<OptionOutline>& options) {
  std::string text;
  for (const OptionOutline& option : options) {
    text += ".TP\n" + option_form(option) + "\n" + sentence(option.text + (option.required ? "; needed" : ""));
  }
  return text;
}

// A command as it is typed, with what it cannot do without.
std::string command_form(const CommandOutline& command) {
  std::string form = bold(command.words);
  for (const OperandOutline& operand : command.operands) {
    form += " " + operand_form(operand);
  }
  for (const OptionOutline& option : command.options) {
    if (option.required) {
      form += " " + option_form(option);
    }
  }
  const bool more = std::any_of(command.options.begin(), command.options.end(),
                                [](const OptionOutline& option) { return !option.required; });
  return form + (more ? " [" + italic("OPTION") + "...]" : "");
}

std::string described_command(const CommandOutline& command) {
  std::string text = ".SS " + command.words + "\n" + sentence(command.text) + ".PP\n" + command_form(command) + "\n";
  for (const OperandOutline& operand : command.operands) {
    if (!operand.text.empty()) {
      text += ".TP\n" + operand_form(operand) + "\n" + sentence(operand.text);
    }
  }
  return text + described_options(command.options);
}

std::string synopsis(const ProgramOutline& program) {
  const std::string options = " [" + italic("OPTION") + "...]";
  if (program.commands.empty()) {
    return bold(program.program) + options + "\n";
  }
  const std::string command =
      program.default_command.empty() ? " " + italic("COMMAND") : " [" + italic("COMMAND") + "]";
  return bold(program.program) + options + command + " [" + italic("ARGUMENT") + "...]\n";
}

std::string references(const ProgramOutline& program) {
  std::string text;
  for (const std::string& page : program.see_also) {
    text += ".BR " + typeset(page) + " (1)" + (page == program.see_also.back() ? "\n" : ",\n");
  }
  return text;
}

}  // namespace

std::string man_page(const ProgramOutline& program) {
  std::string title = program.program;
  std::transform(title.begin(), title.end(), title.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  std::string page = ".TH " + typeset(title) + " 1 " + std::string(client_version_date) + " \"Ravok " +
                     std::string(client_version) + "\" \"User Commands\"\n";
  page += ".SH NAME\n" + typeset(program.program) + " \\- " + typeset(program.text) + "\n";
  page += ".SH SYNOPSIS\n" + synopsis(program);
  page += ".SH DESCRIPTION\n";
  for (const std::string& text : program.paragraphs) {
    page += (text == program.paragraphs.front() ? "" : ".PP\n") + paragraph(text);
  }
  page += ".SH OPTIONS\n";
  if (!program.commands.empty()) {
    page += program.options_anywhere ? "These may stand before the command and after it.\n"
                                     : "These stand before the command.\n";
  }
  page += described_options(program.options);
  if (!program.commands.empty()) {
    page += ".SH COMMANDS\n";
  }
  for (const CommandOutline& command : program.commands) {
    page += described_command(command);
  }
  page += ".SH EXIT STATUS\n";
  for (const ExitCodeOutline& code : program.exit_codes) {
    page += ".TP\n" + bold(std::to_string(code.code)) + "\n" + sentence(code.text);
  }
  if (!program.other_exit_codes.empty()) {
    page += ".PP\n" + sentence(program.other_exit_codes);
  }
  return page + ".SH SEE ALSO\n" + references(program);
}

}  // namespace ravok
