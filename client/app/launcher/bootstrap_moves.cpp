#include "app/launcher/bootstrap_moves.hpp"

#include <array>
#include <cstddef>
#include <exception>
#include <optional>
#include <utility>

#include "app/launcher/bootstrap_release.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/posix_files.hpp"

namespace ravok {
namespace {

constexpr const char* no_room = "Local storage cannot save data; free space and try again";

std::string old_name(std::string path) { return path += replaced_file_ending; }

// The directory of a path in a tree, empty for the tree's own.
std::string directory_of(const std::string& path) {
  const std::size_t separator = path.rfind('/');
  return separator == std::string::npos ? "" : path.substr(0, separator);
}

std::string last_name(const std::string& path) { return path_utf8(path_from_utf8(path).filename()); }

// Whether the problem says that the name is not that of a file or directory as the client makes them.
bool is_absence(const Problem& problem) {
  return problem == Cause::missing || problem == Cause::not_a_directory || problem == Cause::is_link ||
         problem == Cause::not_a_file;
}

Handle open_installed_tree(const std::filesystem::path& tree) {
  Result<Handle> opened = open_tree(tree);
  require_handles(opened.problem());
  require(!is_absence(opened.problem()), "unsafe_path", "The installed bootstrap is missing or linked");
  require(opened.has_value(), "file_read", "Cannot open the installed bootstrap: " + problem_text(opened.problem()));
  return *std::move(opened);
}

// A missing tree is one without files.
Handle open_update_tree(const std::filesystem::path& tree) {
  Result<Handle> opened = open_tree(tree);
  require_handles(opened.problem());
  return *std::move(opened);
}

// Whether an open file is as a manifest describes it.
bool is_described(const Handle& file, const Status& status, const SnapshotFile& expected, FileDigester& digester) {
  return is_file(status) && status.size == expected.length &&
         digester.digest(file.get(), status.size, {}) == expected.sha256;
}

[[noreturn]] void fail_to_keep(const std::string& path, const Problem& problem) {
  require_handles(problem);
  require(!(problem == Cause::no_space), "insufficient_space", no_room);
  fail("file_write", "Cannot keep the old bootstrap file " + path + ": " + problem_text(problem));
}

Result<Handle> open_again(const HeldDirectory& directory) {
  return os::open_at(directory.handle(), ".", os::OpenAs::directory);
}

// A path in the directory, whatever its name.
std::string path_in(const std::string& directory) { return directory.empty() ? "name" : directory + "/name"; }

void sync_levels(TreePaths& tree, std::set<std::string>& directories) {
  while (!directories.empty()) {
    const Result<int> opened = tree.parent_of(path_in(*directories.begin()));
    require_handles(opened.problem());
    require(opened.has_value(), "file_sync", "Cannot open directory for synchronization");
    sync_open_directory(*opened);
    directories.erase(directories.begin());
  }
}

// Removes the replaced files of a tree, durably. Returns whether all of them are gone.
bool remove_replaced_files(const HeldDirectory& tree) {
  bool removed = true;
  // Every directory, since a process that ended here may have removed files without making that durable.
  std::set<std::string> directories = {""};
  TreeVisitor visitor;
  visitor.refuse_mounts = true;
  visitor.visit = [&](const TreeEntry& entry) {
    if (entry.type == EntryType::directory) {
      directories.insert(std::string(entry.path));
    } else if (is_replaced_file(entry.name)) {
      removed = !os::remove_at(entry.directory, entry.name) && removed;
    }
  };
  walk_tree(open_again(tree), visitor);
  TreePaths levels(*open_again(tree));
  sync_levels(levels, directories);
  return removed;
}

}  // namespace

void remove_old_files(const HeldDirectory& native, const BootstrapPaths& paths) {
  const std::string mark = name_of(paths.old_files_mark);
  bool removed = false;
  try {
    const std::optional<HeldDirectory> tree = native.find_directory(name_of(paths.tree));
    removed = tree && remove_replaced_files(*tree);
  } catch (const Error&) {
    // What was not reached stays.
  }
  try {
    if (removed) {
      native.remove_tree_quietly(mark);
    } else {
      native.write(mark, "");
    }
  } catch (const Error&) {
    // The next update removes the files also without the mark.
  }
}

BootstrapMoves::BootstrapMoves(const BootstrapPaths& paths, const SnapshotManifest& installed,
                               const SnapshotManifest& update)
    : paths_(paths),
      installed_(installed),
      update_(update),
      tree_(open_installed_tree(paths.tree)),
      update_tree_(open_update_tree(paths.update_tree)) {}

std::set<std::string> BootstrapMoves::all_paths() const {
  std::set<std::string> paths;
  for (const SnapshotManifest* manifest : {&installed_, &update_}) {
    for (const auto& [path, file] : manifest->files) {
      paths.insert(path);
    }
  }
  return paths;
}

Result<Status> BootstrapMoves::look(const std::string& path) {
  const Result<int> parent = tree_.parent_of(path);
  Result<Status> status = parent ? link_status_at(*parent, last_name(path).c_str()) : parent.problem();
  require_handles(status.problem());
  require(status || is_absence(status.problem()), "file_read",
          "Cannot look at " + path_utf8(place(path)) + ": " + problem_text(status.problem()));
  return status;
}

bool BootstrapMoves::is_in_tree(const std::string& path) {
  const Result<Status> status = look(path);
  return status && !is_directory(*status);
}

bool BootstrapMoves::holds(const std::string& path, const SnapshotManifest& manifest, const std::string& described) {
  const auto expected = manifest.files.find(described);
  if (expected == manifest.files.end()) {
    return false;
  }
  const Result<Handle> file = tree_.open(path, os::OpenAs::file);
  require_handles(file.problem());
  require(file || is_absence(file.problem()) || file.problem() == Cause::denied, "file_read",
          "Cannot open " + path_utf8(place(path)) + ": " + problem_text(file.problem()));
  if (!file) {
    return false;
  }
  const Result<Status> status = status_of(file->get());
  // Otherwise a file of the update would pass for somebody else's, and stay.
  require(status.has_value(), "file_read",
          "Cannot look at " + path_utf8(place(path)) + ": " + problem_text(status.problem()));
  return is_described(*file, *status, expected->second, digester_);
}

bool BootstrapMoves::restore() {
  bool restored = true;
  std::optional<Error> lack_of_handles;
  for (const std::string& path : all_paths()) {
    try {
      restored = restore_file(path) && restored;
      // A process that ended here may have put files back without making that durable.
      if (tree_.parent_of(path)) {
        changed_.insert(directory_of(path));
      }
    } catch (const Error& error) {
      restored = false;
      if (error.code == "too_many_files") {
        lack_of_handles = error;
      }
    }
  }
  if (lack_of_handles) {
    throw Error(*lack_of_handles);
  }
  return restored;
}

bool BootstrapMoves::restore_file(const std::string& path) {
  const std::string old = old_name(path);
  const bool was_installed = installed_.files.contains(path);
  if (!is_in_tree(old)) {
    if (was_installed || !is_in_tree(path) || !holds(path, update_, path)) {
      return true;
    }
    return !remove(path);
  }
  if (holds(path, installed_, path)) {
    return !remove(old);
  }
  // A file that was damaged before it was replaced comes back as it was.
  if (holds(old, installed_, path) || !is_in_tree(path) || holds(path, update_, path)) {
    return put_back(path);
  }
  return true;
}

bool BootstrapMoves::put_back(const std::string& path) {
  changed_.insert(directory_of(path));
  if (path == update_.executable) {
    // Going back comes first, whatever the disk says.
    static_cast<void>(flush_anew(tree_, old_name(path)));
  }
  move(tree_, old_name(path), tree_, path);
  // A move between two names of one file leaves both.
  const Problem problem = remove(old_name(path));
  return !problem || problem == Cause::missing;
}

// Flushes a file as one that has just changed. To a power cut before the directories are flushed, btrfs may lose of a
// move that the file has come, and keep that the one in its place is gone, unless it has flushed the file in the same
// span between two of its commits. It does not flush a file that has not changed in it. Done for the bootstrap's
// program alone: the next start brings any other file back.
Problem BootstrapMoves::flush_anew(TreePaths& tree, const std::string& path) {
  const Result<Handle> file = tree.open(path, os::OpenAs::file);
  const Result<Status> status = file ? status_of(file->get()) : file.problem();
  const Problem problem = status ? os::set_permissions(file->get(), status->permissions) : status.problem();
  return problem ? problem : os::flush(file->get());
}

// Gives a file another name in the same or the other tree, in place of a file that has it.
void BootstrapMoves::move(TreePaths& from, const std::string& name, TreePaths& to, const std::string& new_name) {
  const Result<int> new_parent = to.parent_of(new_name);
  const Result<int> parent = new_parent ? from.parent_of(name) : new_parent.problem();
  const Problem problem =
      parent ? os::rename_at(*parent, last_name(name).c_str(), *new_parent, last_name(new_name).c_str())
             : parent.problem();
  require(!(problem == Cause::no_space), "insufficient_space", no_room);
  require(!problem, "file_write", "Cannot move " + path_utf8(place(new_name)) + " into place");
}

Problem BootstrapMoves::remove(const std::string& path) {
  const Result<int> parent = tree_.parent_of(path);
  if (!parent) {
    return parent.problem();
  }
  changed_.insert(directory_of(path));
  return os::remove_at(*parent, last_name(path).c_str());
}

void BootstrapMoves::require_update_whole() {
  for (const auto& [path, expected] : update_.files) {
    const Result<Handle> file = update_tree_.open(path, os::OpenAs::file);
    require_handles(file.problem());
    const Result<Status> status = file ? status_of(file->get()) : file.problem();
    require(status && is_described(*file, *status, expected, digester_) &&
                (!expected.executable || (status->permissions & permissions::owner_executes) != 0),
            "content_mismatch", "Staged bootstrap file changed: " + path);
  }
}

void BootstrapMoves::keep_old_files() {
  for (const std::string& path : all_paths()) {
    Result<Status> status = look(path);
    if (status && is_directory(*status)) {
      status = look_behind_directory(path);
    }
    require(status || status.problem() == Cause::missing, "unsafe_path",
            "A file of the bootstrap stands in the way of a directory: " + path);
    require(!status || !is_directory(*status), "unsafe_path",
            "A directory of the bootstrap stands in the way of a file: " + path);
    if (status) {
      keep(path);
    }
  }
  flush();
}

// An empty directory, such as an update that was taken back leaves, stands in nobody's way.
Result<Status> BootstrapMoves::look_behind_directory(const std::string& path) {
  const Result<int> parent = tree_.parent_of(path);
  if (parent && !os::remove_directory_at(*parent, last_name(path).c_str())) {
    changed_.erase(path);
    changed_.insert(directory_of(path));
  }
  return look(path);
}

void BootstrapMoves::keep(const std::string& path) {
  const Result<int> parent = tree_.parent_of(path);
  const std::string name = last_name(path);
  const std::string old = old_name(name);
  if (!parent) {
    fail_to_keep(path, parent.problem());
  }
  Problem problem = os::link_at(*parent, name.c_str(), *parent, old.c_str());
  if (problem == Cause::exists) {
    // What an earlier update has left there is not needed any more.
    os::remove_at(*parent, old.c_str());
    problem = os::link_at(*parent, name.c_str(), *parent, old.c_str());
  }
  if (problem) {
    // Not every volume lets a file have two names.
    copy(*parent, name, old);
  }
  changed_.insert(directory_of(path));
  moves_.push_back({Move::Kind::kept, path});
}

void BootstrapMoves::copy(int directory, const std::string& name, const std::string& copy_name) const {
  const Result<Handle> source = os::open_at(directory, name.c_str(), os::OpenAs::file);
  const Result<Status> status = source ? status_of(source->get()) : source.problem();
  const Result<Handle> target =
      status ? os::create_at(directory, copy_name.c_str(), os::CreateAs::output, permissions::private_file)
             : status.problem();
  if (!target) {
    fail_to_keep(name, target.problem());
  }
  const auto write_all = [&](const char* bytes, std::size_t size) -> Problem {
    while (size > 0) {
      const Result<std::size_t> count = os::write(target->get(), bytes, size);
      if (!count || *count == 0) {
        return count ? problem_of(Cause::input_output) : count.problem();
      }
      bytes += *count;
      size -= *count;
    }
    return {};
  };
  std::array<char, piece_bytes> piece{};
  Problem problem;
  while (!problem) {
    const Result<std::size_t> count = os::read(source->get(), piece.data(), piece.size());
    if (count && *count == 0) {
      break;
    }
    problem = count ? write_all(piece.data(), *count) : count.problem();
  }
  problem = problem ? problem : os::set_permissions(target->get(), status->permissions & permissions::everybody);
  problem = problem ? problem : os::flush(target->get());
  if (problem) {
    os::remove_at(directory, copy_name.c_str());
    fail_to_keep(name, problem);
  }
}

void BootstrapMoves::put_new_files() {
  for (const auto& [path, file] : installed_.files) {
    if (!update_.files.contains(path)) {
      take_out(path);
    }
  }
  for (const auto& [path, file] : update_.files) {
    if (path != update_.executable) {
      put(path);
    }
  }
  put(update_.executable);
  flush();
}

void BootstrapMoves::take_out(const std::string& path) {
  const Problem problem = remove(path);
  require(!problem || problem == Cause::missing, "file_remove", "Cannot remove " + path_utf8(place(path)));
}

void BootstrapMoves::put(const std::string& path) {
  if (!tree_.parent_of(path)) {
    private_directory(place(path).parent_path());
  }
  changed_.insert(directory_of(path));
  if (path == update_.executable) {
    const Problem problem = flush_anew(update_tree_, path);
    require_handles(problem);
    require(!problem, "file_sync", "Cannot synchronize " + path_utf8(paths_.update_tree / path));
  }
  move(update_tree_, path, tree_, path);
  moves_.push_back({Move::Kind::put, path});
}

bool BootstrapMoves::undo() noexcept {
  bool undone = true;
  try {
    while (!moves_.empty()) {
      const Move last = std::move(moves_.back());
      moves_.pop_back();
      undone = undo_move(last) && undone;
    }
    return flush_quietly() && undone;
  } catch (const std::exception&) {
    return false;
  }
}

bool BootstrapMoves::undo_move(const Move& last) {
  try {
    if (last.kind == Move::Kind::kept) {
      return put_back(last.path);
    }
    // The update's tree gets its file back where a file can have two names. Nobody needs that.
    const std::string name = last_name(last.path);
    const Result<int> parent = tree_.parent_of(last.path);
    const Result<int> update_parent = update_tree_.parent_of(last.path);
    if (parent && update_parent) {
      os::link_at(*parent, name.c_str(), *update_parent, name.c_str());
    }
    // The old file takes this name in one step, as the next thing that is undone.
    return is_in_tree(old_name(last.path)) || !remove(last.path);
  } catch (const Error&) {
    return false;
  }
}

void BootstrapMoves::flush() { sync_levels(tree_, changed_); }

bool BootstrapMoves::flush_quietly() {
  try {
    flush();
    return true;
  } catch (const Error&) {
    return false;
  }
}

}  // namespace ravok
