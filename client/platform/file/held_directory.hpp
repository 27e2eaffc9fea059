// A directory in which setup moves, writes and removes. It stays open from its check on, so everything happens in the
// directory that was checked, even if its path leads elsewhere later. A name stands for one entry of it, without a
// separator; a link of that name is treated as what it is and never followed.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file/handle.hpp"
#include "platform/file/problem.hpp"
#include "platform/file/status.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {

class HeldDirectory {
 public:
  // Holds an existing directory that is reached through no link but the system's own. Fails with "unsafe_path".
  static HeldDirectory open(const std::filesystem::path& path);

  // The same for a private directory, which is made where it is missing. Fails with "unsafe_path", "size_limit",
  // "permissions" or "file_sync", as posix_files::private_directory does.
  static HeldDirectory open_private(const std::filesystem::path& path);

  // Holds the directory of that name. Returns none where the name is missing or is that of a link, a file or another
  // kind of entry. Fails with "permissions" for a directory that this user may not open, and with "unsafe_path" for
  // one that cannot be opened for another reason.
  std::optional<HeldDirectory> find_directory(const std::string& name) const;

  // Makes the directory of that name private and holds it. A new name is made durable. Fails with "unsafe_path",
  // "permissions" or "file_sync".
  HeldDirectory private_directory(const std::string& name) const;

  const std::filesystem::path& path() const { return path_; }
  int handle() const { return directory_.get(); }

  // Returns whether the path still leads to this directory.
  bool is_in_place() const;

  // Returns what the name stands for, or nothing where it is missing. Fails with "unsafe_path" when that cannot be
  // told.
  std::optional<EntryType> type_of(const std::string& name) const;

  // Returns the names in the directory, at most 250,000. Fails with "size_limit" beyond that, with "tree_read" when it
  // cannot be read, and with "too_many_files".
  std::vector<std::string> names() const;
  // Returns the first `limit` of them.
  std::vector<std::string> names(std::size_t limit) const;

  // Gives a directory of that name that is this user's the mode that its owner needs to move it. Returns false for
  // another user's directory, unless this is user 0; true for anything else.
  bool make_movable(const std::string& name) const;

  // Gives an entry another name in another directory, in place of a file or an empty directory there. With a
  // problem, nothing has changed.
  Problem try_move(const std::string& name, const HeldDirectory& to, const std::string& new_name) const;

  // The same; fails with "file_write".
  void move(const std::string& name, const HeldDirectory& to, const std::string& new_name) const;

  // Replaces or makes a private record durably, as atomic_write does; but a link of that name is replaced itself.
  void write(const std::string& name, std::string_view bytes) const;

  // Removes a file, a link or an empty directory; a missing name is fine. Fails with "file_remove" and, when it cannot
  // be told what the name stands for, with "unsafe_path"; no other failure comes after the removal.
  void remove(const std::string& name) const;
  // The same; tells nothing when that fails.
  void remove_quietly(const std::string& name) const noexcept;

  // Removes a name with all that it holds, as remove_tree_at does. Fails with "file_remove" for what cannot be removed,
  // with "unsafe_path" for a mounted volume, and with "tree_read" or "too_many_files".
  void remove_tree(const std::string& name) const;
  // The same, but goes on after what cannot be removed. Returns whether everything was removed.
  bool remove_tree_quietly(const std::string& name) const noexcept;

  // Removes every file, link and empty directory below whose own name matches. What cannot be removed stays. Enters no
  // volume that is mounted inside.
  void remove_matching_quietly(const std::function<bool(const std::string& name)>& matches) const;

  // Removes the directory itself if it is empty and still has its name. Tells nothing when that fails.
  void remove_itself_quietly() const noexcept;

  // Makes the changes of names in it durable. Fails with "file_sync".
  void flush() const;
  // The same; tells nothing when that fails.
  void flush_quietly() const noexcept;

 private:
  HeldDirectory(std::filesystem::path path, Handle parent, Handle directory);

  std::filesystem::path below(const std::string& name) const;

  std::filesystem::path path_;
  std::string name_;
  Handle parent_;
  Handle directory_;
};

}  // namespace ravok
