#include "publisher/installer_entry.hpp"

namespace ravok {
namespace {

// The desktop says with %k where the entry lies, as a path or, some of them, as an address, in which "%" and two digits
// stand for a byte. An entry can name no program relative to itself, so a shell goes to its folder first. It does so
// for an absolute path alone: without a place, or with one that it cannot tell, it would start what lies in the current
// folder, which may be anybody's. A substitution drops line feeds at its end, so a path with one is refused too. The
// shell's own printf may not know \x. The percent sign comes as an argument of its own, since what it means within
// quotation marks is not defined.
constexpr std::string_view script =
    R"sh(case $2 in file://*) p=${2#file://}; p=${p#localhost}; )sh"
    R"sh(p=$(env printf "$1b" "$(printf "$1s" "$p" | sed "s/$1/\\\\x/g")");; *) p=$2;; esac; )sh"
    R"sh(case $p in *[[:cntrl:]]*|[!/]*|'') )sh"
    R"sh(echo 'This desktop does not say where the installer lies. Start ravok-install in a terminal.';; )sh"
    R"sh(*) cd -- "$(dirname -- "$p")" && ./ravok-install;; esac; )sh"
    R"sh(echo; echo Press Enter to close this window.; read -r answer)sh";

// One argument of a command line, in quotation marks.
std::string quoted_argument(std::string_view text) {
  constexpr std::string_view escaped = "\"`$\\";
  std::string argument = "\"";
  for (const char c : text) {
    if (escaped.find(c) != std::string_view::npos) {
      argument += '\\';
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
         "\nExec=" + entry_value("/bin/sh -c " + quoted_argument(script) + " ravok-install %% %k") +
         "\nTerminal=true\nCategories=Game;\n";
}

}  // namespace ravok
