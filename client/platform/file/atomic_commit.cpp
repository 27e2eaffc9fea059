#include "platform/file/atomic_commit.hpp"

#include <cstdint>
#include <string>
#include <system_error>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

constexpr std::string_view commit_code = "native_install_commit";

void run(const std::function<void()>& hook) {
  if (hook) {
    hook();
  }
}

// --- Commit --------------------------------------------------------------------------------

// A name in an open directory. The commit uses the open directory, so it cannot happen in another one.
struct Place {
  std::filesystem::path path;
  Handle parent;

  std::string name() const { return path_utf8(path.filename()); }
  bool parent_is_in_place() const {
    const auto held = status_of(parent.get());
    const auto named = link_status_of(path.parent_path());
    return held && named && same_file(*held, *named);
  }
};

Place place_of(const std::filesystem::path& path) {
  Result<Handle> parent = posix_files::open_passage(path.parent_path());
  require(parent.has_value(), "unsafe_path", "Directory commit requires ordinary existing ancestry");
  return {path, *std::move(parent)};
}

std::uint32_t access_of(const Status& status) { return status.permissions & permissions::everybody; }

bool is_private_source(const Status& status) {
  return status.is_own && ((is_directory(status) && access_of(status) == permissions::private_directory) ||
                           (is_single_link_file(status) && access_of(status) == permissions::private_file));
}

bool is_unchanged_source(const Status& opened, const Result<Status>& named) {
  return named && same_file(opened, *named) && opened.type == named->type && opened.owner == named->owner &&
         access_of(opened) == access_of(*named) && (!is_file(*named) || named->links == 1);
}

// --- Exchange ------------------------------------------------------------------------------

// A directory that stays open from its first check until after the exchange.
struct Held {
  std::filesystem::path path;
  Handle handle;
  Status status;
};

Held hold_private_directory(const std::filesystem::path& path) {
  // Called for its failure alone: a link of that name in the directory is refused.
  safe_join(path, "exchange-ancestry", true);
  Result<Handle> directory = os::open(path, os::OpenAs::directory);
  const Result<Status> status = directory ? status_of(directory->get()) : directory.problem();
  require(status && is_directory(*status) && status->is_own && status->permissions == permissions::private_directory,
          commit_code, "Directory exchange requires private owned roots and parents");
  posix_files::require_private_acl(directory->get());
  return {path, *std::move(directory), *status};
}

bool is_same_directory(const Result<Status>& named, const Status& expected) {
  return named && is_directory(*named) && same_file(*named, expected);
}

bool is_same_private_directory(const Result<Status>& named, const Status& expected) {
  return is_same_directory(named, expected) && named->permissions == permissions::private_directory;
}

// The two directories to exchange, and their parents.
struct Exchange {
  Held first;
  Held second;
  Held first_parent;
  Held second_parent;

  void require_distinct_on_one_volume() const {
    require(first.status.device == second.status.device && first.status.inode != second.status.inode, commit_code,
            "Directory exchange requires distinct roots on one volume");
  }

  void require_unchanged() const {
    for (const Held* held : {&first, &second, &first_parent, &second_parent}) {
      posix_files::require_private_acl(held->handle.get());
    }
    require(roots_are(first.status, second.status) && parents_are_in_place(), commit_code,
            "Directory exchange identities changed during verification");
  }

  void commit() const {
    require(!os::exchange_names(first_parent.handle.get(), first_name().c_str(), second_parent.handle.get(),
                                second_name().c_str()),
            commit_code, "Cannot atomically exchange native directories");
    require(!os::flush(first_parent.handle.get()) && !os::flush(second_parent.handle.get()), "file_sync",
            "Cannot synchronize exchanged native directories");
  }

  void require_exchanged() const {
    require(roots_are(second.status, first.status) && parents_are_in_place(), commit_code,
            "Native directory exchange committed with changed ownership; recover its recorded identities");
  }

  // Looks both at the paths and at the names in the open parents, which the exchange uses.
  bool roots_are(const Status& at_first, const Status& at_second) const {
    return is_same_private_directory(link_status_of(first.path), at_first) &&
           is_same_private_directory(link_status_of(second.path), at_second) &&
           is_same_private_directory(link_status_at(first_parent.handle.get(), first_name().c_str()), at_first) &&
           is_same_private_directory(link_status_at(second_parent.handle.get(), second_name().c_str()), at_second);
  }

  bool parents_are_in_place() const {
    return is_same_directory(link_status_of(first_parent.path), first_parent.status) &&
           is_same_directory(link_status_of(second_parent.path), second_parent.status);
  }

  std::string first_name() const { return path_utf8(first.path.filename()); }
  std::string second_name() const { return path_utf8(second.path.filename()); }
};

std::filesystem::path absolute_normal(const std::filesystem::path& path, std::string_view message) {
  require(!path.empty(), "unsafe_path", message);
  std::error_code problem;
  const std::filesystem::path absolute = std::filesystem::absolute(path, problem);
  require(!problem, "unsafe_path", message);
  return without_end_separator(absolute.lexically_normal());
}

}  // namespace

void commit_private_path_new(const std::filesystem::path& source, const std::filesystem::path& destination,
                             const std::function<void()>& hook) {
  constexpr const char* unbounded = "Directory commit requires distinct bounded paths";
  const std::filesystem::path from = resolve_system_links(absolute_normal(source, unbounded));
  const std::filesystem::path to = resolve_system_links(absolute_normal(destination, unbounded));
  require(is_bounded_below_root(from) && is_bounded_below_root(to) && from != to, "unsafe_path", unbounded);
  const Place old_place = place_of(from);
  const Place new_place = place_of(to);

  const Result<Handle> opened = os::open_at(old_place.parent.get(), old_place.name().c_str(), os::OpenAs::file);
  const Result<Status> status = opened ? status_of(opened->get()) : opened.problem();
  require(status && is_private_source(*status), commit_code, "Commit source must be private and owned by this user");
  posix_files::require_private_acl(opened->get());
  run(hook);
  // Checked again, as somebody may have changed it while the hook ran.
  posix_files::require_private_acl(opened->get());
  // Looks both at the path and at the name in the open parent, which the move uses.
  require(is_unchanged_source(*status, link_status_of(from)) &&
              is_unchanged_source(*status, link_status_at(old_place.parent.get(), old_place.name().c_str())),
          commit_code, "Source identity changed during verification");
  constexpr const char* not_installed = "Cannot atomically install without replacing an existing destination";
  require(new_place.parent_is_in_place(), commit_code, not_installed);
  if (const Problem problem = os::rename_exclusive(old_place.parent.get(), old_place.name().c_str(),
                                                   new_place.parent.get(), new_place.name().c_str())) {
    fail(problem == Cause::exists ? "already_installed" : commit_code, not_installed);
  }
}

void exchange_private_directories(const std::filesystem::path& first, const std::filesystem::path& second,
                                  const std::function<void()>& hook) {
  constexpr const char* unbounded = "Directory exchange needs distinct bounded paths";
  const std::filesystem::path a = absolute_normal(first, unbounded);
  const std::filesystem::path b = absolute_normal(second, unbounded);
  require(is_bounded_below_root(a) && is_bounded_below_root(b) && a != b, "unsafe_path", unbounded);

  // The order is fixed: members of a braced list are made from the first to the last.
  const Exchange exchange{hold_private_directory(a), hold_private_directory(b), hold_private_directory(a.parent_path()),
                          hold_private_directory(b.parent_path())};
  exchange.require_distinct_on_one_volume();
  run(hook);
  exchange.require_unchanged();
  exchange.commit();
  exchange.require_exchanged();
}

}  // namespace ravok
