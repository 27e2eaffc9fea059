#include "publisher/installer_entry.hpp"

namespace ravok {
namespace {

// The desktop says with %k where the entry lies, as a path or, some of them, as an address. An entry can name no
// program relative to itself, so a shell goes to its folder first.
constexpr std::string_view command_line =
    R"(Exec=/bin/sh -c "cd -- \\"\\$(dirname -- \\"\\${1#file://}\\")\\" && ./ravok-install; )"
    R"(echo; echo Press Enter to close this window.; read -r answer" ravok-install %k)";

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
         "\nComment=Install and repair " + entry_value(product) + "\n" + std::string(command_line) +
         "\nTerminal=true\nCategories=Game;\n";
}

}  // namespace ravok
