#include "platform/snapshot/install_records.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "domain/crypto.hpp"
#include "platform/file/directory_identity.hpp"
#include "platform/file/status.hpp"
#include "support/failure.hpp"
#include "support/game_at_hand.hpp"
#include "support/temporary_root.hpp"

namespace ravok::install_records_test {
namespace {

using testing::game_of;
using testing::reference_to;
using testing::TemporaryRoot;

using Names = std::vector<std::string>;

constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
constexpr std::size_t maximum_bytes = 16'384;

constexpr const char* no_schema = "Installation ownership has no known schema";
constexpr const char* other_schema = "Unknown installation ownership schema was preserved";
constexpr const char* other_contract = "Unknown installation ownership contract was preserved";
constexpr const char* no_identity = "Invalid prepared directory identity";
constexpr const char* not_normal = "Prepared storage path is not absolute and normalized";
constexpr const char* no_reference = "Installation ownership reference is malformed";
constexpr const char* bad_identifier = "Game and build IDs use lower-case letters, digits, dots and hyphens";
constexpr const char* no_digest = "Installation ownership needs an exact manifest digest";
constexpr const char* unsafe_component = "Path contains an unsafe component";
constexpr const char* too_large = "Installation ownership exceeds its bounded format";
constexpr const char* malformed = "Malformed installation ownership was preserved";

constexpr const char* other_preparation = "Preparation no longer binds this manifest, operation or storage";
constexpr const char* other_readiness = "Readiness no longer binds this manifest, operation or storage";
constexpr const char* no_parent = "Allocation requires an ordinary parent directory";
constexpr const char* early_destination = "An activation destination appeared before readiness; preserve all roots";
constexpr const char* unrecorded = "Unrecorded preparation root was preserved";
constexpr const char* other_volume = "Prepared storage volume changed";
constexpr const char* other_directory = "Prepared directory identity changed; preserve its replacement";
constexpr const char* activation_volume = "Activation storage volume changed";
constexpr const char* activation_directory = "Activation directory identity changed; preserve its replacement";
constexpr const char* reappeared = "Prepared source reappeared after activation";
constexpr const char* unmanaged_file = "Prepared cleanup preserves unmanaged, linked or oversized files";
constexpr const char* unmanaged_directory = "Prepared cleanup preserves unmanaged directories";

Json identity_of(std::uint64_t device, std::uint64_t inode) { return Json::array({device, inode}); }

Json identity_of(const std::filesystem::path& directory) {
  const DirectoryIdentity identity = inspect_storage_directory(directory);
  return identity_of(identity.device, identity.inode);
}

// --- The form of a record ------------------------------------------------------------------

// What the two kinds of record have in common, and what is different.
struct Kind {
  const char* name;
  const char* other;
  const char* code;
  void (*validate)(const Json&);
};

constexpr std::array<Kind, 2> kinds = {
    Kind{"ravok-install-preparation", "ravok-install-ready", "install_preparation_state", validate_install_preparation},
    Kind{"ravok-install-ready", "ravok-install-preparation", "install_ready_state", validate_install_ready}};

Json valid(const Kind& kind) {
  return {{"schema_version", 1},
          {"kind", kind.name},
          {"reference",
           {{"version", "1.0"},
            {"build_id", "build-1"},
            {"manifest_ref", std::string(64, 'a')},
            {"manifest_target", "games/game/build-1.json"}}},
          {"versions_path", "/games/versions"},
          {"staging_identity", identity_of(7, 12)}};
}

// The record with a value in place of the one that the pointer names.
Json with(const Kind& kind, const char* pointer, const Json& value) {
  Json document = valid(kind);
  document[Json::json_pointer(pointer)] = value;
  return document;
}

Json without(const Kind& kind, const char* parent, const char* key) {
  Json document = valid(kind);
  document[Json::json_pointer(parent)].erase(key);
  return document;
}

void expect_refused(const Kind& kind, const char* pointer, const std::vector<Json>& values, const char* code,
                    const char* message) {
  for (const Json& value : values) {
    EXPECT_FAILURE(kind.validate(with(kind, pointer, value)), code, message) << pointer << " " << value;
  }
}

// The record with a versions folder of such a name that its text has this many bytes.
Json of_size(Json document, std::size_t bytes) {
  document["versions_path"] = "/";
  document["versions_path"] = "/" + std::string(bytes - document.dump().size(), 'v');
  EXPECT_EQ(document.dump().size(), bytes);
  return document;
}

TEST(InstallRecord, IsAcceptedInItsForm) {
  for (const Kind& kind : kinds) {
    EXPECT_NO_THROW(kind.validate(valid(kind)));
    EXPECT_NO_THROW(kind.validate(Json::parse(valid(kind).dump())));
    EXPECT_NO_THROW(kind.validate(with(kind, "/staging_identity", identity_of(0, largest))));
    EXPECT_NO_THROW(kind.validate(with(kind, "/versions_path", "/")));
    EXPECT_NO_THROW(kind.validate(with(kind, "/reference/version", std::string(80, 'v'))));
  }
}

TEST(InstallRecord, MayLackItsIdentityOnlyInAPreparation) {
  EXPECT_NO_THROW(validate_install_preparation(with(kinds[0], "/staging_identity", nullptr)));
  EXPECT_FAILURE(validate_install_ready(with(kinds[1], "/staging_identity", nullptr)), "install_ready_state",
                 no_identity);
}

TEST(InstallRecord, NeedsAKnownSchema) {
  for (const Kind& kind : kinds) {
    for (const Json& document : {Json(nullptr), Json(1), Json("text"), Json::array({1}), Json::object()}) {
      EXPECT_FAILURE(kind.validate(document), kind.code, no_schema) << document;
    }
    expect_refused(kind, "/schema_version", {nullptr, "1", 1.0, true, Json::array({1})}, kind.code, no_schema);
    expect_refused(kind, "/schema_version", {0, 2, -1, largest}, "unsupported_schema", other_schema);
  }
}

TEST(InstallRecord, NeedsItsKindAndItsParts) {
  for (const Kind& kind : kinds) {
    expect_refused(kind, "/kind", {kind.other, "", nullptr, 1}, kind.code, other_contract);
    expect_refused(kind, "/versions_path", {nullptr, 1, Json::array({"/games"})}, kind.code, other_contract);
    expect_refused(kind, "/reference", {nullptr, "1.0", Json::array()}, kind.code, other_contract);
  }
}

TEST(InstallRecord, NeedsAllItsKeys) {
  for (const Kind& kind : kinds) {
    for (const char* key : {"kind", "reference", "versions_path", "staging_identity"}) {
      EXPECT_FAILURE(kind.validate(without(kind, "", key)), kind.code, malformed) << key;
    }
  }
}

TEST(InstallRecord, NeedsTwoUnsignedNumbersForItsIdentity) {
  const std::vector<Json> values = {Json::array(),
                                    Json::array({7U}),
                                    Json::array({7U, 12U, 1U}),
                                    Json::array({-7, 12U}),
                                    Json::array({7U, -12}),
                                    Json::array({7U, 12.0}),
                                    Json::array({"7", "12"}),
                                    Json::array({7U, nullptr}),
                                    Json::object({{"0", 7U}, {"1", 12U}}),
                                    "7:12",
                                    7U};
  for (const Kind& kind : kinds) {
    expect_refused(kind, "/staging_identity", values, kind.code, no_identity);
  }
}

TEST(InstallRecord, NeedsAnAbsoluteNormalVersionsFolder) {
  for (const Kind& kind : kinds) {
    expect_refused(kind, "/versions_path",
                   {"", "games", "./games", "../games", "/games/../versions", "/games/..", "/games/./versions",
                    "/games//versions", "//games/.."},
                   kind.code, not_normal);
    expect_refused(kind, "/versions_path", {std::string("/games\0x", 8)}, "unsafe_path",
                   "Native path contains a NUL byte");
  }
}

TEST(InstallRecord, NeedsFourTextsForItsReference) {
  for (const Kind& kind : kinds) {
    for (const char* key : {"version", "build_id", "manifest_ref", "manifest_target"}) {
      EXPECT_FAILURE(kind.validate(without(kind, "/reference", key)), kind.code, no_reference) << key;
      const std::string pointer = std::string("/reference/") + key;
      expect_refused(kind, pointer.c_str(), {nullptr, 1, Json::array({"1.0"})}, kind.code, no_reference);
    }
  }
}

TEST(InstallRecord, NeedsIdentifiersForItsVersionAndItsBuild) {
  for (const Kind& kind : kinds) {
    for (const char* pointer : {"/reference/version", "/reference/build_id"}) {
      expect_refused(kind, pointer, {"", "..", "a/b", "Build", "build_1", std::string(81, 'v')}, "invalid_identity",
                     bad_identifier);
      expect_refused(kind, pointer, {"con"}, "unsafe_path", "Path uses a reserved platform name");
    }
  }
}

TEST(InstallRecord, NeedsALowerCaseDigest) {
  const std::string digest(64, 'a');
  for (const Kind& kind : kinds) {
    expect_refused(kind, "/reference/manifest_ref",
                   {"", digest.substr(1), digest + "a", digest.substr(1) + "A", digest.substr(1) + "g",
                    digest.substr(1) + "/", digest.substr(1) + ":", digest.substr(1) + "`"},
                   kind.code, no_digest);
    EXPECT_NO_THROW(kind.validate(with(kind, "/reference/manifest_ref", "0123456789abcdef" + digest.substr(16))));
  }
}

TEST(InstallRecord, NeedsAPortableTarget) {
  for (const Kind& kind : kinds) {
    expect_refused(kind, "/reference/manifest_target", {"", "/games/build.json"}, "unsafe_path",
                   "Path must be a safe relative path");
    expect_refused(kind, "/reference/manifest_target", {"games/../build.json", "a//b"}, "unsafe_path",
                   unsafe_component);
    expect_refused(kind, "/reference/manifest_target", {"games/build?.json"}, "unsafe_path",
                   "Path is not portable across supported platforms");
  }
}

TEST(InstallRecord, HasAtMost16384Bytes) {
  for (const Kind& kind : kinds) {
    EXPECT_NO_THROW(kind.validate(of_size(valid(kind), maximum_bytes)));
    EXPECT_FAILURE(kind.validate(of_size(valid(kind), maximum_bytes + 1)), "size_limit", too_large);
  }
}

TEST(InstallRecord, IsRefusedWhereItCannotBeWritten) {
  for (const Kind& kind : kinds) {
    expect_refused(kind, "/versions_path", {"/games/\xff"}, kind.code, malformed);
    expect_refused(kind, "/further", {"\xff"}, kind.code, malformed);
  }
}

TEST(InstallRecord, IsCheckedInOrder) {
  struct Step {
    const char* code;  // null for that of the kind
    const char* message;
    const char* pointer;  // what is mended then
    Json value;
  };
  for (const Kind& kind : kinds) {
    const std::vector<Step> steps = {
        {nullptr, no_schema, "/schema_version", 2},
        {"unsupported_schema", other_schema, "/schema_version", 1},
        {nullptr, other_contract, "/kind", kind.name},
        {nullptr, no_identity, "/staging_identity", identity_of(7, 12)},
        {nullptr, not_normal, "/versions_path", "/games"},
        {nullptr, no_reference, "/reference/manifest_target", "../build.json"},
        {"invalid_identity", bad_identifier, "/reference/version", "1.0"},
        {"unsafe_path", "Path uses a reserved platform name", "/reference/build_id", "build-1"},
        {nullptr, no_digest, "/reference/manifest_ref", std::string(64, 'a')},
        {"unsafe_path", unsafe_component, "/reference/manifest_target", "build.json"},
        {"size_limit", too_large, "/padding", nullptr},
    };
    Json document = {
        {"schema_version", "1"},
        {"kind", kind.other},
        {"reference", {{"version", ""}, {"build_id", "con"}, {"manifest_ref", ""}, {"manifest_target", 1}}},
        {"versions_path", "games"},
        {"staging_identity", 7},
        {"padding", std::string(maximum_bytes, 'x')}};
    for (const Step& step : steps) {
      EXPECT_FAILURE(kind.validate(document), step.code == nullptr ? kind.code : step.code, step.message);
      document[Json::json_pointer(step.pointer)] = step.value;
    }
    EXPECT_NO_THROW(kind.validate(document));
  }
}

// --- The operations ------------------------------------------------------------------------

class InstallRecords : public ::testing::Test {
 protected:
  InstallRecords() { root.directory("versions"); }

  Json prepare() const { return make_install_preparation(game, reference_to(game), versions); }

  Json prepare_with(const Json& identity) const {
    Json document = prepare();
    document["staging_identity"] = identity;
    return document;
  }

  // A preparation that binds the staging directory as it is now.
  Json bound() const { return prepare_with(identity_of(staging)); }

  // A readiness record that binds a directory as it is now.
  Json ready_for(const std::filesystem::path& directory) const {
    Json document = prepare_with(identity_of(directory));
    document["kind"] = "ravok-install-ready";
    return document;
  }

  // A staging directory with all files of the game, some shorter than they will be.
  void stage() const {
    root.write("staging/bin/program", "0123456789");
    root.write("staging/data/one", "12");
    root.write("staging/data/two", "");
  }

  // The same tree where it is activated.
  void activate() const {
    stage();
    std::filesystem::rename(staging, destination);
  }

  void clean(const Json& preparation) const { cleanup_prepared_install(game, preparation, staging, destination); }
  void clean_ready(const Json& ready, bool checked = true) const {
    cleanup_ready_install(game, ready, staging, destination, checked);
  }

  // Everything below the root with the content of the files.
  std::vector<std::pair<std::string, std::string>> all() const {
    std::vector<std::pair<std::string, std::string>> found;
    for (const std::string& name : root.names()) {
      const bool is_file = std::filesystem::symlink_status(root / name).type() == std::filesystem::file_type::regular;
      found.emplace_back(name, is_file ? root.read(name) : std::string());
    }
    return found;
  }

  const TemporaryRoot root;
  const GameManifest game = game_of({{"data/one", 5}, {"data/two", 0}});
  const std::filesystem::path versions = root / "versions";
  const std::filesystem::path staging = root / "staging";
  const std::filesystem::path destination = root / "versions/1.0";
};

// Manifests and operations that a record does not belong to.
struct Mismatch {
  const char* what;
  std::function<void(GameManifest&, std::filesystem::path& staging, std::filesystem::path& destination)> change;
};

const std::vector<Mismatch>& mismatches_of_manifest() {
  static const std::vector<Mismatch> cases = {
      {"text", [](GameManifest& game, auto&, auto&) { game.raw["release_notes"] = "other"; }},
      {"build", [](GameManifest& game, auto&, auto&) { game.build_id = "build-2"; }},
      {"platform", [](GameManifest& game, auto&, auto&) { game.platform = "windows-x86_64"; }},
  };
  return cases;
}

const std::vector<Mismatch>& mismatches_of_places() {
  static const std::vector<Mismatch> cases = {
      {"version", [](GameManifest&, auto&, auto& destination) { destination.replace_filename("1.1"); }},
      {"versions",
       [](GameManifest&, auto&, auto& destination) { destination = destination.parent_path() / "inner" / "1.0"; }},
      {"one place", [](GameManifest&, auto& staging, auto& destination) { staging = destination; }},
      {"one place in other words",
       [](GameManifest&, auto& staging, auto& destination) { staging = destination / ".." / "1.0"; }},
      {"both", [](GameManifest&, auto& staging, auto& destination) { destination = staging; }},
  };
  return cases;
}

std::vector<Mismatch> all_mismatches() {
  std::vector<Mismatch> all = mismatches_of_manifest();
  all.insert(all.end(), mismatches_of_places().begin(), mismatches_of_places().end());
  return all;
}

// --- Preparing -----------------------------------------------------------------------------

TEST_F(InstallRecords, APreparationNamesTheBuildAndItsPlaceAndNoDirectoryYet) {
  const Json expected = {{"schema_version", 1},
                         {"kind", "ravok-install-preparation"},
                         {"reference", reference_to(game)},
                         {"versions_path", versions.string()},
                         {"staging_identity", nullptr}};
  EXPECT_EQ(prepare(), expected);
  EXPECT_EQ(prepare().at("reference").at("manifest_ref"), digest(game.raw.dump(), "sha256"));
  EXPECT_EQ(root.names(), Names{"versions/"});
}

TEST_F(InstallRecords, APreparationHasTheNormalFormOfTheVersionsFolder) {
  const auto path_of = [&](const std::filesystem::path& path) {
    return make_install_preparation(game, reference_to(game), path).at("versions_path").get<std::string>();
  };
  EXPECT_EQ(path_of(root / "other/.././versions"), versions);
  EXPECT_EQ(path_of(versions.lexically_relative(std::filesystem::current_path())), versions);
}

TEST_F(InstallRecords, APreparationIsOfASoundReference) {
  Json reference = reference_to(game);
  reference["version"] = "One";
  EXPECT_FAILURE(make_install_preparation(game, reference, versions), "invalid_identity", bad_identifier);
  EXPECT_FAILURE(make_install_preparation(game, nullptr, versions), "install_preparation_state", other_contract);
  EXPECT_FAILURE(make_install_preparation(game, Json::object(), versions), "install_preparation_state", no_reference);
  EXPECT_FAILURE(make_install_preparation(game, reference_to(game), "/" + std::string(maximum_bytes, 'v')),
                 "size_limit", too_large);
}

TEST_F(InstallRecords, APreparationIsOfTheSavedManifestForThisPlatform) {
  constexpr const char* other_manifest = "Preparation differs from its saved verified manifest";
  std::filesystem::path unused;
  for (const Mismatch& mismatch : mismatches_of_manifest()) {
    GameManifest other = game;
    mismatch.change(other, unused, unused);
    EXPECT_FAILURE(make_install_preparation(other, reference_to(game), versions), "install_preparation_state",
                   other_manifest)
        << mismatch.what;
  }
  Json reference = reference_to(game);
  reference["build_id"] = "build-2";
  EXPECT_FAILURE(make_install_preparation(game, reference, versions), "install_preparation_state", other_manifest);
}

// --- Recording -----------------------------------------------------------------------------

TEST_F(InstallRecords, APreparationTakesADirectoryOnce) {
  Json document = prepare();
  record_install_preparation(document, {7, largest});
  EXPECT_EQ(document, prepare_with(identity_of(7, largest)));
  const Json before = document;
  EXPECT_FAILURE(record_install_preparation(document, {7, largest}), "install_preparation_state",
                 "Prepared directory ownership is already recorded");
  EXPECT_EQ(document, before);
}

TEST_F(InstallRecords, OnlyASoundPreparationTakesADirectory) {
  const Json unsound = with(kinds[0], "/schema_version", 2);
  Json document = unsound;
  EXPECT_FAILURE(record_install_preparation(document, {7, 12}), "unsupported_schema", other_schema);
  EXPECT_EQ(document, unsound);
  document = valid(kinds[1]);
  EXPECT_FAILURE(record_install_preparation(document, {7, 12}), "install_preparation_state", other_contract);
  EXPECT_EQ(document, valid(kinds[1]));
}

TEST_F(InstallRecords, APreparationHasRoomForTheDirectoryOrStaysAsItWas) {
  // "[7,12]" takes two bytes more than "null".
  const Json empty = with(kinds[0], "/staging_identity", nullptr);
  Json document = of_size(empty, maximum_bytes - 2);
  record_install_preparation(document, {7, 12});
  EXPECT_EQ(document.dump().size(), maximum_bytes);
  const Json full = of_size(empty, maximum_bytes - 1);
  document = full;
  EXPECT_FAILURE(record_install_preparation(document, {7, 12}), "size_limit", too_large);
  EXPECT_EQ(document, full);
}

// --- Readiness -----------------------------------------------------------------------------

class MakeInstallReady : public InstallRecords {
 protected:
  const ReservedTree tree{game, staging, {}, {}};
};

TEST_F(MakeInstallReady, NamesWhatWasPrepared) {
  Json expected = bound();
  expected["kind"] = "ravok-install-ready";
  EXPECT_EQ(make_install_ready(game, bound(), staging, tree), expected);
}

TEST_F(MakeInstallReady, NeedsASoundPreparation) {
  Json preparation = bound();
  preparation["schema_version"] = 2;
  EXPECT_FAILURE(make_install_ready(game, preparation, staging, tree), "unsupported_schema", other_schema);
  EXPECT_FAILURE(make_install_ready(game, ready_for(staging), staging, tree), "install_preparation_state",
                 other_contract);
}

TEST_F(MakeInstallReady, NeedsARecordedDirectory) {
  EXPECT_FAILURE(make_install_ready(game, prepare(), staging, tree), "install_ready_state", no_identity);
}

TEST_F(MakeInstallReady, NeedsTheManifestOfThePreparation) {
  std::filesystem::path unused;
  for (const Mismatch& mismatch : mismatches_of_manifest()) {
    GameManifest other = game;
    mismatch.change(other, unused, unused);
    EXPECT_FAILURE(make_install_ready(other, bound(), staging, tree), "install_ready_state",
                   "Readiness differs from its saved verified manifest")
        << mismatch.what;
  }
}

TEST_F(MakeInstallReady, NeedsAnotherPlaceThanTheBuildsFolder) {
  constexpr const char* other_operation = "Readiness differs from its prepared operation";
  EXPECT_FAILURE(make_install_ready(game, bound(), destination, tree), "install_ready_state", other_operation);
  EXPECT_FAILURE(make_install_ready(game, bound(), versions / "../versions/1.0", tree), "install_ready_state",
                 other_operation);
}

TEST_F(MakeInstallReady, NeedsTheReservedTree) {
  const TemporaryRoot elsewhere;
  const ReservedTree other(game, elsewhere / "staging", {}, {});
  EXPECT_FAILURE(make_install_ready(game, bound(), staging, other), "allocation_changed",
                 "Prepared tree differs from the requested snapshot");
  EXPECT_FAILURE(make_install_ready(game, bound(), root / "other", tree), "allocation_changed",
                 "Prepared tree differs from the requested snapshot");
}

TEST_F(MakeInstallReady, PreservesWhatStandsInTheBuildsFolder) {
  constexpr const char* preserved = "Activation destination already exists; it was preserved";
  root.write("versions/1.0/file", "x");
  EXPECT_FAILURE(make_install_ready(game, bound(), staging, tree), "destination_exists", preserved);
  EXPECT_EQ(root.read("versions/1.0/file"), "x");
  std::filesystem::remove_all(destination);
  std::filesystem::create_symlink("nowhere", destination);
  EXPECT_FAILURE(make_install_ready(game, bound(), staging, tree), "destination_exists", preserved);
}

TEST_F(MakeInstallReady, NeedsTheRecordedDirectory) {
  EXPECT_FAILURE(make_install_ready(game, prepare_with(identity_of(versions)), staging, tree), "install_ready_state",
                 "Activation storage differs from its prepared source");
}

TEST_F(MakeInstallReady, IsCheckedInOrder) {
  const Json other_identity = prepare_with(identity_of(versions));
  GameManifest other_game = game;
  other_game.build_id = "build-2";
  EXPECT_FAILURE(make_install_ready(other_game, prepare(), destination, tree), "install_ready_state", no_identity);
  EXPECT_FAILURE(make_install_ready(other_game, other_identity, destination, tree), "install_ready_state",
                 "Readiness differs from its saved verified manifest");
  root.directory("versions/1.0");
  EXPECT_FAILURE(make_install_ready(game, other_identity, destination, tree), "install_ready_state",
                 "Readiness differs from its prepared operation");
  EXPECT_FAILURE(make_install_ready(game, other_identity, root / "other", tree), "allocation_changed",
                 "Prepared tree differs from the requested snapshot");
  EXPECT_FAILURE(make_install_ready(game, other_identity, staging, tree), "destination_exists",
                 "Activation destination already exists; it was preserved");
}

// --- Cleaning up a preparation -------------------------------------------------------------

class CleanupPreparedInstall : public InstallRecords {};

TEST_F(CleanupPreparedInstall, RemovesTheBoundDirectoryAndNothingElse) {
  stage();
  root.write("beside/file", "x");
  root.write("versions/0.9/file", "x");
  clean(bound());
  EXPECT_EQ(root.names(), (Names{"beside/", "beside/file", "versions/", "versions/0.9/", "versions/0.9/file"}));
}

TEST_F(CleanupPreparedInstall, RemovesAReservedTreeThatWasCutShort) {
  Json preparation = prepare();
  {
    const ReservedTree tree(game, staging, {}, [&](const DirectoryIdentity& identity) {
      record_install_preparation(preparation, identity);
    });
    std::filesystem::remove(staging / "data/one");
  }
  clean(preparation);
  EXPECT_EQ(root.names(), Names{"versions/"});
}

TEST_F(CleanupPreparedInstall, RemovesAnEmptyDirectoryAndEmptyDirectoriesInIt) {
  root.directory("staging/data");
  clean(bound());
  EXPECT_EQ(root.names(), Names{"versions/"});
}

TEST_F(CleanupPreparedInstall, IsDoneWhereNothingIsThere) {
  EXPECT_NO_THROW(clean(prepare()));
  EXPECT_NO_THROW(clean(prepare_with(identity_of(versions))));
  EXPECT_EQ(root.names(), Names{"versions/"});
}

TEST_F(CleanupPreparedInstall, TakesTheSamePlacesInOtherWords) {
  stage();
  cleanup_prepared_install(game, bound(), root / "versions/../staging", versions / "./1.0");
  EXPECT_EQ(root.names(), Names{"versions/"});
}

TEST_F(CleanupPreparedInstall, LeavesAllAloneForARecordThatIsNotUnderstood) {
  stage();
  const auto before = all();
  Json preparation = bound();
  preparation["schema_version"] = 2;
  EXPECT_FAILURE(clean(preparation), "unsupported_schema", other_schema);
  EXPECT_FAILURE(clean(ready_for(staging)), "install_preparation_state", other_contract);
  EXPECT_EQ(all(), before);
}

TEST_F(CleanupPreparedInstall, LeavesAllAloneForAnotherManifestOrOperation) {
  stage();
  const auto before = all();
  for (const Mismatch& mismatch : all_mismatches()) {
    GameManifest other = game;
    std::filesystem::path from = staging;
    std::filesystem::path to = destination;
    mismatch.change(other, from, to);
    EXPECT_FAILURE(cleanup_prepared_install(other, bound(), from, to), "install_preparation_state", other_preparation)
        << mismatch.what;
  }
  EXPECT_EQ(all(), before);
}

TEST_F(CleanupPreparedInstall, NeedsAnOrdinaryParentOfTheStagingDirectory) {
  root.directory("real/staging");
  root.write("plain", "x");
  std::filesystem::create_directory_symlink("real", root / "link");
  const Json preparation = prepare_with(identity_of(root / "real/staging"));
  const auto before = all();
  for (const char* parent : {"missing", "plain", "link"}) {
    EXPECT_FAILURE(cleanup_prepared_install(game, preparation, root / parent / "staging", destination),
                   "allocation_changed", no_parent)
        << parent;
  }
  EXPECT_EQ(all(), before);
}

TEST_F(CleanupPreparedInstall, PreservesAllRootsWhereADestinationAppeared) {
  stage();
  const std::vector<std::function<void()>> appearances = {
      [&] { root.directory("versions/1.0"); },
      [&] { root.write("versions/1.0", "x"); },
      [&] { std::filesystem::create_symlink("nowhere", destination); },
  };
  for (const auto& appear : appearances) {
    appear();
    const auto before = all();
    EXPECT_FAILURE(clean(bound()), "allocation_changed", early_destination);
    EXPECT_EQ(all(), before);
    std::filesystem::remove_all(destination);
  }
}

TEST_F(CleanupPreparedInstall, PreservesARootThatNobodyRecorded) {
  const std::vector<std::function<void()>> roots = {
      [&] { stage(); },
      [&] { root.directory("staging"); },
      [&] { root.write("staging", "x"); },
      [&] { std::filesystem::create_symlink("nowhere", staging); },
  };
  for (const auto& make : roots) {
    make();
    const auto before = all();
    EXPECT_FAILURE(clean(prepare()), "install_preparation_state", unrecorded);
    EXPECT_EQ(all(), before);
    std::filesystem::remove_all(staging);
  }
}

TEST_F(CleanupPreparedInstall, PreservesWhatReplacedTheRecordedDirectory) {
  stage();
  const Json preparation = bound();
  std::filesystem::rename(staging, root / "moved");
  const std::vector<std::function<void()>> replacements = {
      [&] { stage(); },
      [&] { root.write("staging", "x"); },
      [&] { std::filesystem::create_directory_symlink("moved", staging); },
  };
  for (const auto& replace : replacements) {
    replace();
    const auto before = all();
    EXPECT_FAILURE(clean(preparation), "allocation_changed", other_directory);
    EXPECT_EQ(all(), before);
    std::filesystem::remove_all(staging);
  }
  std::filesystem::rename(root / "moved", staging);
  EXPECT_NO_THROW(clean(preparation));
}

TEST_F(CleanupPreparedInstall, PreservesADirectoryOnAnotherVolume) {
  stage();
  const auto before = all();
  const DirectoryIdentity identity = inspect_storage_directory(staging);
  EXPECT_FAILURE(clean(prepare_with(identity_of(identity.device + 1, identity.inode))), "allocation_changed",
                 other_volume);
  EXPECT_FAILURE(clean(prepare_with(identity_of(identity.device + 1, identity.inode + 1))), "allocation_changed",
                 other_volume);
  EXPECT_FAILURE(clean(prepare_with(identity_of(identity.device, identity.inode + 1))), "allocation_changed",
                 other_directory);
  EXPECT_EQ(all(), before);
}

TEST_F(CleanupPreparedInstall, IsCheckedInOrder) {
  std::filesystem::create_directory_symlink("nowhere", root / "link");
  root.directory("versions/1.0");
  root.write("staging/stray", "x");
  const Json preparation = prepare();
  GameManifest other = game;
  other.build_id = "build-2";
  EXPECT_FAILURE(cleanup_prepared_install(other, preparation, root / "link/staging", destination),
                 "install_preparation_state", other_preparation);
  EXPECT_FAILURE(cleanup_prepared_install(game, preparation, root / "link/staging", destination), "allocation_changed",
                 no_parent);
  EXPECT_FAILURE(clean(preparation), "allocation_changed", early_destination);
  std::filesystem::remove(destination);
  EXPECT_FAILURE(clean(preparation), "install_preparation_state", unrecorded);
  EXPECT_FAILURE(clean(prepare_with(identity_of(versions))), "allocation_changed", other_directory);
  EXPECT_FAILURE(clean(bound()), "unexpected_file", unmanaged_file);
  EXPECT_EQ(root.names(), (Names{"link@", "staging/", "staging/stray", "versions/"}));
}

// --- What may lie in a directory that is removed -------------------------------------------

// Something in a staged tree that the manifest does not allow.
struct Stray {
  const char* what;
  const char* message;
  std::function<void(const TemporaryRoot& root, const std::string& tree)> put;
};

const std::vector<Stray>& strays() {
  static const std::vector<Stray> cases = {
      {"file", unmanaged_file, [](const auto& root, const auto& tree) { root.write(tree + "/stray", ""); }},
      {"file in a known directory", unmanaged_file,
       [](const auto& root, const auto& tree) { root.write(tree + "/data/stray", ""); }},
      {"file in other letters", unmanaged_file,
       [](const auto& root, const auto& tree) { root.write(tree + "/data/ONE", ""); }},
      {"file in place of a directory", unmanaged_file,
       [](const auto& root, const auto& tree) {
         std::filesystem::remove_all(root / (tree + "/data"));
         root.write(tree + "/data", "");
       }},
      {"larger file", unmanaged_file,
       [](const auto& root, const auto& tree) { root.write(tree + "/data/one", "123456"); }},
      {"larger file where none has content", unmanaged_file,
       [](const auto& root, const auto& tree) { root.write(tree + "/data/two", "1"); }},
      {"file with a second name outside", unmanaged_file,
       [](const auto& root, const auto& tree) {
         std::filesystem::create_hard_link(root / (tree + "/data/one"), root / "second");
       }},
      {"link", unmanaged_file,
       [](const auto& root, const auto& tree) { std::filesystem::create_symlink("bin", root / (tree + "/stray")); }},
      {"link in place of a file", unmanaged_file,
       [](const auto& root, const auto& tree) {
         std::filesystem::remove(root / (tree + "/data/one"));
         std::filesystem::create_symlink("two", root / (tree + "/data/one"));
       }},
      {"link in place of a directory", unmanaged_file,
       [](const auto& root, const auto& tree) {
         std::filesystem::rename(root / (tree + "/data"), root / "data");
         std::filesystem::create_directory_symlink(root / "data", root / (tree + "/data"));
       }},
      {"pipe in place of a file", unmanaged_file,
       [](const auto& root, const auto& tree) {
         std::filesystem::remove(root / (tree + "/data/one"));
         EXPECT_EQ(mkfifo((root / (tree + "/data/one")).c_str(), 0600), 0);
       }},
      {"directory", unmanaged_directory, [](const auto& root, const auto& tree) { root.directory(tree + "/stray"); }},
      {"directory in a known one", unmanaged_directory,
       [](const auto& root, const auto& tree) { root.directory(tree + "/data/bin"); }},
      {"directory in place of a file", unmanaged_directory,
       [](const auto& root, const auto& tree) {
         std::filesystem::remove(root / (tree + "/data/one"));
         root.directory(tree + "/data/one");
       }},
  };
  return cases;
}

TEST_F(CleanupPreparedInstall, PreservesATreeWithAnythingThatTheManifestDoesNotAllow) {
  for (const Stray& stray : strays()) {
    SCOPED_TRACE(stray.what);
    stage();
    stray.put(root, "staging");
    const auto before = all();
    EXPECT_FAILURE(clean(bound()), "unexpected_file", stray.message);
    EXPECT_EQ(all(), before);
    for (const char* name : {"staging", "second", "data"}) {
      std::filesystem::remove_all(root / name);
    }
  }
}

TEST_F(CleanupPreparedInstall, TakesAFileOfExactlyItsLength) {
  stage();
  root.write("staging/data/one", "12345");
  clean(bound());
  EXPECT_EQ(root.names(), Names{"versions/"});
}

TEST_F(CleanupPreparedInstall, BoundsTheDirectoriesOfTheManifest) {
  GameManifest wide = game;
  // Two directories each, beside "bin" and "data".
  for (int i = 0; i < 124'999; ++i) {
    wide.files["d" + std::to_string(i) + "/inner/file"];
  }
  root.directory("staging");
  const Json preparation = bound();
  wide.files["last/file"];
  EXPECT_FAILURE(cleanup_prepared_install(wide, preparation, staging, destination), "size_limit",
                 "Prepared directory inventory exceeds its bound");
  EXPECT_EQ(root.names(), (Names{"staging/", "versions/"}));
  wide.files.erase("last/file");
  cleanup_prepared_install(wide, preparation, staging, destination);
  EXPECT_EQ(root.names(), Names{"versions/"});
}

TEST(CleanupPreparedInstallBounds, BoundTheEntriesOfTheTree) {
  const TemporaryRoot root("/dev/shm");
  GameManifest wide = game_of({});
  const Json reference = reference_to(wide);
  root.directory("staging");
  for (int i = 0; i <= 250'000; ++i) {
    const std::string name = std::to_string(i);
    wide.files[name];
    ASSERT_EQ(mknod((root / "staging/").append(name).c_str(), S_IFREG | 0600, 0), 0) << i;
  }
  Json preparation = make_install_preparation(wide, reference, root / "versions");
  record_install_preparation(preparation, inspect_storage_directory(root / "staging"));
  const auto clean = [&] { cleanup_prepared_install(wide, preparation, root / "staging", root / "versions/1.0"); };
  EXPECT_FAILURE(clean(), "size_limit", "Prepared cleanup entry count exceeds its bound");
  EXPECT_TRUE(std::filesystem::remove(root / "staging/0"));
  EXPECT_TRUE(std::filesystem::exists(root / "staging/250000"));
  clean();
  EXPECT_EQ(root.names(), Names{});
}

// --- Cleaning up a readiness ---------------------------------------------------------------

class CleanupReadyInstall : public InstallRecords {};

TEST_F(CleanupReadyInstall, RemovesTheTreeThatWaitsForItsActivation) {
  stage();
  root.write("versions/0.9/file", "x");
  clean_ready(ready_for(staging));
  EXPECT_EQ(root.names(), (Names{"versions/", "versions/0.9/", "versions/0.9/file"}));
}

TEST_F(CleanupReadyInstall, RemovesTheActivatedTree) {
  activate();
  root.write("versions/0.9/file", "x");
  clean_ready(ready_for(destination));
  EXPECT_EQ(root.names(), (Names{"versions/", "versions/0.9/", "versions/0.9/file"}));
}

TEST_F(CleanupReadyInstall, RemovesNothingWithoutItsLastCheck) {
  stage();
  auto before = all();
  EXPECT_NO_THROW(clean_ready(ready_for(staging), false));
  EXPECT_EQ(all(), before);
  std::filesystem::rename(staging, destination);
  before = all();
  EXPECT_NO_THROW(clean_ready(ready_for(destination), false));
  EXPECT_EQ(all(), before);
}

TEST_F(CleanupReadyInstall, ProvesAllThatItWouldRemoveAlsoWithoutItsLastCheck) {
  activate();
  root.write("versions/1.0/stray", "x");
  const auto before = all();
  EXPECT_FAILURE(clean_ready(ready_for(destination), false), "unexpected_file", unmanaged_file);
  EXPECT_FAILURE(clean_ready(ready_for(versions), false), "allocation_changed", activation_directory);
  EXPECT_EQ(all(), before);
}

TEST_F(CleanupReadyInstall, LeavesAllAloneForARecordThatIsNotUnderstood) {
  stage();
  const auto before = all();
  Json ready = ready_for(staging);
  ready["schema_version"] = 2;
  EXPECT_FAILURE(clean_ready(ready), "unsupported_schema", other_schema);
  ready = ready_for(staging);
  ready["staging_identity"] = nullptr;
  EXPECT_FAILURE(clean_ready(ready), "install_ready_state", no_identity);
  EXPECT_FAILURE(clean_ready(bound()), "install_ready_state", other_contract);
  EXPECT_EQ(all(), before);
}

TEST_F(CleanupReadyInstall, LeavesAllAloneForAnotherManifestOrOperation) {
  stage();
  const auto before = all();
  for (const Mismatch& mismatch : all_mismatches()) {
    GameManifest other = game;
    std::filesystem::path from = staging;
    std::filesystem::path to = destination;
    mismatch.change(other, from, to);
    EXPECT_FAILURE(cleanup_ready_install(other, ready_for(staging), from, to, true), "install_ready_state",
                   other_readiness)
        << mismatch.what;
  }
  EXPECT_EQ(all(), before);
}

TEST_F(CleanupReadyInstall, IsCheckedInOrder) {
  stage();
  root.write("staging/stray", "x");
  root.write("versions/1.0/stray", "x");
  GameManifest other = game;
  other.build_id = "build-2";
  Json ready = ready_for(staging);
  const auto before = all();
  ready["staging_identity"] = nullptr;
  EXPECT_FAILURE(cleanup_ready_install(other, ready, staging, destination, true), "install_ready_state", no_identity);
  ready = ready_for(versions);
  EXPECT_FAILURE(cleanup_ready_install(other, ready, staging, destination, true), "install_ready_state",
                 other_readiness);
  EXPECT_FAILURE(clean_ready(ready), "allocation_changed", other_directory);
  ready = ready_for(staging);
  EXPECT_FAILURE(clean_ready(ready), "unexpected_file", unmanaged_file);
  EXPECT_EQ(all(), before);
  std::filesystem::remove(staging / "stray");
  EXPECT_FAILURE(clean_ready(ready), "allocation_changed", reappeared);
  EXPECT_EQ(root.read("versions/1.0/stray"), "x");
  EXPECT_EQ(root.read("staging/bin/program"), "0123456789");
}

TEST_F(CleanupReadyInstall, PreservesWhatReplacedTheStagingDirectory) {
  stage();
  const Json ready = ready_for(staging);
  std::filesystem::rename(staging, root / "moved");
  const std::vector<std::function<void()>> replacements = {
      [&] { stage(); },
      [&] { root.write("staging", "x"); },
      [&] { std::filesystem::create_directory_symlink("moved", staging); },
  };
  for (const auto& replace : replacements) {
    replace();
    const auto before = all();
    EXPECT_FAILURE(clean_ready(ready), "allocation_changed", other_directory);
    EXPECT_EQ(all(), before);
    std::filesystem::remove_all(staging);
  }
}

TEST_F(CleanupReadyInstall, PreservesWhatReplacedTheActivatedDirectory) {
  activate();
  const Json ready = ready_for(destination);
  std::filesystem::rename(destination, root / "moved");
  const std::vector<std::function<void()>> replacements = {
      [] {},
      [&] { activate(); },
      [&] { root.write("versions/1.0", "x"); },
      [&] { std::filesystem::create_directory_symlink("../moved", destination); },
  };
  for (const auto& replace : replacements) {
    replace();
    const auto before = all();
    EXPECT_FAILURE(clean_ready(ready), "allocation_changed", activation_directory);
    EXPECT_EQ(all(), before);
    std::filesystem::remove_all(destination);
  }
}

TEST_F(CleanupReadyInstall, PreservesDirectoriesOnAnotherVolume) {
  stage();
  const DirectoryIdentity identity = inspect_storage_directory(staging);
  Json ready = ready_for(staging);
  ready["staging_identity"] = identity_of(identity.device + 1, identity.inode);
  auto before = all();
  EXPECT_FAILURE(clean_ready(ready), "allocation_changed", other_volume);
  EXPECT_EQ(all(), before);
  std::filesystem::rename(staging, destination);
  before = all();
  EXPECT_FAILURE(clean_ready(ready), "allocation_changed", activation_volume);
  EXPECT_EQ(all(), before);
}

TEST_F(CleanupReadyInstall, PreservesBothWhereTheSourceReappeared) {
  stage();
  const Json ready = ready_for(staging);
  root.directory("versions/1.0");
  auto before = all();
  EXPECT_FAILURE(clean_ready(ready), "allocation_changed", reappeared);
  EXPECT_EQ(all(), before);
  // A staging directory that is not the recorded one is refused before the destination is looked at.
  std::filesystem::remove(destination);
  std::filesystem::rename(staging, destination);
  stage();
  before = all();
  EXPECT_FAILURE(clean_ready(ready), "allocation_changed", other_directory);
  EXPECT_EQ(all(), before);
}

TEST_F(CleanupReadyInstall, PreservesATreeWithAnythingThatTheManifestDoesNotAllow) {
  for (const bool activated : {false, true}) {
    for (const Stray& stray : strays()) {
      SCOPED_TRACE(std::string(stray.what) + (activated ? ", activated" : ""));
      stage();
      stray.put(root, "staging");
      if (activated) {
        std::filesystem::rename(staging, destination);
      }
      const auto before = all();
      EXPECT_FAILURE(clean_ready(ready_for(activated ? destination : staging)), "unexpected_file", stray.message);
      EXPECT_EQ(all(), before);
      for (const char* name : {"staging", "versions/1.0", "second", "data"}) {
        std::filesystem::remove_all(root / name);
      }
    }
  }
}

}  // namespace
}  // namespace ravok::install_records_test
