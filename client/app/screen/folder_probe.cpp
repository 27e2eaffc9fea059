#include "app/screen/folder_probe.hpp"

#include <exception>
#include <optional>

#include "app/install/data_folder.hpp"
#include "app/install/installation_record.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/status.hpp"

namespace ravok {
namespace {

// Whether the folder holds an installation that a repair takes. Fails as check_installation does, for one that it does
// not.
bool is_repairable(const DataPaths& paths) {
  if (installation_state(paths) != InstallationState::complete) {
    return false;
  }
  check_installation(paths);
  return true;
}

// Returns the status of the installation, or none where `facts` say now that it is damaged.
std::optional<NativeInstallStatus> status_unless_damaged(FolderFacts& facts, const DataPaths& paths) {
  try {
    return installation_status(paths);
  } catch (const Error& error) {
    if (!is_repairable(paths)) {
      throw;
    }
    facts.problem = error.what();
    facts.state = FolderFacts::State::damaged;
    return std::nullopt;
  }
}

void judge(FolderFacts& facts, const std::filesystem::path& package, const PackageManifests* manifests) {
  const DataPaths paths(data_folder(path_from_utf8(facts.asked)));
  facts.root = paths.root;
  const bool missing = is_missing(paths.root);
  const std::optional<NativeInstallStatus> found =
      missing ? NativeInstallStatus() : status_unless_damaged(facts, paths);
  if (!found) {
    return;
  }
  if (found->installed || found->incomplete) {
    facts.status = found->to_json();
    facts.state = found->installed ? FolderFacts::State::installed : FolderFacts::State::interrupted;
    return;
  }
  if (manifests != nullptr) {
    require_install_place(paths, package, manifests->bootstrap, manifests->launcher);
  }
  require_install_state(paths, missing, false);
  facts.state = FolderFacts::State::free;
  if (manifests != nullptr) {
    facts.room = install_room(paths.root, manifests->bootstrap, manifests->launcher);
  }
}

}  // namespace

FolderFacts inspect_folder(std::string_view text, const std::filesystem::path& package,
                           const PackageManifests* manifests) {
  FolderFacts facts;
  facts.asked = text;
  try {
    judge(facts, package, manifests);
  } catch (const std::exception& problem) {
    facts.state = FolderFacts::State::refused;
    facts.problem = problem.what();
  }
  return facts;
}

}  // namespace ravok
