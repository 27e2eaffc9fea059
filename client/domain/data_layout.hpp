// Every name below a data folder: where an installation, its launcher store and its records lie.
#pragma once

#include <array>
#include <filesystem>
#include <string>
#include <string_view>

namespace ravok {

// The name of the file that stands in a data folder while a commit has begun and not ended.
inline constexpr const char* incomplete_install_marker = ".ravok-setup-incomplete";

// The entries that mark a folder as an earlier data folder.
inline constexpr std::array<std::string_view, 4> ravok_entries = {"native", "launcher", "userdata", "settings.json"};
// The entries among these that an uninstall keeps, unless it is asked to remove them too.
inline constexpr std::array<std::string_view, 2> player_data = {"userdata", "settings.json"};

// The file of the trusted root in the folder DataPaths::trust, the one that is there while the keys of its roles
// change, and the lock.
inline constexpr const char* trusted_root_file = "root.json";
inline constexpr const char* trust_rotation_mark = "root-invalidation.json";
inline constexpr const char* trust_lock_file = ".lock";

// The file in DataPaths::theme_directory that names the theme's other files.
inline constexpr const char* theme_definition_file = "theme.json";

// The file beside a program that makes it serve the one game of another store.
inline constexpr const char* platformed_game_file = "ravok-platform.json";
// The folder in the user's own data root that holds the data folders of such games.
inline constexpr const char* platformed_games_folder = "platformed";

// The places in the folder of an install or repair, DataPaths::staging: the trees that are prepared, and the names
// under which the trees that they replace are kept until the end. Touches no file.
struct StagingPaths {
  explicit StagingPaths(const std::filesystem::path& folder);

  std::filesystem::path bootstrap;
  std::filesystem::path launcher_root;  // the folder in which the launcher store is prepared
  std::filesystem::path trust;
  std::filesystem::path theme;
  std::filesystem::path old_bootstrap;
  std::filesystem::path old_launcher;
  std::filesystem::path old_trust;
  std::filesystem::path old_theme;
};

// The places below a data folder, all absolute where `root` is. Touches no file.
struct DataPaths {
  explicit DataPaths(const std::filesystem::path& root);

  std::filesystem::path root;
  std::filesystem::path native;                 // all that belongs to the native installation
  std::filesystem::path incomplete_marker;      // there while a commit has begun and not ended
  std::filesystem::path setup_lock;             // of setup operations
  std::filesystem::path bootstrap_lock;         // held by whoever runs from this folder
  std::filesystem::path installation_record;    // of a finished installation
  std::filesystem::path status_record;          // of the last setup operation
  std::filesystem::path bootstrap_directory;    // the unpacked bootstrap
  std::filesystem::path bootstrap_manifest;     // its snapshot manifest
  std::filesystem::path bootstrap_update;       // there while an update of the bootstrap has begun and not ended
  std::filesystem::path bootstrap_update_tree;  // where the tree of an update is unpacked
  // Everything that updates of the bootstrap leave, the two above included; it applies to no other bootstrap.
  std::array<std::filesystem::path, 6> bootstrap_update_traces;
  std::filesystem::path brand_icon;         // of a branded installation
  std::filesystem::path menu_icon;          // its image for the desktop's menu, where the icon holds one
  std::filesystem::path theme_directory;    // of a branded installation
  std::filesystem::path shortcut_ledger;    // the shortcuts that belong to the installation
  std::filesystem::path shortcut_lock;      // of the ledger
  std::filesystem::path staging;            // of an install or repair; absent at rest
  std::filesystem::path launcher;           // the launcher store
  std::filesystem::path trust;              // of the repository
  std::filesystem::path trusted_root;       // the repository's root document
  std::filesystem::path repository_record;  // origin and CA bundle of the repository
  std::filesystem::path repository_ca;      // the CA bundle, where the package brought one
};

// The places that updates of the bootstrap use, below a data folder. Touches no file.
struct BootstrapPaths {
  explicit BootstrapPaths(const std::filesystem::path& root);

  std::filesystem::path tree;             // the installed bootstrap
  std::filesystem::path manifest;         // its snapshot manifest
  std::filesystem::path update_tree;      // the bootstrap that is to replace it
  std::filesystem::path partial_tree;     // the same, while it is being unpacked
  std::filesystem::path update_manifest;  // its manifest; there while the update waits to be applied
  std::filesystem::path downloads;        // what is fetched for it
  std::filesystem::path rejected;         // the SHA-256 text of the manifest of an update that failed
  std::filesystem::path update_lock;      // held by whoever prepares or applies an update
  std::filesystem::path old_files_mark;   // there while replaced files wait to be removed
};

// The places in a launcher store, whose folder is DataPaths::launcher. Touches no file.
struct LauncherPaths {
  explicit LauncherPaths(const std::filesystem::path& store);

  // The folders that must exist before the store can be used, in the order in which they are made.
  std::array<std::filesystem::path, 9> directories() const;

  // The places of one version, by the SHA-256 of its manifest, and of one attempt to start one, by its nonce. Neither
  // is checked.
  std::filesystem::path version(std::string_view sha256) const;        // its unpacked files
  std::filesystem::path manifest(std::string_view sha256) const;       // its manifest
  std::filesystem::path version_lease(std::string_view sha256) const;  // its lease
  // Its manifest while the version is being removed, so that nobody takes what is left of it for a whole one.
  std::filesystem::path removed_manifest(std::string_view sha256) const;
  std::filesystem::path attempt_lease(std::string_view nonce) const;
  std::filesystem::path attempt_acknowledgement(std::string_view nonce) const;  // that the launcher holds its leases
  std::filesystem::path attempt_health(std::string_view nonce) const;           // that the launcher is ready

  // The places of one staging, by its nonce, which is not checked either.
  std::filesystem::path staging_work(std::string_view nonce) const;    // where its version is unpacked
  std::filesystem::path staging_intent(std::string_view nonce) const;  // that it has begun and not ended

  std::filesystem::path store;
  std::filesystem::path document;          // which versions are active, candidate and rollback
  std::filesystem::path owner_lock;        // held by whoever changes the document
  std::filesystem::path start_marker;      // there while a windowed launcher has been started and has not opened
  std::filesystem::path cleanup;           // there while a clean-up has begun and not ended
  std::filesystem::path versions;          // the unpacked versions, each named by its manifest's SHA-256
  std::filesystem::path manifests;         // their manifests, named in the same way
  std::filesystem::path downloads;         // archives on their way
  std::filesystem::path download_intents;  // what is to be downloaded
  std::filesystem::path staging;           // versions that are being unpacked
  std::filesystem::path intents;           // stagings that have begun
  std::filesystem::path health;            // what started versions have said of themselves
  std::filesystem::path leases;            // the two folders of leases
  std::filesystem::path version_leases;    // held by whoever runs a version
  std::filesystem::path attempt_leases;    // held by whoever starts one
};

// The places of one installed game, as paths relative to the data folder. Touches no file.
struct GamePaths {
  explicit GamePaths(std::string_view game_id);

  // Returns the place of an unpacked version, and of the saved manifest with this SHA-256.
  std::string version(std::string_view name) const;
  std::string manifest(std::string_view sha256) const;

  std::string folder;  // all that belongs to the game
  std::string record;  // which version is installed
};

}  // namespace ravok
