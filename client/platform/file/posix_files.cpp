#include "platform/file/posix_files.hpp"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

// Fails unless `condition` holds. The message is `before`, the system's name and `after`. It is put together only for a
// failure, so that a successful step needs no memory.
void require_here(bool condition, std::string_view code, std::string_view before, std::string_view after) {
  if (!condition) {
    fail(code, std::string(before) + std::string(os::system_name()) + std::string(after));
  }
}

bool climbs(const std::filesystem::path& path) {
  return std::any_of(path.begin(), path.end(), [](const auto& component) { return component == ".."; });
}

// The path with the system's links resolved and no separator at its end.
std::filesystem::path target_of(const std::filesystem::path& path) {
  return without_end_separator(resolve_system_links(path));
}

bool is_private_directory(const Status& status) {
  return is_directory(status) && status.permissions == permissions::private_directory && status.is_own;
}

bool is_private_file(const Status& status) {
  return is_single_link_file(status) && status.is_own &&
         (status.permissions & (permissions::others | permissions::special)) == 0;
}

Result<Handle> open_root(const std::filesystem::path& target) {
  return os::open(target.root_path(), os::OpenAs::directory);
}

Result<Handle> open_to_read(int parent, const char* name) { return os::open_at(parent, name, os::OpenAs::directory); }

// Opens a directory that this process has just made. If the process's mask denied access to the owner too, the
// directory's mode is set first. The mask itself is left alone, as all threads share it.
Result<Handle> open_new_level(int parent, const char* name) {
  Result<Handle> level = open_to_read(parent, name);
  if (level || !(level.problem() == Cause::denied)) {
    return level;
  }
  const Result<Status> made = link_status_at(parent, name);
  if (made && is_directory(*made) && made->is_own &&
      !os::set_permissions_at(parent, name, permissions::private_directory)) {
    level = open_to_read(parent, name);
  }
  const Result<Status> opened = level ? status_of(level->get()) : level.problem();
  return opened && same_file(*opened, *made) ? std::move(level) : Result<Handle>(problem_of(Cause::denied));
}

struct Level {
  Handle directory;
  bool is_new = false;
};

void flush_new_name(int parent) {
  require_here(!os::flush(parent), "file_sync", "Cannot synchronize new ", " directory ownership");
}

// The last level is opened to be made private, and those above it only to be passed through.
Result<Handle> open_existing_level(int parent, const char* name, bool is_last) {
  return is_last ? open_to_read(parent, name) : posix_files::open_level(parent, name);
}

// Opens one level below a verified parent. Makes a missing one.
Level open_or_make_level(int parent, const char* name, bool is_last) {
  bool is_new = false;
  Result<Handle> directory = open_existing_level(parent, name, is_last);
  if (!directory && directory.problem() == Cause::missing) {
    const Problem problem = os::make_directory_at(parent, name);
    is_new = !problem;
    require_here(is_new || problem == Cause::exists, "permissions", "Cannot reserve a new ", " private directory");
    if (is_new) {
      directory = open_new_level(parent, name);
    } else {
      // Another process has just made it. Its name may not be durable yet; otherwise it is treated as an older one.
      flush_new_name(parent);
      directory = open_existing_level(parent, name, is_last);
    }
  }
  require_here(directory.has_value(), "unsafe_path", "", " directory ancestry is missing or linked");
  Level level{*std::move(directory), is_new};
  const auto opened = status_of(level.directory.get());
  const auto named = link_status_at(parent, name);
  require_here(opened && named && is_directory(*opened) && is_directory(*named) && same_file(*opened, *named),
               "unsafe_path", "", " directory ancestry changed");
  return level;
}

// Makes a new level private and its name durable, before anything is made inside it.
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
  if (status && status->is_own && status->permissions != permissions::private_directory) {
    // A change of mode also changes what an access list grants, so a list that grants others access is refused first.
    posix_files::require_private_acl(directory);
    require_here(!os::set_permissions(directory, permissions::private_directory), "permissions", "Cannot restrict ",
                 " directory permissions");
  }
}

// Opens every level of an existing parent in turn.
Handle open_parent_chain(const std::filesystem::path& parent) {
  Result<Handle> directory = open_root(parent);
  require(directory.has_value(), "unsafe_path", "Cannot open new private directory ancestry");
  std::size_t levels = 0;
  for (const std::filesystem::path& component : parent.relative_path()) {
    require(++levels <= maximum_path_levels, "size_limit", "New private directory ancestry exceeds its bound");
    directory = posix_files::open_level(directory->get(), path_utf8(component).c_str());
    require(directory.has_value(), "unsafe_path", "New private directory requires ordinary existing parents");
  }
  return *std::move(directory);
}

bool is_owned_at_0700(const Status& status) {
  return is_directory(status) && status.is_own &&
         (status.permissions & permissions::everybody) == permissions::private_directory;
}

}  // namespace

namespace posix_files {

void secure_new_private(int descriptor, bool directory) {
  const auto status = status_of(descriptor);
  require_here(status && status->is_own &&
                   (directory ? is_directory(*status) : is_single_link_file(*status) && status->size == 0),
               "permissions", "New ", " private storage ownership changed");
  const std::uint32_t wanted = directory ? permissions::private_directory : permissions::private_file;
  require_here(os::clear_access_lists(descriptor, directory) && !os::set_permissions(descriptor, wanted), "permissions",
               "Cannot make new ", " storage private");
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
  require_here(path.is_absolute() && is_bounded_path(path), "unsafe_path", "",
               " private storage needs a bounded absolute path");
  const Result<Handle> node = os::open(path, directory ? os::OpenAs::directory : os::OpenAs::file);
  require_here(node.has_value(), "permissions", "Cannot open ordinary ", " private storage");
  require_private_node(node->get(), directory);
  const auto opened = status_of(node->get());
  const auto named = link_status_of(path);
  require_here(opened && named && same_file(*opened, *named) && opened->type == named->type, "permissions", "",
               " private storage path changed during inspection");
}

PrivateDirectory open_private_directory_in_parent(const std::filesystem::path& path) {
  constexpr const char* below_root = " private directory needs a bounded path below a root";
  require_here(!path.empty() && !has_nul(path_utf8(path)), "unsafe_path", "", below_root);
  const std::filesystem::path target = target_of(path);
  require_here(is_bounded_below_root(target), "unsafe_path", "", below_root);
  require_here(!climbs(path), "unsafe_path", "", " private directory cannot traverse parents");

  PrivateDirectory found;
  Result<Handle> anchor = open_root(target);
  require_here(anchor.has_value(), "unsafe_path", "Cannot anchor ", " directory ancestry");
  found.directory = *std::move(anchor);
  const std::filesystem::path relative = target.relative_path();
  std::size_t levels = 0;
  for (auto component = relative.begin(); component != relative.end();) {
    require_here(++levels <= maximum_path_levels, "size_limit", "", " directory ancestry exceeds its bound");
    const std::string name = path_utf8(*component);
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

Handle open_private_directory(const std::filesystem::path& path) {
  return std::move(open_private_directory_in_parent(path).directory);
}

void private_directory(const std::filesystem::path& path) { open_private_directory(path); }

void flush_private_levels(const std::filesystem::path& path) {
  for (std::filesystem::path level = target_of(path); level.has_relative_path(); level = level.parent_path()) {
    const auto status = link_status_of(level);
    if (!status || !is_owned_at_0700(*status)) {
      return;
    }
    const Result<Handle> parent = os::open(level.parent_path(), os::OpenAs::directory);
    const Result<Status> above = parent ? status_of(parent->get()) : parent.problem();
    if (above.problem() == Cause::denied) {
      continue;
    }
    require_handles(above.problem());
    if (above && above->device != status->device) {
      return;
    }
    require_here(above && !os::flush(parent->get()), "file_sync", "Cannot synchronize ", " directory ancestry");
  }
}

Handle open_private_level(int parent, const char* name) {
  Level level = open_secured_level(parent, name, true);
  if (!level.is_new) {
    tighten(level.directory.get());
  }
  require_private_node(level.directory.get(), true);
  return std::move(level.directory);
}

Result<Handle> open_level(int parent, const char* name) {
  Result<Handle> level = open_to_read(parent, name);
  if (!level && level.problem() == Cause::denied) {
    level = os::open_at(parent, name, os::OpenAs::passage);
  }
  return level;
}

Result<Handle> open_passage(const std::filesystem::path& directory) {
  const std::filesystem::path target = target_of(directory);
  Result<Handle> passage = os::open(target.root_path(), os::OpenAs::passage);
  std::size_t levels = 0;
  for (const std::filesystem::path& component : target.relative_path()) {
    if (!passage || ++levels > maximum_path_levels) {
      return passage ? problem_of(Cause::missing) : passage.problem();
    }
    passage = os::open_at(passage->get(), path_utf8(component).c_str(), os::OpenAs::passage);
  }
  return passage;
}

}  // namespace posix_files

void private_directory(const std::filesystem::path& path) { posix_files::private_directory(path); }

void private_directory_new(const std::filesystem::path& path) {
  require(is_bounded_path(path), "unsafe_path", "New private directory requires a bounded path without NUL bytes");
  require(!climbs(path), "unsafe_path", "New private directory cannot traverse parents");
  const std::filesystem::path target = target_of(path);
  require(is_bounded_below_root(target), "unsafe_path",
          "New private directory cannot be a filesystem root or exceed its absolute path bound");

  const std::string name = path_utf8(target.filename());
  const Handle parent = open_parent_chain(target.parent_path());
  require(!os::make_directory_at(parent.get(), name.c_str()), "native_install_commit",
          "Cannot reserve new private staging directory");
  const Result<Handle> directory = open_new_level(parent.get(), name.c_str());
  require_here(directory.has_value(), "permissions", "Cannot anchor new ", " staging directory");
  posix_files::secure_new_private(directory->get(), true);
  const auto made = status_of(directory->get());
  require(made && is_owned_at_0700(*made), "permissions", "New private staging directory permissions changed");

  const Handle parent_again = open_parent_chain(target.parent_path());
  const auto before = status_of(parent.get());
  const auto after = status_of(parent_again.get());
  const auto named = link_status_at(parent_again.get(), name.c_str());
  require(
      before && after && same_file(*before, *after) && named && is_owned_at_0700(*named) && same_file(*made, *named),
      "native_install_commit", "New private staging directory path changed");
}

}  // namespace ravok
