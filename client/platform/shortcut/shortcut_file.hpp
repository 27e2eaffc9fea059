// A shortcut's file by its name in a folder that is held open. What is looked at, moved or removed is one and the same
// file, in the folder that the path led to, whatever becomes of either name meanwhile.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"

namespace ravok {

// The most bytes of a file that can be a shortcut.
inline constexpr std::uint64_t shortcut_limit = 65'536;

class ShortcutFile {
 public:
  // Opens the folder of an absolute path level by level, through no link but the system's own. Where that fails the
  // object has no folder, and finds nothing to read or to remove.
  explicit ShortcutFile(const std::filesystem::path& path);

  bool has_folder() const { return static_cast<bool>(folder_); }

  // Returns the file, or nothing unless it is a regular one of at most `shortcut_limit` bytes that can be read.
  std::optional<OpenedFile> read() const;

  enum class Removal { removed, missing, replaced, failed };

  // Removes the file that was read, if the name is still its own.
  Removal remove(const OpenedFile& file) const;

  // Flushes the folder's names to stable storage. Fails with "file_sync".
  void flush_folder() const;

  // Whether both are in one folder.
  bool shares_folder(const ShortcutFile& other) const;

 private:
  friend class StandAside;

  std::string name_;
  Handle folder_;
};

// A shortcut's file that stands aside, under another name of its folder, while a new one takes its place. It comes
// back unless that succeeds, but never over what others have put there meanwhile.
class StandAside {
 public:
  // Fails with "shortcut_path" unless the name is that of a file that ShortcutFile can read, and the file can be moved;
  // then it keeps its place.
  explicit StandAside(const std::filesystem::path& path);
  ~StandAside();
  StandAside(const StandAside&) = delete;
  StandAside& operator=(const StandAside&) = delete;

  // Removes the file, as the new one is in its place.
  void dismiss();

 private:
  void come_back() const;

  ShortcutFile place_;
  std::optional<OpenedFile> file_;
  std::string aside_;
};

}  // namespace ravok
