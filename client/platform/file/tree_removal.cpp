#include "platform/file/tree_removal.hpp"

#include <cerrno>
#include <exception>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/descriptor.hpp"
#include "platform/file/file_status.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/tree_walk.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

// Others may add entries while a directory is emptied; after this many attempts it is theirs.
constexpr int maximum_attempts = 3;

// The removal of one tree. What fails is kept quiet about, or ends it.
class Removal {
 public:
  Removal(const std::filesystem::path& path, bool quiet) : path_(path), quiet_(quiet) {}

  // Returns 0 when all of it went, or the native error number of the first failure.
  int run(int directory, const char* name) {
    int attempt = 1;
    while (!remove_once(directory, name, attempt == maximum_attempts)) {
      ++attempt;
    }
    return problem_;
  }

 private:
  // Returns false when the directory was not empty after all and may be tried again.
  bool remove_once(int directory, const char* name, bool last) {
    const auto status = link_status_at(directory, name);
    if (!status) {
      return errno == ENOENT || failed({});
    }
    if (!is_directory(*status)) {
      return unlinkat(directory, name, 0) == 0 || errno == ENOENT || failed({});
    }
    empty(directory, name);
    if (unlinkat(directory, name, AT_REMOVEDIR) == 0 || errno == ENOENT) {
      return true;
    }
    const bool not_empty = errno == ENOTEMPTY || errno == EEXIST;
    return (!not_empty || problem_ != 0 || last) && failed({});
  }

  void empty(int directory, const char* name) {
    Descriptor tree(retry_interrupted([&] { return openat(directory, name, posix_files::walk_flags); }));
    if (!tree) {
      require_descriptors(errno);
      remove_unread(directory, name);
      return;
    }
    const auto above = status_of(directory);
    if (!above) {
      failed({});
      return;
    }
    require(!os::is_mounted(tree.get(), device_number(*above)), "unsafe_path",
            "A volume is mounted in the tree: " + path_utf8(path_));
    TreeVisitor visitor;
    visitor.refuse_mounts = true;
    visitor.visit = [&](const TreeEntry& entry) {
      if (entry.type != EntryType::directory && unlinkat(entry.directory, entry.name, 0) != 0 && errno != ENOENT) {
        failed(entry.path);
      }
    };
    visitor.leave = [&](const TreeEntry& entry, int) { remove_directory(entry); };
    visitor.unreadable = [&](const TreeEntry& entry) { remove_unread(entry.directory, entry.name); };
    walk_tree(std::move(tree), visitor);
  }

  // A directory that may not be read goes all the same if it holds nothing.
  void remove_unread(int directory, const char* name) {
    const int problem = errno;
    if (unlinkat(directory, name, AT_REMOVEDIR) != 0 && errno != ENOENT) {
      require(quiet_, "tree_read", "Cannot read a directory of the tree");
      // Why it could not be read, and not that it is not empty.
      errno = problem;
      failed({});
    }
  }

  // What others have put there meanwhile is met by the next attempt.
  void remove_directory(const TreeEntry& entry) {
    if (unlinkat(entry.directory, entry.name, AT_REMOVEDIR) != 0 && errno != ENOENT && errno != ENOTEMPTY &&
        errno != EEXIST) {
      failed(entry.path);
    }
  }

  // `below` is the entry's path in the tree, or empty for the tree itself.
  bool failed(std::string_view below) {
    const int problem = errno;
    if (!quiet_) {
      fail("file_remove", "Cannot remove " + path_utf8(below.empty() ? path_ : path_ / below));
    }
    problem_ = problem_ != 0 ? problem_ : problem;
    return true;
  }

  const std::filesystem::path& path_;
  bool quiet_;
  int problem_ = 0;
};

}  // namespace

void remove_tree_at(int directory, const std::string& name, const std::filesystem::path& path) {
  Removal(path, false).run(directory, name.c_str());
}

int remove_tree_quietly_at(int directory, const std::string& name) noexcept {
  try {
    const std::filesystem::path unnamed;
    return Removal(unnamed, true).run(directory, name.c_str());
  } catch (const Error& error) {
    if (error.code == "too_many_files") {
      return EMFILE;
    }
    return error.code == "unsafe_path" ? EXDEV : EIO;
  } catch (const std::exception&) {
    return ENOMEM;
  }
}

}  // namespace ravok
