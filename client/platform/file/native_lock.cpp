#include "platform/file/native_lock.hpp"

#include <cstddef>
#include <string>
#include <system_error>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/posix_files.hpp"

namespace ravok {
namespace {

Result<Handle> open_existing(int parent, const std::string& name) {
  return os::open_at(parent, name.c_str(), os::OpenAs::file_to_change);
}

// Makes the lock file, or opens the one that is there. Only a file that this call has made is made private.
Result<Handle> create_or_open(int parent, const std::string& name) {
  Result<Handle> file = os::create_at(parent, name.c_str(), os::CreateAs::file_to_change, permissions::private_file);
  if (file) {
    posix_files::secure_new_private(file->get(), false);
  } else if (file.problem() == Cause::exists) {
    file = open_existing(parent, name);
  }
  return file;
}

Problem lock(int file, LockMode mode, bool wait) { return os::lock(file, mode != LockMode::shared, wait); }

bool has_private_mode(const Status& status) {
  return is_single_link_file(status) && status.is_own && status.permissions == permissions::private_file;
}

bool is_private_lock(const Status& status) {
  return is_single_link_file(status) && status.size == 0 && status.is_own &&
         (status.permissions & permissions::everybody) == permissions::private_file;
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
    if (++levels > maximum_path_levels || !status || !is_directory(*status)) {
      return false;
    }
  }
  const auto status = link_status_of(parent);
  return status && is_directory(*status);
}

}  // namespace

FileLock::FileLock(const std::filesystem::path& path, bool wait, LockMode mode) {
  const Handle parent = posix_files::open_private_directory(path.parent_path());
  Result<Handle> file =
      is_bounded_path(path) ? create_or_open(parent.get(), path_utf8(path.filename())) : problem_of(Cause::missing);
  require(file.has_value(), "lock_failed", "Cannot open operation lock");
  file_ = *std::move(file);
  const auto status = status_of(file_.get());
  require(status && has_private_mode(*status), "lock_failed", "Operation lock must be an ordinary private owned file");
  posix_files::require_private_acl(file_.get());
  require(!lock(file_.get(), mode, wait), "busy", "Another Ravok operation is using this state");
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
  require(is_bounded_path(path) && sharing_known && mode_known, "lock_failed",
          "Native ownership requires a bounded lock path and known sharing");
  constexpr const char* ordinary = "Native ownership requires ordinary existing parents";
  require(has_ordinary_parent(path), "lock_failed", ordinary);
  // The next steps use the open directory, even if the path leads elsewhere by then.
  const std::filesystem::path place = absolute_normal(path);
  const Result<Handle> parent = posix_files::open_passage(place.parent_path());
  require(parent.has_value(), "lock_failed", ordinary);
  const std::string name = path_utf8(place.filename());
  Result<Handle> file = create ? create_or_open(parent->get(), name) : open_existing(parent->get(), name);
  const Result<Status> status = file ? status_of(file->get()) : file.problem();
  require(status && is_private_lock(*status), "lock_failed",
          "Native ownership requires an ordinary empty private file");
  file_ = *std::move(file);
  posix_files::require_private_acl(file_.get());
  if (const Problem problem = lock(file_.get(), mode, false)) {
    require(!(problem == Cause::busy), "busy", "Another worker owns this native installation");
    fail("lock_failed", "Cannot acquire native installation ownership");
  }
  // A file that was replaced between the open and the lock keeps nobody else out.
  require(matches_path(path), "lock_failed", "Native ownership path changed while locking");
}

bool NativeFileLock::matches_path(const std::filesystem::path& path) const {
  try {
    if (!is_bounded_path(path) || !has_ordinary_parent(path) || !file_) {
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
