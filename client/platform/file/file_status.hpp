// What the system says of a file, as the guarded operations compare it.
#pragma once

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <type_traits>

#include <fcntl.h>
#include <sys/stat.h>

namespace ravok {

using FileStatus = struct stat;

// The status of an open file or directory, or nothing when it cannot be had.
inline std::optional<FileStatus> status_of(int descriptor) {
  FileStatus status;
  return fstat(descriptor, &status) == 0 ? std::optional(status) : std::nullopt;
}

// The status of what a path names, a link not followed, or nothing when it cannot be had.
inline std::optional<FileStatus> link_status_of(const std::filesystem::path& path) {
  FileStatus status;
  return lstat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

// The same for a name relative to an open directory.
inline std::optional<FileStatus> link_status_at(int directory, const char* name) {
  FileStatus status;
  return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 ? std::optional(status) : std::nullopt;
}

// Whether the path is known to name nothing; what cannot be looked at may be there.
inline bool is_missing(const std::filesystem::path& path) {
  FileStatus status;
  return lstat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

// Whether two views are of one file: the same device and inode.
inline bool same_file(const FileStatus& first, const FileStatus& second) {
  return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// The number of the device that holds the file; a system whose type for it is signed has its bits
// read as unsigned.
inline std::uint64_t device_number(const FileStatus& status) {
  return static_cast<std::make_unsigned_t<decltype(status.st_dev)>>(status.st_dev);
}

inline bool is_directory(const FileStatus& status) { return S_ISDIR(status.st_mode); }

// A regular file with one name.
inline bool is_single_link_file(const FileStatus& status) { return S_ISREG(status.st_mode) && status.st_nlink == 1; }

// The low twelve mode bits: permissions, set-user, set-group and sticky.
inline mode_t mode_bits(const FileStatus& status) { return status.st_mode & 07777; }

}  // namespace ravok
