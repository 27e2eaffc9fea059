#include "platform/shortcuts.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/paths.hpp"
#include "platform/complete_install.hpp"
#include "platform/file_status.hpp"
#include "platform/files.hpp"
#include "platform/linux_shortcuts.hpp"
#include "platform/macos_shortcuts.hpp"
#include "platform/native_lock.hpp"
#include "platform/os.hpp"
#include "platform/path_keys.hpp"
#include "platform/posix_files.hpp"
#include "platform/process.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t ledger_limit = 262'144;
constexpr std::uint64_t shortcut_limit = 65'536;
constexpr std::size_t maximum_rows = 128;
constexpr std::size_t environment_bound = 8192;
constexpr const char* ledger_kind = "ravok-shortcuts";

using Rows = std::vector<OwnedShortcut>;

std::filesystem::path ledger_path(const std::filesystem::path& root) { return root / "native/shortcuts.json"; }

FileLock lock_ledger(const std::filesystem::path& root) {
  return FileLock(root / "native/shortcuts.lock", true, LockMode::exclusive);
}

Rows read_rows(const std::filesystem::path& path) {
  const Json document = parse_json(read_file(path, ledger_limit), ledger_limit);
  require(is_integer(document.at("schema_version"), 1) && document.at("kind") == ledger_kind &&
              document.at("entries").is_array() && document.at("entries").size() <= maximum_rows,
          "shortcut_ledger", "Unsupported shortcut list " + path_utf8(path));
  Rows rows;
  for (const Json& entry : document.at("entries")) {
    rows.push_back({path_from_utf8(text_at(entry, "path")), text_at(entry, "game"), text_at(entry, "name"),
                    text_at(entry, "sha256")});
  }
  return rows;
}

Rows read_ledger(const std::filesystem::path& root) {
  const std::filesystem::path path = ledger_path(root);
  if (is_missing(path)) {
    return {};
  }
  try {
    return read_rows(path);
  } catch (const Error& error) {
    if (error.code == "shortcut_ledger") {
      throw;
    }
  } catch (const Json::exception&) {
    // As malformed as what cannot be read.
  }
  fail("shortcut_ledger", "Shortcut list is malformed: " + path_utf8(path));
}

void write_ledger(const std::filesystem::path& root, const Rows& rows) {
  Json entries = Json::array();
  for (const OwnedShortcut& row : rows) {
    entries.push_back({{"path", path_utf8(row.path)}, {"game", row.game}, {"name", row.name}, {"sha256", row.sha256}});
  }
  const Json document = {{"schema_version", 1}, {"kind", ledger_kind}, {"entries", std::move(entries)}};
  const std::string text = document.dump();
  require(text.size() <= ledger_limit, "size_limit", "Too many recorded shortcuts");
  atomic_write(ledger_path(root), text);
}

// Whether the file is the one that was made. What is missing, or can no longer be read, is not.
bool is_unchanged(const OwnedShortcut& row) {
  const auto status = link_status_of(row.path);
  if (!status || !S_ISREG(status->st_mode)) {
    return false;
  }
  try {
    return digest(read_file(row.path, shortcut_limit), "sha256") == row.sha256;
  } catch (const Error&) {
    return false;
  }
}

OwnedShortcut recorded(const DesktopShortcut& shortcut, const std::filesystem::path& path) {
  return {path, shortcut.game_id, shortcut.name, digest(read_file(path, shortcut_limit), "sha256")};
}

// A new shortcut that goes again unless it comes to be recorded.
class Unrecorded {
 public:
  explicit Unrecorded(std::filesystem::path path) : path_(std::move(path)), made_(link_status_of(path_)) {}
  ~Unrecorded() {
    const auto status = made_ ? link_status_of(path_) : std::nullopt;
    if (status && same_file(*status, *made_)) {
      unlink(path_.c_str());
    }
  }
  Unrecorded(const Unrecorded&) = delete;
  Unrecorded& operator=(const Unrecorded&) = delete;

  void dismiss() { made_.reset(); }

 private:
  std::filesystem::path path_;
  std::optional<FileStatus> made_;
};

// A file that stands aside while another takes its place, and comes back unless that succeeds. It never comes back
// over what others have put there meanwhile.
class StandAside {
 public:
  explicit StandAside(std::filesystem::path path) : path_(std::move(path)), aside_(path_) {
    const auto status = link_status_of(path_);
    if (status && S_ISREG(status->st_mode)) {
      aside_ += "." + random_id() + ".tmp";
      moved_ = rename(path_.c_str(), aside_.c_str()) == 0;
      require(moved_, "shortcut_path", "Cannot replace a changed shortcut");
    }
  }
  ~StandAside() {
    if (moved_) {
      os::rename_exclusive(AT_FDCWD, aside_.c_str(), AT_FDCWD, path_.c_str());
    }
  }
  StandAside(const StandAside&) = delete;
  StandAside& operator=(const StandAside&) = delete;

  void dismiss() {
    if (std::exchange(moved_, false)) {
      unlink(aside_.c_str());
    }
  }

 private:
  std::filesystem::path path_;
  std::filesystem::path aside_;
  bool moved_ = false;
};

void require_plain_way(const std::filesystem::path& parent) {
  std::filesystem::path level = parent.root_path();
  for (const std::filesystem::path& component : parent.relative_path()) {
    level /= component;
    const auto status = link_status_of(level);
    if (!status) {
      require(level == parent, "shortcut_path", "Shortcut paths need existing plain files and directories");
      continue;
    }
    require(!S_ISLNK(status->st_mode), "shortcut_path", "Shortcut path contains a symbolic link");
    require(is_directory(*status), "shortcut_path", "Shortcut paths need existing plain files and directories");
  }
}

std::filesystem::path launch_document_directory() {
  const std::optional<std::string> home = process_environment("HOME", environment_bound);
  require(home && !home->empty(), "user_path", "Cannot locate the user's Desktop");
  return std::filesystem::path(*home) / "Desktop";
}

}  // namespace

std::string_view native_shortcut_extension() {
  return os::shortcut_form() == os::ShortcutForm::desktop_entry ? ".desktop" : ".ravok-launch";
}

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
  const std::filesystem::path target = shortcut_rules::absolute_path(path);
  const std::filesystem::path parent = target.parent_path();
  if (is_missing(parent)) {
    require(parent == native_menu_directory(), "shortcut_path",
            "Custom shortcut destinations require an existing parent directory");
    private_directory(parent);
  } else {
    require_plain_way(parent);
  }
  if (os::shortcut_form() == os::ShortcutForm::desktop_entry) {
    create_linux_desktop_entry(shortcut, target);
  } else {
    create_macos_launch_document(shortcut, target);
  }
}

Json create_owned_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& path) {
  const std::filesystem::path root = shortcut_rules::absolute_path(shortcut.data_root);
  require_complete_native_install(root);
  const std::filesystem::path target = shortcut_rules::absolute_path(path);
  require(!shortcut_rules::lies_within(target, root), "shortcut_path", "Shortcuts must be outside the data folder");
  const FileLock lock = lock_ledger(root);
  Rows rows = read_ledger(root);
  const auto row =
      std::find_if(rows.begin(), rows.end(), [&](const OwnedShortcut& each) { return each.path == target; });
  const auto answer = [&](bool created, const std::string& game) {
    return Json({{"schema_version", 1}, {"created", created}, {"path", path_utf8(target)}, {"game_id", game}});
  };
  if (row != rows.end() && is_unchanged(*row)) {
    return answer(false, row->game);
  }
  std::optional<StandAside> changed;
  if (row != rows.end()) {
    changed.emplace(target);
  } else {
    require(rows.size() < maximum_rows, "size_limit", "Too many recorded shortcuts");
  }
  create_native_shortcut(shortcut, target);
  Unrecorded made(target);
  if (row != rows.end()) {
    *row = recorded(shortcut, target);
  } else {
    rows.push_back(recorded(shortcut, target));
  }
  write_ledger(root, rows);
  made.dismiss();
  if (changed) {
    changed->dismiss();
  }
  return answer(true, shortcut.game_id);
}

std::vector<OwnedShortcut> owned_native_shortcuts(const std::filesystem::path& data_root) {
  return read_ledger(data_root);
}

ShortcutRemoval remove_owned_native_shortcuts(const std::filesystem::path& data_root) {
  ShortcutRemoval removal;
  std::error_code ignored;
  if (!std::filesystem::is_directory(data_root / "native", ignored)) {
    return removal;
  }
  const FileLock lock = lock_ledger(data_root);
  for (const OwnedShortcut& row : read_ledger(data_root)) {
    if (is_missing(row.path)) {
      continue;
    }
    if (!is_unchanged(row)) {
      removal.changed.push_back(row.path);
      continue;
    }
    require(unlink(row.path.c_str()) == 0, "file_remove", "Cannot remove a recorded shortcut");
    removal.removed.push_back(row.path);
  }
  for (const std::filesystem::path& path : removal.removed) {
    sync_directory(path.parent_path());
  }
  write_ledger(data_root, {});
  return removal;
}

std::vector<std::filesystem::path> restore_owned_native_shortcuts(const std::filesystem::path& data_root,
                                                                  const std::filesystem::path& bootstrap) {
  const FileLock lock = lock_ledger(data_root);
  Rows rows = read_ledger(data_root);
  std::vector<std::filesystem::path> made;
  for (OwnedShortcut& row : rows) {
    if (is_missing(row.path)) {
      const DesktopShortcut shortcut = {bootstrap, data_root, row.game, row.name};
      try {
        create_native_shortcut(shortcut, row.path);
        Unrecorded unrecorded(row.path);
        row = recorded(shortcut, row.path);
        unrecorded.dismiss();
      } catch (const Error&) {
        // What has been made so far is known by its new content.
        write_ledger(data_root, rows);
        throw;
      }
      made.push_back(row.path);
    }
  }
  write_ledger(data_root, rows);
  return made;
}

}  // namespace ravok
