#include "platform/file/native_lock.hpp"

#include <cerrno>
#include <cstddef>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "platform/file/file_status.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/posix_files.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_levels = 128;
constexpr int open_flags = O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;

Descriptor open_existing(int parent, const std::string& name) {
  return Descriptor(retry_interrupted([&] { return openat(parent, name.c_str(), open_flags); }));
}

// Makes the lock file, or opens the one that is there; only its maker treats it as new.
Descriptor create_or_open(int parent, const std::string& name, int create_flags) {
  Descriptor file(
      retry_interrupted([&] { return openat(parent, name.c_str(), create_flags | O_CREAT | O_EXCL, 0600); }));
  if (file) {
    posix_files::secure_new_private(file.get(), false);
  } else if (errno == EEXIST) {
    file = open_existing(parent, name);
  }
  return file;
}

int operation_of(LockMode mode) { return mode == LockMode::shared ? LOCK_SH : LOCK_EX; }

int lock(int file, int operation) {
  return retry_interrupted([&] { return flock(file, operation); });
}

bool is_private_file(const FileStatus& status) {
  return is_single_link_file(status) && status.st_uid == geteuid() && mode_bits(status) == 0600;
}

bool is_private_lock(const FileStatus& status) {
  return is_single_link_file(status) && status.st_size == 0 && status.st_uid == geteuid() &&
         (status.st_mode & 0777) == 0600;
}

bool is_bounded(const std::filesystem::path& path) {
  const std::string& text = path.native();
  return !text.empty() && text.size() <= maximum_path_bytes && text.find('\0') == std::string::npos;
}

std::filesystem::path absolute_normal(const std::filesystem::path& path) {
  std::error_code problem;
  return std::filesystem::absolute(path, problem).lexically_normal();
}

bool has_ordinary_parent(const std::filesystem::path& path) {
  const std::filesystem::path parent = resolve_system_links(path).parent_path();
  std::filesystem::path prefix = parent.root_path();
  std::size_t levels = 0;
  for (const std::filesystem::path& component : parent.relative_path()) {
    prefix /= component;
    const auto status = link_status_of(prefix);
    if (++levels > maximum_levels || !status || !is_directory(*status)) {
      return false;
    }
  }
  const auto status = link_status_of(parent);
  return status && is_directory(*status);
}

}  // namespace

FileLock::FileLock(const std::filesystem::path& path, bool wait, LockMode mode) {
  const Descriptor parent = posix_files::open_private_directory(path.parent_path());
  if (is_bounded(path)) {
    file_ = create_or_open(parent.get(), path.filename(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  }
  require(static_cast<bool>(file_), "lock_failed", "Cannot open operation lock");
  const auto status = status_of(file_.get());
  require(status && is_private_file(*status), "lock_failed", "Operation lock must be an ordinary private owned file");
  posix_files::require_private_acl(file_.get());
  require(lock(file_.get(), operation_of(mode) | (wait ? 0 : LOCK_NB)) == 0, "busy",
          "Another Ravok operation is using this state");
}

void FileLock::retain_until_process_exit() { static_cast<void>(file_.release()); }

bool FileLock::matches_path(const std::filesystem::path& path) const {
  if (!file_) {
    return false;
  }
  try {
    posix_files::require_private_acl(file_.get());
    std::error_code problem;
    posix_files::require_private_path(std::filesystem::absolute(path, problem), false);
  } catch (const Error&) {
    return false;
  }
  const auto held = status_of(file_.get());
  const auto named = link_status_of(path);
  return held && named && is_single_link_file(*held) && is_single_link_file(*named) && same_file(*held, *named);
}

NativeFileLock::NativeFileLock(const std::filesystem::path& path, bool create, NativeLockSharing sharing,
                               LockMode mode) {
  const bool sharing_known = sharing == NativeLockSharing::none || sharing == NativeLockSharing::others;
  const bool mode_known = mode == LockMode::exclusive || mode == LockMode::shared;
  require(is_bounded(path) && sharing_known && mode_known, "lock_failed",
          "Native ownership requires a bounded lock path and known sharing");
  constexpr const char* ordinary = "Native ownership requires ordinary existing parents";
  require(has_ordinary_parent(path), "lock_failed", ordinary);
  // What follows acts in the directory that was walked to, whatever becomes of the path.
  const std::filesystem::path place = absolute_normal(path);
  const Descriptor parent = posix_files::open_passage(place.parent_path());
  require(static_cast<bool>(parent), "lock_failed", ordinary);
  file_ = create ? create_or_open(parent.get(), place.filename(), open_flags)
                 : open_existing(parent.get(), place.filename());
  const auto status = file_ ? status_of(file_.get()) : std::nullopt;
  require(status && is_private_lock(*status), "lock_failed",
          "Native ownership requires an ordinary empty private file");
  posix_files::require_private_acl(file_.get());
  if (lock(file_.get(), operation_of(mode) | LOCK_NB) != 0) {
    require(errno != EWOULDBLOCK, "busy", "Another worker owns this native installation");
    fail("lock_failed", "Cannot acquire native installation ownership");
  }
  // A file that was replaced between the open and the lock guards nothing.
  require(matches_path(path), "lock_failed", "Native ownership path changed while locking");
}

bool NativeFileLock::matches_path(const std::filesystem::path& path) const {
  try {
    if (!is_bounded(path) || !has_ordinary_parent(path) || !file_) {
      return false;
    }
    posix_files::require_private_acl(file_.get());
  } catch (const Error&) {
    return false;
  }
  const auto held = status_of(file_.get());
  const auto named = link_status_of(path);
  return held && named && is_private_lock(*held) && is_private_lock(*named) && same_file(*held, *named);
}

}  // namespace ravok
