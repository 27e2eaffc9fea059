#include "domain/launcher_contract.hpp"

#include <limits>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/launcher_builder.hpp"
#include "support/manifest_builder.hpp"

namespace ravok::launcher_contract_test {
namespace {

using testing::as_launcher;
using testing::launcher_helper;
using testing::manifest_document;
using testing::ManifestFile;

constexpr std::uint64_t one_gibibyte = std::uint64_t{1} << 30;

constexpr const char* bad_schema = "Unsupported launcher manifest; existing installation was preserved";
constexpr const char* bad_bootstrap = "This launcher needs another native bootstrap ABI";
constexpr const char* bad_application = "This launcher cannot preserve the current application data schema";
constexpr const char* lacking = "Launcher manifest lacks its runtime contract";
constexpr const char* unsupported = "Unsupported launcher runtime contract";
constexpr const char* too_large = "Launcher payload exceeds bounded native package limits";
constexpr const char* bad_gui = "GUI launcher executable is missing or not executable";
constexpr const char* same_entry = "GUI and CLI need separate native entry points";
constexpr const char* bad_list = "Native helper ownership must be a bounded list";
constexpr const char* bad_fields = "Native helper ownership fields are invalid";
constexpr const char* bad_contract = "Unsupported native helper ownership contract";
constexpr const char* bad_path = "Native helper is missing, repeated or overlaps a frontend";
constexpr const char* unclaimed = "Every native helper needs declared lifetime ownership";
constexpr const char* malformed = "Launcher manifest has missing or malformed fields";
constexpr const char* bad_process = "Launcher health needs its exact native process and interface";

// A launcher with its two entry points and then these files, and with these helpers.
Json launcher_document(std::vector<ManifestFile> files, const std::vector<std::string>& helpers) {
  files.insert(files.begin(), {"bin/window", 5, 0755});
  return as_launcher(manifest_document(files), helpers);
}

Json full_document() {
  return launcher_document({{"bin/help-a", 1, 0755}, {"bin/help-b", 1, 0755}, {"data/x"}},
                           {"bin/help-b", "bin/help-a"});
}

Json with_helpers(std::size_t count) {
  std::vector<ManifestFile> files;
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < count; ++i) {
    paths.push_back("bin/help-" + std::to_string(i));
    files.push_back({paths.back(), 1, 0755});
  }
  return launcher_document(files, paths);
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

LauncherManifest parsed(const std::string& pointer, const Json& value) {
  return LauncherManifest::parse(with(pointer, value));
}

void refuses(const Json& document, const char* code, const char* message) {
  EXPECT_FAILURE(LauncherManifest::parse(document), code, message) << document.dump().substr(0, 2000);
}

void refuses_at(const std::string& pointer, const Json& value, const char* code, const char* message) {
  EXPECT_FAILURE(parsed(pointer, value), code, message) << pointer << ": " << value.dump().substr(0, 500);
}

void refuses_at(const std::string& pointer, const Json& value, const char* message) {
  refuses_at(pointer, value, "launcher_incompatible", message);
}

TEST(LauncherManifest, KeepsEveryField) {
  const LauncherManifest manifest = LauncherManifest::parse(full_document());
  EXPECT_EQ(manifest.build_id, "build-1");
  EXPECT_EQ(manifest.executable, "bin/program");
  EXPECT_EQ(manifest.gui_executable, "bin/window");
  EXPECT_EQ(manifest.runtime_helpers, (std::set<std::string>{"bin/help-a", "bin/help-b"}));
  EXPECT_EQ(manifest.runtime_lease_abi, 2u);
  EXPECT_EQ(manifest.staging_abi, 1u);
  EXPECT_EQ(manifest.console_interrupt_abi, 1u);
}

TEST(LauncherManifest, FindsItsHelpersByTheirRoleInTheOrderOfTheDocument) {
  Json document = full_document();
  EXPECT_EQ(LauncherManifest::parse(document).helpers("maintenance"),
            (std::vector<std::string>{"bin/help-b", "bin/help-a"}));
  document["runtime_helpers"][0]["role"] = "maintenance-gui";
  const LauncherManifest manifest = LauncherManifest::parse(document);
  EXPECT_EQ(manifest.helpers("maintenance"), (std::vector<std::string>{"bin/help-a"}));
  EXPECT_EQ(manifest.helpers("maintenance-gui"), (std::vector<std::string>{"bin/help-b"}));
  for (const char* const role : {"crash-handler", "", "maintenance-", "x"}) {
    EXPECT_TRUE(manifest.helpers(role).empty()) << role;
  }
}

TEST(LauncherManifest, IgnoresUnknownKeysAndKeepsThem) {
  Json document = with("/extra", {{"x", 1.5}});
  document["runtime_helpers"][0]["more"] = true;
  EXPECT_EQ(LauncherManifest::parse(document).raw, document);
  EXPECT_EQ(LauncherManifest::parse(Json(document)).raw, document);
}

TEST(LauncherManifest, RefusesAlikeADocumentThatItMayKeep) {
  EXPECT_FAILURE(LauncherManifest::parse(Json(2)), "unsupported_schema", bad_schema);
  EXPECT_FAILURE(LauncherManifest::parse(without("", "gui_executable")), "invalid_manifest", malformed);
}

TEST(LauncherManifest, KnowsOneSchemaOfOneKind) {
  for (const Json& version : {Json(2), Json(0), Json("1"), Json(1.0), Json(nullptr), Json(true)}) {
    refuses_at("/schema_version", version, "unsupported_schema", bad_schema);
  }
  for (const Json& kind : {Json("ravok-bootstrap-release"), Json(""), Json(1), Json(nullptr)}) {
    refuses_at("/kind", kind, "unsupported_schema", bad_schema);
  }
  for (const Json& document : {Json::array(), Json(1), Json(nullptr), Json("x")}) {
    refuses(document, "unsupported_schema", bad_schema);
  }
}

TEST(LauncherManifest, KnowsOneBootstrap) {
  for (const char* key : {"/bootstrap_abi", "/health_abi"}) {
    for (const Json& version : {Json(2), Json(0), Json("1"), Json(1.0), Json(nullptr)}) {
      refuses_at(key, version, bad_bootstrap);
    }
  }
}

TEST(LauncherManifest, ReadsTheCurrentApplicationData) {
  for (const Json& maximum : {Json(1), Json(2), Json(~0ull)}) {
    EXPECT_NO_THROW(parsed("/application_schema/maximum", maximum)) << maximum;
  }
  for (const Json& minimum : {Json(2), Json(~0ull)}) {
    refuses_at("/application_schema", {{"minimum", minimum}, {"maximum", ~0ull}}, bad_application);
  }
}

TEST(LauncherManifest, NeedsPositiveVersionsOfTheApplicationData) {
  for (const char* key : {"/application_schema/minimum", "/application_schema/maximum"}) {
    refuses_at(key, 0u, "invalid_version", "Metadata version must be positive");
    refuses_at(key, -1, "invalid_version", "Metadata version must be a positive integer");
    refuses_at(key, "1", "invalid_version", "Metadata version must be a positive integer");
  }
}

TEST(LauncherManifest, PassesOnWhatTheSnapshotRefuses) {
  refuses_at("/platform", "other", "invalid_manifest", "Unknown snapshot platform");
  refuses_at("/archive/length", 0, "size_limit", "Snapshot exceeds archive size bounds");
  refuses(without("", "files"), "invalid_manifest", "Snapshot manifest has missing or malformed fields");
}

TEST(LauncherManifest, NeedsEveryRuntimeContract) {
  for (const char* key : {"runtime_lease_abi", "staging_abi", "console_interrupt_abi"}) {
    refuses(without("", key), "launcher_incompatible", lacking);
  }
}

TEST(LauncherManifest, KnowsOneVersionOfEveryRuntimeContract) {
  for (const Json& version : {Json(0), Json(3), Json(-2), Json(2.0), Json("2"), Json(nullptr), Json(true), Json(1)}) {
    refuses_at("/runtime_lease_abi", version, unsupported);
  }
  for (const char* key : {"/staging_abi", "/console_interrupt_abi"}) {
    for (const Json& version : {Json(0), Json(2), Json(-1), Json(1.0), Json("1"), Json(nullptr), Json(true)}) {
      refuses_at(key, version, unsupported);
    }
  }
}

TEST(LauncherManifest, BoundsItsArchive) {
  EXPECT_EQ(parsed("/archive/length", one_gibibyte).archive_length, one_gibibyte);
  refuses_at("/archive/length", one_gibibyte + 1, "size_limit", too_large);
}

TEST(LauncherManifest, BoundsItsExpandedBytes) {
  const auto of_total = [](std::uint64_t total) { return launcher_document({{"data/x", total - 15}}, {}); };
  EXPECT_EQ(LauncherManifest::parse(of_total(one_gibibyte)).expanded_length, one_gibibyte);
  refuses(of_total(one_gibibyte + 1), "size_limit", too_large);
}

TEST(LauncherManifest, BoundsItsFiles) {
  const auto of_count = [](std::size_t count) {
    std::vector<ManifestFile> files;
    for (std::size_t i = 2; i < count; ++i) {
      files.push_back({"data/" + std::to_string(i)});
    }
    return launcher_document(files, {});
  };
  EXPECT_EQ(LauncherManifest::parse(of_count(4096)).files.size(), 4096u);
  refuses(of_count(4097), "size_limit", too_large);
}

TEST(LauncherManifest, NeedsAnExecutableWithWindows) {
  refuses_at("/gui_executable", "bin/other", "invalid_manifest", bad_gui);
  refuses_at("/gui_executable", "data/x", "invalid_manifest", bad_gui);
  refuses_at("/gui_executable", "bin/Window", "invalid_manifest", bad_gui);
  refuses_at("/gui_executable", "../x", "unsafe_path", "Path contains an unsafe component");
  refuses_at("/gui_executable", "a?", "unsafe_path", "Path is not portable across supported platforms");
}

TEST(LauncherManifest, NeedsAnotherExecutableForTheConsole) {
  refuses_at("/gui_executable", "bin/program", "invalid_manifest", same_entry);
}

TEST(LauncherManifest, HasAtMostSixteenHelpers) {
  EXPECT_EQ(LauncherManifest::parse(with_helpers(16)).runtime_helpers.size(), 16u);
  EXPECT_TRUE(LauncherManifest::parse(with_helpers(0)).runtime_helpers.empty());
  refuses(with_helpers(17), "launcher_incompatible", bad_list);
  refuses_at("/runtime_helpers", Json(std::vector<int>(17, 1)), bad_list);
  for (const Json& value : {Json::object(), Json(nullptr), Json("x"), Json(1)}) {
    refuses_at("/runtime_helpers", value, bad_list);
  }
}

TEST(LauncherManifest, NeedsEveryFieldOfAHelper) {
  for (const char* key : {"path", "role", "lease_abi"}) {
    refuses(without("/runtime_helpers/1", key), "launcher_incompatible", bad_fields);
  }
  for (const Json& value : {Json::array(), Json(nullptr), Json("bin/help-a"), Json::object()}) {
    refuses_at("/runtime_helpers/1", value, bad_fields);
  }
}

TEST(LauncherManifest, KnowsThreeRolesOfHelpers) {
  for (const char* role : {"crash-handler", "maintenance", "maintenance-gui"}) {
    EXPECT_NO_THROW(parsed("/runtime_helpers/1/role", role)) << role;
  }
  for (const char* role : {"", "Maintenance", "maintenance-", "gui"}) {
    refuses_at("/runtime_helpers/1/role", role, bad_contract);
  }
}

TEST(LauncherManifest, KnowsOneLeaseOfHelpers) {
  for (const Json& version : {Json(0), Json(2), Json(-1), Json(1.0), Json("1"), Json(nullptr), Json(true)}) {
    refuses_at("/runtime_helpers/1/lease_abi", version, bad_contract);
  }
}

TEST(LauncherManifest, OwnsEveryHelperOnce) {
  for (const char* path :
       {"bin/other", "data/x", "bin/program", "bin/window", "bin/help-b", "bin/Help-a", "../x", ""}) {
    refuses_at("/runtime_helpers/1/path", path, bad_path);
  }
}

TEST(LauncherManifest, OwnsEveryExecutable) {
  refuses(launcher_document({{"bin/help", 1, 0755}}, {}), "launcher_incompatible", unclaimed);
  refuses(launcher_document({{"bin/help", 1, 0755}, {"data/run.sh", 1, 0755}}, {"bin/help"}), "launcher_incompatible",
          unclaimed);
}

TEST(LauncherManifest, RefusesMissingAndMalformedFields) {
  for (const char* key : {"schema_version", "kind", "bootstrap_abi", "health_abi", "application_schema",
                          "gui_executable", "runtime_helpers"}) {
    refuses(without("", key), "invalid_manifest", malformed);
  }
  for (const char* key : {"minimum", "maximum"}) {
    refuses(without("/application_schema", key), "invalid_manifest", malformed);
  }
  for (const char* key :
       {"/application_schema", "/gui_executable", "/runtime_helpers/0/path", "/runtime_helpers/0/role"}) {
    refuses_at(key, 7, "invalid_manifest", malformed);
  }
}

// Breaks the rules of a valid document, from the last to the first. Each time, the failure must be that of the first
// rule that is broken.
TEST(LauncherManifest, ChecksInItsOrder) {
  struct Break {
    const char* pointer;
    Json value;
    const char* code;
    const char* message;
  };
  const std::vector<Break> breaks = {
      {"/kind", "x", "unsupported_schema", bad_schema},
      {"/health_abi", 2, "launcher_incompatible", bad_bootstrap},
      {"/application_schema/minimum", 2, "launcher_incompatible", bad_application},
      {"/platform", "x", "invalid_manifest", "Unknown snapshot platform"},
      {"/archive/expanded_length", 1, "invalid_manifest", "Expanded length differs from file inventory"},
      {"/runtime_lease_abi", 3, "launcher_incompatible", unsupported},
      {"/staging_abi", 3, "launcher_incompatible", unsupported},
      {"/console_interrupt_abi", 3, "launcher_incompatible", unsupported},
      {"/archive/length", one_gibibyte + 1, "size_limit", too_large},
      {"/gui_executable", "bin/none", "invalid_manifest", bad_gui},
      {"/gui_executable", "bin/program", "invalid_manifest", same_entry},
      {"/runtime_helpers/0", 1, "launcher_incompatible", bad_fields},
      {"/runtime_helpers/0/role", "x", "launcher_incompatible", bad_contract},
      {"/runtime_helpers/0/path", "x", "launcher_incompatible", bad_path},
      {"/runtime_helpers/1", 1, "launcher_incompatible", bad_fields},
      {"/files/4/mode", 0755, "launcher_incompatible", unclaimed}};
  Json document = full_document();
  for (auto broken = breaks.rbegin(); broken != breaks.rend(); ++broken) {
    document[Json::json_pointer(broken->pointer)] = broken->value;
    refuses(document, broken->code, broken->message);
  }
}

TEST(LauncherManifest, ChecksItsRuntimeContractsInTheirOrder) {
  Json document = without("", "staging_abi");
  document["runtime_lease_abi"] = 3;
  refuses(document, "launcher_incompatible", unsupported);
  document = without("", "runtime_lease_abi");
  document["staging_abi"] = 3;
  refuses(document, "launcher_incompatible", lacking);
  document = without("", "staging_abi");
  document["console_interrupt_abi"] = 3;
  refuses(document, "launcher_incompatible", lacking);
}

const Json attempt = {{"nonce", "0123456789abcdef"}, {"reference", {{"manifest_sha256", std::string(64, 'e')}}}};

LauncherManifest launcher() { return LauncherManifest::parse(full_document()); }

Json health_document(const std::string& interface) {
  return {{"schema_version", 1},
          {"health_abi", 1},
          {"nonce", "0123456789abcdef"},
          {"manifest_sha256", std::string(64, 'e')},
          {"build_id", "build-1"},
          {"pid", 12},
          {"interface", interface},
          {"application_schema", 1},
          {"state", "ready"}};
}

Json interruptible_health_document() {
  Json health = health_document("cli");
  health["console_interrupt_abi"] = 1;
  return health;
}

TEST(StartupHealth, NamesTheReleaseAndItsProcess) {
  EXPECT_EQ(launcher().startup_health(attempt, 12, "cli", false), health_document("cli"));
  EXPECT_EQ(launcher().startup_health(attempt, 12, "gui", false), health_document("gui"));
}

TEST(StartupHealth, DeclaresTheConsolesContractOnlyOnTheConsole) {
  EXPECT_EQ(launcher().startup_health(attempt, 12, "cli", true), interruptible_health_document());
  EXPECT_EQ(launcher().startup_health(attempt, 12, "gui", true), health_document("gui"));
}

TEST(StartupHealth, HoldsNumbersOfIntegerTypes) {
  const Json health = launcher().startup_health(attempt, std::numeric_limits<std::uint64_t>::max(), "cli", true);
  EXPECT_EQ(health["pid"].get<std::uint64_t>(), std::numeric_limits<std::uint64_t>::max());
  for (const char* key : {"schema_version", "health_abi", "pid", "application_schema", "console_interrupt_abi"}) {
    EXPECT_TRUE(health[key].is_number_integer()) << key;
  }
}

TEST(StartupHealth, NeedsAnExactProcessAndInterface) {
  for (const char* interface : {"", "CLI", "cli ", "guis", "console"}) {
    EXPECT_FAILURE(launcher().startup_health(attempt, 12, interface, false), "launcher_health", bad_process);
  }
  EXPECT_FAILURE(launcher().startup_health(attempt, 0, "cli", false), "launcher_health", bad_process);
}

bool matches(const Json& health, const char* interface, bool console_interrupt) {
  return launcher().matches_startup_health(health, attempt, 12, interface, console_interrupt);
}

TEST(MatchesStartupHealth, KnowsItsOwnDocument) {
  EXPECT_TRUE(matches(health_document("cli"), "cli", false));
  EXPECT_TRUE(matches(interruptible_health_document(), "cli", true));
  for (const bool console_interrupt : {false, true}) {
    EXPECT_TRUE(matches(health_document("gui"), "gui", console_interrupt));
  }
}

TEST(MatchesStartupHealth, KnowsADocumentThatWasWrittenAndRead) {
  EXPECT_TRUE(matches(parse_json(interruptible_health_document().dump(), 4096), "cli", true));
}

TEST(MatchesStartupHealth, TakesAnythingForADocument) {
  for (const Json& health :
       {Json(nullptr), Json(1), Json("ready"), Json::array(), Json::object(), Json::array({health_document("cli")})}) {
    EXPECT_FALSE(matches(health, "cli", false)) << health;
  }
}

TEST(MatchesStartupHealth, MissesEveryKey) {
  const Json whole = interruptible_health_document();
  for (const auto& member : whole.items()) {
    Json health = whole;
    health.erase(member.key());
    EXPECT_FALSE(matches(health, "cli", true)) << member.key();
  }
}

TEST(MatchesStartupHealth, NoticesEveryOtherValue) {
  const Json whole = interruptible_health_document();
  for (const auto& member : whole.items()) {
    for (const Json& value : {Json(2), Json("x"), Json(nullptr), Json(-1), Json::object(), Json(true)}) {
      Json health = whole;
      health[member.key()] = value;
      EXPECT_FALSE(matches(health, "cli", true)) << member.key() << ": " << value;
    }
  }
}

TEST(MatchesStartupHealth, NoticesNumbersThatAreNoIntegers) {
  const Json whole = interruptible_health_document();
  for (const char* key : {"schema_version", "health_abi", "application_schema", "pid", "console_interrupt_abi"}) {
    Json health = whole;
    health[key] = whole[key].get<double>();
    EXPECT_FALSE(matches(health, "cli", true)) << key;
  }
}

TEST(MatchesStartupHealth, NoticesAnAddedKey) {
  Json health = health_document("cli");
  health["extra"] = 1;
  EXPECT_FALSE(matches(health, "cli", false));
}

TEST(MatchesStartupHealth, WantsTheConsolesContractExactlyWhereItIsAskedFor) {
  EXPECT_FALSE(matches(interruptible_health_document(), "cli", false));
  EXPECT_FALSE(matches(health_document("cli"), "cli", true));
  Json health = health_document("gui");
  health["console_interrupt_abi"] = 1;
  EXPECT_FALSE(matches(health, "gui", true));
}

TEST(MatchesStartupHealth, ComparesWithThisStartAndThisRelease) {
  EXPECT_FALSE(matches(health_document("gui"), "cli", false));
  EXPECT_FALSE(launcher().matches_startup_health(health_document("cli"), attempt, 13, "cli", false));
  Json other = attempt;
  other["nonce"] = "fedcba9876543210";
  EXPECT_FALSE(launcher().matches_startup_health(health_document("cli"), other, 12, "cli", false));
  EXPECT_FALSE(
      parsed("/build_id", "build-2").matches_startup_health(health_document("cli"), attempt, 12, "cli", false));
}

TEST(MatchesStartupHealth, NeedsAnExactProcessAndInterfaceItself) {
  EXPECT_FAILURE(matches(health_document("cli"), "console", false), "launcher_health", bad_process);
  EXPECT_FAILURE(launcher().matches_startup_health(health_document("cli"), attempt, 0, "cli", false), "launcher_health",
                 bad_process);
}

TEST(LauncherManifestTarget, NamesThePlatform) {
  EXPECT_EQ(launcher_manifest_target("macos-aarch64"), "launcher-macos-aarch64.manifest.json");
  EXPECT_EQ(launcher_manifest_target("linux-x86_64"), "launcher-linux-x86_64.manifest.json");
}

}  // namespace
}  // namespace ravok::launcher_contract_test
