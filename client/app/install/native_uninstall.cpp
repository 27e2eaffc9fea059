// The removal of an installation, perhaps by a program that lies in it. The marker is written first, so that a
// half-removed folder never starts, and removed last.

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/brand/brand.hpp"
#include "app/install/data_folder.hpp"
#include "app/install/installation_record.hpp"
#include "app/install/json_paths.hpp"
#include "app/install/native_install.hpp"
#include "app/install/setup_marker.hpp"
#include "app/install/system_failures.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/mounts.hpp"
#include "platform/file/native_files.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/status.hpp"
#include "platform/shortcut/shortcuts.hpp"

namespace ravok {
namespace {

class Removal {
 public:
  Removal(const NativeUninstallRequest& request, const NativeSetupCallbacks& callbacks)
      : request_(request),
        callbacks_(callbacks),
        cancellation_(callbacks),
        paths_(data_folder(request.data_root)),
        trash_(native_files::temporary_directory(paths_.root) / ("ravok-removed-" + random_id())) {}

  NativeUninstallResult run() {
    require(installation_state(paths_) != InstallationState::none, "not_installed", not_installed_in(paths_.root));
    result_.data_root = paths_.root;
    const NativeFileLock setup_lock(paths_.setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
    const std::unique_ptr<NativeFileLock> bootstrap_lock =
        wait_for_ravok_closed(paths_, request_.close_timeout, cancellation_);
    cancellation_.check();
    const HeldDirectory root = HeldDirectory::open(paths_.root);
    require(root.is_in_place() && setup_lock.matches_path(paths_.setup_lock), "unsafe_path",
            "The data folder was changed while setup worked in it");
    require_no_mounts(root.handle(), paths_.root, [&](const std::filesystem::path& place) {
      return !is_kept(path_utf8(*place.lexically_relative(paths_.root).begin()));
    });
    const std::vector<std::string> names = root.names();
    report(0);
    withdraw(root);
    for (const std::string& name : names) {
      remove_child(root, name);
    }
    // The locks are still held, so that nobody begins an installation in a folder that is about to go.
    remove_traces(root);
    if (!result_.deferred.empty()) {
      native_files::remove_after_exit(trash_);
    }
    result_.data_removed = is_missing(paths_.root);
    report(1);
    return std::move(result_);
  }

 private:
  void report(std::uint64_t done) const {
    if (callbacks_.progress) {
      callbacks_.progress("removing", done, done);
    }
  }

  // Ends the installation: what remains are files that belong to nothing.
  void withdraw(const HeldDirectory& root) {
    write_setup_marker(root);
    std::optional<Brand> brand;
    // A link in the place of this folder is removed with the rest, without a look at what it leads to.
    if (const auto native = root.find_directory(name_of(paths_.native))) {
      brand = installed_brand(paths_.root);
      native->remove(name_of(paths_.installation_record));
      // A power cut must not bring the record back once the marker is gone.
      native->flush();
    }
    remove_uninstall_entry(uninstall_entry_key(brand));
    try {
      result_.changed_shortcuts = release_owned_native_shortcuts(paths_.root).changed;
    } catch (const Error&) {
      tell_of_default_shortcut();
    }
  }

  // Shortcuts never stop an uninstall. Where the ledger does not tell which there are, the default one is reported if
  // it is there.
  void tell_of_default_shortcut() {
    try {
      const std::filesystem::path entry = native_menu_entry(paths_.root, "", product_name());
      if (!is_missing(entry)) {
        result_.changed_shortcuts.push_back(entry);
      }
    } catch (const Error&) {
      // There is no menu folder, and so no shortcut in it.
    }
  }

  bool is_kept(const std::string& name) const {
    return !request_.remove_data && std::find(player_data.begin(), player_data.end(), name) != player_data.end();
  }

  void remove_child(const HeldDirectory& root, const std::string& name) {
    if (name == name_of(paths_.incomplete_marker) || name == name_of(paths_.bootstrap_lock) ||
        name == name_of(paths_.setup_lock)) {
      return;
    }
    if (is_kept(name)) {
      result_.kept.push_back(paths_.root / name);
      return;
    }
    root.remove_tree(name);
  }

  void remove_traces(const HeldDirectory& root) const {
    const std::string setup_lock = name_of(paths_.setup_lock);
    root.remove_quietly(name_of(paths_.bootstrap_lock));
    // A power cut must not bring back what the marker no longer guards.
    root.flush();
    remove_setup_marker(root);
    // Everything is removed, so nothing fails from here on, and nothing takes memory. If a power cut brings the marker
    // back, another uninstall removes it.
    root.flush_quietly();
    // The lock's file goes last, since without it the lock excludes nobody.
    root.remove_quietly(setup_lock);
    // A folder that still holds something stays.
    root.remove_itself_quietly();
  }

  const NativeUninstallRequest& request_;
  const NativeSetupCallbacks& callbacks_;
  const Cancellation cancellation_;
  const DataPaths paths_;
  const std::filesystem::path trash_;
  NativeUninstallResult result_;
};

}  // namespace

NativeUninstallResult NativeInstaller::uninstall(const NativeUninstallRequest& request,
                                                 const NativeSetupCallbacks& callbacks) {
  return with_system_failures([&] { return Removal(request, callbacks).run(); });
}

Json NativeUninstallResult::to_json() const {
  return {{"schema_version", 1},
          {"uninstalled", true},
          {"data_root", path_utf8(data_root)},
          {"data_removed", data_removed},
          {"kept", paths_json(kept)},
          {"deferred", paths_json(deferred)},
          {"changed_shortcuts", paths_json(changed_shortcuts)}};
}

}  // namespace ravok
