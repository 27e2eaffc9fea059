// Private storage: nodes that only the running user can reach, made and proved by descriptor.
//
// A private directory is a directory of mode exactly 0700; a private file is regular, has one
// name and no group, other, set-id or sticky bits. Both are owned by the effective user, and no
// entry of their access lists grants anything to anybody else.
#pragma once

#include <cstdint>
#include <filesystem>

#include "platform/file/handle.hpp"
#include "platform/file/problem.hpp"

namespace ravok {

namespace posix_files {

// Flushes a file or directory to stable storage. Returns 0, or a negative value with errno set.
int sync(int descriptor);

// Claims all blocks of a file of `length` bytes, or none, and sets its size to `length`; a
// length of 0 changes nothing. Returns 0 or an errno value: ENOSPC or EDQUOT without room,
// ENOTSUP or ENOSYS on a volume that cannot claim blocks.
int reserve(int descriptor, std::uint64_t length);

// Makes a node private that this process has just created: removes its access lists and sets mode 0700 for a
// directory or 0600 for a file. Fails with "permissions".
void secure_new_private(int descriptor, bool directory);

// Fails with "permissions" when the node's access lists grant anything to another identity,
// exceed 128 entries or cannot be understood. They are never changed.
void require_private_acl(int descriptor);

// Proves that an open node is a private directory or a private file. Fails with "permissions".
void require_private_node(int descriptor, bool directory);

// Proves that an absolute path of at most 4096 bytes is a private node, not reached through a
// link at its end. Fails with "unsafe_path" or "permissions".
void require_private_path(const std::filesystem::path& path, bool directory);

// Makes the directory private, with the missing levels above it, and proves it. What is made has
// mode 0700 whatever the process's mask. Levels that exist above it must be real directories reached
// without a link other than the system's own. An existing last level of this user is set to 0700,
// set-id and sticky bits included, but must be readable for that: one that is not is refused with
// "unsafe_path". At most 128 levels below the root, the last included, are walked.
// Fails with "unsafe_path", "size_limit", "permissions" or "file_sync"; levels that were made
// before a failure stay, empty and private.
void private_directory(const std::filesystem::path& path);

// Makes the names durable that lead to a directory whose levels private_directory may have made in a process that ended
// before it had done so: from the last level upward, those of this user's with mode 0700, on one volume. A level that
// this user may not list holds no name that could be made so. Fails with "file_sync".
void flush_private_levels(const std::filesystem::path& path);

// The same as private_directory, and returns the directory open, so that later steps happen in the directory that was
// proved even if the path leads elsewhere by then.
Handle open_private_directory(const std::filesystem::path& path);

// A private directory and the one that it stands in, both open. The parent may be one to pass through only.
struct PrivateDirectory {
  Handle parent;
  Handle directory;
};

// The same, with the directory above, which the walk passed through.
PrivateDirectory open_private_directory_in_parent(const std::filesystem::path& path);

// Makes one directory below an open, proved one private and returns it open; a missing one is made. Fails with
// "unsafe_path", "permissions" or "file_sync".
Handle open_private_level(int parent, const char* name);

// Opens one directory below an open one. A directory that this user may not list, such as the one that holds all homes,
// is opened to pass through.
Result<Handle> open_level(int parent, const char* name);

// Opens an existing directory to pass through, level by level from its root and through no link
// but the system's own. Refused when a level is missing, is no directory or is the 129th.
Result<Handle> open_passage(const std::filesystem::path& directory);

}  // namespace posix_files

// The same as posix_files::private_directory.
void private_directory(const std::filesystem::path& path);

// Makes a private directory that must not exist yet, in a parent that must, of mode 0700 whatever the
// process's mask; a set-group bit that it takes over from its parent is cleared. Only the levels above the new
// directory count toward the bound of 128, after the system's own links are followed, so the new
// directory itself may be the 129th level below the root. Fails with
// "unsafe_path", "size_limit", "permissions", and with "native_install_commit" when the name
// exists, cannot be made or is changed meanwhile; then the directory may be left behind.
void private_directory_new(const std::filesystem::path& path);

}  // namespace ravok
