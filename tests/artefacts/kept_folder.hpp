// The artefacts that are kept of every version, and folders in which a test works on copies of them.
//
// An artefact is the archive VERSION/NAME.tar.gz of a folder, since only an archive keeps the modes that records and
// folders have. What a version has written names its places by whole paths; in the archive, the folder itself has the
// path kept_root in all of them.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing {

// The path that stands for an artefact's folder in all that is kept.
inline constexpr std::string_view kept_root = "/kept/artefact";

// The folder of a version and the version, such as "0.1.0".
struct KeptVersion {
  std::string version;
  std::filesystem::path folder;

  std::filesystem::path archive(const std::string& name) const { return folder / (name + ".tar.gz"); }
};

// Returns the versions of which artefacts are kept, the oldest first: those of this tree, or of the folder that the
// variable RAVOK_ARTEFACTS names. Throws where there is none.
std::vector<KeptVersion> kept_versions();

// Whether one version is older than another.
bool is_older(const std::string& version, const std::string& other);

// Returns the names of all that an artefact holds, sorted; a folder's ends in a slash.
std::vector<std::string> kept_names(const KeptVersion& version, const std::string& artefact);

// Puts another path in the place of a folder's own, in every small file below the folder. The digests that a ledger of
// shortcuts has of such a file follow, unless the file was another before.
void rename_in_files(const std::filesystem::path& folder, std::string_view from, std::string_view to);

// Copies a folder with all modes and times, and names it anew in its files.
void copy_artefact(const std::filesystem::path& from, const std::filesystem::path& to);

// An artefact's folder, unpacked where a test may change it.
class KeptFolder {
 public:
  KeptFolder(const KeptVersion& version, const std::string& artefact);

  std::filesystem::path operator/(std::string_view relative) const { return root_ / relative; }
  const std::filesystem::path& path() const { return root_.path(); }
  std::string read(std::string_view relative) const { return root_.read(relative); }
  Json json(std::string_view relative) const { return Json::parse(read(relative)); }

 private:
  TemporaryRoot root_;
};

}  // namespace ravok::testing
