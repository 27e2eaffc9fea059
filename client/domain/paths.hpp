// The text form of a path, and which relative paths from outside are accepted at all.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace ravok {

// Returns the path whose native bytes are `text`. Fails with "unsafe_path" for a NUL byte.
std::filesystem::path path_from_utf8(std::string_view text);

// Returns the path's native bytes, unchanged and not checked.
std::string path_utf8(const std::filesystem::path& path);

// Returns the length in bytes of the native form of `text`. Fails with "unsafe_path" for a NUL byte.
std::size_t native_length(std::string_view text);

// Whether the text can be given to the system as a path: 1 to 4096 bytes without a NUL byte.
bool is_bounded_path_text(std::string_view text);
bool is_bounded_path(const std::filesystem::path& path);

// Whether the path can be given to the system, and is not merely the root of a tree of names.
bool is_bounded_below_root(const std::filesystem::path& path);

// Accepts only a relative path of 1 to 4096 bytes, of components of 1 to 255 bytes that name no parent, no drive and no
// stream; with `portable` also only of names that every supported platform can hold. Fails with "unsafe_path".
void validate_relative_path(std::string_view path, bool portable);

// Returns the last name of a path, as path_utf8 does; empty for one that ends in a separator.
std::string name_of(const std::filesystem::path& path);

// Returns the directory that holds what a path names: the path without its last name, or ".".
std::filesystem::path folder_of(const std::filesystem::path& path);

// Returns the path without separators at its end. With one, the system follows a link that the path names.
std::filesystem::path without_end_separator(const std::filesystem::path& path);

}  // namespace ravok
