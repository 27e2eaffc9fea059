// The sealed package of a first installation, which needs no network: a descriptor whose digest the installer was built
// for, and a flat set of resources that the descriptor names by length and digest. A resource that is missing, changed
// or not named is refused.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/brand/brand.hpp"
#include "app/install/appended_package.hpp"
#include "domain/json.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/limits.hpp"
#include "domain/manifest.hpp"
#include "domain/theme.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

// The names of a package's parts, and the most bytes that each may have.
namespace package_limits {

inline constexpr const char* descriptor_name = "initial-package.json";
inline constexpr std::uint64_t descriptor = 524'288;
inline constexpr std::uint64_t document = maximum_manifest_bytes;
inline constexpr std::uint64_t ca_bundle = 1'048'576;
inline constexpr std::uint64_t icon = 1'048'576;
inline constexpr std::uint64_t theme_definition = maximum_theme_definition_bytes;
inline constexpr std::uint64_t theme_file = 4'194'304;
inline constexpr std::uint64_t theme_files = 16'777'216;
inline constexpr std::uint64_t archives = 1'073'741'824;

}  // namespace package_limits

struct FeaturedGame {
  std::string id;
  std::string name;  // 1 to 80 bytes
};

// Accepts only a game that a package can feature. Fails with "invalid_native_package", and for its ID with
// "invalid_identity" or "unsafe_path".
void require_featured_game(const FeaturedGame& game);

struct NativePackage {
  // A theme in its sealed form: its definition and its files by their names.
  struct SealedTheme {
    std::string definition;
    std::vector<std::pair<std::string, std::string>> files;
  };

  // Where the archives of a package in a directory lie.
  std::filesystem::path bootstrap_archive() const { return directory / bootstrap.target; }
  std::filesystem::path launcher_archive() const { return directory / launcher.target; }

  std::filesystem::path directory;  // absolute and normal; for a package in an installer's file, that file
  std::shared_ptr<const AppendedPackage> appended =
      nullptr;                    // the package in an installer's file; null for one in a directory
  std::string descriptor_sha256;  // the seal
  std::string origin;             // of the repository
  std::string root_json;          // the repository's first root
  std::string ca_bundle;          // PEM; empty if none
  std::string bootstrap_manifest_json;
  std::string launcher_manifest_json;
  SnapshotManifest bootstrap;
  LauncherManifest launcher;
  std::optional<FeaturedGame> featured_game;
  std::optional<Brand> brand;
  std::string brand_icon;  // the bytes of an .ico file; empty if none
  std::optional<SealedTheme> theme;
};

// Returns the package in a directory, with every resource proved against the seal, 64 characters of lower-case
// hexadecimal. `progress`, which may be empty, is told of the bytes digested. Fails with "native_install_trust" for a
// wrong seal, "invalid_native_package", "content_mismatch", "size_limit", "unsupported_schema",
// "launcher_incompatible", "invalid_origin", "expired_metadata", "cancelled", and as the readers of its documents do
// ("invalid_json", "invalid_manifest", "invalid_theme", "signature_threshold").
NativePackage read_native_package(const std::filesystem::path& path, std::string_view seal,
                                  const ProgressCallback& progress);

// The same for the package in an installer's file, with the same bounds and proofs of what it holds.
NativePackage read_native_package(const std::shared_ptr<const AppendedPackage>& package, std::string_view seal,
                                  const ProgressCallback& progress);

// What a package installs, by its manifests alone.
struct PackageManifests {
  SnapshotManifest bootstrap;
  LauncherManifest launcher;
};

// Return what a front end shows before the installation begins. Prove the descriptor and the resources that they
// return, and nothing else; fail as read_native_package does for those.
std::optional<Brand> package_brand(const std::filesystem::path& path, std::string_view seal);
std::optional<Theme> package_theme(const std::filesystem::path& path, std::string_view seal);
std::optional<std::string> package_brand_icon(const std::filesystem::path& path, std::string_view seal);
std::optional<FeaturedGame> package_featured_game(const std::filesystem::path& path, std::string_view seal);
std::optional<Brand> package_brand(const std::shared_ptr<const AppendedPackage>& package, std::string_view seal);
std::optional<Theme> package_theme(const std::shared_ptr<const AppendedPackage>& package, std::string_view seal);
std::optional<std::string> package_brand_icon(const std::shared_ptr<const AppendedPackage>& package,
                                              std::string_view seal);
std::optional<FeaturedGame> package_featured_game(const std::shared_ptr<const AppendedPackage>& package,
                                                  std::string_view seal);
PackageManifests package_manifests(const std::filesystem::path& path, std::string_view seal);
PackageManifests package_manifests(const std::shared_ptr<const AppendedPackage>& package, std::string_view seal);

}  // namespace ravok
