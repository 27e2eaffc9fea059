// Finding what lies in a publisher's tree, and judging it as the client will.
#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "domain/manifest.hpp"
#include "platform/snapshot/progress.hpp"
#include "publisher/path_pattern.hpp"
#include "publisher/snapshot_refusals.hpp"

namespace ravok {

// The files of a tree by their relative paths.
using SnapshotInventory = std::map<std::string, SnapshotFile>;

// How a file's permissions become one of the two modes of a snapshot.
enum class SnapshotModes {
  exact,     // they are 0644 or 0755, or the file is refused
  by_owner,  // 0755 where the owner may execute the file, otherwise 0644
};

struct SnapshotScanRules {
  SnapshotModes modes = SnapshotModes::exact;
  // What is left out: everything that one of them matches, and everything below it.
  std::vector<PathPattern> exclude;
};

struct SnapshotScan {
  bool whole = false;  // whether all entries were seen; with too many, nothing else is told here
  // The files with their lengths and modes, and without digests. Where something was refused, files may be missing.
  SnapshotInventory files;
  // The patterns that match nothing.
  std::vector<std::string> unmatched;
};

// Looks through the tree below a directory and gives `refuse` all that the client would refuse, with the client's own
// code and message: "unsafe_path" or "invalid_manifest" for a name or a mode, "archive_type" for a link, a special file
// or a directory that holds nothing, "size_limit" for what is too large, lies too deep or is too much, "path_collision"
// for paths that are the same without regard to case, and "tree_read" for a directory that cannot be read. A directory
// of which everything is left out is left out itself. Ends with the first entry beyond 250,000, those that are left out
// not counted.
// `progress`, which may be empty, is told of the entries seen; their number in total is not known, and told as 0. Fails
// with "unsafe_path" where there is no directory, "cancelled", "tree_read" and "too_many_files" as walk_tree does, and
// with what `refuse` throws.
SnapshotScan scan_snapshot_tree(const std::filesystem::path& root, const SnapshotScanRules& rules,
                                const RefuseSnapshot& refuse, const ProgressCallback& progress);

// Returns the files below a directory, of modes 0644 and 0755, with their lengths and without digests. Fails with the
// first refusal of the function above.
SnapshotInventory scan_snapshot_tree(const std::filesystem::path& root);

}  // namespace ravok
