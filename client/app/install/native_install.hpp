// The operations on an installation as a whole. Everything is prepared aside; the visible step is short and
// guarded by a marker, so that a crash at any moment leaves a folder whose state the next run knows.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "app/install/appended_package.hpp"
#include "app/install/installation_record.hpp"
#include "app/install/setup_callbacks.hpp"
#include "domain/json.hpp"
#include "platform/shortcut/shortcuts.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

struct NativeInstallRequest {
  std::filesystem::path package;    // the initial package, unless it is the one below
  std::filesystem::path data_root;  // the user's choice of a data folder
  bool repair = false;
  bool create_shortcut = false;   // of an install: whether the client gets one
  bool restore_shortcuts = true;  // of a repair: whether recorded ones that are missing are made again
  // The initial package in an installer's file; null for one in a directory.
  std::shared_ptr<const AppendedPackage> appended = nullptr;
};

struct NativeInstallResult {
  std::filesystem::path data_root;
  std::filesystem::path executable;  // the installed bootstrap
  bool repaired = false;
  std::vector<std::string> replaced;             // out of "bootstrap", "launcher" and "trust", in this order
  std::vector<std::filesystem::path> shortcuts;  // made, or made again
  std::string shortcut_problem;                  // empty if none
  bool shortcut_missing = false;                 // after a repair: the client has no shortcut, and could have one

  // Returns the document of the result. It has the key "shortcut_missing" only where its value is true.

  Json to_json() const;
};

struct NativeUninstallRequest {
  std::filesystem::path data_root;
  bool remove_data = false;                    // the player's data too
  std::chrono::milliseconds close_timeout{0};  // how long a running client may take to close
};

struct NativeUninstallResult {
  std::filesystem::path data_root;
  bool data_removed = false;                             // whether the folder itself is gone
  std::vector<std::filesystem::path> kept;               // of the player's data
  std::vector<std::filesystem::path> deferred;           // what could not be removed now
  std::vector<std::filesystem::path> changed_shortcuts;  // left in place

  Json to_json() const;
};

class NativeInstaller {
 public:
  // Makes an installation out of a sealed package, or repairs one. A repair keeps the parts that prove whole, and
  // neither touches the player's data. The client must be closed. A failed install removes what it has made, and
  // nothing that somebody else has put into the folder meanwhile; one that fails in its commit may leave a folder that
  // a repair or another install finishes. A failed repair is recorded, and removes what it has prepared. Fails with
  // "unsafe_path", "not_installed", "already_installed", "unsupported_schema", "busy", "ravok_running", "cancelled";
  // with "native_install_trust", "content_mismatch", "invalid_native_package" and the other codes of
  // read_native_package; with "insufficient_space" and "file_write"; and as extract_snapshot, TufClient::initialize and
  // commit_install do.
  static NativeInstallResult install(const NativeInstallRequest& request, std::string_view seal,
                                     const NativeSetupCallbacks& callbacks);

  // Puts the first launcher into the store of a new data root. Fails with "already_installed", "launcher_incompatible",
  // "insufficient_space" and the other codes of LauncherStore::seed_initial.
  static void seed_launcher(const std::filesystem::path& root, std::string_view manifest_json,
                            const std::filesystem::path& archive, const ProgressCallback& progress);

  // The same from an archive that is a part of a file.
  static void seed_launcher(const std::filesystem::path& root, std::string_view manifest_json, const FileRange& archive,
                            const ProgressCallback& progress);

  // Returns what a data folder says of itself; writes nothing and takes no lock. Fails with "unsafe_path" as
  // data_folder does, and as installation_status does ("unsupported_schema", "shortcut_ledger", "permissions").
  static NativeInstallStatus status(const std::filesystem::path& data_root);

  // Removes an installation, whole or interrupted, and keeps the player's data unless the request says otherwise. Fails
  // with "not_installed", "busy", "ravok_running", "cancelled" or "unsafe_path" before anything has changed. Once it
  // has begun, it may still fail with "file_remove", "file_sync" and the other codes of HeldDirectory; a second call
  // then finishes the removal.
  static NativeUninstallResult uninstall(const NativeUninstallRequest& request, const NativeSetupCallbacks& callbacks);

  // Makes a shortcut for the client or a game, and returns its path. An empty name or path stands for the default one.
  // Fails with "not_installed", and as create_owned_native_shortcut does ("native_install_incomplete", "shortcut_path",
  // "shortcut_ledger").
  static std::filesystem::path create_shortcut(const std::filesystem::path& data_root, const std::string& game,
                                               const std::string& name, const std::filesystem::path& path);

  // Removes the shortcuts of an installation. Fails with "not_installed", and as remove_owned_native_shortcuts does
  // ("shortcut_ledger", "file_remove", "file_sync").
  static ShortcutRemoval remove_shortcuts(const std::filesystem::path& data_root);
};

}  // namespace ravok
