// The ledger of a data folder's shortcuts: which files outside the folder are the client's own.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/file/native_lock.hpp"

namespace ravok {

// A row of the ledger.
struct OwnedShortcut {
  std::filesystem::path path;
  std::string game;
  std::string name;
  std::string sha256;  // of the file as it was made
};

namespace shortcut_ledger {

inline constexpr std::size_t maximum_rows = 128;

// Returns the path of the lock that every change of the ledger is made under.
std::filesystem::path lock_path(const std::filesystem::path& root);

// Waits for that lock, and makes its file where it is missing. Fails with "lock_failed", "permissions", "unsafe_path",
// "size_limit" or "file_sync", as FileLock does.
FileLock lock(const std::filesystem::path& root);

// Returns the rows, none without a ledger. What a row says has been proved by the rules for a new shortcut: a path of
// this system's form outside the data folder and every launcher's payload, a game's identifier or none, a name, a
// digest, and no path twice. Fails with "shortcut_ledger".
std::vector<OwnedShortcut> read(const std::filesystem::path& root);

// Replaces the rows. Fails with "size_limit" beyond 262,144 bytes, before anything is written, and with
// "insufficient_space", "file_write", "file_sync" or the failures of its private folder, as atomic_write does.
void write(const std::filesystem::path& root, const std::vector<OwnedShortcut>& rows);

}  // namespace shortcut_ledger

}  // namespace ravok
