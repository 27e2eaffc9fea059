#include "platform/file/held_directory.hpp"

#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/tree_removal.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_names = 250'000;

std::string not_plain() { return std::string(os::system_name()) + " directory ancestry is missing or linked"; }

Descriptor open_below(int parent, const std::string& name) {
  return Descriptor(retry_interrupted([&] { return openat(parent, name.c_str(), posix_files::walk_flags); }));
}

Descriptor duplicate(int descriptor) {
  Descriptor copy(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  if (!copy) {
    require_descriptors(errno);
    fail("unsafe_path", not_plain());
  }
  return copy;
}

EntryType type_of_mode(mode_t mode) {
  if (S_ISDIR(mode)) {
    return EntryType::directory;
  }
  if (S_ISREG(mode)) {
    return EntryType::file;
  }
  return S_ISLNK(mode) ? EntryType::link : EntryType::other;
}

}  // namespace

HeldDirectory::HeldDirectory(std::filesystem::path path, Descriptor parent, Descriptor directory)
    : path_(std::move(path)), name_(path_.filename()), parent_(std::move(parent)), directory_(std::move(directory)) {}

HeldDirectory HeldDirectory::open(const std::filesystem::path& path) {
  const std::filesystem::path target = without_end_separator(resolve_system_links(path));
  errno = 0;
  Descriptor parent = posix_files::open_passage(target.parent_path());
  Descriptor directory = parent ? open_below(parent.get(), target.filename()) : Descriptor();
  if (!directory) {
    require_descriptors(errno);
    fail("unsafe_path", not_plain());
  }
  return {path, std::move(parent), std::move(directory)};
}

HeldDirectory HeldDirectory::open_private(const std::filesystem::path& path) {
  posix_files::PrivateDirectory found = posix_files::open_private_directory_in_parent(path);
  return {path, std::move(found.parent), std::move(found.directory)};
}

std::optional<HeldDirectory> HeldDirectory::find_directory(const std::string& name) const {
  if (type_of(name) != EntryType::directory) {
    return std::nullopt;
  }
  Descriptor directory = open_below(descriptor(), name);
  if (!directory) {
    const int problem = errno;
    require_descriptors(problem);
    fail(problem == EACCES ? "permissions" : "unsafe_path",
         "Cannot open " + path_utf8(path_ / name) + ": " + std::generic_category().message(problem));
  }
  return HeldDirectory(path_ / name, duplicate(descriptor()), std::move(directory));
}

HeldDirectory HeldDirectory::private_directory(const std::string& name) const {
  Descriptor directory = posix_files::open_private_level(descriptor(), name.c_str());
  return {path_ / name, duplicate(descriptor()), std::move(directory)};
}

bool HeldDirectory::is_in_place() const {
  const auto held = status_of(descriptor());
  const auto named = link_status_of(path_);
  return held && named && same_file(*held, *named);
}

std::optional<EntryType> HeldDirectory::type_of(const std::string& name) const {
  const auto status = link_status_at(descriptor(), name.c_str());
  const bool known = status || errno == ENOENT;
  require(known, "unsafe_path", "Cannot look at " + path_utf8(path_ / name));
  return status ? std::optional(type_of_mode(status->st_mode)) : std::nullopt;
}

std::vector<std::string> HeldDirectory::names() const {
  std::vector<std::string> found = names(maximum_names + 1);
  require(found.size() <= maximum_names, "size_limit", "Directory entry count exceeds bounds");
  return found;
}

std::vector<std::string> HeldDirectory::names(std::size_t limit) const { return names_in(descriptor(), limit); }

bool HeldDirectory::make_movable(const std::string& name) const {
  const auto status = link_status_at(descriptor(), name.c_str());
  if (!status || !is_directory(*status)) {
    return true;
  }
  if (status->st_uid != geteuid()) {
    return geteuid() == 0;
  }
  if ((status->st_mode & S_IRWXU) != S_IRWXU) {
    // Where that cannot be done, the move tells.
    static_cast<void>(fchmodat(descriptor(), name.c_str(), S_IRWXU, AT_SYMLINK_NOFOLLOW) == 0);
  }
  return true;
}

int HeldDirectory::try_move(const std::string& name, const HeldDirectory& to, const std::string& new_name) const {
  return renameat(descriptor(), name.c_str(), to.descriptor(), new_name.c_str()) == 0 ? 0 : errno;
}

void HeldDirectory::move(const std::string& name, const HeldDirectory& to, const std::string& new_name) const {
  require(try_move(name, to, new_name) == 0, "file_write", "Cannot move " + path_utf8(path_ / name) + " into place");
}

void HeldDirectory::write(const std::string& name, std::string_view bytes) const {
  atomic_write_at(descriptor(), path_ / name, bytes);
}

void HeldDirectory::remove(const std::string& name) const {
  const std::optional<EntryType> type = type_of(name);
  const int flags = type == EntryType::directory ? AT_REMOVEDIR : 0;
  require(!type || unlinkat(descriptor(), name.c_str(), flags) == 0 || errno == ENOENT, "file_remove",
          "Cannot remove " + path_utf8(path_ / name));
}

void HeldDirectory::remove_quietly(const std::string& name) const noexcept {
  if (unlinkat(descriptor(), name.c_str(), 0) != 0) {
    unlinkat(descriptor(), name.c_str(), AT_REMOVEDIR);
  }
}

void HeldDirectory::remove_tree(const std::string& name) const { remove_tree_at(descriptor(), name, path_ / name); }

bool HeldDirectory::remove_tree_quietly(const std::string& name) const noexcept {
  return remove_tree_quietly_at(descriptor(), name) == 0;
}

void HeldDirectory::remove_matching_quietly(const std::function<bool(const std::string& name)>& matches) const {
  TreeVisitor visitor;
  visitor.refuse_mounts = true;
  visitor.visit = [&](const TreeEntry& entry) {
    if (entry.type != EntryType::directory && matches(entry.name)) {
      unlinkat(entry.directory, entry.name, 0);
    }
  };
  visitor.leave = [&](const TreeEntry& entry, int) {
    if (matches(entry.name)) {
      unlinkat(entry.directory, entry.name, AT_REMOVEDIR);
    }
  };
  visitor.unreadable = [](const TreeEntry&) {};
  try {
    walk_tree(open_below(descriptor(), "."), visitor);
  } catch (const Error&) {
    // The rest stays.
  }
}

void HeldDirectory::remove_itself_quietly() const noexcept {
  const auto held = status_of(descriptor());
  const auto named = link_status_at(parent_.get(), name_.c_str());
  if (held && named && same_file(*held, *named)) {
    unlinkat(parent_.get(), name_.c_str(), AT_REMOVEDIR);
  }
}

void HeldDirectory::flush() const {
  require(posix_files::sync(descriptor()) == 0, "file_sync", "Could not durably synchronize directory");
}

}  // namespace ravok
