// Locks between processes that work on one state. They end with the process that holds them, so
// there is no stale lock; a lock file is never removed, since two processes could then lock two
// files of one name.
#pragma once

#include <filesystem>

#include "platform/file/handle.hpp"

namespace ravok {

enum class LockMode { exclusive = 0, shared = 1 };

// How the opened file is shared with others, where a platform chooses that at open; here it is
// checked and has no other effect.
enum class NativeLockSharing { none = 0, others = 1 };

// The operation lock beside a piece of private state. One thread uses an object at a time; a
// second acquisition, in the same process too, conflicts with the first.
class FileLock {
 public:
  // Makes the private directory and the lock file where they are missing and takes the lock; with
  // `wait` it blocks until the lock is free. Fails with "busy" when another holds it,
  // "lock_failed" when the file is not a private file of mode 0600, "unsafe_path", "size_limit" or
  // "file_sync" for its directory as private_directory does, and "permissions" for either.
  FileLock(const std::filesystem::path& path, bool wait, LockMode mode);

  // Leaves the lock held until the process ends, beyond the life of this object.
  void retain_until_process_exit();

  // Returns whether this lock is held and its file is still the private file at the path.
  bool matches_path(const std::filesystem::path& path) const;

 private:
  Handle file_;
};

// Ownership of a native installation: an empty private file in an ordinary directory.
class NativeFileLock {
 public:
  // Takes the lock and never waits; with `create` the file is made where it is missing, but no
  // directory is. Fails with "busy" when another holds it, with "lock_failed" when the file or
  // the directories above it are not what they must be, with "unsafe_path" for more than 16 of the system's
  // links in the path, and with "permissions" when the file's access lists grant anything to others.
  NativeFileLock(const std::filesystem::path& path, bool create, NativeLockSharing sharing, LockMode mode);

  // Returns whether this lock is held and its file is still the empty private file at the path.
  bool matches_path(const std::filesystem::path& path) const;

 private:
  Handle file_;
};

}  // namespace ravok
