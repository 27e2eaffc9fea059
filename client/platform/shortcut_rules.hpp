// What every form of shortcut demands of its texts and places.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

// What is asked of a new shortcut.
struct DesktopShortcut {
  std::filesystem::path bootstrap;  // the program to start
  std::filesystem::path data_root;
  std::string game_id;  // empty for the client itself
  std::string name;     // what users see, at most 512 bytes
};

namespace shortcut_rules {

inline constexpr std::size_t maximum_path_bytes = 4096;
inline constexpr std::size_t maximum_name_bytes = 512;

// Returns for 1 to `bound` bytes of UTF-8 without control characters. Fails with "shortcut_text".
void bounded_text(std::string_view text, std::size_t bound);

// Returns the path, which must be absolute, normal and a bounded text. Fails with "shortcut_text" or
// "shortcut_path".
std::filesystem::path absolute_path(const std::filesystem::path& path);

// The same for a path that also names something below a file system's root.
std::filesystem::path absolute_path_below_root(const std::filesystem::path& path);

// Fails with "shortcut_path" unless the path is a regular file or, with `directory`, a directory, and no
// link.
void ordinary(const std::filesystem::path& path, bool directory);

// Returns whether a place is a directory or lies in it, by their keys.
bool lies_within(const std::filesystem::path& place, const std::filesystem::path& directory);

// Returns whether a directory lies in a launcher's versions or its staging, of whichever data folder.
bool is_in_launcher_payload(const std::filesystem::path& directory);

// Proves a request and the place of its new file, which must be in an existing directory, outside the data
// folder and every launcher's payload, and name nothing yet. `words` names the form in the failures, such as
// "Launch documents" and "Launch-document". Fails with "shortcut_path" or "already_exists".
struct FormWords {
  std::string_view plural;
  std::string_view destination;
};
void require_new_file(const DesktopShortcut& shortcut, const std::filesystem::path& path, const FormWords& words);

// Makes the new file, durably, and returns the document that tells of it. One that cannot be made durable goes
// again. Fails as atomic_create does.
Json create_file(const DesktopShortcut& shortcut, const std::filesystem::path& path, const std::string& text);

// Fails with "shortcut_bootstrap" unless the bootstrap is the stable one of an installation.
void require_stable_bootstrap(const std::filesystem::path& bootstrap, std::string_view system);

}  // namespace shortcut_rules

}  // namespace ravok
