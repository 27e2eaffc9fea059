#include "publisher/installer_entry.hpp"

namespace ravok {
namespace {

// The desktop says with %k where the entry lies, as a path or, some of them, as an address, in which "%" and two digits
// stand for a byte. An entry can name no program relative to itself, so a shell goes to its folder first. It does so
// for an absolute path alone: without a place, or with one that it cannot tell, it would start what lies in the current
// folder, which may be anybody's. A substitution drops line feeds at its end, so a path with one is refused too. The
// shell's own printf may not know \x. The percent sign comes as an argument of its own, since what it means within
// quotation marks is not defined. The words behind this are those for a path that is refused.
constexpr std::string_view find_place =
    R"sh(case $2 in file://*) p=${2#file://}; p=${p#localhost}; )sh"
    R"sh(p=$(env printf "$1b" "$(printf "$1s" "$p" | sed "s/$1/\\\\x/g")");; *) p=$2;; esac; )sh"
    R"sh(case $p in *[[:cntrl:]]*|[!/]*|'') )sh";

constexpr std::string_view console_script =
    R"sh(echo 'This desktop does not say where the installer lies. Start ravok-install in a terminal.';; )sh"
    R"sh(*) cd -- "$(dirname -- "$p")" && ./ravok-install;; esac; )sh"
    R"sh(echo; echo Press Enter to close this window.; read -r answer)sh";

// Without a terminal there is nobody to read what a shell says, and the program shows its own failures only once it has
// a window. So what keeps it from being started is told by a program that desktops come with. A shell ends with 126 or
// 127 in the place of a program that cannot be executed, as a program without its libraries does, and with more for one
// that a signal has ended, such as one that crashes.
constexpr std::string_view window_script =
    R"sh(m='This desktop does not say where the installer lies. Open its folder, and start ravok-install-gui there.';; )sh"
    R"sh(*) m='The installer cannot show its window here. Start ravok-install in a terminal.'; )sh"
    R"sh(if [ -n "$DISPLAY" ] && cd -- "$(dirname -- "$p")"; )sh"
    R"sh(then ./ravok-install-gui; c=$?; [ $c -gt 125 ] || exit $c; fi;; esac; echo "$m" >&2; )sh"
    R"sh(if command -v zenity >/dev/null; then zenity --error --text "$m"; )sh"
    R"sh(elif command -v kdialog >/dev/null; then kdialog --error "$m"; )sh"
    R"sh(else notify-send "$m" || xmessage "$m"; fi; exit 1)sh";

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

// An entry whose shell goes by the program's name. It finds where it lies and does what the rest of its script says.
std::string desktop_entry(std::string_view product, std::string_view program, std::string_view script, bool terminal) {
  const std::string whole = std::string(find_place) + std::string(script);
  return "[Desktop Entry]\nType=Application\nVersion=1.0\nName=Install " + entry_value(product) +
         "\nComment=Install and repair " + entry_value(product) +
         "\nExec=" + entry_value("/bin/sh -c " + quoted_argument(whole) + " " + std::string(program) + " %% %k") +
         "\nTerminal=" + (terminal ? "true" : "false") + "\nCategories=Game;\n";
}

}  // namespace

std::string installer_desktop_entry(std::string_view product) {
  return desktop_entry(product, "ravok-install", console_script, true);
}

std::string window_installer_desktop_entry(std::string_view product) {
  return desktop_entry(product, "ravok-install-gui", window_script, false);
}

}  // namespace ravok
