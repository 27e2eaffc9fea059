// Path rules that look at the file system: joining below a managed root, the system's own
// links at the head of a path, and the place of the user's data.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string_view>

#include "platform/file/problem.hpp"

namespace ravok {

// Returns `root` joined with a relative path. Accepts only a path that validate_relative_path accepts and
// none of whose components below `root` is a symbolic link; they need not exist, and `root` itself is not
// looked at. Fails with "unsafe_path". Others may change the tree after the check.
std::filesystem::path safe_join(const std::filesystem::path& root, std::string_view relative, bool portable);

// Accepts the outcome of a look at a path that tells whether it names anything: no problem, or one that says that
// nothing is there. Fails with "permissions" in a folder that this user may not look into, and with "file_system" when
// the system cannot tell for another reason.
void require_answer(const Problem& problem, const std::filesystem::path& path);

// Returns whether the path names anything; a link at its end is not followed. Fails as require_answer does.
bool is_there(const std::filesystem::path& path);

// Returns the path made absolute, with the links in it followed that only the system can have
// made: owned by user 0 in a directory of user 0 that nobody else may write to. Other links stay
// in the path, as does a tail that does not exist.
// Fails with "unsafe_path" beyond 16 links or for one that cannot be read.
std::filesystem::path resolve_system_links(const std::filesystem::path& path);

// Returns the folder for the client's data below HOME; it is neither made nor opened. Fails
// with "user_path" unless HOME holds an absolute path.
std::filesystem::path user_data_root();

// Called before a tree is placed at `root` joined with `relative`; `longest` is the length in bytes of the longest path
// in the tree. Accepts every path, since every supported platform has room for it.
void require_path_room(const std::filesystem::path& root, const std::filesystem::path& relative, std::size_t longest);

}  // namespace ravok
