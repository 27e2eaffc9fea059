#include "platform/shortcut/shortcuts.hpp"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/path_keys.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/status.hpp"
#include "platform/os.hpp"
#include "platform/process/process.hpp"
#include "platform/shortcut/linux_shortcuts.hpp"
#include "platform/shortcut/macos_shortcuts.hpp"
#include "platform/shortcut/shortcut_file.hpp"
#include "platform/snapshot/complete_install.hpp"

namespace ravok {
namespace {

using shortcut_rules::Found;
using shortcut_rules::NewFile;
using shortcut_rules::Taken;
using Rows = std::vector<OwnedShortcut>;

void require_plain_way(const std::filesystem::path& parent) {
  std::filesystem::path level = parent.root_path();
  for (const std::filesystem::path& component : parent.relative_path()) {
    level /= component;
    const auto status = link_status_of(level);
    if (!status) {
      require(level == parent, "shortcut_path", "Shortcut paths need existing plain files and directories");
      continue;
    }
    require(!is_link(*status), "shortcut_path", "Shortcut path contains a symbolic link");
    require(is_directory(*status), "shortcut_path", "Shortcut paths need existing plain files and directories");
  }
}

std::filesystem::path launch_document_directory() {
  const std::optional<std::string> home = process_environment("HOME", maximum_environment_bytes);
  require(home && !home->empty(), "user_path", "Cannot locate the user's Desktop");
  return std::filesystem::path(*home) / "Desktop";
}

bool is_menu_directory(const std::filesystem::path& folder) {
  try {
    return folder == native_menu_directory();
  } catch (const Error&) {
    return false;
  }
}

// Makes a missing folder of the default shortcuts. Any other must exist and be reached without a link.
void provide_folder(const std::filesystem::path& folder) {
  if (is_missing(folder)) {
    require(folder == native_menu_directory(), "shortcut_path",
            "Custom shortcut destinations require an existing parent directory");
    private_directory(folder);
  } else {
    require_plain_way(folder);
  }
  if (is_menu_directory(folder)) {
    // Who made it, or a level above it, may have ended before that name was durable.
    posix_files::flush_private_levels(folder);
  }
}

// Folders of shortcuts whose names are to be made durable, each held once. One that is reached through a link is left
// out, since it holds none of the client's.
class ShortcutFolders {
 public:
  void add(ShortcutFile place) {
    if (place.has_folder() && std::none_of(folders_.begin(), folders_.end(),
                                           [&](const ShortcutFile& each) { return each.shares_folder(place); })) {
      folders_.push_back(std::move(place));
    }
  }

  // Fails with "file_sync".
  void flush() const {
    for (const ShortcutFile& folder : folders_) {
      folder.flush_folder();
    }
  }

 private:
  std::vector<ShortcutFile> folders_;
};

// Makes the name of a file durable that is there already, since who made it may have ended before that.
void flush_name(ShortcutFile place) {
  ShortcutFolders folder;
  folder.add(std::move(place));
  folder.flush();
}

NewFile prove_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& path, Taken taken) {
  const std::filesystem::path target = shortcut_rules::absolute_path(path);
  provide_folder(target.parent_path());
  return os::shortcut_form() == os::ShortcutForm::desktop_entry ? prove_linux_desktop_entry(shortcut, target, taken)
                                                                : prove_macos_launch_document(shortcut, target, taken);
}

// Makes the file unless it is already there. Replaces another one where that was allowed.
void put_in_place(const DesktopShortcut& shortcut, const NewFile& file) {
  if (file.found == Found::same) {
    flush_name(ShortcutFile(file.path));
    return;
  }
  std::optional<StandAside> other;
  if (file.found == Found::other) {
    other.emplace(file.path);
  }
  shortcut_rules::create_file(shortcut, file.path, file.text);
  if (other) {
    other->dismiss();
  }
}

OwnedShortcut row_of(const DesktopShortcut& shortcut, const NewFile& file) {
  return {file.path, shortcut.game_id, shortcut.name, digest(file.text, "sha256")};
}

void write_if_possible(const std::filesystem::path& root, const Rows& rows) {
  try {
    shortcut_ledger::write(root, rows);
  } catch (const Error&) {
    // The caller reports the earlier failure. The next creation makes the file of the row that stays.
  }
}

// Removes what a making that was ended has left of the file that the row tells of. The removal lasts before the row is
// replaced, after which nothing would tell of it.
void forget(const OwnedShortcut& row) {
  ShortcutFile place(row.path);
  if (place.remove_unfinished(row.sha256)) {
    place.flush_folder();
  }
}

// Writes the ledger before the file, so that the ledger names every file even if the process ends in between. The next
// creation or restoring makes the file of a row that has none.
void put_recorded(const std::filesystem::path& root, const Rows& before, const Rows& after,
                  const DesktopShortcut& shortcut, const NewFile& file) {
  try {
    for (const OwnedShortcut& row : before) {
      if (row.path == file.path) {
        forget(row);
      }
    }
    shortcut_ledger::write(root, after);
    put_in_place(shortcut, file);
  } catch (const Error&) {
    write_if_possible(root, before);
    throw;
  }
}

void require_outside(const std::filesystem::path& target, const std::filesystem::path& root) {
  require(!shortcut_rules::lies_within(target, root), "shortcut_path", "Shortcuts must be outside the data folder");
}

// Checks the place before it takes the lock, so that a refused request leaves no lock file behind. Whoever holds the
// lock may make or remove the file during that check, which makes it fail with "unsafe_path". It is then repeated under
// the lock.
FileLock lock_for(const std::filesystem::path& target, const std::filesystem::path& root) {
  bool needs_another_look = false;
  try {
    require_outside(target, root);
  } catch (const Error& error) {
    needs_another_look = error.code == "unsafe_path" && !is_missing(shortcut_ledger::lock_path(root));
    if (!needs_another_look) {
      throw;
    }
  }
  FileLock lock = shortcut_ledger::lock(root);
  if (needs_another_look) {
    require_outside(target, root);
  }
  return lock;
}

// Whether the file is the one that was made. False for a file that is missing or cannot be read.
bool is_unchanged(const std::optional<OpenedFile>& file, const OwnedShortcut& row) {
  return file && digest(file->bytes, "sha256") == row.sha256;
}

// A removal of the recorded shortcuts, one after the other.
class Remover {
 public:
  explicit Remover(const std::filesystem::path& root) {
    for (const OwnedShortcut& row : shortcut_ledger::read(root)) {
      remove(row);
    }
  }

  // Makes the removals durable. Fails with "file_sync".
  void flush() const { folders_.flush(); }

  // The rows of shortcuts that are the client's own and could not be removed.
  const Rows& kept() const { return kept_; }

  ShortcutRemoval told() const { return {removed_, changed_}; }

 private:
  void remove(const OwnedShortcut& row) {
    ShortcutFile place(row.path);
    const bool was_unfinished = place.remove_unfinished(row.sha256);
    if (is_missing(row.path)) {
      // An earlier run may have removed it and ended before the flush.
      folders_.add(std::move(place));
      return;
    }
    const std::optional<OpenedFile> file = place.read();
    const auto outcome = is_unchanged(file, row) ? place.remove(*file) : ShortcutFile::Removal::replaced;
    if (outcome == ShortcutFile::Removal::removed) {
      removed_.push_back(row.path);
    } else if (outcome == ShortcutFile::Removal::replaced) {
      changed_.push_back(row.path);
    } else if (outcome == ShortcutFile::Removal::failed) {
      changed_.push_back(row.path);
      kept_.push_back(row);
    }
    if (outcome == ShortcutFile::Removal::removed || was_unfinished) {
      folders_.add(std::move(place));
    }
  }

  std::vector<std::filesystem::path> removed_;
  std::vector<std::filesystem::path> changed_;
  Rows kept_;
  ShortcutFolders folders_;
};

// Follows links. Fails with "permissions" or "file_system" for what cannot be looked at, which may hold a ledger.
bool has_ledger_folder(const std::filesystem::path& root) {
  const std::filesystem::path folder = DataPaths(root).native;
  const Result<Status> status = target_status_of(folder);
  // Links in a circle lead to nothing.
  if (!(status.problem() == Cause::is_link)) {
    require_answer(status.problem(), folder);
  }
  return status && is_directory(*status);
}

}  // namespace

std::string_view native_shortcut_extension() { return shortcut_rules::extension(); }

std::filesystem::path native_menu_directory() {
  return os::shortcut_form() == os::ShortcutForm::desktop_entry ? linux_menu_directory() : launch_document_directory();
}

std::filesystem::path native_menu_entry(const std::filesystem::path& data_root, const std::string& game,
                                        const std::string&) {
  if (!game.empty()) {
    validate_identifier(game);
  }
  const std::filesystem::path root =
      shortcut_rules::absolute_path(std::filesystem::absolute(data_root).lexically_normal());
  const std::string key = digest(path_keys::directory_key(root), "sha256");
  const std::string file =
      "ravok-" + key + (game.empty() ? "-launcher" : "-game-" + game) + std::string(native_shortcut_extension());
  return shortcut_rules::absolute_path(native_menu_directory() / file);
}

void create_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& path) {
  put_in_place(shortcut, prove_native_shortcut(shortcut, path, Taken::refused));
}

Json create_owned_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& path) {
  const std::filesystem::path root = shortcut_rules::absolute_path(shortcut.data_root);
  require_complete_native_install(root);
  const std::filesystem::path target = shortcut_rules::absolute_path(path);
  const FileLock lock = lock_for(target, root);
  // Checked again: an uninstall may have begun and released its shortcuts while this call waited.
  require_complete_native_install(root);
  const Rows before = shortcut_ledger::read(root);
  Rows rows = before;
  const auto row =
      std::find_if(rows.begin(), rows.end(), [&](const OwnedShortcut& each) { return each.path == target; });
  const auto answer = [&](bool created, const std::string& game) {
    return Json({{"schema_version", 1}, {"created", created}, {"path", path_utf8(target)}, {"game_id", game}});
  };
  if (row != rows.end()) {
    ShortcutFile place(target);
    if (is_unchanged(place.read(), *row)) {
      flush_name(std::move(place));
      return answer(false, row->game);
    }
  }
  require(row != rows.end() || rows.size() < shortcut_ledger::maximum_rows, "size_limit",
          "Too many recorded shortcuts");
  const NewFile file = prove_native_shortcut(shortcut, target, row != rows.end() ? Taken::replaced : Taken::adopted);
  if (row != rows.end()) {
    *row = row_of(shortcut, file);
  } else {
    rows.push_back(row_of(shortcut, file));
  }
  put_recorded(root, before, rows, shortcut, file);
  return answer(file.found != Found::same, shortcut.game_id);
}

std::vector<OwnedShortcut> owned_native_shortcuts(const std::filesystem::path& data_root) {
  return shortcut_ledger::read(data_root);
}

ShortcutRemoval remove_owned_native_shortcuts(const std::filesystem::path& data_root) {
  if (!has_ledger_folder(data_root)) {
    return {};
  }
  const FileLock lock = shortcut_ledger::lock(data_root);
  const Remover removal(data_root);
  removal.flush();
  require(removal.kept().empty(), "file_remove", "Cannot remove a recorded shortcut");
  shortcut_ledger::write(data_root, {});
  return removal.told();
}

ShortcutRemoval release_owned_native_shortcuts(const std::filesystem::path& data_root) {
  if (!has_ledger_folder(data_root)) {
    return {};
  }
  const FileLock lock = shortcut_ledger::lock(data_root);
  const Remover removal(data_root);
  try {
    removal.flush();
    shortcut_ledger::write(data_root, removal.kept());
  } catch (const Error&) {
    // The rows that stay name files that are gone, or that a power cut has brought back. The next release drops them.
  }
  return removal.told();
}

std::vector<std::filesystem::path> restore_owned_native_shortcuts(const std::filesystem::path& data_root,
                                                                  const std::filesystem::path& bootstrap) {
  const FileLock lock = shortcut_ledger::lock(data_root);
  Rows rows = shortcut_ledger::read(data_root);
  std::vector<std::filesystem::path> made;
  ShortcutFolders found;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (!is_missing(rows[i].path)) {
      ShortcutFile place(rows[i].path);
      if (is_unchanged(place.read(), rows[i])) {
        found.add(std::move(place));
      }
      continue;
    }
    const DesktopShortcut shortcut = {bootstrap, data_root, rows[i].game, rows[i].name};
    const NewFile file = prove_native_shortcut(shortcut, rows[i].path, Taken::refused);
    const Rows before = rows;
    rows[i] = row_of(shortcut, file);
    if (rows[i].sha256 == before[i].sha256) {
      put_in_place(shortcut, file);
    } else {
      put_recorded(data_root, before, rows, shortcut, file);
    }
    made.push_back(file.path);
  }
  shortcut_ledger::write(data_root, rows);
  // Last, so that a folder that cannot be flushed keeps no missing shortcut from being made.
  found.flush();
  return made;
}

}  // namespace ravok
