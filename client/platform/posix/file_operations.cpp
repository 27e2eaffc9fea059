#include "platform/file/file_operations.hpp"

#include <cstddef>
#include <limits>
#include <type_traits>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "platform/posix/native.hpp"

namespace ravok {
namespace {

using posix::done;
using posix::last_problem;
using posix::retry_interrupted;

constexpr std::uint64_t block_bytes = 512;

int open_flags(os::OpenAs how) {
  switch (how) {
    case os::OpenAs::file:
      return O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
    case os::OpenAs::file_to_change:
      return O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
    case os::OpenAs::linked:
      return O_RDONLY | O_CLOEXEC;
    case os::OpenAs::directory:
      return O_RDONLY | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC;
    case os::OpenAs::linked_directory:
      return O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    case os::OpenAs::passage:
      return posix::passage_flags();
  }
  return O_RDONLY | O_NOFOLLOW | O_CLOEXEC;
}

Result<Handle> handle_from(int descriptor) {
  if (descriptor < 0) {
    return last_problem();
  }
  return Handle(descriptor);
}

// A size that the system's type cannot hold is also too large for its volumes.
Result<off_t> offset_from(std::uint64_t bytes) {
  if (bytes > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
    return posix::native_problem(EFBIG);
  }
  return static_cast<off_t>(bytes);
}

Result<std::size_t> size_from(ssize_t count) {
  if (count < 0) {
    return last_problem();
  }
  return static_cast<std::size_t>(count);
}

EntryType type_of(mode_t mode) {
  if (S_ISDIR(mode)) {
    return EntryType::directory;
  }
  if (S_ISREG(mode)) {
    return EntryType::file;
  }
  return S_ISLNK(mode) ? EntryType::link : EntryType::other;
}

// The status of a call that fills it in and answers 0.
template <typename Look>
Result<Status> status_by(Look look) {
  struct stat native;
  if (look(native) != 0) {
    return last_problem();
  }
  return posix::status_from(native);
}

}  // namespace

namespace posix {

Result<Status> status_from(const struct stat& native) {
  if (native.st_size < 0 || native.st_blocks < 0 ||
      static_cast<std::uint64_t>(native.st_blocks) > std::numeric_limits<std::uint64_t>::max() / block_bytes) {
    return native_problem(EOVERFLOW);
  }
  Status status;
  status.type = type_of(native.st_mode);
  status.permissions = native.st_mode & permissions::all;
  // Some systems have a signed type here; its bits are taken as an unsigned number.
  status.device = static_cast<std::make_unsigned_t<decltype(native.st_dev)>>(native.st_dev);
  status.inode = native.st_ino;
  status.links = native.st_nlink;
  status.size = static_cast<std::uint64_t>(native.st_size);
  status.allocated = static_cast<std::uint64_t>(native.st_blocks) * block_bytes;
  status.owner = native.st_uid;
  status.is_own = native.st_uid == geteuid();
  status.is_of_system = native.st_uid == 0;
  return status;
}

}  // namespace posix

Result<Status> status_of(int handle) {
  return status_by([&](struct stat& native) { return fstat(handle, &native); });
}

Result<Status> link_status_of(const std::filesystem::path& path) {
  return status_by([&](struct stat& native) { return lstat(path.c_str(), &native); });
}

Result<Status> link_status_at(int directory, const char* name) {
  return status_by([&](struct stat& native) { return fstatat(directory, name, &native, AT_SYMLINK_NOFOLLOW); });
}

Result<Status> target_status_of(const std::filesystem::path& path) {
  return status_by([&](struct stat& native) { return stat(path.c_str(), &native); });
}

bool is_missing(const std::filesystem::path& path) {
  struct stat native;
  return lstat(path.c_str(), &native) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

namespace os {

void close(int handle) { ::close(handle); }

Result<Handle> open(const std::filesystem::path& path, OpenAs how) {
  return handle_from(retry_interrupted([&] { return ::open(path.c_str(), open_flags(how)); }));
}

Result<Handle> open_at(int directory, const char* name, OpenAs how) {
  return handle_from(retry_interrupted([&] { return openat(directory, name, open_flags(how)); }));
}

Result<Handle> create_at(int directory, const char* name, CreateAs how, std::uint32_t permissions) {
  const int access = how == CreateAs::output ? O_WRONLY : O_RDWR | O_NONBLOCK;
  const int flags = access | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  return handle_from(
      retry_interrupted([&] { return openat(directory, name, flags, static_cast<mode_t>(permissions)); }));
}

Problem make_directory_at(int directory, const char* name, std::uint32_t permissions) {
  return mkdirat(directory, name, static_cast<mode_t>(permissions)) == 0 ? Problem() : last_problem();
}

Result<Handle> duplicate(int handle) { return handle_from(fcntl(handle, F_DUPFD_CLOEXEC, 0)); }

Result<std::size_t> read(int file, void* bytes, std::size_t size) {
  return size_from(retry_interrupted([&] { return ::read(file, bytes, size); }));
}

Result<std::size_t> write(int file, const void* bytes, std::size_t size) {
  return size_from(retry_interrupted([&] { return ::write(file, bytes, size); }));
}

Problem seek(int file, std::uint64_t offset) {
  const Result<off_t> native = offset_from(offset);
  if (!native) {
    return native.problem();
  }
  return lseek(file, *native, SEEK_SET) < 0 ? last_problem() : Problem();
}

Result<std::size_t> read_at(int file, void* bytes, std::size_t size, std::uint64_t offset) {
  const Result<off_t> native = offset_from(offset);
  if (!native) {
    return native.problem();
  }
  return size_from(retry_interrupted([&] { return pread(file, bytes, size, *native); }));
}

Problem set_size(int file, std::uint64_t size) {
  const Result<off_t> native = offset_from(size);
  return native ? done([&] { return ftruncate(file, *native); }) : native.problem();
}

Problem reserve(int file, std::uint64_t length) {
  if (length == 0) {
    return {};
  }
  const Result<off_t> size = offset_from(length);
  if (!size) {
    return size.problem();
  }
  struct stat native;
  if (fstat(file, &native) != 0) {
    return last_problem();
  }
  if (!S_ISREG(native.st_mode) || native.st_size < 0 || native.st_blocks < 0) {
    return posix::native_problem(EINVAL);
  }
  const Result<Status> status = posix::status_from(native);
  if (!status) {
    return status.problem();
  }
  if (length > status->allocated) {
    if (const Problem problem = posix::claim_blocks(file, status->allocated, length)) {
      return problem;
    }
  }
  return set_size(file, length);
}

Problem set_permissions(int handle, std::uint32_t permissions) {
  return fchmod(handle, static_cast<mode_t>(permissions)) == 0 ? Problem() : last_problem();
}

Problem set_permissions_at(int directory, const char* name, std::uint32_t permissions) {
  const int answer = fchmodat(directory, name, static_cast<mode_t>(permissions), AT_SYMLINK_NOFOLLOW);
  return answer == 0 ? Problem() : last_problem();
}

Problem remove_at(int directory, const char* name) {
  return unlinkat(directory, name, 0) == 0 ? Problem() : last_problem();
}

Problem remove_directory_at(int directory, const char* name) {
  return unlinkat(directory, name, AT_REMOVEDIR) == 0 ? Problem() : last_problem();
}

Problem remove(const std::filesystem::path& path) { return unlink(path.c_str()) == 0 ? Problem() : last_problem(); }

Problem remove_directory(const std::filesystem::path& path) {
  return rmdir(path.c_str()) == 0 ? Problem() : last_problem();
}

Problem rename_at(int from, const char* name, int to, const char* new_name) {
  return renameat(from, name, to, new_name) == 0 ? Problem() : last_problem();
}

Problem link_at(int from, const char* name, int to, const char* new_name) {
  return linkat(from, name, to, new_name, 0) == 0 ? Problem() : last_problem();
}

Problem lock(int file, bool exclusive, bool wait) {
  const int operation = (exclusive ? LOCK_EX : LOCK_SH) | (wait ? 0 : LOCK_NB);
  return done([&] { return flock(file, operation); });
}

Result<std::string> link_target(const std::filesystem::path& path, std::size_t limit) {
  std::string target(limit, '\0');
  const ssize_t size = readlink(path.c_str(), target.data(), target.size());
  if (size < 0) {
    return last_problem();
  }
  target.resize(static_cast<std::size_t>(size));
  return target;
}

bool acts_for_system() { return geteuid() == 0; }

Result<VolumeGeometry> volume_geometry(const std::filesystem::path& directory) {
  struct statvfs native;
  if (retry_interrupted([&] { return statvfs(directory.c_str(), &native); }) != 0) {
    return last_problem();
  }
  VolumeGeometry geometry;
  geometry.allocation_unit = native.f_frsize != 0 ? native.f_frsize : native.f_bsize;
  geometry.entries = native.f_files;
  geometry.available_entries = native.f_favail;
  return geometry;
}

}  // namespace os
}  // namespace ravok
