// The shortcuts of Linux: entries of the desktop's menu, by the Desktop Entry standard.
#pragma once

#include <filesystem>
#include <string>

#include "domain/json.hpp"
#include "platform/shortcut/shortcut_rules.hpp"

namespace ravok {

// Returns the folder of the user's menu entries: "applications" below XDG_DATA_HOME, or below
// ".local/share" of HOME. Fails with "user_path", and with "unsupported_platform" on another system.
std::filesystem::path linux_menu_directory();

// Returns the text of an entry that starts the bootstrap with the data folder and, where one is named, the
// game. Every argument is quoted. A bootstrap with a percent or an equals sign in its path, which desktops do not
// start, is started by the system's shell. The icon is the brand's, where the data folder holds it as a PNG file,
// the form that menus read. Fails with
// "shortcut_text", "shortcut_path", as validate_identifier does, and with "unsupported_platform" on another
// system.
std::string linux_desktop_entry(const DesktopShortcut& shortcut);

// Proves all that a new entry needs and writes nothing. Fails with "shortcut_path", "shortcut_bootstrap",
// "already_exists", and as linux_desktop_entry does.
shortcut_rules::NewFile prove_linux_desktop_entry(const DesktopShortcut& shortcut, const std::filesystem::path& path,
                                                  shortcut_rules::Taken taken);

// Writes a new entry, whose name nothing may have yet, and returns the document that describes it. Fails as
// prove_linux_desktop_entry does, and with "insufficient_space", "file_write" or "file_sync"; then there is no new
// file.
Json create_linux_desktop_entry(const DesktopShortcut& shortcut, const std::filesystem::path& path);

}  // namespace ravok
