// The operations on an installation as a whole. Everything is prepared aside; the visible step is short and
// guarded by a marker, so that a crash at any moment leaves a folder whose state the next run knows.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "app/install/installation_record.hpp"
#include "app/install/setup_callbacks.hpp"
#include "domain/json.hpp"
#include "platform/shortcut/shortcuts.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

struct NativeInstallRequest {
  std::filesystem::path package;    // the initial package
  std::filesystem::path data_root;  // the user's choice of a data folder
  bool repair = false;
  bool create_shortcut = false;   // of an install: whether the client gets one
  bool restore_shortcuts = true;  // of a repair: whether recorded ones that are missing are made again
};

struct NativeInstallResult {
  std::filesystem::path data_root;
  std::filesystem::path executable;  // the installed bootstrap
  bool repaired = false;
  std::vector<std::string> replaced;             // out of "bootstrap", "launcher" and "trust", in this order
  std::vector<std::filesystem::path> shortcuts;  // made, or made again
  std::string shortcut_problem;                  // empty if none
  bool shortcut_missing = false;                 // after a repair: the client has no shortcut, and could have one

  // With "shortcut_missing" only where that is so.

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
  // Makes an installation out of a sealed package, or repairs one: what proves whole is kept, and the player's
  // data is never touched. The client must be closed. A failed install takes away what it has made; a failed
  // repair is recorded. Fails with "unsafe_path", "not_installed", "already_installed", "unsupported_schema",
  // "busy", "ravok_running", "cancelled", and as reading the package, unpacking and writing do.
  static NativeInstallResult install(const NativeInstallRequest& request, std::string_view seal,
                                     const NativeSetupCallbacks& callbacks);

  // Puts the first launcher into the store of a new data root. Fails as LauncherStore::seed_initial does.
  static void seed_launcher(const std::filesystem::path& root, std::string_view manifest_json,
                            const std::filesystem::path& archive, const ProgressCallback& progress);

  // Returns what a data folder says of itself; writes nothing and takes no lock. Fails with
  // "unsupported_schema", "shortcut_ledger", and as data_folder and current_bootstrap do.
  static NativeInstallStatus status(const std::filesystem::path& data_root);

  // Removes an installation, whole or interrupted, and keeps the player's data unless told otherwise. Fails
  // with "not_installed", "busy", "ravok_running" or "cancelled" before anything has changed; and afterwards
  // with "file_remove" and as atomic_write does, which leaves a folder that a second call finishes.
  static NativeUninstallResult uninstall(const NativeUninstallRequest& request, const NativeSetupCallbacks& callbacks);

  // Makes a shortcut for the client or a game, and returns its path. An empty name or path stands for the
  // default one. Fails with "not_installed" and as create_owned_native_shortcut does.
  static std::filesystem::path create_shortcut(const std::filesystem::path& data_root, const std::string& game,
                                               const std::string& name, const std::filesystem::path& path);

  // Removes the shortcuts of an installation. Fails with "not_installed" and as remove_owned_native_shortcuts
  // does.
  static ShortcutRemoval remove_shortcuts(const std::filesystem::path& data_root);
};

}  // namespace ravok
