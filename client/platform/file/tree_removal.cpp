#include "platform/file/tree_removal.hpp"

#include <exception>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/tree_walk.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

// Others may add entries while a directory is emptied. After this many attempts the removal gives up.
constexpr int maximum_attempts = 3;

bool is_gone(const Problem& problem) { return !problem || problem == Cause::missing; }

// The removal of one tree. If it is quiet, it goes on after a failure; otherwise the first failure ends it.
class TreeRemoval {
 public:
  TreeRemoval(const std::filesystem::path& path, bool quiet) : path_(path), quiet_(quiet) {}

  // Returns no problem when everything was removed, otherwise that of the first failure.
  Problem run(int directory, const char* name) {
    int attempt = 1;
    while (!remove_once(directory, name, attempt == maximum_attempts)) {
      ++attempt;
    }
    return problem_;
  }

 private:
  // Returns false when somebody has added entries meanwhile and another attempt may succeed.
  bool remove_once(int directory, const char* name, bool last) {
    const Result<Status> status = link_status_at(directory, name);
    if (!status) {
      return is_gone(status.problem()) || failed({}, status.problem());
    }
    if (!is_directory(*status)) {
      const Problem problem = os::remove_at(directory, name);
      return is_gone(problem) || failed({}, problem);
    }
    empty(directory, name);
    const Problem problem = os::remove_directory_at(directory, name);
    if (is_gone(problem)) {
      return true;
    }
    return (!is_not_empty(problem) || problem_ || last) && failed({}, problem);
  }

  void empty(int directory, const char* name) {
    Result<Handle> tree = os::open_at(directory, name, os::OpenAs::directory);
    if (!tree) {
      require_handles(tree.problem());
      remove_unread(directory, name, tree.problem());
      return;
    }
    const Result<Status> above = status_of(directory);
    if (!above) {
      failed({}, above.problem());
      return;
    }
    require(!os::is_mounted(tree->get(), above->device), "unsafe_path",
            "A volume is mounted in the tree: " + path_utf8(path_));
    TreeVisitor visitor;
    visitor.refuse_mounts = true;
    visitor.visit = [&](const TreeEntry& entry) {
      if (entry.type == EntryType::directory) {
        return;
      }
      if (const Problem problem = os::remove_at(entry.directory, entry.name); !is_gone(problem)) {
        failed(entry.path, problem);
      }
    };
    visitor.leave = [&](const TreeEntry& entry, int) { remove_directory(entry); };
    visitor.unreadable = [&](const TreeEntry& entry, const Problem& problem) {
      remove_unread(entry.directory, entry.name, problem);
    };
    walk_tree(std::move(tree), visitor);
  }

  // An empty directory can be removed even when it may not be read.
  void remove_unread(int directory, const char* name, const Problem& unread) {
    if (!is_gone(os::remove_directory_at(directory, name))) {
      require(quiet_, "tree_read", "Cannot read a directory of the tree");
      // The reason is that it could not be read; the removal itself only says that it is not empty.
      failed({}, unread);
    }
  }

  // Entries that others have added meanwhile are left for the next attempt.
  void remove_directory(const TreeEntry& entry) {
    const Problem problem = os::remove_directory_at(entry.directory, entry.name);
    if (!is_gone(problem) && !is_not_empty(problem)) {
      failed(entry.path, problem);
    }
  }

  // `below` is the entry's path in the tree, or empty for the tree itself.
  bool failed(std::string_view below, const Problem& problem) {
    if (!quiet_) {
      fail("file_remove", "Cannot remove " + path_utf8(below.empty() ? path_ : path_ / below));
    }
    problem_ = problem_ ? problem_ : problem;
    return true;
  }

  const std::filesystem::path& path_;
  bool quiet_;
  Problem problem_;
};

}  // namespace

void remove_tree_at(int directory, const std::string& name, const std::filesystem::path& path) {
  TreeRemoval(path, false).run(directory, name.c_str());
}

Problem remove_tree_quietly_at(int directory, const std::string& name) noexcept {
  try {
    const std::filesystem::path unnamed;
    return TreeRemoval(unnamed, true).run(directory, name.c_str());
  } catch (const Error& error) {
    if (error.code == "too_many_files") {
      return problem_of(Cause::too_many_open);
    }
    return problem_of(error.code == "unsafe_path" ? Cause::other_volume : Cause::input_output);
  } catch (const std::exception&) {
    return problem_of(Cause::no_memory);
  }
}

}  // namespace ravok
