// A small program that unpacks and installs a snapshot as the client does, and that knows what an earlier run of it
// may have left behind. A refusal is printed as "CODE: MESSAGE" and ends it with code 1.
//
//   sample_snapshot unpack MANIFEST ARCHIVE STAGING  removes what is at STAGING and unpacks the archive there
//   sample_snapshot install MANIFEST ARCHIVE HOME    prepares the build in HOME/staging, with HOME/preparation.json;
//                                                    at the end HOME/ready.json says that it is complete
//   sample_snapshot abandon MANIFEST HOME            removes what both records bind, and then the records

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "domain/crypto.hpp"
#include "domain/game_manifest.hpp"
#include "domain/json.hpp"
#include "platform/file/directory_identity.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "platform/file/tree.hpp"
#include "platform/snapshot/install_records.hpp"
#include "platform/snapshot/reserved_tree.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "sample_main.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t manifest_limit = 1 << 20;
constexpr std::uint64_t record_limit = 16'384;

GameManifest read_manifest(const std::filesystem::path& path) {
  return GameManifest::parse(parse_json(read_file(path, manifest_limit), manifest_limit));
}

Json read_record(const std::filesystem::path& path) { return parse_json(read_file(path, record_limit), record_limit); }

void remove_record(const std::filesystem::path& path) {
  std::filesystem::remove(path);
  sync_directory(path.parent_path());
}

// Where the parts of an installation are.
struct Home {
  explicit Home(const std::filesystem::path& home)
      : preparation(home / "preparation.json"),
        ready(home / "ready.json"),
        staging(home / "staging"),
        versions(home / "versions"),
        destination(versions / "1.0") {}

  std::filesystem::path preparation;
  std::filesystem::path ready;
  std::filesystem::path staging;
  std::filesystem::path versions;
  std::filesystem::path destination;
};

void clean_up_preparation(const GameManifest& game, const Home& home) {
  if (!is_missing(home.preparation)) {
    cleanup_prepared_install(game, read_record(home.preparation), home.staging, home.destination);
  }
}

void unpack(const GameManifest& game, const std::filesystem::path& archive, const std::filesystem::path& staging) {
  remove_plain_tree(staging);
  extract_snapshot(game, archive, staging, {}, nullptr);
}

void install(const GameManifest& game, const std::filesystem::path& archive, const Home& home) {
  if (!is_missing(home.ready)) {
    validate_install_ready(read_record(home.ready));
    return;
  }
  clean_up_preparation(game, home);
  Json preparation = make_install_preparation(game,
                                              {{"version", "1.0"},
                                               {"build_id", game.build_id},
                                               {"manifest_ref", digest(game.raw.dump(), "sha256")},
                                               {"manifest_target", "games/game/build-1.json"}},
                                              home.versions);
  atomic_write(home.preparation, preparation.dump());
  const ReservedTree tree(game, home.staging, {}, [&](const DirectoryIdentity& identity) {
    record_install_preparation(preparation, identity);
    atomic_write(home.preparation, preparation.dump());
  });
  extract_snapshot(game, archive, home.staging, {}, &tree);
  atomic_write(home.ready, make_install_ready(game, preparation, home.staging, tree).dump());
}

void abandon(const GameManifest& game, const Home& home) {
  // The record of readiness binds the directory of the preparation too; either of the two may be activated.
  if (!is_missing(home.ready)) {
    if (!is_missing(home.staging) || !is_missing(home.destination)) {
      cleanup_ready_install(game, read_record(home.ready), home.staging, home.destination, true);
    }
    remove_record(home.ready);
  }
  clean_up_preparation(game, home);
  remove_record(home.preparation);
}

int run(const std::vector<std::string>& arguments) {
  const std::string action = arguments.empty() ? "" : arguments[0];
  if (action == "unpack" && arguments.size() == 4) {
    unpack(read_manifest(arguments[1]), arguments[2], arguments[3]);
  } else if (action == "install" && arguments.size() == 4) {
    install(read_manifest(arguments[1]), arguments[2], Home(arguments[3]));
  } else if (action == "abandon" && arguments.size() == 3) {
    abandon(read_manifest(arguments[1]), Home(arguments[2]));
  } else {
    return 64;
  }
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
