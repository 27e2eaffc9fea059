// A shortcut's file in an open folder. All steps use the open folder and the same file, even if the path leads
// elsewhere later or another file gets the name.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"

namespace ravok {

// The most bytes of a file that can be a shortcut.
inline constexpr std::uint64_t shortcut_limit = 65'536;

class ShortcutFile {
 public:
  // Opens the folder of an absolute path level by level, through no link but the system's own. If that fails, the
  // object has no folder; read then returns nothing.
  explicit ShortcutFile(const std::filesystem::path& path);

  bool has_folder() const { return static_cast<bool>(folder_); }

  // Returns the file, or nothing unless it is a regular one of at most `shortcut_limit` bytes that can be read.
  std::optional<OpenedFile> read() const;

  enum class Removal { removed, missing, replaced, failed };

  // Removes the file that was read, if the name is still its own.
  Removal remove(const OpenedFile& file) const;

  // Removes what a making of the file that was ended has left: its transaction files with the bytes of this digest.
  // Returns whether any was removed; what cannot be read or removed stays.
  bool remove_unfinished(std::string_view sha256) const;

  // Flushes the folder's names to stable storage. Fails with "file_sync".
  void flush_folder() const;

  // Whether both are in one folder.
  bool shares_folder(const ShortcutFile& other) const;

 private:
  friend class StandAside;

  std::string name_;
  Handle folder_;
};

// Renames a shortcut's file within its folder while a new one takes its place. The destructor gives it its name back
// unless dismiss was called, but never replaces what others have put there meanwhile.
class StandAside {
 public:
  // Fails with "shortcut_path" when ShortcutFile cannot read the file or the file cannot be renamed; the file then
  // keeps its name.
  explicit StandAside(const std::filesystem::path& path);
  ~StandAside();
  StandAside(const StandAside&) = delete;
  StandAside& operator=(const StandAside&) = delete;

  // Removes the old file. Called once the new one is in its place.
  void dismiss();

 private:
  void come_back() const;

  ShortcutFile place_;
  std::optional<OpenedFile> file_;
  std::string aside_;
};

}  // namespace ravok
