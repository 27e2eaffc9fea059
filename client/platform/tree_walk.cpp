#include "platform/tree_walk.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <utility>

#include <dirent.h>
#include <fcntl.h>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file_status.hpp"
#include "platform/os.hpp"
#include "platform/posix_files.hpp"

namespace ravok {
namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

[[noreturn]] void cannot_read() { fail("tree_read", "Cannot read a directory of the tree"); }

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

}  // namespace

Descriptor open_tree(const std::filesystem::path& root) {
  return open_level(AT_FDCWD, without_end_separator(root).c_str(), posix_files::walk_flags);
}

void walk_tree(Descriptor root, const std::function<void(const TreeEntry&)>& visit) {
  struct Level {
    Directory directory;
    std::size_t path_size;  // of what stands before the names in it
  };
  std::vector<Level> levels;
  levels.push_back({read_from(std::move(root)), 0});
  std::string path;
  while (!levels.empty()) {
    DIR* const directory = levels.back().directory.get();
    path.resize(levels.back().path_size);
    const dirent* const entry = next_entry(directory);
    if (entry == nullptr) {
      levels.pop_back();
      continue;
    }
    path += entry->d_name;
    const EntryType type = type_of(dirfd(directory), *entry);
    visit({path, entry->d_name, dirfd(directory), type});
    if (type == EntryType::directory) {
      Directory child = read_from(open_level(dirfd(directory), entry->d_name, posix_files::walk_flags));
      path += '/';
      levels.push_back({std::move(child), path.size()});
    }
  }
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
  std::string_view wanted = separator == std::string_view::npos ? std::string_view() : path.substr(0, separator);
  if (wanted == directory_) {
    return last();
  }
  const std::string_view whole = wanted;
  directory_.clear();
  std::size_t shared = 0;
  while (!wanted.empty()) {
    const std::size_t end = std::min(wanted.find('/'), wanted.size());
    const std::string_view name = wanted.substr(0, end);
    if (shared == levels_.size() || levels_[shared].name != name) {
      levels_.resize(shared);
      std::string owned(name);
      Descriptor directory = open_level(last(), owned.c_str(), os::passage_flags());
      if (!directory) {
        // What is open is not the directory of any path that is known.
        const int problem = errno;
        levels_.clear();
        errno = problem;
        return -1;
      }
      levels_.push_back({std::move(owned), std::move(directory)});
    }
    ++shared;
    wanted.remove_prefix(std::min(end + 1, wanted.size()));
  }
  levels_.resize(shared);
  directory_ = whole;
  return last();
}

}  // namespace ravok
