#include "domain/game_manifest.hpp"

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <set>
#include <string_view>
#include <utility>

#include "domain/display_text.hpp"
#include "domain/identifier.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::string_view invalid_game = "invalid_manifest";
constexpr std::string_view malformed_game = "Game manifest has missing or malformed fields";
constexpr std::size_t maximum_display_name_bytes = 200;
constexpr std::size_t maximum_notes_bytes = 16'384;
constexpr std::size_t maximum_decoder_bytes = 80;
constexpr std::size_t maximum_patches = 8;
constexpr std::uint64_t maximum_patch_bytes = std::uint64_t{1} << 42;

// The encrypted form: a header of fixed size, and a tag after each chunk.
constexpr std::string_view chunked_format = "ravok-chacha20-poly1305-v1";
constexpr std::uint64_t encrypted_header_bytes = 96;
constexpr std::uint64_t chunk_bytes = 65'536;
constexpr std::uint64_t chunk_tag_bytes = 16;
constexpr std::uint64_t key_bytes = 32;
constexpr std::uint64_t minimum_encrypted_bytes = encrypted_header_bytes + 1;

constexpr std::uint64_t encrypted_length(std::uint64_t plain) {
  return plain + (plain / chunk_bytes + (plain % chunk_bytes != 0 ? 1 : 0)) * chunk_tag_bytes + encrypted_header_bytes;
}

constexpr std::uint64_t maximum_encrypted_bytes = encrypted_length(std::uint64_t{1} << 42);

void require_game_schema(const Json& document) {
  constexpr const char* unsupported = "Unsupported game manifest schema; nothing was rewritten";
  require(document.is_object(), "unsupported_schema", unsupported);
  require(is_integer(document.at("schema_version"), 1), "unsupported_schema", unsupported);
  require(is_integer(document.at("minimum_launcher"), 1), "launcher_incompatible",
          "This build needs a different launcher protocol");
}

void read_identity(GameManifest& manifest) {
  const Json& document = manifest.raw;
  manifest.game_id = text_at(document, "game_id");
  validate_identifier(manifest.game_id);
  manifest.display_name = text_at(document, "display_name");
  require(!manifest.display_name.empty() && manifest.display_name.size() <= maximum_display_name_bytes, invalid_game,
          "Game display name is missing or too long");
}

void read_presentation(GameManifest& manifest) {
  manifest.presentation.display_name = manifest.display_name;
  if (!manifest.raw.contains("presentation")) {
    return;
  }
  const Json& presentation = manifest.raw.at("presentation");
  require(presentation.is_object(), "invalid_presentation", "Game presentation must be an object");
  manifest.presentation = GamePresentation::parse(manifest.display_name, presentation);
}

void read_release_notes(GameManifest& manifest) {
  if (!manifest.raw.contains("release_notes")) {
    return;
  }
  manifest.release_notes = text_at(manifest.raw, "release_notes");
  require(manifest.release_notes.size() <= maximum_notes_bytes, invalid_game, "Release notes exceed 16 KiB");
  require(is_displayable(manifest.release_notes, true), invalid_game,
          "Release notes contain unsupported control characters");
}

void read_sdk(GameManifest& manifest) {
  if (!manifest.raw.contains("sdk")) {
    return;
  }
  const Json& sdk = manifest.raw.at("sdk");
  require(sdk.is_object() && sdk.contains("required") && sdk.at("required").is_boolean(), invalid_game,
          "SDK capability must be explicit");
  manifest.sdk_required = sdk.at("required").get<bool>();
  if (manifest.sdk_required) {
    require(is_integer(sdk.at("abi_version"), 1), "sdk_incompatible", "Game needs an unsupported SDK ABI");
    manifest.sdk_abi_version = 1;
  }
}

// Reads the three fields that describe a file of the repository.
ArtifactDescriptor read_descriptor(const Json& document) {
  ArtifactDescriptor descriptor;
  descriptor.target = text_at(document, "target");
  validate_relative_path(descriptor.target, true);
  descriptor.length = size_value(document.at("length"));
  descriptor.sha256 = sha256(document.at("sha256"));
  return descriptor;
}

ArtifactDescriptor read_exact_descriptor(const Json& document) {
  require(has_exactly(document, {"target", "length", "sha256"}), invalid_game,
          "Unknown encrypted artifact/key descriptor field");
  return read_descriptor(document);
}

// Whether all three differ.
bool all_differ(const std::string& first, const std::string& second, const std::string& third) {
  return first != second && first != third && second != third;
}

void read_encrypted(GameManifest& manifest) {
  if (!manifest.raw.contains("encrypted")) {
    return;
  }
  const Json& document = manifest.raw.at("encrypted");
  require(has_exactly(document, {"format", "artifact", "key"}), invalid_game, "Unknown encrypted archive field");
  EncryptedArchive archive;
  archive.format = text_at(document, "format");
  require(!archive.format.empty() && archive.format.size() <= maximum_decoder_bytes, invalid_game,
          "Invalid encrypted archive decoder name");
  archive.artifact = read_exact_descriptor(document.at("artifact"));
  archive.key = read_exact_descriptor(document.at("key"));
  require(all_differ(lower(archive.artifact.target), lower(archive.key.target), lower(manifest.target)) &&
              all_differ(archive.artifact.sha256, archive.key.sha256, manifest.archive_sha256),
          invalid_game, "Encrypted artifact/key aliases the full snapshot");
  require(archive.artifact.length >= minimum_encrypted_bytes && archive.artifact.length <= maximum_encrypted_bytes &&
              archive.key.length == key_bytes,
          invalid_game, "Encrypted archive/key exceeds its bound");
  require(archive.format != chunked_format || archive.artifact.length == encrypted_length(manifest.archive_length),
          invalid_game, "Encrypted archive length differs from its fixed authenticated chunks");
  manifest.encrypted = std::move(archive);
}

void require_patch_fields(const Json& document, std::initializer_list<std::string_view> keys) {
  for (const auto& [key, value] : document.get_ref<const Json::object_t&>()) {
    require(std::find(keys.begin(), keys.end(), key) != keys.end(), invalid_game, "Unknown direct patch field");
  }
  require(document.size() == keys.size(), invalid_game, "Missing direct patch field");
}

// Reads the patches one after the other, and remembers what no later patch may repeat.
class PatchReader {
 public:
  explicit PatchReader(const GameManifest& manifest)
      : build_ids_({manifest.build_id}), targets_({lower(manifest.target)}), digests_({manifest.archive_sha256}) {}

  DirectPatch read(const Json& document) {
    require_patch_fields(document, {"format", "source", "artifact"});
    const Json& source = document.at("source");
    require_patch_fields(source, {"format", "build_id", "target", "length", "sha256"});
    require_patch_fields(document.at("artifact"), {"target", "length", "sha256"});
    DirectPatch patch;
    patch.format = text_at(document, "format");
    validate_identifier(patch.format);
    require(text_at(source, "format") == "tar.zst-v1", invalid_game, "A direct patch must start from a full snapshot");
    patch.source_build_id = text_at(source, "build_id");
    validate_identifier(patch.source_build_id);
    require(build_ids_.insert(patch.source_build_id).second, invalid_game,
            "Direct patch repeats its source or targets its own build");
    patch.source = read_descriptor(source);
    patch.artifact = read_descriptor(document.at("artifact"));
    const std::string target = lower(patch.artifact.target);
    require(target != lower(patch.source.target) && targets_.insert(target).second &&
                digests_.insert(patch.artifact.sha256).second,
            invalid_game, "Direct patch artifacts repeat or alias a snapshot");
    require(is_bounded(patch.source) && is_bounded(patch.artifact), "size_limit",
            "Direct patch input exceeds its size bounds");
    return patch;
  }

 private:
  static bool is_bounded(const ArtifactDescriptor& file) {
    return file.length >= 1 && file.length <= maximum_patch_bytes;
  }

  std::set<std::string> build_ids_;
  std::set<std::string> targets_;
  std::set<std::string> digests_;
};

void read_patches(GameManifest& manifest) {
  if (!manifest.raw.contains("patches")) {
    return;
  }
  const Json& patches = manifest.raw.at("patches");
  require(patches.is_array() && patches.size() <= maximum_patches, invalid_game, "Direct patch list exceeds its bound");
  PatchReader reader(manifest);
  for (const Json& patch : patches) {
    manifest.patches.push_back(reader.read(patch));
  }
}

}  // namespace

GameManifest GameManifest::parse(const Json& document) {
  // Checked here too, so that a document that is refused is not copied first.
  refuse_malformed(invalid_game, malformed_game, [&] { require_game_schema(document); });
  return parse(Json(document));
}

GameManifest GameManifest::parse(Json&& document) {
  return refuse_malformed(invalid_game, malformed_game, [&] {
    require_game_schema(document);
    GameManifest manifest;
    static_cast<SnapshotManifest&>(manifest) = SnapshotManifest::parse(std::move(document));
    read_identity(manifest);
    read_presentation(manifest);
    read_release_notes(manifest);
    read_sdk(manifest);
    read_encrypted(manifest);
    read_patches(manifest);
    return manifest;
  });
}

}  // namespace ravok
