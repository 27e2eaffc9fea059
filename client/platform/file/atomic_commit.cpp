#include "platform/file/atomic_commit.hpp"

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/descriptor.hpp"
#include "platform/file/file_status.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

constexpr std::string_view commit_code = "native_install_commit";

bool is_bounded_below_root(const std::filesystem::path& path) {
  return path != path.root_path() && path.native().size() <= maximum_path_bytes &&
         path.native().find('\0') == std::string::npos;
}

void run(const std::function<void()>& hook) {
  if (hook) {
    hook();
  }
}

// --- Commit --------------------------------------------------------------------------------

// A name in a directory that is held open, so that the commit happens there or not at all.
struct Place {
  std::filesystem::path path;
  Descriptor parent;

  std::string name() const { return path.filename(); }
  bool parent_is_in_place() const {
    const auto held = status_of(parent.get());
    const auto named = link_status_of(path.parent_path());
    return held && named && same_file(*held, *named);
  }
};

Place place_of(const std::filesystem::path& path) {
  Place place{path, posix_files::open_passage(path.parent_path())};
  require(static_cast<bool>(place.parent), "unsafe_path", "Directory commit requires ordinary existing ancestry");
  return place;
}

bool is_private_source(const FileStatus& status) {
  const mode_t permissions = status.st_mode & 0777;
  return status.st_uid == geteuid() &&
         ((is_directory(status) && permissions == 0700) || (is_single_link_file(status) && permissions == 0600));
}

bool is_unchanged_source(const FileStatus& opened, const std::optional<FileStatus>& named) {
  return named && same_file(opened, *named) && (opened.st_mode & S_IFMT) == (named->st_mode & S_IFMT) &&
         opened.st_uid == named->st_uid && (opened.st_mode & 0777) == (named->st_mode & 0777) &&
         (!S_ISREG(named->st_mode) || named->st_nlink == 1);
}

// --- Exchange ------------------------------------------------------------------------------

// A directory held open from its first check until after the exchange.
struct Held {
  std::filesystem::path path;
  Descriptor descriptor;
  FileStatus status;
};

Held hold_private_directory(const std::filesystem::path& path) {
  // Only asks whether something could be joined below the path.
  safe_join(path, "exchange-ancestry", true);
  Held held{path, Descriptor(retry_interrupted([&] { return open(path.c_str(), posix_files::walk_flags); })), {}};
  const auto status = held.descriptor ? status_of(held.descriptor.get()) : std::nullopt;
  require(status && is_directory(*status) && status->st_uid == geteuid() && mode_bits(*status) == 0700, commit_code,
          "Directory exchange requires private owned roots and parents");
  posix_files::require_private_acl(held.descriptor.get());
  held.status = *status;
  return held;
}

bool is_same_directory(const std::optional<FileStatus>& named, const FileStatus& expected) {
  return named && is_directory(*named) && same_file(*named, expected);
}

bool is_same_private_directory(const std::optional<FileStatus>& named, const FileStatus& expected) {
  return is_same_directory(named, expected) && mode_bits(*named) == 0700;
}

// The two directories to exchange, and their parents.
struct Exchange {
  Held first;
  Held second;
  Held first_parent;
  Held second_parent;

  void require_distinct_on_one_volume() const {
    require(first.status.st_dev == second.status.st_dev && first.status.st_ino != second.status.st_ino, commit_code,
            "Directory exchange requires distinct roots on one volume");
  }

  void require_unchanged() const {
    for (const Held* held : {&first, &second, &first_parent, &second_parent}) {
      posix_files::require_private_acl(held->descriptor.get());
    }
    require(roots_are(first.status, second.status) && parents_are_in_place(), commit_code,
            "Directory exchange identities changed during verification");
  }

  void commit() const {
    require(os::exchange_names(first_parent.descriptor.get(), first_name().c_str(), second_parent.descriptor.get(),
                               second_name().c_str()) == 0,
            commit_code, "Cannot atomically exchange native directories");
    require(
        posix_files::sync(first_parent.descriptor.get()) == 0 && posix_files::sync(second_parent.descriptor.get()) == 0,
        "file_sync", "Cannot synchronize exchanged native directories");
  }

  void require_exchanged() const {
    require(roots_are(second.status, first.status) && parents_are_in_place(), commit_code,
            "Native directory exchange committed with changed ownership; recover its recorded identities");
  }

  // By their paths, and by the names that the step takes.
  bool roots_are(const FileStatus& at_first, const FileStatus& at_second) const {
    return is_same_private_directory(link_status_of(first.path), at_first) &&
           is_same_private_directory(link_status_of(second.path), at_second) &&
           is_same_private_directory(link_status_at(first_parent.descriptor.get(), first_name().c_str()), at_first) &&
           is_same_private_directory(link_status_at(second_parent.descriptor.get(), second_name().c_str()), at_second);
  }

  bool parents_are_in_place() const {
    return is_same_directory(link_status_of(first_parent.path), first_parent.status) &&
           is_same_directory(link_status_of(second_parent.path), second_parent.status);
  }

  std::string first_name() const { return first.path.filename(); }
  std::string second_name() const { return second.path.filename(); }
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

  const int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
  const Descriptor opened(
      retry_interrupted([&] { return openat(old_place.parent.get(), old_place.name().c_str(), flags); }));
  const auto status = opened ? status_of(opened.get()) : std::nullopt;
  require(status && is_private_source(*status), commit_code, "Commit source must be private and owned by this user");
  posix_files::require_private_acl(opened.get());
  run(hook);
  // The hook takes time, and with it the chance of a change.
  posix_files::require_private_acl(opened.get());
  // By its path, and by the name that the step takes.
  require(is_unchanged_source(*status, link_status_of(from)) &&
              is_unchanged_source(*status, link_status_at(old_place.parent.get(), old_place.name().c_str())),
          commit_code, "Source identity changed during verification");
  constexpr const char* not_installed = "Cannot atomically install without replacing an existing destination";
  require(new_place.parent_is_in_place(), commit_code, not_installed);
  if (os::rename_exclusive(old_place.parent.get(), old_place.name().c_str(), new_place.parent.get(),
                           new_place.name().c_str()) != 0) {
    fail(errno == EEXIST ? "already_installed" : commit_code, not_installed);
  }
}

void exchange_private_directories(const std::filesystem::path& first, const std::filesystem::path& second,
                                  const std::function<void()>& hook) {
  constexpr const char* unbounded = "Directory exchange needs distinct bounded paths";
  const std::filesystem::path a = absolute_normal(first, unbounded);
  const std::filesystem::path b = absolute_normal(second, unbounded);
  require(is_bounded_below_root(a) && is_bounded_below_root(b) && a != b, "unsafe_path", unbounded);

  // Held in this order: members of a braced list are made from the first to the last.
  const Exchange exchange{hold_private_directory(a), hold_private_directory(b), hold_private_directory(a.parent_path()),
                          hold_private_directory(b.parent_path())};
  exchange.require_distinct_on_one_volume();
  run(hook);
  exchange.require_unchanged();
  exchange.commit();
  exchange.require_exchanged();
}

}  // namespace ravok
