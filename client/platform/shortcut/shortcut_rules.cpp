#include "platform/shortcut/shortcut_rules.hpp"

#include <algorithm>
#include <optional>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/files.hpp"
#include "platform/file/path_keys.hpp"
#include "platform/file/status.hpp"
#include "platform/os.hpp"
#include "platform/shortcut/shortcut_file.hpp"

namespace ravok::shortcut_rules {
namespace {

// Whether the file is this user's, has no second name, and holds exactly what would be written.
bool is_same(const OpenedFile& file, const std::string& text) {
  return is_single_link_file(file.status) && file.status.is_own && file.bytes == text;
}

// Returns what has the name, or nothing when the request must preserve it.
std::optional<Found> find(const std::filesystem::path& path, const std::string& text, Taken taken) {
  if (is_missing(path)) {
    return Found::nothing;
  }
  const ShortcutFile place(path);
  std::optional<OpenedFile> file = taken == Taken::refused ? std::nullopt : place.read();
  // A making that was ended between its last two steps has left the file with the name of its transaction, too.
  if (file && file->bytes == text && place.remove_unfinished(digest(text, "sha256"))) {
    file = place.read();
  }
  if (file && is_same(*file, text)) {
    return Found::same;
  }
  return file && taken == Taken::replaced ? std::optional(Found::other) : std::nullopt;
}

bool is_absolute_and_normal(const std::filesystem::path& path) {
  bounded_text(path_utf8(path), maximum_path_bytes);
  return path.has_root_directory() && path_utf8(path) == path_utf8(path.lexically_normal());
}

}  // namespace

std::string_view extension() {
  return os::shortcut_form() == os::ShortcutForm::desktop_entry ? ".desktop" : ".ravok-launch";
}

void bounded_text(std::string_view text, std::size_t bound) {
  require(!text.empty() && text.size() <= bound && std::none_of(text.begin(), text.end(), is_control), "shortcut_text",
          "Shortcut text must be bounded and contain no control characters");
  require(is_utf8(text), "shortcut_text", "Shortcut text must be valid UTF-8");
}

std::filesystem::path absolute_path(const std::filesystem::path& path) {
  require(is_absolute_and_normal(path), "shortcut_path", "Shortcut paths must be absolute and normalized");
  return path;
}

std::filesystem::path absolute_path_below_root(const std::filesystem::path& path) {
  require(is_absolute_and_normal(path) && path.has_filename(), "shortcut_path",
          "Shortcut paths must be absolute and normalized below a filesystem root");
  return path;
}

void ordinary(const std::filesystem::path& path, bool directory) {
  const auto status = link_status_of(path);
  require(status && (directory ? is_directory(*status) : is_file(*status)), "shortcut_path",
          "Shortcut inputs need existing ordinary files and directories");
}

bool is_key_within(const std::string& inner, const std::string& outer) {
  // The key of a volume's root already ends in a separator.
  return inner == outer || inner.starts_with(outer.ends_with('/') ? outer : outer + "/");
}

bool lies_within(const std::filesystem::path& place, const std::filesystem::path& directory) {
  return is_key_within(path_keys::path_key(place), path_keys::directory_key(directory));
}

bool is_in_launcher_payload(const std::filesystem::path& directory) {
  for (std::filesystem::path level = directory; level.has_relative_path(); level = level.parent_path()) {
    const std::filesystem::path name = level.filename();
    if ((name == "versions" || name == "staging") && level.parent_path().filename() == "launcher") {
      return true;
    }
  }
  return false;
}

NewFile prove_new_file(const DesktopShortcut& shortcut, const std::filesystem::path& path, std::string text,
                       const FormWords& words, Taken taken) {
  const std::filesystem::path parent = path.parent_path();
  ordinary(shortcut.bootstrap, false);
  ordinary(shortcut.data_root, true);
  ordinary(parent, true);
  require(!lies_within(parent, shortcut.data_root), "shortcut_path",
          std::string(words.plural) + " must be outside application data");
  require(!is_in_launcher_payload(parent), "shortcut_path",
          std::string(words.plural) + " must be outside managed launcher payloads");
  const std::optional<Found> found = find(path, text, taken);
  require(found.has_value(), "already_exists",
          std::string(words.destination) + " destination already exists; it was preserved");
  return {path, std::move(text), *found};
}

void require_new_file(const DesktopShortcut& shortcut, const std::filesystem::path& path, const FormWords& words) {
  prove_new_file(shortcut, path, {}, words, Taken::refused);
}

void require_stable_bootstrap(const std::filesystem::path& bootstrap, std::string_view system) {
  ordinary(bootstrap, false);
  require(bootstrap.filename() == "ravok-bootstrap" && bootstrap.parent_path().filename() == "bin" &&
              !is_in_launcher_payload(bootstrap.parent_path()),
          "shortcut_bootstrap", std::string(system) + " shortcuts require the stable native bootstrap");
}

Json create_file(const DesktopShortcut& shortcut, const std::filesystem::path& path, const std::string& text) {
  atomic_create_or_remove(path, text);
  return {{"schema_version", 1},
          {"created", true},
          {"path", path_utf8(path)},
          {"game_id", shortcut.game_id},
          {"bootstrap", path_utf8(shortcut.bootstrap)},
          {"data_root", path_utf8(shortcut.data_root)},
          {"shortcut_abi", 1}};
}

}  // namespace ravok::shortcut_rules
