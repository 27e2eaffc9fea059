#include "platform/shortcut/linux_shortcuts.hpp"

#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "platform/os.hpp"
#include "platform/process/process.hpp"

namespace ravok {
namespace {

constexpr shortcut_rules::FormWords entry_words = {"Desktop entries", "Desktop-entry"};

void require_linux(std::string_view message) {
  require(os::shortcut_form() == os::ShortcutForm::desktop_entry, "unsupported_platform", message);
}

// A text value of an entry. A backslash begins an escape; blanks at the front would be lost unless they are escaped.
std::string escaped(std::string_view text) {
  std::string value;
  for (const char c : text) {
    if (c == ' ' && value.empty()) {
      value += "\\s";
    } else if (c == '\\') {
      value += "\\\\";
    } else {
      value += c;
    }
  }
  return value;
}

// An argument of a command line, in quotes. A backslash stands before what a shell would interpret in them. A percent
// sign is doubled, since it would begin a field code.
std::string in_quotes(std::string_view argument) {
  std::string text = "\"";
  for (const char c : argument) {
    if (c == '"' || c == '`' || c == '$' || c == '\\') {
      text += '\\';
    } else if (c == '%') {
      text += '%';
    }
    text += c;
  }
  return text + '"';
}

// The program, with which the command line begins. The standard allows no equals sign in its path, and desktops look
// for the file before they undo the doubling of a percent sign. A path with one of them is therefore given as an
// argument to a shell, which then becomes that program.
std::string program(const std::string& bootstrap) {
  std::string quoted = in_quotes(bootstrap);
  if (bootstrap.find_first_of("%=") == std::string::npos) {
    return quoted;
  }
  return "/bin/sh -c " + in_quotes(R"(exec "$0" "$@")") + " " + quoted;
}

std::string command_line(const DesktopShortcut& shortcut) {
  std::string line = program(path_utf8(shortcut.bootstrap)) + " --data-dir " + in_quotes(path_utf8(shortcut.data_root));
  if (!shortcut.game_id.empty()) {
    line += " --launch " + in_quotes(shortcut.game_id);
  }
  return line;
}

// What the desktop says of the entry beside its name.
std::string comment(const DesktopShortcut& shortcut) {
  return shortcut.game_id.empty() ? "Install, update and play games" : "Play " + shortcut.name;
}

std::optional<std::filesystem::path> menu_icon(const std::filesystem::path& data_root) {
  const std::filesystem::path icon = DataPaths(data_root).menu_icon;
  const auto status = link_status_of(icon);
  return status && is_file(*status) ? std::optional(icon) : std::nullopt;
}

}  // namespace

std::filesystem::path linux_menu_directory() {
  require_linux("Application menu creation requires Linux");
  const std::optional<std::string> data_home = process_environment("XDG_DATA_HOME", maximum_environment_bytes);
  // The standard says to ignore a relative value.
  if (data_home && std::filesystem::path(*data_home).is_absolute()) {
    return std::filesystem::path(*data_home) / "applications";
  }
  const std::optional<std::string> home = process_environment("HOME", maximum_environment_bytes);
  require(home && std::filesystem::path(*home).is_absolute(), "user_path", "Cannot locate the user's application menu");
  return std::filesystem::path(*home) / ".local/share/applications";
}

std::string linux_desktop_entry(const DesktopShortcut& shortcut) {
  require_linux("Linux desktop entries require a Linux native build");
  shortcut_rules::bounded_text(shortcut.name, shortcut_rules::maximum_name_bytes);
  shortcut_rules::absolute_path_below_root(shortcut.bootstrap);
  shortcut_rules::absolute_path_below_root(shortcut.data_root);
  if (!shortcut.game_id.empty()) {
    validate_identifier(shortcut.game_id);
  }
  std::string text = "[Desktop Entry]\nType=Application\nVersion=1.0\n";
  text += "Name=" + escaped(shortcut.name) + "\n";
  text += "Comment=" + escaped(comment(shortcut)) + "\n";
  text += "Exec=" + escaped(command_line(shortcut)) + "\n";
  if (const auto icon = menu_icon(shortcut.data_root)) {
    text += "Icon=" + escaped(path_utf8(*icon)) + "\n";
  }
  return text + "Terminal=false\nCategories=Game;\n";
}

shortcut_rules::NewFile prove_linux_desktop_entry(const DesktopShortcut& shortcut, const std::filesystem::path& path,
                                                  shortcut_rules::Taken taken) {
  std::string text = linux_desktop_entry(shortcut);
  require(path.extension() == ".desktop", "shortcut_path", "Linux desktop entries must end in .desktop");
  shortcut_rules::NewFile file = shortcut_rules::prove_new_file(shortcut, path, std::move(text), entry_words, taken);
  shortcut_rules::require_stable_bootstrap(shortcut.bootstrap, "Linux");
  return file;
}

Json create_linux_desktop_entry(const DesktopShortcut& shortcut, const std::filesystem::path& path) {
  const shortcut_rules::NewFile file = prove_linux_desktop_entry(shortcut, path, shortcut_rules::Taken::refused);
  return shortcut_rules::create_file(shortcut, file.path, file.text);
}

}  // namespace ravok
