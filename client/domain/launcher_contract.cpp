#include "domain/launcher_contract.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "domain/paths.hpp"

namespace ravok {
namespace {

constexpr std::string_view invalid_launcher = "invalid_manifest";
constexpr std::string_view incompatible_launcher = "launcher_incompatible";
constexpr std::string_view malformed_launcher = "Launcher manifest has missing or malformed fields";
constexpr std::size_t maximum_helpers = 16;
constexpr std::array<std::string_view, 3> helper_roles = {"crash-handler", "maintenance", "maintenance-gui"};

void require_kind(const Json& document) {
  constexpr const char* unsupported = "Unsupported launcher manifest; existing installation was preserved";
  require(document.is_object(), "unsupported_schema", unsupported);
  require(is_integer(document.at("schema_version"), 1) && is_text(document.at("kind"), "ravok-launcher-release"),
          "unsupported_schema", unsupported);
}

void require_compatible(const Json& document) {
  require(is_integer(document.at("bootstrap_abi"), 1) && is_integer(document.at("health_abi"), 1),
          incompatible_launcher, "This launcher needs another native bootstrap ABI");
  const Json& schema = document.at("application_schema");
  const std::uint64_t minimum = positive_version(schema.at("minimum"));
  const std::uint64_t maximum = positive_version(schema.at("maximum"));
  require(minimum <= current_application_schema && maximum >= current_application_schema, incompatible_launcher,
          "This launcher cannot preserve the current application data schema");
}

void require_contract_value(const Json& document, const char* key, std::uint64_t expected) {
  require(document.contains(key), incompatible_launcher, "Launcher manifest lacks its runtime contract");
  require(is_integer(document.at(key), static_cast<std::int64_t>(expected)), incompatible_launcher,
          "Unsupported launcher runtime contract");
}

void require_bounded(const SnapshotManifest& manifest) {
  require(manifest.archive_length <= launcher_limits::bytes && manifest.expanded_length <= launcher_limits::bytes &&
              manifest.files.size() <= launcher_limits::files,
          "size_limit", "Launcher payload exceeds bounded native package limits");
}

bool is_executable(const SnapshotManifest& manifest, const std::string& path) {
  const auto file = manifest.files.find(path);
  return file != manifest.files.end() && file->second.executable;
}

void read_gui_executable(LauncherManifest& manifest) {
  manifest.gui_executable = text_at(manifest.raw, "gui_executable");
  validate_relative_path(manifest.gui_executable, true);
  require(is_executable(manifest, manifest.gui_executable), invalid_launcher,
          "GUI launcher executable is missing or not executable");
  require(manifest.gui_executable != manifest.executable, invalid_launcher,
          "GUI and CLI need separate native entry points");
}

bool is_frontend(const LauncherManifest& manifest, const std::string& path) {
  return path == manifest.executable || path == manifest.gui_executable;
}

void read_helper(LauncherManifest& manifest, const Json& helper) {
  require(helper.is_object() && helper.contains("path") && helper.contains("role") && helper.contains("lease_abi"),
          incompatible_launcher, "Native helper ownership fields are invalid");
  const bool known_role =
      std::find(helper_roles.begin(), helper_roles.end(), text_at(helper, "role")) != helper_roles.end();
  require(known_role && is_integer(helper.at("lease_abi"), 1), incompatible_launcher,
          "Unsupported native helper ownership contract");
  const std::string& path = text_at(helper, "path");
  require(is_executable(manifest, path) && !is_frontend(manifest, path) && manifest.runtime_helpers.insert(path).second,
          incompatible_launcher, "Native helper is missing, repeated or overlaps a frontend");
}

void read_runtime_helpers(LauncherManifest& manifest) {
  const Json& helpers = manifest.raw.at("runtime_helpers");
  require(helpers.is_array() && helpers.size() <= maximum_helpers, incompatible_launcher,
          "Native helper ownership must be a bounded list");
  for (const Json& helper : helpers) {
    read_helper(manifest, helper);
  }
}

void require_owned_executables(const LauncherManifest& manifest) {
  const bool all_owned = std::all_of(manifest.files.begin(), manifest.files.end(), [&](const auto& entry) {
    return !entry.second.executable || is_frontend(manifest, entry.first) ||
           manifest.runtime_helpers.contains(entry.first);
  });
  require(all_owned, incompatible_launcher, "Every native helper needs declared lifetime ownership");
}

void require_launcher(const Json& document) {
  require_kind(document);
  require_compatible(document);
}

bool has_integer(const Json& document, const char* key) {
  return document.contains(key) && document.at(key).is_number_integer();
}

}  // namespace

LauncherManifest LauncherManifest::parse(const Json& document) {
  // Checked here too, so that a document that is refused is not copied first.
  refuse_malformed(invalid_launcher, malformed_launcher, [&] { require_launcher(document); });
  return parse(Json(document));
}

LauncherManifest LauncherManifest::parse(Json&& document) {
  return refuse_malformed(invalid_launcher, malformed_launcher, [&] {
    require_launcher(document);
    LauncherManifest manifest;
    static_cast<SnapshotManifest&>(manifest) = SnapshotManifest::parse(std::move(document));
    require_contract_value(manifest.raw, "runtime_lease_abi", manifest.runtime_lease_abi);
    require_contract_value(manifest.raw, "staging_abi", manifest.staging_abi);
    require_contract_value(manifest.raw, "console_interrupt_abi", manifest.console_interrupt_abi);
    require_bounded(manifest);
    read_gui_executable(manifest);
    read_runtime_helpers(manifest);
    require_owned_executables(manifest);
    return manifest;
  });
}

Json LauncherManifest::startup_health(const Json& attempt, std::uint64_t pid, std::string_view interface,
                                      bool console_interrupt) const {
  require((interface == "cli" || interface == "gui") && pid != 0, "launcher_health",
          "Launcher health needs its exact native process and interface");
  Json health = {{"schema_version", 1},
                 {"health_abi", 1},
                 {"nonce", attempt.at("nonce")},
                 {"manifest_sha256", attempt.at("reference").at("manifest_sha256")},
                 {"build_id", build_id},
                 {"pid", pid},
                 {"interface", interface},
                 {"application_schema", current_application_schema},
                 {"state", "ready"}};
  if (console_interrupt && interface == "cli") {
    health["console_interrupt_abi"] = console_interrupt_abi;
  }
  return health;
}

bool LauncherManifest::matches_startup_health(const Json& health, const Json& attempt, std::uint64_t pid,
                                              std::string_view interface, bool console_interrupt) const {
  // A floating-point number may compare equal to the integer that is wanted, and is refused all the same.
  for (const char* key : {"schema_version", "health_abi", "application_schema", "pid"}) {
    if (!health.is_object() || !has_integer(health, key)) {
      return false;
    }
  }
  if (console_interrupt && interface == "cli" && !has_integer(health, "console_interrupt_abi")) {
    return false;
  }
  return health == startup_health(attempt, pid, interface, console_interrupt);
}

std::vector<std::string> LauncherManifest::helpers(std::string_view role) const {
  std::vector<std::string> paths;
  for (const Json& helper : raw.at("runtime_helpers")) {
    if (text_at(helper, "role") == role) {
      paths.push_back(text_at(helper, "path"));
    }
  }
  return paths;
}

std::string launcher_manifest_target(std::string_view platform) {
  return "launcher-" + std::string(platform) + ".manifest.json";
}

}  // namespace ravok
