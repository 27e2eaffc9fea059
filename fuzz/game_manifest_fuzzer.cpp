// A game's manifest that is accepted keeps every bound, which a second, naive check confirms, and is accepted again,
// unchanged, when it is written out.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "domain/error.hpp"
#include "domain/game_manifest.hpp"
#include "domain/identifier.hpp"
#include "domain/paths.hpp"
#include "property.hpp"

namespace {

using ravok::fuzz::must_hold;

constexpr std::uint64_t four_tebibytes = std::uint64_t{1} << 42;

std::string folded(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return text;
}

void check_text(const std::string& text, std::size_t limit, std::string_view allowed_controls) {
  must_hold(text.size() <= limit, "a text keeps its bound");
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    must_hold((byte >= 32 || allowed_controls.find(text[i]) != std::string_view::npos) && byte != 127,
              "a text has no control character of one byte");
    must_hold(i == 0 || text[i - 1] != '\xc2' || byte >= 0xa0, "a text has no control character of two bytes");
  }
}

void check(const ravok::GamePresentation& presentation) {
  check_text(presentation.tagline, 200, "");
  check_text(presentation.description, 4096, "\t\n\r");
  check_text(presentation.monogram, 16, "");
  if (presentation.artwork) {
    const ravok::GameArtwork& artwork = *presentation.artwork;
    must_hold(artwork.width >= 1 && artwork.width <= 128 && artwork.height >= 1 && artwork.height <= 128,
              "a picture is small");
    must_hold(artwork.bitmap.size() == 54 + (artwork.width * 3 + 3) / 4 * 4 * artwork.height,
              "a picture has its pixels and no more");
    check_text(artwork.alternative_text, 200, "");
    must_hold(!artwork.alternative_text.empty(), "a picture is described");
  }
  const ravok::Json summary = presentation.summary();
  must_hold(!summary.contains("artwork") || !summary.at("artwork").contains("bmp_hex"), "a summary has no pixels");
}

void check(const ravok::ArtifactDescriptor& file, std::uint64_t limit) {
  ravok::validate_relative_path(file.target, true);
  must_hold(file.length >= 1 && file.length <= limit, "a file is bounded");
  must_hold(file.sha256.size() == 64, "a file has a digest");
}

void check_encrypted(const ravok::GameManifest& manifest) {
  const ravok::EncryptedArchive& encrypted = manifest.encrypted.value();
  check(encrypted.artifact, four_tebibytes + four_tebibytes / 4096 + 96);
  check(encrypted.key, 32);
  must_hold(encrypted.artifact.length > 96 && encrypted.key.length == 32, "a key has its length");
  must_hold(!encrypted.format.empty() && encrypted.format.size() <= 80, "a decoder has a name");
  const std::set<std::string> targets = {folded(encrypted.artifact.target), folded(encrypted.key.target),
                                         folded(manifest.target)};
  const std::set<std::string> digests = {encrypted.artifact.sha256, encrypted.key.sha256, manifest.archive_sha256};
  must_hold(targets.size() == 3 && digests.size() == 3, "the encrypted archive is another file");
  if (encrypted.format == "ravok-chacha20-poly1305-v1") {
    const std::uint64_t chunks = (manifest.archive_length + 65535) / 65536;
    must_hold(encrypted.artifact.length == manifest.archive_length + 16 * chunks + 96, "every chunk has its tag");
  }
}

void check_patches(const ravok::GameManifest& manifest) {
  must_hold(manifest.patches.size() <= 8, "the patches are counted");
  std::set<std::string> builds = {manifest.build_id};
  std::set<std::string> targets = {folded(manifest.target)};
  std::set<std::string> digests = {manifest.archive_sha256};
  for (const ravok::DirectPatch& patch : manifest.patches) {
    ravok::validate_identifier(patch.format);
    ravok::validate_identifier(patch.source_build_id);
    check(patch.source, four_tebibytes);
    check(patch.artifact, four_tebibytes);
    must_hold(builds.insert(patch.source_build_id).second, "no build is patched twice");
    must_hold(targets.insert(folded(patch.artifact.target)).second &&
                  folded(patch.artifact.target) != folded(patch.source.target),
              "no patch is another file");
    must_hold(digests.insert(patch.artifact.sha256).second, "no patch is another file's content");
  }
}

void check(const ravok::GameManifest& manifest) {
  ravok::validate_identifier(manifest.game_id);
  must_hold(!manifest.display_name.empty() && manifest.display_name.size() <= 200, "a game has a name");
  must_hold(manifest.presentation.display_name == manifest.display_name, "the name is shown");
  check(manifest.presentation);
  check_text(manifest.release_notes, 16384, "\t\n\r");
  must_hold(manifest.sdk_abi_version == (manifest.sdk_required ? 1 : 0), "an SDK that is required is known");
  if (manifest.encrypted) {
    check_encrypted(manifest);
  }
  check_patches(manifest);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const ravok::GameManifest manifest = ravok::GameManifest::parse(ravok::parse_json(text, 1 << 20));
    try {
      check(manifest);
      const std::string written = manifest.raw.dump();
      const ravok::GameManifest again = ravok::GameManifest::parse(ravok::parse_json(written, written.size()));
      must_hold(again.raw == manifest.raw && again.presentation.summary() == manifest.presentation.summary() &&
                    again.encrypted.has_value() == manifest.encrypted.has_value() &&
                    again.patches.size() == manifest.patches.size(),
                "it reads the same again");
    } catch (const ravok::Error& refusal) {
      must_hold(false, refusal.what());
    }
  } catch (const ravok::Error&) {
    // A refusal; every other exception is a defect and ends the run.
  }
  return 0;
}
