// The shortcuts that the client has made outside its data folder, and the ledger of them: so that exactly
// these are removed, the missing ones made again, and those left alone that the user has changed.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"
#include "platform/shortcut_rules.hpp"

namespace ravok {

// A row of the ledger.
struct OwnedShortcut {
  std::filesystem::path path;
  std::string game;
  std::string name;
  std::string sha256;  // of the file as it was made
};

struct ShortcutRemoval {
  std::vector<std::filesystem::path> removed;
  std::vector<std::filesystem::path> changed;  // by others; they stay
};

// Returns the extension of this system's shortcuts, with its dot.
std::string_view native_shortcut_extension();

// Returns the folder of the default shortcuts. Fails with "user_path".
std::filesystem::path native_menu_directory();

// Returns the path of the default shortcut of a data folder and a game, or of the client without one. The
// name plays no part in it. Fails with "shortcut_path", "shortcut_text", "user_path", and as
// validate_identifier and directory_key do.
std::filesystem::path native_menu_entry(const std::filesystem::path& data_root, const std::string& game,
                                        const std::string& name);

// Makes a shortcut's file and records nothing. Its folder must exist without a link on the way, unless it is
// the default one, which is made. Fails with "shortcut_path" and as the form of this system does.
void create_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& path);

// Makes a shortcut outside the data folder and records it, and returns a document with "created", "path" and
// "game_id". A recorded one that nobody has changed is left as it is; a changed one is replaced. Fails with
// "native_install_incomplete", "shortcut_path", "size_limit" beyond 128 rows or 262,144 bytes of them,
// "shortcut_ledger", and as create_native_shortcut and the writing do; there is then no new file, and the changed one
// is still there.
Json create_owned_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& path);

// Returns the rows of the ledger. Fails with "shortcut_ledger".
std::vector<OwnedShortcut> owned_native_shortcuts(const std::filesystem::path& data_root);

// Removes the recorded shortcuts that nobody has changed, and empties the ledger. Fails with
// "shortcut_ledger", "file_remove" and as the lock and the writing do; the ledger then stays.
ShortcutRemoval remove_owned_native_shortcuts(const std::filesystem::path& data_root);

// Makes the recorded shortcuts again that are missing, and returns their paths. Fails as
// create_native_shortcut does and with "shortcut_ledger".
std::vector<std::filesystem::path> restore_owned_native_shortcuts(const std::filesystem::path& data_root,
                                                                  const std::filesystem::path& bootstrap);

}  // namespace ravok
