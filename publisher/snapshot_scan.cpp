#include "publisher/snapshot_scan.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string_view>
#include <utility>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_files = 100'000;
constexpr std::size_t maximum_name_bytes = 255;
// How deep directories may be nested. This is less than the client's own bound, so that the place of the installation
// may lie some levels deep.
constexpr std::ptrdiff_t maximum_depth = 96;

std::string counted(std::uint64_t count, std::string_view unit) {
  return std::to_string(count) + " " + std::string(unit);
}

std::string mode_text(std::uint32_t mode) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode));
  return text.data();
}

std::string_view last_name(std::string_view path) { return path.substr(path.rfind('/') + 1); }

bool is_ascii(char c) { return c >= 32 && c <= 126; }

std::string byte_text(char c) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "byte 0x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
  return text.data();
}

std::string type_text(EntryType type) {
  switch (type) {
    case EntryType::directory:
      return "a directory";
    case EntryType::link:
      return "a symbolic link";
    case EntryType::file:
    case EntryType::other:
      break;
  }
  return "a special file";
}

// The refusal of a path, with the client's rule and the path as its message.
SnapshotRefusal refusal_of(std::string_view code, std::string_view path, std::string_view rule, std::string limit,
                           std::string value) {
  const std::string name(path);
  return {std::string(code), std::string(rule) + ": " + name, name, std::string(rule), std::move(limit),
          std::move(value)};
}

// The refusal of the tree as a whole.
SnapshotRefusal refusal_of_tree(std::string_view code, std::string_view rule, std::string limit, std::string value) {
  return {std::string(code), std::string(rule), "", std::string(rule), std::move(limit), std::move(value)};
}

// What limit a name is beyond, and by how much.
SnapshotRefusal refusal_of_name(const Error& error, std::string_view path) {
  std::size_t longest = 0;
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    longest = std::max(longest, end - begin);
    begin = end + 1;
  }
  if (path.size() > maximum_path_bytes) {
    return refusal_of(error.code, path, error.what(), counted(maximum_path_bytes, "bytes"),
                      counted(path.size(), "bytes"));
  }
  if (longest > maximum_name_bytes) {
    return refusal_of(error.code, path, error.what(), counted(maximum_name_bytes, "bytes a name"),
                      counted(longest, "bytes"));
  }
  return refusal_of(error.code, path, error.what(), "a name that every platform can hold", std::string(path));
}

Result<Handle> open_scanned_root(const std::filesystem::path& root) {
  Result<Handle> directory = open_tree(root);
  if (!directory) {
    fail("unsafe_path", "Expected a plain directory: " + path_utf8(root));
  }
  return directory;
}

// Finds paths that a platform without regard to case could not hold together, and names both.
class Collisions {
 public:
  explicit Collisions(const RefuseSnapshot& refuse) : refuse_(refuse) {}

  void add(const std::string& path) {
    const auto [known, is_new] = files_.emplace(lower(path), path);
    if (!is_new) {
      refuse_(refusal_of("path_collision", path, "Package contains duplicate or case-colliding paths", one_name,
                         known->second));
      return;
    }
    for (std::size_t end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1)) {
      add_directory(path, path.substr(0, end));
    }
  }

  // Once all paths were added.
  void finish() {
    for (const auto& [folded, file] : files_) {
      const auto directory = directories_.find(folded);
      if (directory != directories_.end()) {
        SnapshotRefusal refusal = refusal_of("path_collision", directory->second.path,
                                             "Package file is another file's parent directory", one_name, file);
        refusal.message = refusal.rule + ": " + std::string(last_name(directory->second.path));
        refuse_(std::move(refusal));
      }
    }
  }

 private:
  static constexpr const char* one_name = "one spelling, whatever its case";

  struct Directory {
    std::string path;
    std::set<std::string> others;  // other spellings of its last name that were refused
  };

  void add_directory(const std::string& file, std::string path) {
    std::string name(last_name(path));
    const auto [known, is_new] = directories_.emplace(lower(path), Directory{path, {}});
    Directory& directory = known->second;
    if (!is_new && name != last_name(directory.path) && directory.others.insert(std::move(name)).second) {
      SnapshotRefusal refusal =
          refusal_of("path_collision", path, "Package directories differ only in case", one_name, directory.path);
      refusal.message = refusal.rule + ": " + file;
      refuse_(std::move(refusal));
    }
  }

  const RefuseSnapshot& refuse_;
  std::map<std::string, std::string> files_;      // by their folded paths
  std::map<std::string, Directory> directories_;  // the same
};

class Scan {
 public:
  Scan(const SnapshotScanRules& rules, const RefuseSnapshot& refuse, const ProgressCallback& progress)
      : rules_(rules), refuse_(refuse), progress_(progress), matched_(rules.exclude.size()) {}

  void add(const TreeEntry& entry) {
    report(progress_, ++seen_, 0);
    if (leaves_out(entry)) {
      return;
    }
    if (++entries_ > maximum_tree_entries) {
      refuse_(refusal_of_tree("size_limit", "Game directory entry count exceeds bounds",
                              counted(maximum_tree_entries, "entries"),
                              "more than " + counted(maximum_tree_entries, "entries")));
      throw Ended();
    }
    if (entry.type == EntryType::directory) {
      directories_.emplace(entry.path);
      return;
    }
    occupy_above(entry.path);
    if (entry.type != EntryType::file) {
      refuse_no_file(entry.path, entry.type);
      return;
    }
    add_file(entry);
  }

  void add_unreadable(const TreeEntry& entry) {
    if (excluded_.contains(entry.path)) {
      return;
    }
    constexpr const char* rule = "Cannot read a directory of the tree";
    refused_ = true;
    occupied_.emplace(entry.path);
    occupy_above(entry.path);
    refuse_({"tree_read", rule, std::string(entry.path), rule, "a directory that this user may read",
             "one that is closed to this user"});
  }

  SnapshotScan finish() {
    SnapshotScan scan;
    scan.whole = true;
    for (std::size_t i = 0; i < matched_.size(); ++i) {
      if (!matched_[i]) {
        scan.unmatched.push_back(rules_.exclude[i].text());
      }
    }
    judge_count();
    refuse_empty_directories();
    Collisions collisions(refuse_);
    for (const auto& entry : files_) {
      collisions.add(entry.first);
    }
    collisions.finish();
    scan.files = std::move(files_);
    return scan;
  }

  // The tree has more entries than anybody looks at.
  struct Ended {};

 private:
  // Whether a pattern matches the entry or a directory above it.
  bool leaves_out(const TreeEntry& entry) {
    if (rules_.exclude.empty()) {
      return false;
    }
    const std::string_view path = entry.path;
    const std::size_t separator = path.rfind('/');
    bool is_out = separator != std::string_view::npos && excluded_.contains(path.substr(0, separator));
    for (std::size_t i = 0; i < matched_.size(); ++i) {
      if (rules_.exclude[i].matches(path)) {
        matched_[i] = true;
        is_out = true;
      }
    }
    if (is_out && entry.type == EntryType::directory) {
      excluded_.emplace(path);
    }
    if (is_out) {
      left_out_ = true;
      occupy_above(path);
    }
    return is_out;
  }

  // Notes that the directories above hold something.
  void occupy_above(std::string_view path) {
    for (std::size_t end = path.rfind('/'); end != std::string_view::npos; end = path.rfind('/')) {
      path = path.substr(0, end);
      if (!occupied_.emplace(path).second) {
        return;
      }
    }
  }

  void refuse_no_file(std::string_view path, EntryType type) {
    refused_ = true;
    refuse_(refusal_of("archive_type", path, "Only ordinary files are accepted in snapshots", "ordinary files",
                       type_text(type)));
  }

  // Whether the path can be that of a file in a snapshot.
  bool judge_path(std::string_view path) {
    try {
      validate_relative_path(path, true);
    } catch (const Error& error) {
      refuse_(refusal_of_name(error, path));
      return false;
    }
    const std::ptrdiff_t depth = std::count(path.begin(), path.end(), '/');
    if (depth > maximum_depth) {
      refuse_(refusal_of("size_limit", path, "Package directories are nested too deeply",
                         counted(std::uint64_t{maximum_depth}, "directories"),
                         counted(static_cast<std::uint64_t>(depth), "directories")));
      return false;
    }
    const auto foreign = std::find_if_not(path.begin(), path.end(), is_ascii);
    if (foreign != path.end()) {
      refuse_(refusal_of("invalid_manifest", path, "The v1 package profile requires ASCII file paths",
                         "bytes 0x20 to 0x7e", byte_text(*foreign)));
      return false;
    }
    return true;
  }

  void add_file(const TreeEntry& entry) {
    if (!judge_path(entry.path)) {
      refused_ = true;
      return;
    }
    const auto status = link_status_at(entry.directory, entry.name);
    if (!status || !is_file(*status)) {
      refuse_no_file(entry.path, status ? status->type : EntryType::other);
      return;
    }
    SnapshotFile file;
    file.length = status->size;
    file.executable = rules_.modes == SnapshotModes::by_owner ? (status->permissions & permissions::owner_executes) != 0
                                                              : status->permissions == permissions::program;
    if (rules_.modes == SnapshotModes::exact && !file.executable && status->permissions != permissions::readable_file) {
      refuse_(refusal_of("invalid_manifest", entry.path, "Package modes must be 0644 or 0755", "0644 or 0755",
                         mode_text(status->permissions)));
    }
    if (file.length > maximum_snapshot_bytes - total_) {
      refuse_(refusal_of("size_limit", entry.path, "Expanded package exceeds size bounds",
                         counted(maximum_snapshot_bytes, "bytes of all files"),
                         counted(file.length, "bytes after ") + counted(total_, "of others")));
    } else {
      total_ += file.length;
    }
    files_.emplace(entry.path, file);
  }

  void judge_count() {
    constexpr const char* rule = "Package file count exceeds bounds";
    if (files_.size() > maximum_files) {
      refuse_(refusal_of_tree("size_limit", rule, counted(maximum_files, "files"), counted(files_.size(), "files")));
    } else if (files_.empty() && !refused_) {
      refuse_(refusal_of_tree("size_limit", rule, "1 file at least", left_out_ ? "none that is not excluded" : "none"));
    }
  }

  // Names the highest directory of those that hold nothing but one another.
  void refuse_empty_directories() {
    if (files_.empty() && !refused_) {
      return;
    }
    for (const std::string& directory : directories_) {
      const std::size_t separator = directory.rfind('/');
      const bool is_highest = separator == std::string::npos || occupied_.contains(directory.substr(0, separator));
      if (is_highest && !occupied_.contains(directory)) {
        refuse_(
            refusal_of("archive_type", directory, "Snapshots hold no empty directories", "1 file at least", "none"));
      }
    }
  }

  const SnapshotScanRules& rules_;
  const RefuseSnapshot& refuse_;
  const ProgressCallback& progress_;
  std::vector<bool> matched_;
  std::uint64_t seen_ = 0;
  std::size_t entries_ = 0;  // that are not left out
  std::uint64_t total_ = 0;
  bool refused_ = false;   // something was refused that is not among the files
  bool left_out_ = false;  // something was left out
  SnapshotInventory files_;
  std::set<std::string> directories_;
  std::set<std::string, std::less<>> excluded_;  // directories
  std::set<std::string> occupied_;               // directories that hold more than directories
};

}  // namespace

SnapshotScan scan_snapshot_tree(const std::filesystem::path& root, const SnapshotScanRules& rules,
                                const RefuseSnapshot& refuse, const ProgressCallback& progress) {
  Scan scan(rules, refuse, progress);
  TreeVisitor visitor;
  visitor.visit = [&](const TreeEntry& entry) { scan.add(entry); };
  visitor.unreadable = [&](const TreeEntry& entry, const Problem&) { scan.add_unreadable(entry); };
  try {
    walk_tree(open_scanned_root(root), visitor);
  } catch (const Scan::Ended&) {
    // What was refused until then is told all the same.
    return {};
  }
  return scan.finish();
}

SnapshotInventory scan_snapshot_tree(const std::filesystem::path& root) {
  return scan_snapshot_tree(root, {}, [](SnapshotRefusal refusal) { fail(refusal.code, refusal.message); }, {}).files;
}

}  // namespace ravok
