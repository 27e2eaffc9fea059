#include "platform/file/tree_walk.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include <dirent.h>
#include <fcntl.h>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_status.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

// How many levels above the deepest stay open; those further up are opened again on the way back.
constexpr std::size_t open_levels = 32;

[[noreturn]] void cannot_read() {
  require_descriptors(errno);
  fail("tree_read", "Cannot read a directory of the tree");
}

Directory read_from(Descriptor descriptor) {
  Directory directory(descriptor ? fdopendir(descriptor.get()) : nullptr);
  if (!directory) {
    cannot_read();
  }
  // The stream owns it now.
  static_cast<void>(descriptor.release());
  return directory;
}

// The next entry that has a name of its own, or none at the end.
const dirent* next_entry(DIR* directory) {
  for (;;) {
    errno = 0;
    const dirent* const entry = readdir(directory);
    if (entry == nullptr && errno != 0) {
      cannot_read();
    }
    if (entry == nullptr || (std::string_view(entry->d_name) != "." && std::string_view(entry->d_name) != "..")) {
      return entry;
    }
  }
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

EntryType type_of(int directory, const dirent& entry) {
  switch (entry.d_type) {
    case DT_DIR:
      return EntryType::directory;
    case DT_REG:
      return EntryType::file;
    case DT_LNK:
      return EntryType::link;
    case DT_UNKNOWN:
      break;
    default:
      return EntryType::other;
  }
  const auto status = link_status_at(directory, entry.d_name);
  if (!status) {
    cannot_read();
  }
  return type_of(status->st_mode);
}

Descriptor open_level(int parent, const char* name, int flags) {
  return Descriptor(retry_interrupted([&] { return openat(parent, name, flags); }));
}

std::string_view first_name(std::string_view path) { return path.substr(0, path.find('/')); }

// One walk. A directory's own entries are all read before the walk goes into the first of its directories, so that
// one stream at a time is read, and a level needs to stay open only to be gone on from.
class Walk {
 public:
  explicit Walk(const TreeVisitor& visitor) : visitor_(visitor) {}

  void run(Descriptor root) {
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
    Directory stream;     // that the entries were read from, while it is open
    Descriptor reopened;  // in its place, once the walk has come back
    std::string name;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::size_t path_size = 0;           // of what stands before the names in it
    std::vector<std::string> unvisited;  // the directories that the walk has yet to go into, the last one first

    int descriptor() const { return stream ? dirfd(stream.get()) : reopened.get(); }
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
    Descriptor child = open_level(parent.descriptor(), name.c_str(), posix_files::walk_flags);
    if (!child && visitor_.unreadable) {
      require_descriptors(errno);
      visitor_.unreadable({path_, name.c_str(), parent.descriptor(), EntryType::directory});
      return;
    }
    if (!child) {
      cannot_read();
    }
    if (visitor_.refuse_mounts && os::is_mounted(child.get(), parent.device)) {
      fail("unsafe_path", "A volume is mounted in the tree: " + path_);
    }
    path_ += '/';
    enter(std::move(child), std::move(name));
  }

  void enter(Descriptor directory, std::string name) {
    const auto status = directory ? status_of(directory.get()) : std::nullopt;
    if (!status) {
      cannot_read();
    }
    Level level;
    level.name = std::move(name);
    level.device = device_number(*status);
    level.inode = status->st_ino;
    level.path_size = path_.size();
    level.stream = read_from(std::move(directory));
    read_entries(level);
    levels_.push_back(std::move(level));
    if (levels_.size() > open_levels) {
      levels_[levels_.size() - open_levels - 1].close();
    }
  }

  void read_entries(Level& level) {
    DIR* const stream = level.stream.get();
    while (const dirent* const entry = next_entry(stream)) {
      path_.resize(level.path_size);
      path_ += entry->d_name;
      const EntryType type = type_of(dirfd(stream), *entry);
      if (type == EntryType::directory) {
        level.unvisited.emplace_back(entry->d_name);
      }
      visitor_.visit({path_, entry->d_name, dirfd(stream), type});
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
    if (parent.descriptor() < 0) {
      reopen(parent, level.descriptor());
    }
    if (visitor_.leave) {
      path_.resize(level.path_size - 1);
      visitor_.leave({path_, level.name.c_str(), parent.descriptor(), EntryType::directory}, level.descriptor());
    }
  }

  // Goes back up from a child. It may have been moved meanwhile, and then lies in another directory.
  static void reopen(Level& parent, int child) {
    parent.reopened = open_level(child, "..", posix_files::walk_flags);
    const auto status = parent.reopened ? status_of(parent.reopened.get()) : std::nullopt;
    if (!status) {
      cannot_read();
    }
    require(device_number(*status) == parent.device && status->st_ino == parent.inode, "tree_read",
            "A directory of the tree was moved while it was read");
  }

  const TreeVisitor& visitor_;
  std::vector<Level> levels_;
  std::string path_;
};

}  // namespace

Descriptor open_tree(const std::filesystem::path& root) {
  return open_level(AT_FDCWD, without_end_separator(root).c_str(), posix_files::walk_flags);
}

void walk_tree(Descriptor root, const TreeVisitor& visitor) { Walk(visitor).run(std::move(root)); }

void walk_tree(Descriptor root, const std::function<void(const TreeEntry&)>& visit) {
  TreeVisitor visitor;
  visitor.visit = visit;
  walk_tree(std::move(root), visitor);
}

std::vector<std::string> names_in(int directory, std::size_t limit) {
  std::vector<std::string> names;
  const Directory stream = read_from(open_level(directory, ".", posix_files::walk_flags));
  while (names.size() < limit) {
    const dirent* const entry = next_entry(stream.get());
    if (entry == nullptr) {
      break;
    }
    names.emplace_back(entry->d_name);
  }
  return names;
}

std::vector<std::string> names_in(const std::filesystem::path& directory, std::size_t limit) {
  const Descriptor opened(
      retry_interrupted([&] { return open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!opened) {
    cannot_read();
  }
  return names_in(opened.get(), limit);
}

Descriptor TreePaths::open(const std::string& path, int flags) {
  const int parent = parent_of(path);
  if (parent < 0) {
    return Descriptor();
  }
  // The separator before the last component, or the place before the first byte.
  const std::size_t separator = path.rfind('/');
  const std::size_t name = separator == std::string::npos ? 0 : separator + 1;
  return open_level(parent, path.c_str() + name, flags | O_NOFOLLOW);
}

int TreePaths::parent_of(std::string_view path) {
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
    Descriptor directory = open_level(last(), name.c_str(), os::passage_flags());
    if (!directory) {
      // What is open is not the directory of any path that is known.
      const int problem = errno;
      levels_.clear();
      errno = problem;
      return -1;
    }
    levels_.push_back({std::move(name), std::move(directory)});
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
  // That level is no longer open: the way begins at the root again.
  levels_.clear();
  return wanted;
}

}  // namespace ravok
