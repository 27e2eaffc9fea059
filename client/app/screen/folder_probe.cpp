#include "app/screen/folder_probe.hpp"

#include <exception>

#include "app/install/data_folder.hpp"
#include "app/install/installation_record.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/status.hpp"

namespace ravok {
namespace {

void judge(FolderFacts& facts, const std::filesystem::path& package, const PackageManifests* manifests) {
  const DataPaths paths(data_folder(path_from_utf8(facts.asked)));
  facts.root = paths.root;
  const bool missing = is_missing(paths.root);
  const NativeInstallStatus found = missing ? NativeInstallStatus() : installation_status(paths);
  if (found.installed || found.incomplete) {
    facts.status = found.to_json();
    facts.state = found.installed ? FolderFacts::State::installed : FolderFacts::State::interrupted;
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
