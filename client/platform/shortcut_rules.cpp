#include "platform/shortcut_rules.hpp"

#include <algorithm>

#include <unistd.h>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "platform/file_status.hpp"
#include "platform/files.hpp"
#include "platform/path_keys.hpp"

namespace ravok::shortcut_rules {
namespace {

bool holds(const std::filesystem::path& path, const std::string& text) {
  try {
    return read_file(path, text.size()) == text;
  } catch (const Error&) {
    return false;
  }
}

bool is_control(char c) { return static_cast<unsigned char>(c) < 32 || c == 127; }

bool is_absolute_and_normal(const std::filesystem::path& path) {
  bounded_text(path_utf8(path), maximum_path_bytes);
  return path.has_root_directory() && path.native() == path.lexically_normal().native();
}

}  // namespace

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
  require(status && (directory ? is_directory(*status) : S_ISREG(status->st_mode)), "shortcut_path",
          "Shortcut inputs need existing ordinary files and directories");
}

bool lies_within(const std::filesystem::path& place, const std::filesystem::path& directory) {
  const std::string inner = path_keys::path_key(place);
  const std::string outer = path_keys::directory_key(directory);
  return inner == outer || inner.starts_with(outer + "/");
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

void require_new_file(const DesktopShortcut& shortcut, const std::filesystem::path& path, const FormWords& words) {
  const std::filesystem::path parent = path.parent_path();
  ordinary(shortcut.bootstrap, false);
  ordinary(shortcut.data_root, true);
  ordinary(parent, true);
  require(!lies_within(parent, shortcut.data_root), "shortcut_path",
          std::string(words.plural) + " must be outside application data");
  require(!is_in_launcher_payload(parent), "shortcut_path",
          std::string(words.plural) + " must be outside managed launcher payloads");
  require(is_missing(path), "already_exists",
          std::string(words.destination) + " destination already exists; it was preserved");
}

void require_stable_bootstrap(const std::filesystem::path& bootstrap, std::string_view system) {
  ordinary(bootstrap, false);
  require(bootstrap.filename() == "ravok-bootstrap" && bootstrap.parent_path().filename() == "bin" &&
              !is_in_launcher_payload(bootstrap.parent_path()),
          "shortcut_bootstrap", std::string(system) + " shortcuts require the stable native bootstrap");
}

Json create_file(const DesktopShortcut& shortcut, const std::filesystem::path& path, const std::string& text) {
  try {
    atomic_create(path, text);
  } catch (const Error&) {
    // It may be in place, and only not durable.
    if (holds(path, text)) {
      unlink(path.c_str());
    }
    throw;
  }
  return {{"schema_version", 1},
          {"created", true},
          {"path", path_utf8(path)},
          {"game_id", shortcut.game_id},
          {"bootstrap", path_utf8(shortcut.bootstrap)},
          {"data_root", path_utf8(shortcut.data_root)},
          {"shortcut_abi", 1}};
}

}  // namespace ravok::shortcut_rules
