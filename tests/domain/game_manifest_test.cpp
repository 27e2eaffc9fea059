#include "domain/game_manifest.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/manifest_builder.hpp"

namespace ravok::game_manifest_test {
namespace {

using testing::manifest_document;

constexpr std::uint64_t four_tebibytes = std::uint64_t{1} << 42;
constexpr const char* known_decoder = "ravok-chacha20-poly1305-v1";

constexpr const char* malformed = "Game manifest has missing or malformed fields";
constexpr const char* bad_name = "Game display name is missing or too long";
constexpr const char* notes_too_long = "Release notes exceed 16 KiB";
constexpr const char* notes_controls = "Release notes contain unsupported control characters";
constexpr const char* sdk_implicit = "SDK capability must be explicit";
constexpr const char* sdk_unsupported = "Game needs an unsupported SDK ABI";
constexpr const char* encrypted_field = "Unknown encrypted archive field";
constexpr const char* decoder_name = "Invalid encrypted archive decoder name";
constexpr const char* descriptor_field = "Unknown encrypted artifact/key descriptor field";
constexpr const char* encrypted_alias = "Encrypted artifact/key aliases the full snapshot";
constexpr const char* encrypted_bound = "Encrypted archive/key exceeds its bound";
constexpr const char* encrypted_chunks = "Encrypted archive length differs from its fixed authenticated chunks";
constexpr const char* patch_count = "Direct patch list exceeds its bound";
constexpr const char* patch_unknown = "Unknown direct patch field";
constexpr const char* patch_missing = "Missing direct patch field";
constexpr const char* patch_start = "A direct patch must start from a full snapshot";
constexpr const char* patch_source = "Direct patch repeats its source or targets its own build";
constexpr const char* patch_alias = "Direct patch artifacts repeat or alias a snapshot";
constexpr const char* patch_bound = "Direct patch input exceeds its size bounds";
constexpr const char* bad_identifier = "Game and build IDs use lower-case letters, digits, dots and hyphens";
constexpr const char* unsafe_component = "Path contains an unsafe component";
constexpr const char* not_portable = "Path is not portable across supported platforms";
constexpr const char* bad_length = "Manifest length must be a non-negative integer";
constexpr const char* bad_digest = "Manifest needs a lower-case SHA-256 digest";

Json descriptor(const std::string& target, std::uint64_t length, char digit) {
  return {{"target", target}, {"length", length}, {"sha256", std::string(64, digit)}};
}

// The archive of the plain document has 100 bytes, and its digest is all "b".
Json encrypted_member() {
  return {{"format", known_decoder},
          {"artifact", descriptor("builds/build-1.encrypted", 100 + 16 + 96, 'c')},
          {"key", descriptor("builds/build-1.key", 32, 'd')}};
}

// Patches of different numbers share nothing.
Json patch(int number) {
  const std::string name = "build-old-" + std::to_string(number);
  Json source = descriptor("builds/" + name + ".tar.zst", 90, 'e');
  source["format"] = "tar.zst-v1";
  source["build_id"] = name;
  return {{"format", "zstd-patch-v1"},
          {"source", source},
          {"artifact", descriptor("patches/" + name, 20, static_cast<char>('0' + number))}};
}

Json patches(int count) {
  Json list = Json::array();
  for (int number = 0; number < count; ++number) {
    list.push_back(patch(number));
  }
  return list;
}

Json plain_document() {
  Json document = manifest_document();
  document["minimum_launcher"] = 1;
  document["game_id"] = "some-game";
  document["display_name"] = "Some Game";
  return document;
}

Json full_document() {
  Json document = plain_document();
  document["presentation"] = {{"tagline", "Play it"}, {"monogram", "SG"}};
  document["release_notes"] = "First\nrelease";
  document["sdk"] = {{"required", true}, {"abi_version", 1}};
  document["encrypted"] = encrypted_member();
  document["patches"] = patches(2);
  return document;
}

Json with(const std::string& pointer, const Json& value) {
  Json document = full_document();
  document[Json::json_pointer(pointer)] = value;
  return document;
}

Json without(const std::string& object, const std::string& key) {
  Json document = full_document();
  document[Json::json_pointer(object)].erase(key);
  return document;
}

GameManifest parsed(const std::string& pointer, const Json& value) { return GameManifest::parse(with(pointer, value)); }

void refuses(const Json& document, const char* code, const char* message) {
  EXPECT_FAILURE(GameManifest::parse(document), code, message) << document.dump().substr(0, 2000);
}

void refuses_at(const std::string& pointer, const Json& value, const char* code, const char* message) {
  EXPECT_FAILURE(parsed(pointer, value), code, message) << pointer << ": " << value.dump().substr(0, 500);
}

void refuses_at(const std::string& pointer, const Json& value, const char* message) {
  refuses_at(pointer, value, "invalid_manifest", message);
}

TEST(GameManifest, KeepsEveryField) {
  const GameManifest manifest = GameManifest::parse(full_document());
  EXPECT_EQ(manifest.build_id, "build-1");
  EXPECT_EQ(manifest.files.size(), 1u);
  EXPECT_EQ(manifest.game_id, "some-game");
  EXPECT_EQ(manifest.display_name, "Some Game");
  EXPECT_EQ(manifest.presentation.display_name, "Some Game");
  EXPECT_EQ(manifest.presentation.tagline, "Play it");
  EXPECT_EQ(manifest.presentation.monogram, "SG");
  EXPECT_EQ(manifest.release_notes, "First\nrelease");
  EXPECT_TRUE(manifest.sdk_required);
  EXPECT_EQ(manifest.sdk_abi_version, 1u);
}

TEST(GameManifest, KeepsTheEncryptedArchive) {
  const EncryptedArchive encrypted = GameManifest::parse(full_document()).encrypted.value();
  EXPECT_EQ(encrypted.format, known_decoder);
  EXPECT_EQ(encrypted.artifact.target, "builds/build-1.encrypted");
  EXPECT_EQ(encrypted.artifact.length, 212u);
  EXPECT_EQ(encrypted.artifact.sha256, std::string(64, 'c'));
  EXPECT_EQ(encrypted.key.target, "builds/build-1.key");
  EXPECT_EQ(encrypted.key.length, 32u);
  EXPECT_EQ(encrypted.key.sha256, std::string(64, 'd'));
}

TEST(GameManifest, KeepsEveryPatchInItsPlace) {
  const GameManifest manifest = GameManifest::parse(full_document());
  ASSERT_EQ(manifest.patches.size(), 2u);
  EXPECT_EQ(manifest.patches[0].source_build_id, "build-old-0");
  const DirectPatch& second = manifest.patches[1];
  EXPECT_EQ(second.format, "zstd-patch-v1");
  EXPECT_EQ(second.source_build_id, "build-old-1");
  EXPECT_EQ(second.source.target, "builds/build-old-1.tar.zst");
  EXPECT_EQ(second.source.length, 90u);
  EXPECT_EQ(second.source.sha256, std::string(64, 'e'));
  EXPECT_EQ(second.artifact.target, "patches/build-old-1");
  EXPECT_EQ(second.artifact.length, 20u);
  EXPECT_EQ(second.artifact.sha256, std::string(64, '1'));
}

TEST(GameManifest, DoesWithoutWhatIsOptional) {
  const GameManifest manifest = GameManifest::parse(plain_document());
  EXPECT_EQ(manifest.presentation.display_name, "Some Game");
  EXPECT_EQ(manifest.presentation.tagline, "");
  EXPECT_FALSE(manifest.presentation.artwork);
  EXPECT_EQ(manifest.release_notes, "");
  EXPECT_FALSE(manifest.sdk_required);
  EXPECT_FALSE(manifest.encrypted);
  EXPECT_TRUE(manifest.patches.empty());
}

TEST(GameManifest, IgnoresUnknownKeysAndKeepsThem) {
  const Json document = with("/extra", {{"x", 1.5}});
  EXPECT_EQ(GameManifest::parse(document).raw, document);
  EXPECT_EQ(GameManifest::parse(Json(document)).raw, document);
}

TEST(GameManifest, RefusesAlikeADocumentThatItMayKeep) {
  EXPECT_FAILURE(GameManifest::parse(Json(2)), "unsupported_schema",
                 "Unsupported game manifest schema; nothing was rewritten");
  EXPECT_FAILURE(GameManifest::parse(without("", "files")), "invalid_manifest",
                 "Snapshot manifest has missing or malformed fields");
  EXPECT_FAILURE(GameManifest::parse(without("", "game_id")), "invalid_manifest", malformed);
}

TEST(GameManifest, KnowsOneSchema) {
  constexpr const char* message = "Unsupported game manifest schema; nothing was rewritten";
  for (const Json& version : {Json(2), Json(0), Json("1"), Json(1.0), Json(nullptr), Json(true)}) {
    refuses_at("/schema_version", version, "unsupported_schema", message);
  }
  for (const Json& document : {Json::array(), Json(1), Json(nullptr), Json("x")}) {
    refuses(document, "unsupported_schema", message);
  }
}

TEST(GameManifest, KnowsOneLauncherProtocol) {
  for (const Json& version : {Json(2), Json(0), Json("1"), Json(1.0), Json(nullptr), Json(true)}) {
    refuses_at("/minimum_launcher", version, "launcher_incompatible", "This build needs a different launcher protocol");
  }
}

TEST(GameManifest, LooksAtNothingElseInADocumentForAnotherLauncher) {
  refuses({{"schema_version", 1}, {"minimum_launcher", 2}}, "launcher_incompatible",
          "This build needs a different launcher protocol");
}

TEST(GameManifest, NeedsEveryRequiredKey) {
  for (const char* key : {"schema_version", "minimum_launcher", "game_id", "display_name"}) {
    refuses(without("", key), "invalid_manifest", malformed);
  }
}

TEST(GameManifest, RefusesValuesOfAnotherType) {
  for (const char* key :
       {"/game_id", "/display_name", "/release_notes", "/encrypted/format", "/encrypted/artifact/target",
        "/encrypted/key/sha256", "/patches/0/format", "/patches/0/source/format", "/patches/0/source/build_id",
        "/patches/0/source/target", "/patches/0/artifact/target", "/patches/0/artifact/sha256"}) {
    refuses_at(key, 7, malformed);
  }
}

TEST(GameManifest, PassesOnWhatTheSnapshotRefuses) {
  refuses_at("/platform", "other", "Unknown snapshot platform");
  refuses_at("/archive/length", 0, "size_limit", "Snapshot exceeds archive size bounds");
  refuses_at("/files/0/path", "a\x80", "The v1 package profile requires ASCII file paths");
  refuses(without("", "files"), "invalid_manifest", "Snapshot manifest has missing or malformed fields");
}

TEST(GameManifest, NeedsAnIdentifierForItsGame) {
  refuses_at("/game_id", "Game", "invalid_identity", bad_identifier);
  refuses_at("/game_id", "con", "unsafe_path", "Path uses a reserved platform name");
}

TEST(GameManifest, BoundsTheDisplayName) {
  for (const std::size_t length : {1u, 200u}) {
    EXPECT_EQ(parsed("/display_name", std::string(length, 'n')).display_name, std::string(length, 'n'));
  }
  refuses_at("/display_name", "", bad_name);
  refuses_at("/display_name", std::string(201, 'n'), bad_name);
}

TEST(GameManifest, NeedsAnObjectForThePresentation) {
  for (const Json& value : {Json::array(), Json("x"), Json(nullptr), Json(1)}) {
    refuses_at("/presentation", value, "invalid_presentation", "Game presentation must be an object");
  }
}

TEST(GameManifest, ShowsTheDisplayNameWithAnEmptyPresentation) {
  EXPECT_EQ(parsed("/presentation", Json::object()).presentation.display_name, "Some Game");
}

TEST(GameManifest, PassesOnWhatThePresentationRefuses) {
  refuses_at("/presentation", {{"extra", 1}}, "invalid_presentation", "Unknown game presentation field");
  refuses_at("/display_name", "a\nb", "invalid_presentation",
             "Game presentation contains unsupported control characters");
}

TEST(GameManifest, BoundsTheReleaseNotes) {
  EXPECT_EQ(parsed("/release_notes", std::string(16384, 'n')).release_notes.size(), 16384u);
  EXPECT_EQ(parsed("/release_notes", "").release_notes, "");
  refuses_at("/release_notes", std::string(16385, 'n'), notes_too_long);
  refuses_at("/release_notes", std::string(16385, '\a'), notes_too_long);
}

TEST(GameManifest, RefusesControlCharactersInTheReleaseNotes) {
  for (const char* notes : {"a\tb\nc\r\n", "\xc2\xa0", "caf\xc3\xa9", " ~"}) {
    EXPECT_EQ(parsed("/release_notes", notes).release_notes, notes);
  }
  for (const char* notes : {"a\x07", "\x1f", "\x7f", "\xc2\x85", "\xc2\x80", "\xc2\x9f", "\x0b"}) {
    refuses_at("/release_notes", notes, notes_controls);
  }
  refuses_at("/release_notes", std::string(1, '\0'), notes_controls);
}

TEST(GameManifest, NeedsAnExplicitCapabilityOfTheSdk) {
  for (const Json& value : {Json::array(), Json(nullptr), Json(true), Json("x")}) {
    refuses_at("/sdk", value, sdk_implicit);
  }
  for (const Json& value : {Json(1), Json("true"), Json(nullptr)}) {
    refuses_at("/sdk/required", value, sdk_implicit);
  }
  refuses_at("/sdk", Json::object(), sdk_implicit);
}

TEST(GameManifest, KnowsOneVersionOfTheSdk) {
  for (const Json& version : {Json(2), Json(0), Json(1.0), Json("1"), Json(nullptr), Json(true)}) {
    refuses_at("/sdk/abi_version", version, "sdk_incompatible", sdk_unsupported);
  }
  refuses(without("/sdk", "abi_version"), "invalid_manifest", malformed);
}

TEST(GameManifest, TakesAnySdkThatIsNotRequired) {
  for (const Json& version : {Json(1), Json(2), Json("x"), Json(nullptr), Json(-1)}) {
    EXPECT_FALSE(parsed("/sdk", {{"required", false}, {"abi_version", version}}).sdk_required);
  }
  EXPECT_FALSE(parsed("/sdk", {{"required", false}}).sdk_required);
}

TEST(EncryptedArchive, HasExactlyItsKeys) {
  for (const char* key : {"format", "artifact", "key"}) {
    refuses(without("/encrypted", key), "invalid_manifest", encrypted_field);
  }
  Json renamed = encrypted_member();
  renamed.erase("key");
  renamed["Key"] = 1;
  for (const Json& value : {Json::array(), Json(nullptr), Json("x"), Json::object(), renamed}) {
    refuses_at("/encrypted", value, encrypted_field);
  }
  refuses_at("/encrypted/extra", 1, encrypted_field);
}

TEST(EncryptedArchive, BoundsTheNameOfItsDecoder) {
  for (const std::size_t length : {1u, 80u}) {
    EXPECT_EQ(parsed("/encrypted/format", std::string(length, 'f')).encrypted->format, std::string(length, 'f'));
  }
  refuses_at("/encrypted/format", "", decoder_name);
  refuses_at("/encrypted/format", std::string(81, 'f'), decoder_name);
}

TEST(EncryptedArchive, HasDescriptorsOfExactlyTheirKeys) {
  for (const std::string member : {"/encrypted/artifact", "/encrypted/key"}) {
    for (const char* key : {"target", "length", "sha256"}) {
      refuses(without(member, key), "invalid_manifest", descriptor_field);
    }
    for (const Json& value : {Json::array(), Json(nullptr), Json("x"), Json::object()}) {
      refuses_at(member, value, descriptor_field);
    }
    refuses_at(member + "/extra", 1, descriptor_field);
  }
}

TEST(EncryptedArchive, JudgesTheValuesOfItsDescriptors) {
  for (const std::string member : {"/encrypted/artifact", "/encrypted/key"}) {
    refuses_at(member + "/target", "../x", "unsafe_path", unsafe_component);
    refuses_at(member + "/target", "a?", "unsafe_path", not_portable);
    refuses_at(member + "/length", -1, bad_length);
    refuses_at(member + "/length", "1", bad_length);
    refuses_at(member + "/sha256", std::string(64, 'A'), bad_digest);
  }
}

TEST(EncryptedArchive, SharesNoPathWithTheSnapshotOrWithin) {
  for (const std::string member : {"/encrypted/artifact", "/encrypted/key"}) {
    refuses_at(member + "/target", "builds/build-1.tar.zst", encrypted_alias);
    refuses_at(member + "/target", "Builds/BUILD-1.tar.ZST", encrypted_alias);
  }
  refuses_at("/encrypted/key/target", "builds/build-1.encrypted", encrypted_alias);
  refuses_at("/encrypted/key/target", "BUILDS/build-1.Encrypted", encrypted_alias);
  refuses_at("/archive/target", "BUILDS/build-1.key", encrypted_alias);
}

TEST(EncryptedArchive, SharesNoDigestWithTheSnapshotOrWithin) {
  refuses_at("/encrypted/artifact/sha256", std::string(64, 'b'), encrypted_alias);
  refuses_at("/encrypted/key/sha256", std::string(64, 'b'), encrypted_alias);
  refuses_at("/encrypted/key/sha256", std::string(64, 'c'), encrypted_alias);
}

TEST(EncryptedArchive, BoundsItsLengths) {
  Json document = with("/encrypted/format", "some-other-v1");
  Json& length = document["encrypted"]["artifact"]["length"];
  for (const std::uint64_t accepted : {std::uint64_t{97}, std::uint64_t{4399120253024}}) {
    length = accepted;
    EXPECT_EQ(GameManifest::parse(document).encrypted->artifact.length, accepted);
  }
  for (const std::uint64_t refused :
       {std::uint64_t{0}, std::uint64_t{96}, std::uint64_t{4399120253025}, ~std::uint64_t{0}}) {
    length = refused;
    refuses(document, "invalid_manifest", encrypted_bound);
  }
}

TEST(EncryptedArchive, HasAKeyOf32Bytes) {
  for (const int length : {0, 31, 33}) {
    refuses_at("/encrypted/key/length", length, encrypted_bound);
  }
}

TEST(EncryptedArchive, IsAsLongAsItsChunksForTheKnownDecoder) {
  struct Sample {
    std::uint64_t archive;
    std::uint64_t artifact;
  };
  for (const auto& [archive, artifact] :
       {Sample{1, 1 + 16 + 96}, Sample{65535, 65535 + 16 + 96}, Sample{65536, 65536 + 16 + 96},
        Sample{65537, 65537 + 32 + 96}, Sample{131072, 131072 + 32 + 96}, Sample{131073, 131073 + 48 + 96},
        Sample{four_tebibytes, 4399120253024}}) {
    Json document = with("/archive/length", archive);
    Json& length = document["encrypted"]["artifact"]["length"];
    length = artifact;
    EXPECT_EQ(GameManifest::parse(document).encrypted->artifact.length, artifact) << archive;
    length = artifact - 1;
    refuses(document, "invalid_manifest", encrypted_chunks);
  }
  refuses_at("/encrypted/artifact/length", 213, encrypted_chunks);
}

TEST(EncryptedArchive, IsOfAnyLengthForAnotherDecoder) {
  Json document = with("/encrypted/format", "ravok-chacha20-poly1305-v2");
  document["encrypted"]["artifact"]["length"] = 1000;
  EXPECT_EQ(GameManifest::parse(document).encrypted->artifact.length, 1000u);
}

TEST(DirectPatches, AreAtMostEight) {
  EXPECT_EQ(parsed("/patches", patches(8)).patches.size(), 8u);
  EXPECT_TRUE(parsed("/patches", Json::array()).patches.empty());
  refuses_at("/patches", patches(9), patch_count);
  refuses_at("/patches", Json(std::vector<int>(9, 1)), patch_count);
  for (const Json& value : {Json::object(), Json(nullptr), Json("x"), Json(1)}) {
    refuses_at("/patches", value, patch_count);
  }
}

TEST(DirectPatches, AreObjectsOfObjects) {
  for (const char* object : {"/patches/1", "/patches/1/source", "/patches/1/artifact"}) {
    for (const Json& value : {Json::array(), Json(nullptr), Json("x"), Json(1)}) {
      refuses_at(object, value, malformed);
    }
  }
}

TEST(DirectPatches, HaveNoOtherKeys) {
  for (const char* key :
       {"/patches/1/extra", "/patches/1/source/extra", "/patches/1/artifact/extra", "/patches/1/artifact/format"}) {
    refuses_at(key, 1, patch_unknown);
  }
}

TEST(DirectPatches, HaveAllTheirKeys) {
  struct Sample {
    const char* object;
    std::vector<const char*> keys;
  };
  for (const auto& [object, keys] : {Sample{"/patches/1", {"format", "source", "artifact"}},
                                     Sample{"/patches/1/source", {"format", "build_id", "target", "length", "sha256"}},
                                     Sample{"/patches/1/artifact", {"target", "length", "sha256"}}}) {
    for (const char* key : keys) {
      refuses(without(object, key), "invalid_manifest", patch_missing);
    }
  }
}

TEST(DirectPatches, NeedAnIdentifierForTheirFormat) {
  refuses_at("/patches/0/format", "Patch", "invalid_identity", bad_identifier);
  refuses_at("/patches/0/format", "", "invalid_identity", bad_identifier);
  refuses_at("/patches/0/format", "aux.v1", "unsafe_path", "Path uses a reserved platform name");
}

TEST(DirectPatches, StartFromAFullSnapshot) {
  for (const char* format : {"", "tar.zst", "tar.zst-v2", "zstd-patch-v1"}) {
    refuses_at("/patches/0/source/format", format, patch_start);
  }
}

TEST(DirectPatches, StartFromOtherBuildsThanThisAndEachOther) {
  refuses_at("/patches/0/source/build_id", "build-1", patch_source);
  refuses_at("/patches/1/source/build_id", "build-old-0", patch_source);
  refuses_at("/patches/0/source/build_id", "Build", "invalid_identity", bad_identifier);
}

TEST(DirectPatches, JudgeTheirPaths) {
  for (const std::string member : {"/patches/1/source", "/patches/1/artifact"}) {
    refuses_at(member + "/target", "../x", "unsafe_path", unsafe_component);
    refuses_at(member + "/target", "a?", "unsafe_path", not_portable);
  }
}

TEST(DirectPatches, JudgeTheirLengthsAndDigests) {
  for (const std::string member : {"/patches/1/source", "/patches/1/artifact"}) {
    refuses_at(member + "/length", -1, bad_length);
    refuses_at(member + "/sha256", std::string(64, 'A'), bad_digest);
  }
}

TEST(DirectPatches, ShareNoPathWithASnapshotOrEachOther) {
  for (const char* target : {"patches/build-old-0", "Patches/BUILD-old-0", "builds/build-1.tar.zst",
                             "BUILDS/build-1.tar.zst", "builds/build-old-1.tar.zst", "builds/BUILD-old-1.tar.zst"}) {
    refuses_at("/patches/1/artifact/target", target, patch_alias);
  }
}

TEST(DirectPatches, ShareNoPathThatDiffersOnlyInCase) {
  refuses_at("/patches/1/source/target", "Patches/BUILD-old-1", "invalid_manifest", patch_alias);
  refuses_at("/archive/target", "Patches/BUILD-old-1", "invalid_manifest", patch_alias);
}

TEST(DirectPatches, ShareNoDigestWithTheSnapshotOrEachOther) {
  refuses_at("/patches/1/artifact/sha256", std::string(64, 'b'), patch_alias);
  refuses_at("/patches/1/artifact/sha256", std::string(64, '0'), patch_alias);
}

TEST(DirectPatches, MayStartFromTheSameFile) {
  EXPECT_EQ(parsed("/patches/1/source/target", "builds/build-old-0.tar.zst").patches.size(), 2u);
}

TEST(DirectPatches, BoundTheirLengths) {
  for (const char* length : {"/patches/1/source/length", "/patches/1/artifact/length"}) {
    EXPECT_EQ(parsed(length, 1).patches.size(), 2u);
    EXPECT_EQ(parsed(length, four_tebibytes).patches.size(), 2u);
    refuses_at(length, 0, "size_limit", patch_bound);
    refuses_at(length, four_tebibytes + 1, "size_limit", patch_bound);
  }
}

// Breaks the rules of a valid document, from the last to the first. Each time, the failure must be that of the first
// rule that is broken.
TEST(GameManifest, ChecksInItsOrder) {
  struct Break {
    const char* pointer;
    Json value;
    const char* code;
    const char* message;
  };
  const std::vector<Break> breaks = {
      {"/schema_version", 2, "unsupported_schema", "Unsupported game manifest schema; nothing was rewritten"},
      {"/minimum_launcher", 2, "launcher_incompatible", "This build needs a different launcher protocol"},
      {"/platform", "x", "invalid_manifest", "Unknown snapshot platform"},
      {"/archive/expanded_length", 9, "invalid_manifest", "Expanded length differs from file inventory"},
      {"/game_id", "Game", "invalid_identity", bad_identifier},
      {"/display_name", "", "invalid_manifest", bad_name},
      {"/presentation", 1, "invalid_presentation", "Game presentation must be an object"},
      {"/presentation/extra", 1, "invalid_presentation", "Unknown game presentation field"},
      {"/release_notes", std::string(16385, 'n'), "invalid_manifest", notes_too_long},
      {"/release_notes", "\a", "invalid_manifest", notes_controls},
      {"/sdk/required", 1, "invalid_manifest", sdk_implicit},
      {"/sdk/abi_version", 2, "sdk_incompatible", sdk_unsupported},
      {"/encrypted/extra", 1, "invalid_manifest", encrypted_field},
      {"/encrypted/format", "", "invalid_manifest", decoder_name},
      {"/encrypted/artifact/extra", 1, "invalid_manifest", descriptor_field},
      {"/encrypted/artifact/sha256", std::string(64, 'b'), "invalid_manifest", encrypted_alias},
      {"/encrypted/key/length", 31, "invalid_manifest", encrypted_bound},
      {"/encrypted/artifact/length", 213, "invalid_manifest", encrypted_chunks},
      {"/patches/0/extra", 1, "invalid_manifest", patch_unknown},
      {"/patches/0/format", "Patch", "invalid_identity", bad_identifier},
      {"/patches/0/source/format", "x", "invalid_manifest", patch_start},
      {"/patches/0/source/build_id", "build-1", "invalid_manifest", patch_source},
      {"/patches/0/source/target", "a?", "unsafe_path", not_portable},
      {"/patches/0/artifact/sha256", std::string(64, 'b'), "invalid_manifest", patch_alias},
      {"/patches/0/artifact/length", 0, "size_limit", patch_bound},
      {"/patches/1/extra", 1, "invalid_manifest", patch_unknown}};
  Json document = full_document();
  for (auto broken = breaks.rbegin(); broken != breaks.rend(); ++broken) {
    document[Json::json_pointer(broken->pointer)] = broken->value;
    refuses(document, broken->code, broken->message);
  }
}

}  // namespace
}  // namespace ravok::game_manifest_test
