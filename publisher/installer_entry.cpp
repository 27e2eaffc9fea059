#include "publisher/installer_entry.hpp"

namespace ravok {
namespace {

// The desktop says with %k where the entry lies, as a path or, some of them, as an address, in which "%" and two digits
// stand for a byte. An entry can name no program relative to itself, so a shell goes to its folder first. Without a
// place it starts nothing, since the current folder may hold anybody's program. The shell's own printf may not know \x.
constexpr std::string_view script =
    R"sh(case $1 in file://*) p=$(env printf %b "$(printf %s "${1#file://}" | sed 's/%/\\x/g')");; *) p=$1;; esac; )sh"
    R"sh([ -n "$p" ] && cd -- "$(dirname -- "$p")" && ./ravok-install; )sh"
    R"sh(echo; echo Press Enter to close this window.; read -r answer)sh";

// One argument of a command line, in quotation marks.
std::string quoted_argument(std::string_view text) {
  constexpr std::string_view escaped = "\"`$\\";
  std::string argument = "\"";
  for (const char c : text) {
    if (escaped.find(c) != std::string_view::npos) {
      argument += '\\';
    } else if (c == '%') {
      argument += '%';
    }
    argument += c;
  }
  return argument + '"';
}

// A text value of an entry, behind other text. A backslash begins an escape.
std::string entry_value(std::string_view text) {
  std::string value;
  for (const char c : text) {
    if (c == '\\') {
      value += "\\\\";
    } else {
      value += c;
    }
  }
  return value;
}

}  // namespace

std::string installer_desktop_entry(std::string_view product) {
  return "[Desktop Entry]\nType=Application\nVersion=1.0\nName=Install " + entry_value(product) +
         "\nComment=Install and repair " + entry_value(product) +
         "\nExec=" + entry_value("/bin/sh -c " + quoted_argument(script) + " ravok-install %k") +
         "\nTerminal=true\nCategories=Game;\n";
}

}  // namespace ravok
