#include "platform/file/held_directory.hpp"

#include <utility>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/tree_removal.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

std::string not_plain() { return std::string(os::system_name()) + " directory ancestry is missing or linked"; }

Handle duplicate(int handle) {
  Result<Handle> copy = os::duplicate(handle);
  if (!copy) {
    require_handles(copy.problem());
    fail("unsafe_path", not_plain());
  }
  return *std::move(copy);
}

}  // namespace

HeldDirectory::HeldDirectory(std::filesystem::path path, Handle parent, Handle directory)
    : path_(std::move(path)),
      name_(path_utf8(path_.filename())),
      parent_(std::move(parent)),
      directory_(std::move(directory)) {}

HeldDirectory HeldDirectory::open(const std::filesystem::path& path) {
  const std::filesystem::path target = without_end_separator(resolve_system_links(path));
  Result<Handle> parent = posix_files::open_passage(target.parent_path());
  // The root of the file system has no name, and lies in itself.
  const std::string name = target.has_filename() ? name_of(target) : ".";
  Result<Handle> directory =
      parent ? os::open_at(parent->get(), name.c_str(), os::OpenAs::directory) : parent.problem();
  if (!directory) {
    require_handles(directory.problem());
    fail("unsafe_path", not_plain());
  }
  return {path, *std::move(parent), *std::move(directory)};
}

HeldDirectory HeldDirectory::open_private(const std::filesystem::path& path) {
  posix_files::PrivateDirectory found = posix_files::open_private_directory_in_parent(path);
  return {path, std::move(found.parent), std::move(found.directory)};
}

std::optional<HeldDirectory> HeldDirectory::find_directory(const std::string& name) const {
  if (type_of(name) != EntryType::directory) {
    return std::nullopt;
  }
  Result<Handle> directory = os::open_at(handle(), name.c_str(), os::OpenAs::directory);
  if (!directory) {
    const Problem& problem = directory.problem();
    require_handles(problem);
    fail(problem == Cause::denied ? "permissions" : "unsafe_path",
         "Cannot open " + path_utf8(below(name)) + ": " + problem_text(problem));
  }
  return HeldDirectory(below(name), duplicate(handle()), *std::move(directory));
}

HeldDirectory HeldDirectory::private_directory(const std::string& name) const {
  Handle directory = posix_files::open_private_level(handle(), name.c_str());
  return {below(name), duplicate(handle()), std::move(directory)};
}

std::filesystem::path HeldDirectory::below(const std::string& name) const { return path_ / path_from_utf8(name); }

bool HeldDirectory::is_in_place() const {
  const auto held = status_of(handle());
  const auto named = link_status_of(path_);
  return held && named && same_file(*held, *named);
}

std::optional<EntryType> HeldDirectory::type_of(const std::string& name) const {
  const auto status = link_status_at(handle(), name.c_str());
  require(status || status.problem() == Cause::missing, "unsafe_path", "Cannot look at " + path_utf8(below(name)));
  return status ? std::optional(status->type) : std::nullopt;
}

std::vector<std::string> HeldDirectory::names() const {
  std::vector<std::string> found = names(maximum_tree_entries + 1);
  require(found.size() <= maximum_tree_entries, "size_limit", "Directory entry count exceeds bounds");
  return found;
}

std::vector<std::string> HeldDirectory::names(std::size_t limit) const { return names_in(handle(), limit); }

bool HeldDirectory::make_movable(const std::string& name) const {
  const auto status = link_status_at(handle(), name.c_str());
  if (!status || !is_directory(*status)) {
    return true;
  }
  if (!status->is_own) {
    return os::acts_for_system();
  }
  if ((status->permissions & permissions::owner) != permissions::owner) {
    // No answer is needed: where the mode cannot be set, the move fails.
    os::set_permissions_at(handle(), name.c_str(), permissions::private_directory);
  }
  return true;
}

Problem HeldDirectory::try_move(const std::string& name, const HeldDirectory& to, const std::string& new_name) const {
  return os::rename_at(handle(), name.c_str(), to.handle(), new_name.c_str());
}

void HeldDirectory::move(const std::string& name, const HeldDirectory& to, const std::string& new_name) const {
  require(!try_move(name, to, new_name), "file_write", "Cannot move " + path_utf8(below(name)) + " into place");
}

void HeldDirectory::write(const std::string& name, std::string_view bytes) const {
  atomic_write_at(handle(), below(name), bytes);
}

void HeldDirectory::remove(const std::string& name) const {
  const Problem problem = type_of(name) == EntryType::directory ? os::remove_directory_at(handle(), name.c_str())
                                                                : os::remove_at(handle(), name.c_str());
  // Once the name is gone, nothing can fail any more, so the message is made for a failure only.
  if (problem && problem != Cause::missing) {
    fail("file_remove", "Cannot remove " + path_utf8(below(name)));
  }
}

void HeldDirectory::remove_quietly(const std::string& name) const noexcept {
  if (os::remove_at(handle(), name.c_str())) {
    os::remove_directory_at(handle(), name.c_str());
  }
}

void HeldDirectory::remove_tree(const std::string& name) const { remove_tree_at(handle(), name, below(name)); }

bool HeldDirectory::remove_tree_quietly(const std::string& name) const noexcept {
  return !remove_tree_quietly_at(handle(), name);
}

void HeldDirectory::remove_matching_quietly(const std::function<bool(const std::string& name)>& matches) const {
  TreeVisitor visitor;
  visitor.refuse_mounts = true;
  visitor.visit = [&](const TreeEntry& entry) {
    if (entry.type != EntryType::directory && matches(entry.name)) {
      os::remove_at(entry.directory, entry.name);
    }
  };
  visitor.leave = [&](const TreeEntry& entry, int) {
    if (matches(entry.name)) {
      os::remove_directory_at(entry.directory, entry.name);
    }
  };
  visitor.unreadable = [](const TreeEntry&, const Problem&) {};
  try {
    walk_tree(os::open_at(handle(), ".", os::OpenAs::directory), visitor);
  } catch (const Error&) {
    // What was not reached stays.
  }
}

void HeldDirectory::remove_itself_quietly() const noexcept {
  const auto held = status_of(handle());
  const auto named = link_status_at(parent_.get(), name_.c_str());
  if (held && named && same_file(*held, *named)) {
    os::remove_directory_at(parent_.get(), name_.c_str());
  }
}

void HeldDirectory::flush() const {
  require(!os::flush(handle()), "file_sync", "Could not durably synchronize directory");
}

void HeldDirectory::flush_quietly() const noexcept { static_cast<void>(os::flush(handle())); }

}  // namespace ravok
