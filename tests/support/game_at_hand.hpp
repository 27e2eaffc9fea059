// A game for the platform that the tests run on, as the records of its installation name it.
#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "domain/crypto.hpp"
#include "domain/game_manifest.hpp"
#include "domain/json.hpp"
#include "platform/file/directory_identity.hpp"
#include "platform/process/native_platform.hpp"
#include "platform/snapshot/install_records.hpp"
#include "support/manifest_builder.hpp"

namespace ravok::testing {

// Adds to the document of a snapshot the keys that make it one of a game for this platform.
inline Json as_game(Json document) {
  document.update(
      {{"platform", native_platform()}, {"minimum_launcher", 1}, {"game_id", "game"}, {"display_name", "The Game"}});
  return document;
}

// A game of these files and "bin/program" of 10 bytes.
inline GameManifest game_of(const std::vector<ManifestFile>& files) {
  return GameManifest::parse(as_game(manifest_document(files)));
}

// Returns the reference to the saved manifest of a game, as its version "1.0".
inline Json reference_to(const GameManifest& game) {
  return {{"version", "1.0"},
          {"build_id", game.build_id},
          {"manifest_ref", digest(game.raw.dump(), "sha256")},
          {"manifest_target", "games/game/build-1.json"}};
}

// The preparation of the game's installation into the versions folder, with its staging directory.
inline Json as_prepared(const GameManifest& game, const std::filesystem::path& versions,
                        const DirectoryIdentity& staging) {
  Json preparation = make_install_preparation(game, reference_to(game), versions);
  record_install_preparation(preparation, staging);
  return preparation;
}

}  // namespace ravok::testing
