#include "domain/bootstrap_contract.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/manifest_builder.hpp"

namespace ravok::bootstrap_contract_test {
namespace {

using testing::ManifestFile;

constexpr const char* gui = "bin/ravok-bootstrap-gui.exe";
constexpr const char* shortcut = "bin/RavokShortcut.app/Contents/MacOS/ravok-shortcut";
constexpr const char* metadata = "bin/RavokShortcut.app/Contents/Info.plist";

constexpr const char* bad_schema = "Initial bootstrap schema or ABI is unsupported";
constexpr const char* bad_platform = "Initial bootstrap targets an unsupported platform";
constexpr const char* bad_entry = "Initial bootstrap has a missing or incompatible stable entry point";
constexpr const char* bad_gui = "Initial bootstrap GUI entry must be its declared Windows windowed executable";
constexpr const char* bad_shortcut =
    "macOS bootstrap launch documents need their declared native app helper and metadata";
constexpr const char* undeclared = "Initial bootstrap snapshot contains an undeclared executable helper";

const ManifestFile gui_file = {gui, 1, 0755};
const ManifestFile shortcut_file = {shortcut, 1, 0755};
const ManifestFile metadata_file = {metadata};

// A bootstrap for a platform, with its stable entry point and then these files.
Json bootstrap(const std::string& platform, const std::vector<ManifestFile>& files = {}) {
  Json document = testing::manifest_document(files);
  document["kind"] = "ravok-bootstrap-release";
  document["bootstrap_abi"] = 1;
  document["platform"] = platform;
  document["executable"] = platform == "windows-x86_64" ? "bin/ravok-bootstrap.exe" : "bin/ravok-bootstrap";
  document["files"][0]["path"] = document["executable"];
  return document;
}

Json windows_bootstrap() {
  Json document = bootstrap("windows-x86_64", {gui_file});
  document["gui_executable"] = gui;
  return document;
}

Json macos_bootstrap(const std::vector<ManifestFile>& files = {shortcut_file, metadata_file}) {
  Json document = bootstrap("macos-aarch64", files);
  document["shortcut_executable"] = shortcut;
  return document;
}

Json with(Json document, const std::string& key, const Json& value) {
  document[key] = value;
  return document;
}

void validate(const Json& document) { validate_bootstrap_contract(SnapshotManifest::parse(document)); }

void refuses(const Json& document, const char* code, const char* message) {
  EXPECT_FAILURE(validate(document), code, message) << document;
}

void refuses_gui(const Json& document) { refuses(document, "invalid_native_package", bad_gui); }

void refuses_shortcut(const Json& document) { refuses(document, "invalid_native_package", bad_shortcut); }

TEST(BootstrapContract, ServesEveryPlatform) {
  for (const char* platform : {"linux-x86_64", "windows-x86_64", "macos-aarch64"}) {
    EXPECT_NO_THROW(validate(bootstrap(platform, {{"data/x"}}))) << platform;
  }
}

TEST(BootstrapContract, ServesPlatformsThatDeclareMore) {
  EXPECT_NO_THROW(validate(windows_bootstrap()));
  EXPECT_NO_THROW(validate(macos_bootstrap()));
}

TEST(BootstrapContract, KnowsOneAbiOfOneKind) {
  for (const Json& version : {Json(2), Json(0), Json("1"), Json(1.0), Json(nullptr), Json(true)}) {
    refuses(with(bootstrap("linux-x86_64"), "bootstrap_abi", version), "launcher_incompatible", bad_schema);
  }
  for (const Json& kind : {Json("ravok-launcher-release"), Json(""), Json(1), Json(nullptr)}) {
    refuses(with(bootstrap("linux-x86_64"), "kind", kind), "launcher_incompatible", bad_schema);
  }
}

TEST(BootstrapContract, NeedsItsAbiAndKind) {
  for (const char* key : {"bootstrap_abi", "kind"}) {
    Json document = bootstrap("linux-x86_64");
    document.erase(key);
    refuses(document, "launcher_incompatible", bad_schema);
  }
}

TEST(BootstrapContract, RefusesASnapshotWithoutADocument) {
  EXPECT_FAILURE(validate_bootstrap_contract(SnapshotManifest()), "launcher_incompatible", bad_schema);
}

TEST(BootstrapContract, KnowsOneSchema) {
  SnapshotManifest snapshot = SnapshotManifest::parse(bootstrap("linux-x86_64"));
  for (const Json& version : {Json(2), Json(1.0), Json("1"), Json(nullptr)}) {
    snapshot.raw["schema_version"] = version;
    EXPECT_FAILURE(validate_bootstrap_contract(snapshot), "launcher_incompatible", bad_schema) << version;
  }
  snapshot.raw.erase("schema_version");
  EXPECT_FAILURE(validate_bootstrap_contract(snapshot), "launcher_incompatible", bad_schema);
}

TEST(BootstrapContract, KnowsThreePlatforms) {
  SnapshotManifest snapshot = SnapshotManifest::parse(bootstrap("linux-x86_64"));
  for (const char* platform : {"", "linux", "macos-x86_64"}) {
    snapshot.platform = platform;
    EXPECT_FAILURE(validate_bootstrap_contract(snapshot), "launcher_incompatible", bad_platform) << platform;
  }
}

TEST(BootstrapContract, HasOneEntryPointOnEveryPlatform) {
  for (const char* platform : {"linux-x86_64", "macos-aarch64", "windows-x86_64"}) {
    Json document = bootstrap(platform);
    const std::string wrong =
        document["platform"] == "windows-x86_64" ? "bin/ravok-bootstrap" : "bin/ravok-bootstrap.exe";
    for (const std::string& path : {wrong, std::string("bin/Ravok-bootstrap"), std::string("ravok-bootstrap")}) {
      document["executable"] = path;
      document["files"][0]["path"] = path;
      refuses(document, "launcher_incompatible", bad_entry);
    }
  }
}

TEST(BootstrapContract, HoldsItsEntryPoint) {
  SnapshotManifest snapshot = SnapshotManifest::parse(bootstrap("linux-x86_64"));
  snapshot.files.at("bin/ravok-bootstrap").executable = false;
  EXPECT_FAILURE(validate_bootstrap_contract(snapshot), "launcher_incompatible", bad_entry);
  snapshot.files.clear();
  EXPECT_FAILURE(validate_bootstrap_contract(snapshot), "launcher_incompatible", bad_entry);
}

TEST(BootstrapContract, DeclaresAnEntryWithWindowsOnWindowsOnly) {
  for (const char* platform : {"linux-x86_64", "macos-aarch64"}) {
    refuses_gui(with(bootstrap(platform, {gui_file}), "gui_executable", gui));
  }
}

TEST(BootstrapContract, KnowsOneEntryWithWindows) {
  for (const Json& path : {Json("bin/ravok-bootstrap.exe"), Json("bin/Ravok-bootstrap-gui.exe"), Json(""), Json(1),
                           Json(nullptr), Json::array({gui})}) {
    refuses_gui(with(windows_bootstrap(), "gui_executable", path));
  }
}

TEST(BootstrapContract, HoldsItsEntryWithWindows) {
  refuses_gui(with(bootstrap("windows-x86_64"), "gui_executable", gui));
  refuses_gui(with(bootstrap("windows-x86_64", {{gui}}), "gui_executable", gui));
}

TEST(BootstrapContract, DeclaresAShortcutOnMacOnly) {
  for (const char* platform : {"linux-x86_64", "windows-x86_64"}) {
    refuses_shortcut(with(bootstrap(platform, {shortcut_file, metadata_file}), "shortcut_executable", shortcut));
  }
}

TEST(BootstrapContract, KnowsOneShortcut) {
  for (const Json& path : {Json("bin/ravok-bootstrap"), Json(metadata), Json(""), Json(1), Json(nullptr)}) {
    refuses_shortcut(with(macos_bootstrap(), "shortcut_executable", path));
  }
}

TEST(BootstrapContract, HoldsItsShortcutAndTheMetadata) {
  refuses_shortcut(macos_bootstrap({metadata_file}));
  refuses_shortcut(macos_bootstrap({{shortcut}, metadata_file}));
  refuses_shortcut(macos_bootstrap({shortcut_file}));
  refuses_shortcut(macos_bootstrap({shortcut_file, {metadata, 1, 0755}}));
}

TEST(BootstrapContract, DeclaresEveryExecutable) {
  for (const Json& document :
       {bootstrap("linux-x86_64", {{"bin/helper", 1, 0755}}), bootstrap("linux-x86_64", {{"data/x.sh", 1, 0755}}),
        bootstrap("linux-x86_64", {gui_file}), bootstrap("windows-x86_64", {gui_file}),
        bootstrap("macos-aarch64", {shortcut_file, metadata_file}), bootstrap("macos-aarch64", {{metadata, 1, 0755}}),
        macos_bootstrap({shortcut_file, metadata_file, gui_file})}) {
    refuses(document, "invalid_native_package", undeclared);
  }
}

TEST(BootstrapContract, ChecksInItsOrder) {
  Json document = macos_bootstrap({shortcut_file, metadata_file, {"bin/helper", 1, 0755}});
  refuses(document, "invalid_native_package", undeclared);
  document["shortcut_executable"] = "x";
  refuses(document, "invalid_native_package", bad_shortcut);
  document["gui_executable"] = gui;
  refuses(document, "invalid_native_package", bad_gui);
  document["executable"] = "bin/helper";
  refuses(document, "launcher_incompatible", bad_entry);
  SnapshotManifest snapshot = SnapshotManifest::parse(document);
  snapshot.platform = "other";
  EXPECT_FAILURE(validate_bootstrap_contract(snapshot), "launcher_incompatible", bad_platform);
  snapshot.raw["kind"] = "x";
  EXPECT_FAILURE(validate_bootstrap_contract(snapshot), "launcher_incompatible", bad_schema);
}

}  // namespace
}  // namespace ravok::bootstrap_contract_test
