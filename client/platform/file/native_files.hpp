// Removing and moving the files of an installation, also while a program that lies in it is running.
#pragma once

#include <filesystem>

namespace ravok::native_files {

// Removes a file, a link or an empty directory, and returns whether it is gone: false means that it is in use
// and was moved into `trash`, which does not happen on POSIX systems. Fails with "file_remove".
bool remove_or_trash(const std::filesystem::path& path, const std::filesystem::path& trash);

// Removes a whole tree once this program no longer needs it. Tells nothing when that fails.
void remove_after_exit(const std::filesystem::path& path);

// Returns the directory for the trash of the volume that holds `path`.
std::filesystem::path temporary_directory(const std::filesystem::path& path);

// Gives a file or directory another name. A file or an empty directory that has the new name is replaced. Fails with
// "file_write".
void rename_replace(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace ravok::native_files
