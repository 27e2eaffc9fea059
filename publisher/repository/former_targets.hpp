// What a repository has described so far, and which build each of its manifests belongs to.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "domain/json.hpp"
#include "publisher/repository/repository_folder.hpp"

namespace ravok {

// Whether a target is a manifest that was released here: its "custom" names a build.
bool is_released_manifest(const Json& target);

// Whether a target is a manifest that names the file of this target.
bool names_file(const Json& target, const std::string& path);

// Whether a target is the manifest of the build that this "custom" names.
bool is_same_build(const Json& target, const Json& custom);

// Removes from the next targets the files that a manifest among the present ones names, and none among the next.
void drop_unnamed_files(Json& next, const Json& present);

// The targets documents that a repository has published. One that lies in the folder counts only if a root of the
// repository accepts it, and a snapshot that a root accepts lies there too, was not given up, and names it by its
// version and digest: so a key that was replaced adds nothing by its signature alone.
class FormerTargets {
 public:
  FormerTargets(const RepositoryFolder& folder, const RepositoryState& state);

  // Calls `visit` with the version and the "targets" of each, the newest first, until it answers false. Fails as
  // read_document, parse_json and shape do.
  void each(const std::function<bool(std::uint64_t version, const Json& targets)>& visit) const;

 private:
  bool is_signed(const Json& document, const std::string& role) const;
  std::set<std::pair<std::uint64_t, std::string>> named_by_snapshots() const;

  const RepositoryFolder& folder_;
  std::vector<Json> roots_;  // the "signed" parts
};

}  // namespace ravok
