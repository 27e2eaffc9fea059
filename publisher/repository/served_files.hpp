// What lies in a folder that a server shows, beside what clients ask for.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "publisher/repository/repository_walk.hpp"

namespace ravok {

// A file of a folder, by its path below what is served.
struct ServedFile {
  std::string path;
  std::uint64_t length = 0;  // bytes
};

struct ServedFiles {
  std::vector<ServedFile> superseded;  // metadata that newer versions have replaced
  std::vector<ServedFile> surplus;     // whatever else no client asks for
  std::vector<RepositoryFinding> problems;
};

// Returns the version in the file name of a document, such as 3 in "3.root.json"; nothing for another name.
std::optional<std::uint64_t> version_in(std::string_view file, std::string_view role);

// Looks for files that clients do not ask for, by the names of what they do ask for: the metadata of a walk that is
// complete, and the names of targets in the folder of targets. Roots of any age are asked for. A root beyond the one
// that the walk has reached is a problem, since no client ever sees it. In a folder that serves other things too, only
// what lies below "tuf" is looked at. Lists are in the order of their paths. Fails as walk_tree does.
ServedFiles list_served_files(const std::filesystem::path& served, const RepositoryWalk& walk,
                              const std::set<std::string>& targets);

}  // namespace ravok
