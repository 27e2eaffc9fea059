#include "platform/file/tree_walk.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/directory_reader.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

// How many of the deepest levels stay open. Those above are opened again on the way back.
constexpr std::size_t open_levels = 32;

[[noreturn]] void cannot_read(const Problem& problem) {
  require_handles(problem);
  fail("tree_read", "Cannot read a directory of the tree");
}

os::DirectoryReader read_from(Result<Handle> directory) {
  if (!directory) {
    cannot_read(directory.problem());
  }
  Result<os::DirectoryReader> reader = os::DirectoryReader::of(*std::move(directory));
  if (!reader) {
    cannot_read(reader.problem());
  }
  return *std::move(reader);
}

// The next entry, without a name at the end.
os::DirectoryReader::Entry next_entry(os::DirectoryReader& reader) {
  const Result<os::DirectoryReader::Entry> entry = reader.next();
  if (!entry) {
    cannot_read(entry.problem());
  }
  return *entry;
}

EntryType type_of(int directory, const os::DirectoryReader::Entry& entry) {
  if (entry.type_known) {
    return entry.type;
  }
  const Result<Status> status = link_status_at(directory, entry.name);
  if (!status) {
    cannot_read(status.problem());
  }
  return status->type;
}

std::string_view first_name(std::string_view path) { return path.substr(0, path.find('/')); }

// One walk. All entries of a directory are read before the walk enters the first of its directories, so only one
// stream is read at a time.
class Walk {
 public:
  explicit Walk(const TreeVisitor& visitor) : visitor_(visitor) {}

  void run(Result<Handle> root) {
    enter(std::move(root), {});
    while (!levels_.empty()) {
      if (levels_.back().unvisited.empty()) {
        leave();
      } else {
        descend();
      }
    }
  }

 private:
  struct Level {
    os::DirectoryReader stream;  // the entries were read from it; closed for levels far above
    Handle reopened;             // opened on the way back where `stream` was closed
    std::string name;
    Status status;
    std::size_t path_size = 0;           // the length of the path before the names in this directory
    std::vector<std::string> unvisited;  // directories still to be entered, the last one first

    int handle() const { return stream ? stream.handle() : reopened.get(); }
    void close() {
      stream.reset();
      reopened.reset();
    }
  };

  void descend() {
    Level& parent = levels_.back();
    std::string name = std::move(parent.unvisited.back());
    parent.unvisited.pop_back();
    path_.resize(parent.path_size);
    path_ += name;
    Result<Handle> child = os::open_at(parent.handle(), name.c_str(), os::OpenAs::directory);
    if (!child && visitor_.unreadable) {
      require_handles(child.problem());
      visitor_.unreadable({path_, name.c_str(), parent.handle(), EntryType::directory}, child.problem());
      return;
    }
    if (!child) {
      cannot_read(child.problem());
    }
    if (visitor_.refuse_mounts && os::is_mounted(child->get(), parent.status.device)) {
      fail("unsafe_path", "A volume is mounted in the tree: " + path_);
    }
    path_ += '/';
    enter(std::move(child), std::move(name));
  }

  void enter(Result<Handle> directory, std::string name) {
    const Result<Status> status = directory ? status_of(directory->get()) : directory.problem();
    if (!status) {
      cannot_read(status.problem());
    }
    Level level;
    level.name = std::move(name);
    level.status = *status;
    level.path_size = path_.size();
    level.stream = read_from(std::move(directory));
    read_entries(level);
    levels_.push_back(std::move(level));
    if (levels_.size() > open_levels) {
      levels_[levels_.size() - open_levels - 1].close();
    }
  }

  void read_entries(Level& level) {
    const int directory = level.handle();
    for (auto entry = next_entry(level.stream); entry.name != nullptr; entry = next_entry(level.stream)) {
      path_.resize(level.path_size);
      path_ += entry.name;
      const EntryType type = type_of(directory, entry);
      if (type == EntryType::directory) {
        level.unvisited.emplace_back(entry.name);
      }
      visitor_.visit({path_, entry.name, directory, type});
    }
    std::reverse(level.unvisited.begin(), level.unvisited.end());
  }

  void leave() {
    Level level = std::move(levels_.back());
    levels_.pop_back();
    if (levels_.empty()) {
      return;
    }
    Level& parent = levels_.back();
    if (parent.handle() < 0) {
      reopen(parent, level.handle());
    }
    if (visitor_.leave) {
      path_.resize(level.path_size - 1);
      visitor_.leave({path_, level.name.c_str(), parent.handle(), EntryType::directory}, level.handle());
    }
  }

  // Goes back up from a child. Fails when the child was moved to another directory meanwhile.
  static void reopen(Level& parent, int child) {
    Result<Handle> reopened = os::open_at(child, "..", os::OpenAs::directory);
    const Result<Status> status = reopened ? status_of(reopened->get()) : reopened.problem();
    if (!status) {
      cannot_read(status.problem());
    }
    require(same_file(*status, parent.status), "tree_read", "A directory of the tree was moved while it was read");
    parent.reopened = *std::move(reopened);
  }

  const TreeVisitor& visitor_;
  std::vector<Level> levels_;
  std::string path_;
};

}  // namespace

Result<Handle> open_tree(const std::filesystem::path& root) {
  return os::open(without_end_separator(root), os::OpenAs::directory);
}

void walk_tree(Result<Handle> root, const TreeVisitor& visitor) { Walk(visitor).run(std::move(root)); }

void walk_tree(Result<Handle> root, const std::function<void(const TreeEntry&)>& visit) {
  TreeVisitor visitor;
  visitor.visit = visit;
  walk_tree(std::move(root), visitor);
}

std::vector<std::string> names_in(int directory, std::size_t limit) {
  std::vector<std::string> names;
  os::DirectoryReader reader = read_from(os::open_at(directory, ".", os::OpenAs::directory));
  while (names.size() < limit) {
    const os::DirectoryReader::Entry entry = next_entry(reader);
    if (entry.name == nullptr) {
      break;
    }
    names.emplace_back(entry.name);
  }
  return names;
}

std::vector<std::string> names_in(const std::filesystem::path& directory, std::size_t limit) {
  const Result<Handle> opened = os::open(directory, os::OpenAs::linked_directory);
  if (!opened) {
    cannot_read(opened.problem());
  }
  return names_in(opened->get(), limit);
}

Result<Handle> TreePaths::open(const std::string& path, os::OpenAs how) {
  const Result<int> parent = parent_of(path);
  if (!parent) {
    return parent.problem();
  }
  const std::size_t separator = path.rfind('/');
  const std::size_t name = separator == std::string::npos ? 0 : separator + 1;
  return os::open_at(*parent, path.c_str() + name, how);
}

Result<int> TreePaths::parent_of(std::string_view path) {
  const std::size_t separator = path.rfind('/');
  const std::string_view wanted = separator == std::string_view::npos ? std::string_view() : path.substr(0, separator);
  if (wanted == directory_) {
    return last();
  }
  directory_.clear();
  std::string_view rest = keep_shared(wanted);
  while (!rest.empty()) {
    std::string name(first_name(rest));
    rest.remove_prefix(std::min(name.size() + 1, rest.size()));
    Result<Handle> directory = os::open_at(last(), name.c_str(), os::OpenAs::passage);
    if (!directory) {
      // Some of the path's levels may be open, but not its directory, so the next call begins at the root.
      levels_.clear();
      return directory.problem();
    }
    levels_.push_back({std::move(name), *std::move(directory)});
    if (levels_.size() > open_levels) {
      levels_[levels_.size() - open_levels - 1].directory.reset();
    }
  }
  directory_ = wanted;
  return last();
}

std::string_view TreePaths::keep_shared(std::string_view wanted) {
  std::string_view rest = wanted;
  std::size_t shared = 0;
  while (!rest.empty() && shared < levels_.size() && levels_[shared].name == first_name(rest)) {
    rest.remove_prefix(std::min(levels_[shared].name.size() + 1, rest.size()));
    ++shared;
  }
  levels_.resize(shared);
  if (shared == 0 || levels_.back().directory) {
    return rest;
  }
  // That level was closed, so the way begins at the root again.
  levels_.clear();
  return wanted;
}

}  // namespace ravok
