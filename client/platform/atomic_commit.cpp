#include "platform/atomic_commit.hpp"

#include <cerrno>
#include <cstddef>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "platform/descriptor.hpp"
#include "platform/file_status.hpp"
#include "platform/managed_paths.hpp"
#include "platform/os.hpp"
#include "platform/posix_files.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_path_bytes = 4096;
constexpr std::string_view commit_code = "native_install_commit";

bool is_bounded_below_root(const std::filesystem::path& path) {
  return path != path.root_path() && path.native().size() <= maximum_path_bytes;
}

void run(const std::function<void()>& hook) {
  if (hook) {
    hook();
  }
}

std::filesystem::path without_end_separator(std::filesystem::path path) {
  return path.has_filename() || path == path.root_path() ? path : path.parent_path();
}

// --- Commit --------------------------------------------------------------------------------

void require_ordinary_ancestry(const std::filesystem::path& parent) {
  std::filesystem::path prefix = parent.root_path();
  const auto require_directory = [](const std::filesystem::path& path) {
    const auto status = link_status_of(path);
    require(status && is_directory(*status), "unsafe_path", "Directory commit requires ordinary existing ancestry");
  };
  require_directory(prefix);
  for (const std::filesystem::path& component : parent.relative_path()) {
    prefix /= component;
    require_directory(prefix);
  }
}

bool is_private_source(const FileStatus& status) {
  const mode_t permissions = status.st_mode & 0777;
  return status.st_uid == geteuid() &&
         ((is_directory(status) && permissions == 0700) || (is_single_link_file(status) && permissions == 0600));
}

bool is_unchanged_source(const FileStatus& opened, const FileStatus& named) {
  return same_file(opened, named) && (opened.st_mode & S_IFMT) == (named.st_mode & S_IFMT) &&
         opened.st_uid == named.st_uid && (opened.st_mode & 0777) == (named.st_mode & 0777) &&
         (!S_ISREG(named.st_mode) || named.st_nlink == 1);
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

// Whether the path now names the directory that `expected` was taken of.
bool names_directory(const std::filesystem::path& path, const FileStatus& expected) {
  const auto named = link_status_of(path);
  return named && is_directory(*named) && same_file(*named, expected);
}

bool names_private_directory(const std::filesystem::path& path, const FileStatus& expected) {
  const auto named = link_status_of(path);
  return named && is_directory(*named) && same_file(*named, expected) && mode_bits(*named) == 0700;
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
    require(names_private_directory(first.path, first.status) && names_private_directory(second.path, second.status) &&
                parents_are_in_place(),
            commit_code, "Directory exchange identities changed during verification");
  }

  void commit() const {
    require(os::exchange_names(first_parent.descriptor.get(), first.path.filename().c_str(),
                               second_parent.descriptor.get(), second.path.filename().c_str()) == 0,
            commit_code, "Cannot atomically exchange native directories");
    require(
        posix_files::sync(first_parent.descriptor.get()) == 0 && posix_files::sync(second_parent.descriptor.get()) == 0,
        "file_sync", "Cannot synchronize exchanged native directories");
  }

  void require_exchanged() const {
    require(names_private_directory(first.path, second.status) && names_private_directory(second.path, first.status) &&
                parents_are_in_place(),
            commit_code, "Native directory exchange committed with changed ownership; recover its recorded identities");
  }

  bool parents_are_in_place() const {
    return names_directory(first_parent.path, first_parent.status) &&
           names_directory(second_parent.path, second_parent.status);
  }
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
  require_ordinary_ancestry(from.parent_path());
  require_ordinary_ancestry(to.parent_path());

  const int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
  const Descriptor opened(retry_interrupted([&] { return open(from.c_str(), flags); }));
  const auto status = opened ? status_of(opened.get()) : std::nullopt;
  require(status && is_private_source(*status), commit_code, "Commit source must be private and owned by this user");
  posix_files::require_private_acl(opened.get());
  run(hook);
  // The hook takes time, and with it the chance of a change.
  posix_files::require_private_acl(opened.get());
  const auto named = link_status_of(from);
  require(named && is_unchanged_source(*status, *named), commit_code, "Source identity changed during verification");
  if (os::rename_exclusive(from.c_str(), to.c_str()) != 0) {
    fail(errno == EEXIST ? "already_installed" : commit_code,
         "Cannot atomically install without replacing an existing destination");
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
