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

inline constexpr std::size_t maximum_name_bytes = 512;

// The extension of this system's shortcuts, with its dot.
std::string_view extension();

// Accepts only 1 to `bound` bytes of UTF-8 without control characters. Fails with "shortcut_text".
void bounded_text(std::string_view text, std::size_t bound);

// Returns the path, which must be absolute, normal and a bounded text. Fails with "shortcut_text" or
// "shortcut_path".
std::filesystem::path absolute_path(const std::filesystem::path& path);

// The same for a path that also names something below a file system's root.
std::filesystem::path absolute_path_below_root(const std::filesystem::path& path);

// Accepts only a regular file or, with `directory`, a directory; never a link. Fails with "shortcut_path".
void ordinary(const std::filesystem::path& path, bool directory);

// Returns whether a place is a directory or lies in it, by their keys: the place's path_key and the directory's
// directory_key, whose failures pass through.
bool is_key_within(const std::string& inner, const std::string& outer);
bool lies_within(const std::filesystem::path& place, const std::filesystem::path& directory);

// Returns whether a directory lies in a launcher's versions or its staging, of whichever data folder.
bool is_in_launcher_payload(const std::filesystem::path& directory);

// How the failures name a form, such as "Launch documents" and "Launch-document".
struct FormWords {
  std::string_view plural;
  std::string_view destination;
};

// What may have the name of a new shortcut already. Anything else is preserved, and the request is refused.
enum class Taken {
  refused,  // nothing
  // A file that is already as it would be written: a regular one of this user, with these bytes and no other name than
  // that of the making that was ended, which is removed.
  adopted,
  replaced,  // that, or any other that can be set aside: a regular one of at most 65,536 bytes that can be read
};

// What was found: nothing, a file to adopt, or a file to replace.
enum class Found { nothing, same, other };

// A shortcut whose request and place are proved.
struct NewFile {
  std::filesystem::path path;
  std::string text;
  Found found = Found::nothing;
};

// Proves a request and the place of its new file, which must be in an existing directory, outside the data
// folder and every launcher's payload, and be free for the text. Fails with "shortcut_path" or "already_exists".
NewFile prove_new_file(const DesktopShortcut& shortcut, const std::filesystem::path& path, std::string text,
                       const FormWords& words, Taken taken);

// The same for a name that nothing may have yet; the text plays no part.
void require_new_file(const DesktopShortcut& shortcut, const std::filesystem::path& path, const FormWords& words);

// Makes the new file, durably, and returns the document that describes it. Fails with "unsafe_path", "file_write" also
// when something has the name by then, "insufficient_space" or "file_sync". After a failure there is no file of its
// own; one that others have made under that name meanwhile is not touched.
Json create_file(const DesktopShortcut& shortcut, const std::filesystem::path& path, const std::string& text);

// Accepts only the stable bootstrap of an installation. Fails with "shortcut_bootstrap".
void require_stable_bootstrap(const std::filesystem::path& bootstrap, std::string_view system);

}  // namespace shortcut_rules

}  // namespace ravok
