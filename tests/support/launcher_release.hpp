// Publishes launcher releases of real programs for tests.
#pragma once

#include <filesystem>
#include <string>

#include "domain/json.hpp"
#include "platform/process/native_platform.hpp"
#include "publisher/publish_snapshot.hpp"
#include "support/bytes_of.hpp"
#include "support/package_builder.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing {

// The programs of a release, each by its whole content.
struct LauncherPrograms {
  std::string console = "#!ravok";            // bin/ravok
  std::string windowed = "#!ravok-gui";       // bin/ravok-gui
  std::string maintenance = "#!maintenance";  // bin/ravok-maintenance, the helper of that role; empty for none
  // bin/ravok-maintenance-gui, the helper of the role "maintenance-gui"; empty for none.
  std::string maintenance_window = {};
};

struct LauncherRelease {
  std::string manifest;
  std::filesystem::path archive;
};

// Publishes a release below the root. `note` tells releases of the same programs apart.
inline LauncherRelease publish_launcher(const TemporaryRoot& root, const std::string& build_id,
                                        const LauncherPrograms& programs, const std::string& note) {
  const std::string folder = "releases/" + note + "/";
  const auto write_program = [&](const std::string& name, const std::string& bytes) {
    std::filesystem::permissions(root.write(folder + "tree/bin/" + name, bytes), std::filesystem::perms(0755));
  };
  write_program("ravok", programs.console);
  write_program("ravok-gui", programs.windowed);
  root.write(folder + "tree/data/note", note);
  SnapshotPublication publication;
  publication.kind = SnapshotKind::launcher;
  publication.tree = root / (folder + "tree");
  publication.output = root.directory(folder + "output");
  publication.build_id = build_id;
  publication.platform = native_platform();
  publication.executable = "bin/ravok";
  publication.gui_executable = "bin/ravok-gui";
  if (!programs.maintenance.empty()) {
    write_program("ravok-maintenance", programs.maintenance);
    publication.helpers.push_back({"bin/ravok-maintenance", "maintenance"});
  }
  if (!programs.maintenance_window.empty()) {
    write_program("ravok-maintenance-gui", programs.maintenance_window);
    publication.helpers.push_back({"bin/ravok-maintenance-gui", "maintenance-gui"});
  }
  publication.level = 1;
  const PublishedSnapshot published = publish_snapshot(publication, {});
  return {bytes_of(published.manifest), published.archive};
}

// Publishes this program as a bootstrap and puts it into an initial package in place of the package's own.
inline void use_bootstrap(InitialPackage& package, const TemporaryRoot& root, const std::string& program) {
  std::filesystem::permissions(root.write("bootstrap/tree/bin/ravok-bootstrap", bytes_of(program)),
                               std::filesystem::perms(0755));
  SnapshotPublication publication;
  publication.kind = SnapshotKind::bootstrap;
  publication.tree = root / "bootstrap/tree";
  publication.output = root.directory("bootstrap/output");
  publication.build_id = "bootstrap-1";
  publication.platform = native_platform();
  publication.executable = "bin/ravok-bootstrap";
  publication.level = 1;
  const PublishedSnapshot published = publish_snapshot(publication, {});
  package.bootstrap = Json::parse(bytes_of(published.manifest));
  package.bootstrap_archive = bytes_of(published.archive);
}

// Puts a release into an initial package in place of the package's own.
inline void use_launcher(InitialPackage& package, const LauncherRelease& release) {
  package.launcher = Json::parse(release.manifest);
  package.launcher_archive = bytes_of(release.archive);
}

}  // namespace ravok::testing
