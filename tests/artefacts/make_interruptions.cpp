// What is left of setups, starts, updates and downloads that were broken off, and of installations of games.

#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "artefacts/artefact_builds.hpp"
#include "artefacts/artefact_maker.hpp"
#include "artefacts/kept_folder.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/game_manifest.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/snapshot/install_records.hpp"
#include "support/bytes_of.hpp"

namespace ravok::testing {
namespace {

// How often a cut is tried. Random names change the order in which a program goes through a folder.
constexpr int most_cut_tries = 20;

std::string told_calls(const FaultRun& run) {
  std::string text = run.result.errors;
  for (const FaultCall& call : run.calls) {
    text += "\n" + call.name + " " + call.path.native();
  }
  return text;
}

void write_text(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

}  // namespace

void ArtefactMaker::cut(const std::string& name, const std::string& from, const std::function<ProgramRun()>& run,
                        const Cut& place) const {
  const auto begin = [&] {
    std::filesystem::remove_all(artefact(name));
    return from.empty() ? new_artefact(name) : artefact_from(name, from);
  };
  const auto is_there = [&](const FaultCall& call) {
    const std::string path = call.path.native() + "$";
    return call.name.starts_with(place.function) && path.find(place.path_part) != std::string::npos;
  };
  const auto find = [&](const FaultRun& counted) {
    std::uint64_t met = 0;
    for (const FaultCall& call : counted.calls) {
      if (is_there(call) && ++met == place.nth) {
        return call.number;
      }
    }
    return std::uint64_t{0};
  };
  std::string last;
  for (int tries = 0; tries < most_cut_tries; ++tries) {
    begin();
    const FaultRun counted = run_with_fault(run(), artefact(name));
    const std::uint64_t number = find(counted);
    last = told_calls(counted);
    if (number == 0) {
      break;
    }
    begin();
    const FaultRun spoilt = run_with_fault(run(), artefact(name), number, place.mode);
    if (find(spoilt) == number && (spoilt.result.signal != 0) == ends_process(place.mode)) {
      return;
    }
  }
  throw std::runtime_error("Cannot cut " + name + " at " + place.function + " of " + place.path_part + "\n" + last);
}

void ArtefactMaker::make_interrupted_setups() const {
  const auto setup_of = [this](const std::string& name, const std::string& package, const std::string& command) {
    return [this, name, package, command] { return setup(name, package, command); };
  };
  // A first install whose commit has moved the bootstrap and not the launcher.
  cut("data-install-cut", "", setup_of("data-install-cut", "package-branded", "install"),
      {"renameat", "staging/launcher-root/launcher$"});
  // A repair of everything that has prepared all and changed nothing.
  cut("data-repair-prepared", "data-damaged", setup_of("data-repair-prepared", "package-plain", "repair"),
      {"renameat", ".ravok-setup-incomplete"});
  // A repair of a branded client of which everything but the theme is new, and nothing of the old is removed yet.
  artefact_from("data-branded-damaged", "data-branded");
  const DataPaths damaged(data("data-branded-damaged"));
  write_text(damaged.bootstrap_directory / "bin/ravok-bootstrap", "damaged");
  write_text(damaged.trusted_root, "damaged");
  const std::string version = std::filesystem::directory_iterator(LauncherPaths(damaged.launcher).versions)->path();
  write_text(version + "/bin/ravok", "damaged");
  cut("data-repair-cut", "data-branded-damaged", setup_of("data-repair-cut", "package-branded", "repair"),
      {"renameat", "native/staging/theme$"});
  std::filesystem::remove_all(artefact("data-branded-damaged"));
  // A removal that has begun.
  cut("data-uninstall-cut", "data-branded", [this] { return maintenance("data-uninstall-cut", {"uninstall"}); },
      {"unlinkat", "data/launcher/"});
}

void ArtefactMaker::make_interrupted_updates() const {
  const std::string repository = artefact("repository") / "repository";
  const auto step_of = [this](const std::string& action, const std::string& name, const Arguments& more = {}) {
    Arguments arguments = {action, data(name)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return [this, arguments] { return step(arguments); };
  };
  // A bootstrap that died while it tried a version out.
  artefact_from("data-attempt-cut", "data-waiting");
  run(step({"try-and-die", data("data-attempt-cut")}));

  // A download that broke off, with its partial file.
  artefact_from("data-download-cut", "data-updated");
  run(step({"stage", data("data-download-cut"), repository, "512"}), 1);
  // A staging that was killed before its version had its name.
  cut("data-staging-cut", "data-updated", step_of("stage", "data-staging-cut", {repository}),
      {"renameat", "launcher/staging/"});
  // A clean-up that was killed while it removed a version.
  artefact_from("data-cleanable", "data-updated");
  run(step({"stage", data("data-cleanable"), repository}));
  run(step({"try", data("data-cleanable")}));
  cut("data-cleanup-cut", "data-cleanable", step_of("clean", "data-cleanup-cut"), {"unlinkat", "/data/note"});
  std::filesystem::remove_all(artefact("data-cleanable"));
  // A client that was killed between a root with other keys and what that root makes it forget.
  cut("data-trust-cut", "data-updated", step_of("refresh", "data-trust-cut", {repository}),
      {"unlinkat", "trust/timestamp.json"});

  // Updates of the bootstrap, at every stage.
  cut("data-bootstrap-unpacked", "data-updated", step_of("bootstrap", "data-bootstrap-unpacked", {repository}),
      {"renameat", "native/bootstrap-update.partial"});
  artefact_from("data-bootstrap-pending", "data-updated");
  run(step({"bootstrap", data("data-bootstrap-pending"), repository}));
  cut("data-bootstrap-half", "data-bootstrap-pending", step_of("apply", "data-bootstrap-half"),
      {"renameat", "native/bootstrap-update/", 2});
  cut("data-bootstrap-old-files", "data-bootstrap-pending", step_of("apply", "data-bootstrap-old-files"),
      {"unlinkat", ".old", 1, FaultMode::eio});
}

void ArtefactMaker::make_games() const {
  // An installed game, as the records of a launcher name it.
  artefact_from("data-game", "data-updated");
  const std::string text = bytes_of(make_game("game-1"));
  const GameManifest game = GameManifest::parse(Json::parse(text));
  const std::string sha256 = digest(game.raw.dump(), "sha256");
  const GamePaths paths(game.game_id);
  const std::filesystem::path root = data("data-game");
  for (const char* const folder : {"", "/versions", "/verified-manifests"}) {
    private_directory(root / (paths.folder + folder));
  }
  std::filesystem::copy(artefact("snapshots") / "game/tree", root / paths.version("1.0"),
                        std::filesystem::copy_options::recursive);
  write_text(root / paths.manifest(sha256), game.raw.dump());
  write_text(root / paths.record, Json({{"schema_version", 1},
                                        {"game_id", game.game_id},
                                        {"installed", true},
                                        {"active", {{"version", "1.0"}, {"manifest_ref", sha256}}}})
                                      .dump());

  // Games on their way: reserved, and ready to be activated.
  const std::filesystem::path place = new_artefact("game-install");
  write_text(place / "manifest.json", text);
  const Json reference = {{"version", "1.0"},
                          {"build_id", game.build_id},
                          {"manifest_ref", sha256},
                          {"manifest_target", "games/first-game/linux-x86_64.manifest.json"}};
  private_directory(place / "versions");
  private_directory(place / "staging");
  Json preparation = make_install_preparation(game, reference, place / "versions");
  write_text(place / "unrecorded.json", preparation.dump());
  const ReservedTree tree(game, place / "staging/1.0", {}, [&](const DirectoryIdentity& identity) {
    record_install_preparation(preparation, identity);
    write_text(place / "prepared.json", preparation.dump());
  });
  write_text(place / "ready.json", make_install_ready(game, preparation, tree.root(), tree).dump());

  // A game of another store, and what games say of themselves.
  const std::filesystem::path platform = new_artefact("platformed-game");
  write_text(platform / "ravok-platform.json", Json({{"schema_version", 1},
                                                     {"game_id", "first-game"},
                                                     {"name", "The First Game"},
                                                     {"build", "game-1"},
                                                     {"channel", "stable"},
                                                     {"executable", "bin/game"},
                                                     {"crash_service", "https://crashes.example.com"},
                                                     {"ca_bundle", "ca.pem"}})
                                                   .dump());
  const std::filesystem::path sessions = new_artefact("sdk-sessions");
  Json session = {{"schema_version", 1},     {"session_id", "session-1"}, {"nonce", "nonce-1"},
                  {"game_id", game.game_id}, {"build_id", game.build_id}, {"pid", 4321U},
                  {"sequence", 1U},          {"ready_seen", false},       {"state", "starting"}};
  write_text(sessions / "starting.json", session.dump());
  session.update({{"sequence", 2U},
                  {"ready_seen", true},
                  {"state", "ready"},
                  {"breadcrumbs", {{{"category", "level"}, {"message", "entered the first level"}}}},
                  {"attachments", {{{"kind", "log"}, {"path", "logs/game.log"}}}}});
  write_text(sessions / "ready.json", session.dump());
  session.update({{"sequence", 3U},
                  {"state", "clean_exit"},
                  {"exit_code", 0},
                  {"native_capture_id", std::string(32, 'c')},
                  {"native_capture_problem", "none was taken"}});
  write_text(sessions / "clean_exit.json", session.dump());
}

}  // namespace ravok::testing
