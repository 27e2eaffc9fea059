// The shortcuts that the client has made outside its data folder, and the ledger of them: so that exactly
// these are removed, the missing ones made again, and those left alone that the user has changed.
//
// Calls for one data folder, also from different processes, run one after the other. A shortcut stands in the ledger
// before its file is made, so a process may end, or the power fail, at any moment: there may be a row without a file,
// which the next creation or restoring makes good and a removal drops, but no file without a row. What a creation or a
// restoring has found or made is durable when it returns. A shortcut counts as changed when its name is not that of a
// regular file of at most 65,536 bytes with the recorded digest, when that cannot be read, or when its folder is
// reached through a link other than the system's own; it is never removed.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"
#include "platform/shortcut/shortcut_ledger.hpp"
#include "platform/shortcut/shortcut_rules.hpp"

namespace ravok {

struct ShortcutRemoval {
  std::vector<std::filesystem::path> removed;
  std::vector<std::filesystem::path> changed;  // those that stay: changed by others, or impossible to remove
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

// Makes a shortcut's file and records nothing. Its folder must exist and be reached without a link; only the default
// one is made. Fails with "shortcut_path", "shortcut_bootstrap", "shortcut_text", "already_exists",
// "insufficient_space", "file_write" or "file_sync", and on macOS with "shortcut_api" when the application cannot be
// registered.
void create_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& path);

// Makes a shortcut outside the data folder and records it, and returns a document with "created", whether a file was
// made, "path" and "game_id". A recorded one that nobody has changed is left as it is. A file that is already what
// would be written, byte for byte, and is this user's own, is not touched but recorded: what was left by a data folder
// that is gone belongs to its successor. It has no second name, unless that of a making that was ended, which is
// removed. A changed one is replaced if it is a regular file of at most 65,536 bytes that can be read; every other file
// is preserved. Fails with "native_install_incomplete", "shortcut_path", "unsafe_path" for a place that has no key,
// "size_limit" beyond 128 rows or 262,144 bytes of them, "shortcut_ledger", and as create_native_shortcut and the
// writing do; there is then no new file and no new row, and the changed one is still there.
Json create_owned_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& path);

// Returns the rows of the ledger, proved by the rules for a new shortcut. Fails with "shortcut_ledger".
std::vector<OwnedShortcut> owned_native_shortcuts(const std::filesystem::path& data_root);

// Removes the recorded shortcuts that nobody has changed, and empties the ledger. With each goes what a making of it
// has left beside it that was ended once its text was written; the file of one that was ended before stays, since
// nothing tells whose it is. Does nothing without a folder "native". When one cannot be removed, the others still
// are, and the call then fails with "file_remove". Fails also with "shortcut_ledger", "file_sync", "lock_failed",
// "permissions", "insufficient_space" or "file_write", and with "permissions" or "file_system" for a folder "native"
// that cannot be looked at. After a failure the ledger is as it was; the next call drops the rows of files that this
// one has removed.
ShortcutRemoval remove_owned_native_shortcuts(const std::filesystem::path& data_root);

// The same for an uninstall, which goes on after a shortcut that cannot be removed. That one is returned under
// "changed" and alone stays in the ledger, so that a repeated uninstall tries it again. When a removal cannot be
// flushed or the ledger cannot be written, that is no failure, and the ledger stays as it was. Fails before anything is
// removed: with "shortcut_ledger" for a ledger that cannot be understood, since it is then not known which files are
// the client's own, and with "lock_failed", "permissions" or "file_system".
ShortcutRemoval release_owned_native_shortcuts(const std::filesystem::path& data_root);

// Makes the recorded shortcuts again that are missing, and returns their paths. The ledger then has the new digests of
// all that were made, also after a failure. Fails as create_native_shortcut does and with "shortcut_ledger".
std::vector<std::filesystem::path> restore_owned_native_shortcuts(const std::filesystem::path& data_root,
                                                                  const std::filesystem::path& bootstrap);

}  // namespace ravok
