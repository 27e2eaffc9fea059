// The player's side of the artefacts: data folders as installs, repairs, starts and updates leave them.

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "artefacts/artefact_builds.hpp"
#include "artefacts/artefact_maker.hpp"
#include "artefacts/kept_client.hpp"
#include "artefacts/kept_folder.hpp"
#include "domain/data_layout.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/process/native_platform.hpp"
#include "support/bytes_of.hpp"

namespace ravok::testing {
namespace {

void write_private(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
  std::filesystem::permissions(path, std::filesystem::perms(0600));
}

void damage(const std::filesystem::path& path) {
  const std::string bytes = bytes_of(path);
  std::ofstream(path, std::ios::binary) << std::string(bytes.size(), 'x');
}

}  // namespace

ProgramRun ArtefactMaker::setup(const std::string& name, const std::string& package, const std::string& command) const {
  const std::filesystem::path installer = work_ / ("installer-of-" + package);
  if (!std::filesystem::exists(installer)) {
    publish({"installer", artefact(package) / "package", installer, "--program", RAVOK_INSTALL});
  }
  return {installer / "ravok-install",
          {command, "--data-dir", data(name), "--json"},
          {{"HOME", artefact(name) / "home"}},
          ""};
}

ProgramRun ArtefactMaker::maintenance(const std::string& name, Arguments arguments) const {
  arguments.insert(arguments.end(), {"--data-dir", data(name), "--json"});
  return {RAVOK_MAINTENANCE, std::move(arguments), {{"HOME", artefact(name) / "home"}}, ""};
}

ProgramRun ArtefactMaker::start(const std::string& name, const Arguments& arguments) const {
  Arguments all = {"--data-dir", data(name)};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return {RAVOK_BOOTSTRAP, all, {{"HOME", artefact(name) / "home"}, {"PATH", "/usr/bin:/bin"}}, ""};
}

void ArtefactMaker::write_player_data(const std::string& name) const {
  const std::filesystem::path folder = data(name);
  write_private(folder / "userdata/saves/first", std::string("save\0game", 9));
  write_private(folder / "settings.json", "{\"volume\": 7}");
  for (const char* const path : {"userdata", "userdata/saves"}) {
    std::filesystem::permissions(folder / path, std::filesystem::perms(0700));
  }
}

void ArtefactMaker::make_installations() const {
  // As an install leaves it, with its menu entry.
  new_artefact("data-fresh");
  run(setup("data-fresh", "package-plain", "install"));

  // The same over a player's earlier data, and out of a package with everything.
  new_artefact("data-branded");
  run(setup("data-branded", "package-branded", "install"));
  write_player_data("data-branded");

  // Where no menu entry could be made, which the record of the last setup tells.
  new_artefact("data-no-shortcut");
  write_private(artefact("data-no-shortcut") / "home/.local/share/applications", "no folder");
  run(setup("data-no-shortcut", "package-plain", "install"));

  // Menu entries of the client and of a game; the player has changed one and removed one.
  artefact_from("data-shortcuts", "data-fresh");
  run(maintenance("data-shortcuts", {"shortcut", "create", "--game", "first-game"}));
  run(maintenance("data-shortcuts", {"shortcut", "create", "--game", "second-game"}));
  run(maintenance("data-shortcuts", {"shortcut", "create", "--game", "third-game"}));
  const Json rows = Json::parse(bytes_of(DataPaths(data("data-shortcuts")).shortcut_ledger)).at("entries");
  for (const Json& row : rows) {
    if (row.at("game") == "second-game") {
      std::ofstream(row.at("path").get<std::string>(), std::ios::app) << "Comment=Mine\n";
    }
    if (row.at("game") == "third-game") {
      std::filesystem::remove(row.at("path").get<std::string>());
    }
  }

  // Damaged in all its parts; a repair has failed because the client was running.
  artefact_from("data-damaged", "data-fresh");
  write_player_data("data-damaged");
  const DataPaths damaged(data("data-damaged"));
  {
    const NativeFileLock running(damaged.bootstrap_lock, true, NativeLockSharing::others, LockMode::shared);
    run(setup("data-damaged", "package-plain", "repair"), 1);
  }
  damage(damaged.bootstrap_directory / "bin/ravok-bootstrap");
  damage(damaged.trusted_root);
  const std::string version = std::filesystem::directory_iterator(LauncherPaths(damaged.launcher).versions)->path();
  damage(version + "/bin/ravok");

  artefact_from("data-repaired", "data-damaged");
  run(setup("data-repaired", "package-plain", "repair"));

  artefact_from("data-uninstalled", "data-damaged");
  run(maintenance("data-uninstalled", {"uninstall"}));
}

void ArtefactMaker::make_updates() const {
  const std::string repository = artefact("repository") / "repository";
  artefact_from("data-updated", "data-fresh");
  write_player_data("data-updated");
  run(step({"try", data("data-updated")}));

  // An update that works, and one that does not.
  release({make_launcher("1.1.0", kept_launcher("1.1.0"))});
  run(step({"stage", data("data-updated"), repository}));
  run(step({"try", data("data-updated")}));
  release({make_launcher("1.2.0", kept_failing_launcher()), make_bootstrap("bootstrap-failing")});
  run(step({"stage", data("data-updated"), repository}));
  artefact_from("data-waiting", "data-updated");
  run(step({"try", data("data-updated")}));
  // A windowed start that has not opened.
  run(start("data-updated", {}));
  // A bootstrap that does not start.
  artefact_from("data-bootstrap-rejected", "data-updated");
  run(step({"bootstrap", data("data-bootstrap-rejected"), repository}));
  run(step({"apply", data("data-bootstrap-rejected")}));

  // While the root changes the key of the timestamp, on the side of the publisher.
  const std::filesystem::path place = artefact("repository");
  publish({"repository", "rotate", repository, "--role", "timestamp", "--add", place / "keys/timestamp-2.pub",
           "--remove", "timestamp", "--key", place / "keys/root", "--key", place / "keys/timestamp-2", "--key",
           place / "keys/snapshot", "--key", place / "keys/targets", "--passphrase-file", place / "passphrase"});
  // What waits for a signature that another key has to give.
  artefact_from("repository-draft", "repository");
  publish({"repository", "rotate", artefact("repository-draft") / "repository", "--role", "snapshot", "--add",
           place / "keys/timestamp.pub", "--threshold", "2", "--key", place / "keys/snapshot"});

  release({make_launcher("1.3.0", kept_launcher("1.3.0")), make_bootstrap("bootstrap-2"), make_game("game-1")});
  publish({"repository", "withdraw", repository, "--build", "1.3.0", "--key", place / "keys/targets", "--key",
           place / "keys/snapshot", "--key", place / "keys/timestamp-2"});
  release({make_launcher("1.4.0", kept_launcher("1.4.0"))});
}

}  // namespace ravok::testing
