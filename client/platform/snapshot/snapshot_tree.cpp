#include "platform/snapshot/snapshot_tree.hpp"

#include <string_view>
#include <utility>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {
namespace {

Handle open_content_root(const std::filesystem::path& root) {
  Result<Handle> directory = open_tree(root);
  require_handles(directory.problem());
  require(directory.has_value(), "unsafe_path", "Game content directory is missing or linked");
  return *std::move(directory);
}

// Visits all entries of a tree but its directories. Fails beyond the bound of entries, for a link, and for a name that
// no managed file can have.
template <typename Visit>
void walk_contents(const SnapshotManifest& manifest, Handle directory, Visit visit) {
  std::size_t entries = 0;
  std::string path;
  walk_tree(std::move(directory), [&](const TreeEntry& entry) {
    require(++entries <= maximum_tree_entries, "size_limit", "Game directory entry count exceeds bounds");
    require(entry.type != EntryType::link, "unsafe_path", "Game tree contains a symbolic link");
    path = entry.path;
    // The manifest's parser has already checked its own paths.
    const bool managed = entry.type == EntryType::file && manifest.files.contains(path);
    if (!managed) {
      validate_relative_path(path, false);
    }
    if (entry.type != EntryType::directory) {
      visit(path, managed);
    }
  });
}

enum class Condition { whole, different, not_executable };

// The files of a manifest below a root, one after the other.
class FileInspector {
 public:
  FileInspector(const std::filesystem::path& root, std::uint64_t total, const ProgressCallback& progress)
      : root_(root), files_(open_content_root(root)), total_(total), progress_(progress) {}

  // Compares a file with what the manifest says of it. Fails with "unsafe_path" for a link on the
  // way, "file_read" when it cannot be read, and "cancelled".
  Condition inspect(const std::string& path, const SnapshotFile& expected) {
    done_ += std::exchange(current_, expected.length);
    report(progress_, done_, total_);
    return compare(path, expected);
  }

  void report_end() const { report(progress_, done_ + current_, total_); }

 private:
  Condition compare(const std::string& path, const SnapshotFile& expected) {
    const Result<Handle> file = files_.open(path, os::OpenAs::file);
    if (!file) {
      explain_missing(path, file.problem());
      return Condition::different;
    }
    const auto status = status_of(file->get());
    if (!status || !is_file(*status) || status->size != expected.length ||
        digest(file->get(), status->size) != expected.sha256) {
      return Condition::different;
    }
    return expected.executable && (status->permissions & permissions::owner_executes) == 0 ? Condition::not_executable
                                                                                           : Condition::whole;
  }

  std::string digest(int file, std::uint64_t size) {
    if (!progress_) {
      return digester_.digest(file, size, {});
    }
    try {
      return digester_.digest(file, size, [&](std::uint64_t in_file, std::uint64_t) {
        report(progress_, done_ + in_file, total_);
        return true;
      });
    } catch (const Error& error) {
      // The file grew while it was read. No digest equals the empty text, so it counts as different.
      if (error.code == "content_mismatch") {
        return {};
      }
      throw;
    }
  }

  // Accepts a file that is missing. Fails when there is a link on the way, and when the file is there but cannot be
  // opened.
  void explain_missing(const std::string& path, const Problem& problem) const {
    require_handles(problem);
    const std::filesystem::path file = safe_join(root_, path, true);
    // Systems answer with one of the last two for a socket.
    require(problem == Cause::missing || problem == Cause::not_a_directory || problem == Cause::not_a_file ||
                problem == Cause::unsupported,
            "file_read", "Could not open file for verification: " + path_utf8(file));
  }

  const std::filesystem::path& root_;
  TreePaths files_;
  FileDigester digester_{"sha256"};
  std::uint64_t done_ = 0;     // bytes of the files before the current one
  std::uint64_t current_ = 0;  // bytes of the current file
  std::uint64_t total_;
  const ProgressCallback& progress_;
};

}  // namespace

void verify_snapshot_tree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                          const ProgressCallback& progress) {
  std::size_t files = 0;
  walk_contents(manifest, open_content_root(root), [&](const std::string&, bool managed) {
    require(managed, "unexpected_file", "Game tree contains an unmanaged file");
    require(++files <= manifest.files.size(), "size_limit", "Game tree contains too many files");
  });
  require(files == manifest.files.size(), "missing_file", "Game content is incomplete; repair is available");

  FileInspector inspector(root, manifest.expanded_length, progress);
  for (const auto& [path, expected] : manifest.files) {
    const Condition condition = inspector.inspect(path, expected);
    if (condition == Condition::different) {
      fail("content_mismatch", "Game content differs from the verified manifest: " + path);
    }
    require(condition != Condition::not_executable, "content_mode", "Game executable permission is missing");
  }
  inspector.report_end();
}

DamagedFiles damaged_snapshot_files(const SnapshotManifest& manifest, const std::filesystem::path& root,
                                    const ProgressCallback& progress, std::size_t limit) {
  DamagedFiles damaged;
  const auto add = [&](const std::string& path) {
    ++damaged.count;
    if (damaged.paths.size() < limit) {
      damaged.paths.push_back(path);
    }
  };
  walk_contents(manifest, open_content_root(root), [&](const std::string& path, bool managed) {
    if (!managed) {
      add(path);
    }
  });

  FileInspector inspector(root, manifest.expanded_length, progress);
  for (const auto& [path, expected] : manifest.files) {
    try {
      if (inspector.inspect(path, expected) != Condition::whole) {
        add(path);
      }
    } catch (const Error& error) {
      // A file that cannot be read counts as damaged.
      if (error.code != "file_read") {
        throw;
      }
      add(path);
    }
  }
  inspector.report_end();
  return damaged;
}

}  // namespace ravok
