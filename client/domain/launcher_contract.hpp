// Launcher releases: a snapshot that also declares the contracts under which the bootstrap may start
// it, and the document by which a started launcher proves that it is that release.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "domain/manifest.hpp"

namespace ravok {

// The version of the application's data that this system reads and writes.
inline constexpr std::uint64_t current_application_schema = 1;

// The most that a launcher may be.
namespace launcher_limits {

inline constexpr std::uint64_t bytes = 1'073'741'824;  // of the archive, and of all files
inline constexpr std::size_t files = 4096;

}  // namespace launcher_limits

// The variables that give a launcher the authority to run as a candidate. Whoever is started for another purpose gets
// them empty.
namespace startup_variable {

inline constexpr std::string_view health_nonce = "RAVOK_LAUNCHER_HEALTH_NONCE";
inline constexpr std::string_view manifest = "RAVOK_LAUNCHER_MANIFEST";
inline constexpr std::string_view build = "RAVOK_LAUNCHER_BUILD";
inline constexpr std::string_view interface = "RAVOK_LAUNCHER_INTERFACE";
inline constexpr std::string_view data_root = "RAVOK_LAUNCHER_DATA_ROOT";

}  // namespace startup_variable

inline constexpr std::array<std::string_view, 5> startup_variables = {
    startup_variable::health_nonce, startup_variable::manifest, startup_variable::build, startup_variable::interface,
    startup_variable::data_root};

// A launcher release. The inherited `executable` is the entry point for the console.
struct LauncherManifest : SnapshotManifest {
  // Returns the manifest of a document. Fails with "unsupported_schema"; "launcher_incompatible" for a release that
  // this bootstrap must not start; "invalid_version"; "size_limit" beyond 1 GiB, of the archive or expanded, or 4096
  // files; "path_collision", "invalid_identity" and "unsafe_path" as SnapshotManifest::parse does; and
  // "invalid_manifest" for every other rule.
  static LauncherManifest parse(const Json& document);
  // The same, and keeps the document itself instead of a copy.
  static LauncherManifest parse(Json&& document);

  // Returns what a launcher of this release writes when it is ready. `attempt` is the record of its
  // start, with "nonce" and "reference"; `interface` is "cli" or "gui"; `console_interrupt` tells
  // whether a launcher on the console must declare that contract. Fails with "launcher_health".
  Json startup_health(const Json& attempt, std::uint64_t pid, std::string_view interface, bool console_interrupt) const;

  // Whether `health`, which may be any value, is exactly the document that startup_health returns, with numbers of
  // integer types. Fails as startup_health does for the other arguments.
  bool matches_startup_health(const Json& health, const Json& attempt, std::uint64_t pid, std::string_view interface,
                              bool console_interrupt) const;

  // Returns the paths of the helpers with a role, keys of `files`, in the order in which the document names them.
  std::vector<std::string> helpers(std::string_view role) const;

  std::string gui_executable;             // the entry point with windows, a key of `files`
  std::set<std::string> runtime_helpers;  // the other executables, keys of `files`
  std::uint64_t runtime_lease_abi = 2;
  std::uint64_t staging_abi = 1;
  std::uint64_t console_interrupt_abi = 1;
};

// Returns the path in a repository of the manifest of the current launcher for a platform, such as
// "linux-x86_64".
std::string launcher_manifest_target(std::string_view platform);

}  // namespace ravok
