#include "platform/file/posix_files.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/descriptor.hpp"
#include "platform/file/file_status.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_levels = 128;
constexpr std::uint64_t block_bytes = 512;

// Fails unless `condition` holds, in words that name the system between them. The message is put together for a
// failure only, so that a lack of memory cannot come between two steps.
void require_here(bool condition, std::string_view code, std::string_view before, std::string_view after) {
  if (!condition) {
    fail(code, std::string(before) + std::string(os::system_name()) + std::string(after));
  }
}

bool has_nul(const std::filesystem::path& path) { return path.native().find('\0') != std::string::npos; }

bool climbs(const std::filesystem::path& path) {
  return std::any_of(path.begin(), path.end(), [](const auto& component) { return component == ".."; });
}

// The path with the system's links resolved and no separator at its end.
std::filesystem::path target_of(const std::filesystem::path& path) {
  return without_end_separator(resolve_system_links(path));
}

bool is_bounded_below_root(const std::filesystem::path& target) {
  return target != target.root_path() && target.native().size() <= maximum_path_bytes;
}

bool is_private_directory(const FileStatus& status) {
  return status.st_mode == (S_IFDIR | S_IRWXU) && status.st_uid == geteuid();
}

bool is_private_file(const FileStatus& status) {
  return is_single_link_file(status) && status.st_uid == geteuid() &&
         (status.st_mode & (S_IRWXG | S_IRWXO | S_ISUID | S_ISGID | S_ISVTX)) == 0;
}

Descriptor open_root(const std::filesystem::path& target) {
  return Descriptor(retry_interrupted([&] { return open(target.root_path().c_str(), posix_files::walk_flags); }));
}

Descriptor open_to_read(int parent, const char* name) {
  return Descriptor(retry_interrupted([&] { return openat(parent, name, posix_files::walk_flags); }));
}

// Opens a directory that this process has just made. Where the process's mask has kept even its owner out, its mode
// is set first: the mask belongs to all threads, so it stays as it is.
Descriptor open_new_level(int parent, const char* name) {
  Descriptor level = open_to_read(parent, name);
  if (level || errno != EACCES) {
    return level;
  }
  const auto made = link_status_at(parent, name);
  if (made && is_directory(*made) && made->st_uid == geteuid() &&
      fchmodat(parent, name, S_IRWXU, AT_SYMLINK_NOFOLLOW) == 0) {
    level = open_to_read(parent, name);
  }
  const auto opened = level ? status_of(level.get()) : std::nullopt;
  return opened && same_file(*opened, *made) ? std::move(level) : Descriptor();
}

struct Level {
  Descriptor directory;
  bool is_new = false;
};

void flush_new_name(int parent) {
  require_here(posix_files::sync(parent) == 0, "file_sync", "Cannot synchronize new ", " directory ownership");
}

// The last level is opened to be made private, and those above it only to be passed through.
Descriptor open_existing_level(int parent, const char* name, bool is_last) {
  return is_last ? open_to_read(parent, name) : posix_files::open_level(parent, name);
}

// Opens one level below a verified parent, making it where it is missing.
Level open_or_make_level(int parent, const char* name, bool is_last) {
  Level level{open_existing_level(parent, name, is_last)};
  if (!level.directory && errno == ENOENT) {
    level.is_new = mkdirat(parent, name, 0700) == 0;
    require_here(level.is_new || errno == EEXIST, "permissions", "Cannot reserve a new ", " private directory");
    if (level.is_new) {
      level.directory = open_new_level(parent, name);
    } else {
      // Another process has just made it: judged like any that was there before, but its name may not be durable.
      flush_new_name(parent);
      level.directory = open_existing_level(parent, name, is_last);
    }
  }
  require_here(static_cast<bool>(level.directory), "unsafe_path", "", " directory ancestry is missing or linked");
  const auto opened = status_of(level.directory.get());
  const auto named = link_status_at(parent, name);
  require_here(opened && named && is_directory(*opened) && is_directory(*named) && same_file(*opened, *named),
               "unsafe_path", "", " directory ancestry changed");
  return level;
}

// Makes a new level private, and its name durable before anything is made inside it.
void secure_new_level(int parent, int directory) {
  posix_files::secure_new_private(directory, true);
  flush_new_name(parent);
}

// Opens one level below a verified parent; a missing one is made, private and durable.
Level open_secured_level(int parent, const char* name, bool is_last) {
  Level level = open_or_make_level(parent, name, is_last);
  if (level.is_new) {
    secure_new_level(parent, level.directory.get());
  }
  return level;
}

void tighten(int directory) {
  const auto status = status_of(directory);
  if (status && status->st_uid == geteuid() && mode_bits(*status) != S_IRWXU) {
    // A change of mode would also change what an access list grants; a foreign one is preserved.
    posix_files::require_private_acl(directory);
    require_here(fchmod(directory, S_IRWXU) == 0, "permissions", "Cannot restrict ", " directory permissions");
  }
}

// Opens every level of an existing parent in turn.
Descriptor open_parent_chain(const std::filesystem::path& parent) {
  Descriptor directory = open_root(parent);
  require(static_cast<bool>(directory), "unsafe_path", "Cannot open new private directory ancestry");
  std::size_t levels = 0;
  for (const std::filesystem::path& component : parent.relative_path()) {
    require(++levels <= maximum_levels, "size_limit", "New private directory ancestry exceeds its bound");
    directory = posix_files::open_level(directory.get(), component.c_str());
    require(static_cast<bool>(directory), "unsafe_path", "New private directory requires ordinary existing parents");
  }
  return directory;
}

bool is_owned_at_0700(const FileStatus& status) {
  return is_directory(status) && status.st_uid == geteuid() && (status.st_mode & 0777) == S_IRWXU;
}

}  // namespace

namespace posix_files {

int sync(int descriptor) {
  return retry_interrupted([&] { return os::flush(descriptor); });
}

int reserve(int descriptor, std::uint64_t length) {
  if (length > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return EFBIG;
  }
  if (length == 0) {
    return 0;
  }
  FileStatus status;
  if (fstat(descriptor, &status) != 0) {
    return errno;
  }
  if (!S_ISREG(status.st_mode) || status.st_size < 0 || status.st_blocks < 0) {
    return EINVAL;
  }
  const auto blocks = static_cast<std::uint64_t>(status.st_blocks);
  if (blocks >> 55 != 0) {
    return EOVERFLOW;
  }
  const std::uint64_t allocated = blocks * block_bytes;
  if (length > allocated) {
    int problem = EINTR;
    while (problem == EINTR) {
      problem = os::claim_blocks(descriptor, allocated, length);
    }
    if (problem != 0) {
      return problem;
    }
  }
  return retry_interrupted([&] { return ftruncate(descriptor, static_cast<off_t>(length)); }) == 0 ? 0 : errno;
}

void secure_new_private(int descriptor, bool directory) {
  const auto status = status_of(descriptor);
  require_here(status && status->st_uid == geteuid() &&
                   (directory ? is_directory(*status) : is_single_link_file(*status) && status->st_size == 0),
               "permissions", "New ", " private storage ownership changed");
  require_here(os::clear_access_lists(descriptor, directory) && fchmod(descriptor, directory ? 0700 : 0600) == 0,
               "permissions", "Cannot make new ", " storage private");
  require_private_node(descriptor, directory);
}

void require_private_acl(int descriptor) { os::require_owner_only_access(descriptor); }

void require_private_node(int descriptor, bool directory) {
  const auto status = status_of(descriptor);
  require_here(status && (directory ? is_private_directory(*status) : is_private_file(*status)), "permissions", "",
               " private storage must be ordinary, owned and accessible only to this user");
  require_private_acl(descriptor);
}

void require_private_path(const std::filesystem::path& path, bool directory) {
  require_here(path.is_absolute() && path.native().size() <= maximum_path_bytes && !has_nul(path), "unsafe_path", "",
               " private storage needs a bounded absolute path");
  const int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | (directory ? O_DIRECTORY : 0);
  const Descriptor node(retry_interrupted([&] { return open(path.c_str(), flags); }));
  require_here(static_cast<bool>(node), "permissions", "Cannot open ordinary ", " private storage");
  require_private_node(node.get(), directory);
  const auto opened = status_of(node.get());
  const auto named = link_status_of(path);
  require_here(opened && named && same_file(*opened, *named) && (opened->st_mode & S_IFMT) == (named->st_mode & S_IFMT),
               "permissions", "", " private storage path changed during inspection");
}

PrivateDirectory open_private_directory_in_parent(const std::filesystem::path& path) {
  constexpr const char* below_root = " private directory needs a bounded path below a root";
  require_here(!path.empty() && !has_nul(path), "unsafe_path", "", below_root);
  const std::filesystem::path target = target_of(path);
  require_here(is_bounded_below_root(target), "unsafe_path", "", below_root);
  require_here(!climbs(path), "unsafe_path", "", " private directory cannot traverse parents");

  PrivateDirectory found;
  found.directory = open_root(target);
  require_here(static_cast<bool>(found.directory), "unsafe_path", "Cannot anchor ", " directory ancestry");
  const std::filesystem::path relative = target.relative_path();
  std::size_t levels = 0;
  for (auto component = relative.begin(); component != relative.end();) {
    require_here(++levels <= maximum_levels, "size_limit", "", " directory ancestry exceeds its bound");
    const std::string name = *component;
    found.parent = std::move(found.directory);
    found.directory = ++component == relative.end()
                          ? open_private_level(found.parent.get(), name.c_str())
                          : open_secured_level(found.parent.get(), name.c_str(), false).directory;
  }
  const auto opened = status_of(found.directory.get());
  const auto named = link_status_of(target);
  require_here(opened && named && same_file(*opened, *named), "unsafe_path", "", " private directory path changed");
  return found;
}

Descriptor open_private_directory(const std::filesystem::path& path) {
  return std::move(open_private_directory_in_parent(path).directory);
}

void private_directory(const std::filesystem::path& path) { open_private_directory(path); }

Descriptor open_private_level(int parent, const char* name) {
  Level level = open_secured_level(parent, name, true);
  if (!level.is_new) {
    tighten(level.directory.get());
  }
  require_private_node(level.directory.get(), true);
  return std::move(level.directory);
}

Descriptor open_level(int parent, const char* name) {
  Descriptor level = open_to_read(parent, name);
  if (!level && errno == EACCES) {
    level = Descriptor(retry_interrupted([&] { return openat(parent, name, os::passage_flags()); }));
  }
  return level;
}

Descriptor open_passage(const std::filesystem::path& directory) {
  const std::filesystem::path target = target_of(directory);
  const auto open_component = [](int parent, const std::filesystem::path& name) {
    return Descriptor(retry_interrupted([&] { return openat(parent, name.c_str(), os::passage_flags()); }));
  };
  Descriptor passage = open_component(AT_FDCWD, target.root_path());
  std::size_t levels = 0;
  for (const std::filesystem::path& component : target.relative_path()) {
    passage = passage && ++levels <= maximum_levels ? open_component(passage.get(), component) : Descriptor();
  }
  return passage;
}

}  // namespace posix_files

void private_directory(const std::filesystem::path& path) { posix_files::private_directory(path); }

void private_directory_new(const std::filesystem::path& path) {
  require(!path.empty() && path.native().size() <= maximum_path_bytes && !has_nul(path), "unsafe_path",
          "New private directory requires a bounded path without NUL bytes");
  require(!climbs(path), "unsafe_path", "New private directory cannot traverse parents");
  const std::filesystem::path target = target_of(path);
  require(is_bounded_below_root(target), "unsafe_path",
          "New private directory cannot be a filesystem root or exceed its absolute path bound");

  const std::string name = target.filename();
  const Descriptor parent = open_parent_chain(target.parent_path());
  require(mkdirat(parent.get(), name.c_str(), 0700) == 0, "native_install_commit",
          "Cannot reserve new private staging directory");
  const Descriptor directory = open_new_level(parent.get(), name.c_str());
  require_here(static_cast<bool>(directory), "permissions", "Cannot anchor new ", " staging directory");
  posix_files::secure_new_private(directory.get(), true);
  const auto made = status_of(directory.get());
  require(made && is_owned_at_0700(*made), "permissions", "New private staging directory permissions changed");

  const Descriptor parent_again = open_parent_chain(target.parent_path());
  const auto before = status_of(parent.get());
  const auto after = status_of(parent_again.get());
  const auto named = link_status_at(parent_again.get(), name.c_str());
  require(
      before && after && same_file(*before, *after) && named && is_owned_at_0700(*named) && same_file(*made, *named),
      "native_install_commit", "New private staging directory path changed");
}

}  // namespace ravok
