// A directory in which setup moves, writes and removes: held open since it was proved, so that everything happens
// there, whatever becomes of its path. A name stands for one entry of it, without a separator; a link of that name is
// treated as what it is and never followed.
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

  // The same for a private directory, which is made where it is missing. Fails as private_directory does.
  static HeldDirectory open_private(const std::filesystem::path& path);

  // Holds a directory of that name, or returns none where nothing, a link or anything else has it. Fails with
  // "permissions" for a directory that may not be opened, and with "unsafe_path" for one that cannot be.
  std::optional<HeldDirectory> find_directory(const std::string& name) const;

  // Makes the directory of that name private, with the name durable where it is new, and holds it. Fails as
  // private_directory does.
  HeldDirectory private_directory(const std::string& name) const;

  const std::filesystem::path& path() const { return path_; }
  int handle() const { return directory_.get(); }

  // Returns whether the path still leads to this directory.
  bool is_in_place() const;

  // Returns what the name stands for, or nothing where it is missing. Fails with "unsafe_path" when that cannot be
  // told.
  std::optional<EntryType> type_of(const std::string& name) const;

  // Returns the names in the directory, at most 250,000. Fails as names_in does, and with "size_limit" beyond that.
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

  // Removes a file, a link or an empty directory; a missing name is fine. Fails with "file_remove".
  void remove(const std::string& name) const;
  // The same as far as that goes.
  void remove_quietly(const std::string& name) const noexcept;

  // Removes a name with all that it holds, as remove_tree_at does and with its failures.
  void remove_tree(const std::string& name) const;
  // The same as far as that goes. Returns whether all of it went.
  bool remove_tree_quietly(const std::string& name) const noexcept;

  // Removes every file, link and empty directory below whose own name matches, as far as that goes. Enters no volume
  // that is mounted inside.
  void remove_matching_quietly(const std::function<bool(const std::string& name)>& matches) const;

  // Removes the directory itself, if its path still leads to it and it holds nothing.
  void remove_itself_quietly() const noexcept;

  // Makes the changes of names in it durable. Fails with "file_sync".
  void flush() const;

 private:
  HeldDirectory(std::filesystem::path path, Handle parent, Handle directory);

  std::filesystem::path below(const std::string& name) const;

  std::filesystem::path path_;
  std::string name_;
  Handle parent_;
  Handle directory_;
};

}  // namespace ravok
