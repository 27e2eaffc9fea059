#include "app/install/native_install.hpp"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <initializer_list>
#include <memory>
#include <optional>
#include <utility>

#include "app/brand/brand.hpp"
#include "app/install/data_folder.hpp"
#include "app/install/install_commit.hpp"
#include "app/install/install_folder.hpp"
#include "app/install/json_paths.hpp"
#include "app/install/native_package.hpp"
#include "app/install/setup_marker.hpp"
#include "app/install/system_failures.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/status.hpp"
#include "platform/file/transaction_name.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

constexpr const char* unbranded_name = "Ravok";

// Whether the work finds a part whole. A failure of any kind means that the part is to be replaced.
template <typename Work>
bool proves_whole(Work work) {
  try {
    work();
    return true;
  } catch (const Error&) {
    return false;
  }
}

// Fails with "unsafe_path" unless the names lead from one plain directory to the next.
HeldDirectory require_plain(const HeldDirectory& directory, const std::filesystem::path& below) {
  std::optional<HeldDirectory> found;
  const HeldDirectory* last = &directory;
  for (const std::filesystem::path& name : below) {
    found = last->find_directory(path_utf8(name));
    require(found.has_value(), "unsafe_path", "Expected a plain directory");
    last = &*found;
  }
  return std::move(*found);
}

bool is_replaced_image(const std::string& name) { return std::filesystem::path(name).extension() == ".old"; }

// An update that was broken off between its moves is undone by the next start, out of the files that it replaced. They
// stay until this repair has replaced the tree, since it may fail before.
void require_no_broken_update(const DataPaths& paths) {
  if (is_there(paths.bootstrap_update)) {
    const DamagedFiles damaged =
        damaged_snapshot_files(current_bootstrap(paths), paths.bootstrap_directory, {}, maximum_tree_entries);
    require(std::all_of(damaged.paths.begin(), damaged.paths.end(), is_replaced_image), "content_mismatch",
            "An update of the bootstrap was broken off");
  }
}

void verify_bootstrap(const DataPaths& paths, const HeldDirectory& native) {
  const HeldDirectory tree = require_plain(native, paths.bootstrap_directory.filename());
  require_no_broken_update(paths);
  // An update leaves these behind: images that were in use when it replaced them.
  tree.remove_matching_quietly(is_replaced_image);
  verify_snapshot_tree(current_bootstrap(paths), paths.bootstrap_directory, {});
}

void verify_launcher(const DataPaths& paths, const HeldDirectory& root) {
  require_plain(root, LauncherPaths(paths.launcher.filename()).versions);
  const std::unique_ptr<LauncherStore> store = LauncherStore::existing(paths.root, true);
  const Json status = store->status();
  const Json& build = current_build(status);
  verify_snapshot_tree(store->manifest(build), store->payload(build), {});
}

void verify_trust(const DataPaths& paths, const HeldDirectory& root) {
  require_plain(root, paths.trust.filename());
  parse_json(read_file(paths.trusted_root, tuf_root_limit), tuf_root_limit);
}

// One install or repair, from the sealed package to the record.
class Installation {
 public:
  Installation(const NativeInstallRequest& request, const NativePackage& package, const NativeSetupCallbacks& callbacks)
      : request_(request),
        package_(package),
        callbacks_(callbacks),
        cancellation_(callbacks),
        paths_(data_folder(request.data_root)) {}

  NativeInstallResult run() {
    require_install_place(paths_, package_.directory, package_.bootstrap, package_.launcher);
    root_was_missing_ = is_missing(paths_.root);
    require_install_state(paths_, root_was_missing_, request_.repair);
    root_ = HeldDirectory::open_private(paths_.root);
    NativeInstallResult result;
    try {
      result = with_system_failures([&] { return replace_parts(); });
    } catch (const Error& error) {
      give_up(error);
      throw;
    }
    release_locks();
    make_shortcuts(result);
    list_for_removal(result);
    write_status(paths_, action(), "succeeded", result.shortcut_problem);
    return result;
  }

 private:
  const char* action() const { return request_.repair ? "repair" : "install"; }

  // Returns what reports the progress of a phase, and ends it when the user wants it to stop.
  ProgressCallback progress(std::string_view phase) const {
    return [this, phase](std::uint64_t done, std::uint64_t total) {
      if (callbacks_.progress) {
        callbacks_.progress(phase, done, total);
      }
      cancellation_.check();
      return true;
    };
  }

  // Another setup may have changed the folder before this one held the lock, so its state is looked at again.
  void require_state_still() {
    root_was_missing_ = root_was_missing_ && is_missing(paths_.native);
    require_install_state(paths_, root_was_missing_, request_.repair);
  }

  NativeInstallResult replace_parts() {
    setup_lock_ =
        std::make_unique<NativeFileLock>(paths_.setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
    require_state_still();
    native_ = root_->private_directory(name_of(paths_.native));
    // An install that was ended may have made the folders. What follows makes names that alone would be nobody's.
    posix_files::flush_private_levels(paths_.native);
    bootstrap_lock_ = wait_for_ravok_closed(paths_, std::chrono::milliseconds(0), cancellation_);
    const InstallPlan plan = make_plan();
    native_->remove_tree_quietly(name_of(paths_.staging));
    const HeldDirectory staging = native_->private_directory(name_of(paths_.staging));
    const InstallFolders folders = {*root_, *native_, staging};
    is_preparing_ = true;
    prepare(plan);
    require_clear_way(folders, paths_, package_, plan);
    is_preparing_ = false;
    commit_install(folders, paths_, package_, plan);
    if (request_.repair) {
      forget_failed_starts();
    }
    return describe(plan);
  }

  InstallPlan make_plan() const {
    InstallPlan plan;
    if (request_.repair) {
      plan.replace_bootstrap = !proves_whole([&] { verify_bootstrap(paths_, *native_); });
      plan.replace_launcher = !proves_whole([&] { verify_launcher(paths_, *root_); });
      plan.replace_trust = !proves_whole([&] { verify_trust(paths_, *root_); });
    }
    return plan;
  }

  // Calls `work` with the archive of a manifest, wherever the package has it. A package that was read has it.
  template <typename Work>
  void with_archive(const SnapshotManifest& manifest, Work work) const {
    if (!package_.appended) {
      work(package_.directory / manifest.target);
    } else {
      work(package_.appended->find(manifest.target).value());
    }
  }

  void prepare(const InstallPlan& plan) const {
    const StagingPaths staged(paths_.staging);
    if (plan.replace_bootstrap) {
      with_archive(package_.bootstrap, [&](const auto& archive) {
        extract_snapshot(package_.bootstrap, archive, staged.bootstrap, progress("installing"), nullptr);
      });
      verify_snapshot_tree(package_.bootstrap, staged.bootstrap, {});
    }
    cancellation_.check();
    if (plan.replace_launcher) {
      with_archive(package_.launcher, [&](const auto& archive) {
        NativeInstaller::seed_launcher(staged.launcher_root, package_.launcher_manifest_json, archive,
                                       progress("installing"));
      });
    }
    cancellation_.check();
    if (plan.replace_trust) {
      private_directory(staged.trust);
      TufClient::initialize(staged.trust, package_.root_json);
    }
    // From here on, the operation goes through to its end.
    cancellation_.check();
  }

  // What has been proved whole or replaced may be started again, however often its window has failed to open. A record
  // that cannot be removed counts those starts on.
  void forget_failed_starts() const {
    try {
      if (const std::optional<HeldDirectory> store = root_->find_directory(name_of(paths_.launcher))) {
        store->remove_quietly(name_of(LauncherPaths(paths_.launcher).start_marker));
      }
    } catch (const Error&) {
      // The repair itself is done.
    }
  }

  NativeInstallResult describe(const InstallPlan& plan) const {
    NativeInstallResult result;
    result.data_root = paths_.root;
    result.repaired = request_.repair;
    const auto add = [&](bool replaced, const char* name) {
      if (replaced) {
        result.replaced.emplace_back(name);
      }
    };
    add(plan.replace_bootstrap, "bootstrap");
    add(plan.replace_launcher, "launcher");
    add(plan.replace_trust, "trust");
    result.executable = safe_join(paths_.bootstrap_directory, current_bootstrap(paths_).executable, true);
    return result;
  }

  void release_locks() {
    bootstrap_lock_.reset();
    setup_lock_.reset();
  }

  // Never fails, so that the caller learns of the failure that this is called for.
  void give_up(const Error& error) noexcept {
    try {
      // The locks are still held, so that this does not remove what another setup has begun.
      if (request_.repair) {
        discard_preparations();
      } else {
        discard_failed_install();
      }
    } catch (const std::exception&) {
      // The next run removes what is left.
    }
    release_locks();
    if (request_.repair) {
      write_status(paths_, action(), "failed", error.what());
    }
  }

  // Removes what was prepared, unless a commit has begun, which may have moved the former trees there: that of this
  // run, or an interrupted one whose staging this run has not replaced.
  void discard_preparations() const {
    if (is_preparing_ || (bootstrap_lock_ && !root_->type_of(name_of(paths_.incomplete_marker)))) {
      native_->remove_tree_quietly(name_of(paths_.staging));
    }
  }

  // Removes what this run has made, and only in the folders that it has proved.
  void discard_failed_install() {
    if (!setup_lock_) {
      // This run has made nothing in the folder, but perhaps the folder itself, which is then empty.
      if (root_was_missing_) {
        root_->remove_itself_quietly();
      }
      return;
    }
    if (root_was_missing_) {
      // A folder with a record is an installation, whatever failed after the record was written.
      if (!native_ || !native_->type_of(name_of(paths_.installation_record))) {
        discard_folder({paths_.launcher, paths_.trust, paths_.repository_record, paths_.repository_ca});
        root_->remove_itself_quietly();
      }
      return;
    }
    if (native_) {
      native_->remove_tree_quietly(name_of(paths_.staging));
    }
    // The state is that of the path. A folder that was moved away meanwhile keeps what marks it.
    if (installation_state(paths_) == InstallationState::none && root_->is_in_place()) {
      discard_folder({});
    }
  }

  // Removes these parts, and what every setup makes in the folder; what is there besides is the player's. An end at any
  // moment, and what cannot be removed, leave a folder that an install takes.
  void discard_folder(std::initializer_list<std::filesystem::path> parts) {
    bool is_clear = true;
    for (const std::filesystem::path& part : parts) {
      is_clear = root_->remove_tree_quietly(name_of(part)) && is_clear;
    }
    is_clear = remove_begun_markers() && is_clear;
    // Nobody runs from a folder whose lock this run has taken, and it has made or opened that folder before.
    const bool holds_native = bootstrap_lock_ != nullptr;
    is_clear = discard_bootstrap_lock() && is_clear;
    // What marks the folder goes after all that would be nobody's without it.
    root_->flush();
    if (!is_clear) {
      empty_native(holds_native);
    } else if (discard_native(holds_native)) {
      root_->flush();
      remove_setup_marker(*root_);
      // So that a power cut does not bring it back after the failure was told.
      root_->flush_quietly();
    }
    // The lock's file goes last, since without it the lock excludes nobody.
    root_->remove_quietly(name_of(paths_.setup_lock));
  }

  // The lock is held until its file is gone, since without its file a lock excludes nobody. A client that is running
  // holds it, and keeps it. Returns whether the file is gone or such a client's.
  bool discard_bootstrap_lock() {
    const std::string lock = name_of(paths_.bootstrap_lock);
    if (!bootstrap_lock_) {
      try {
        bootstrap_lock_ = std::make_unique<NativeFileLock>(paths_.bootstrap_lock, false, NativeLockSharing::none,
                                                           LockMode::exclusive);
      } catch (const Error& error) {
        return error.code == "busy" || !root_->type_of(lock);
      }
    }
    root_->remove_quietly(lock);
    return !root_->type_of(lock);
  }

  // Returns whether nothing is left of it.
  bool discard_native(bool holds_native) const {
    const std::string native = name_of(paths_.native);
    if (holds_native) {
      return root_->remove_tree_quietly(native);
    }
    // This run may have made the folder, but then there is nothing in it.
    if (root_->type_of(native) == EntryType::directory) {
      root_->remove_quietly(native);
    }
    return !root_->type_of(native);
  }

  // Leaves the folder alone, by which an install knows a data folder.
  void empty_native(bool holds_native) const {
    if (holds_native) {
      for (const std::string& name : native_->names()) {
        native_->remove_tree_quietly(name);
      }
    }
  }

  // A run that was ended while it wrote its marker has left one under another name, which alone is nobody's. Returns
  // whether none is left.
  bool remove_begun_markers() const {
    bool is_clear = true;
    for (const std::string& name : root_->names()) {
      if (is_transaction_name(name, incomplete_install_marker)) {
        root_->remove_quietly(name);
        is_clear = !root_->type_of(name) && is_clear;
      }
    }
    return is_clear;
  }

  // A shortcut that cannot be made is no reason to take the installation back.
  void make_shortcuts(NativeInstallResult& result) const {
    try {
      result.shortcuts = with_system_failures([&] { return shortcuts(); });
      // A first install that was cut short has made no shortcut, and a repair makes only recorded ones again.
      result.shortcut_missing = request_.repair && has_own_shortcut() && owned_native_shortcuts(paths_.root).empty();
    } catch (const Error& error) {
      result.shortcut_problem = error.what();
    }
  }

  // The front end of a branded client with a featured game makes that game's shortcut instead.
  bool has_own_shortcut() const { return !package_.brand || !package_.featured_game; }

  std::vector<std::filesystem::path> shortcuts() const {
    const std::filesystem::path bootstrap = shortcut_bootstrap(paths_);
    if (request_.repair && !request_.restore_shortcuts) {
      return {};
    }
    if (request_.repair) {
      return restore_owned_native_shortcuts(paths_.root, bootstrap);
    }
    if (!request_.create_shortcut || !has_own_shortcut()) {
      return {};
    }
    const std::string name = package_.brand ? package_.brand->name : unbranded_name;
    const std::filesystem::path entry = native_menu_entry(paths_.root, "", name);
    create_owned_native_shortcut({bootstrap, paths_.root, "", name}, entry);
    return {entry};
  }

  void list_for_removal(NativeInstallResult& result) const {
    try {
      with_system_failures([&] { register_uninstall_entry(uninstall_entry()); });
    } catch (const Error& error) {
      if (result.shortcut_problem.empty()) {
        result.shortcut_problem = error.what();
      }
    }
  }

  UninstallEntry uninstall_entry() const {
    const std::filesystem::path icon = brand_icon_path(paths_.root);
    UninstallEntry entry;
    entry.key = uninstall_entry_key(package_.brand);
    entry.display_name = package_.brand ? package_.brand->name : unbranded_name;
    entry.publisher = package_.brand ? package_.brand->publisher : unbranded_name;
    entry.install_location = path_utf8(paths_.root);
    entry.executable = path_utf8(shortcut_bootstrap(paths_));
    entry.icon = is_missing(icon) ? entry.executable : path_utf8(icon);
    return entry;
  }

  const NativeInstallRequest& request_;
  const NativePackage& package_;
  const NativeSetupCallbacks& callbacks_;
  const Cancellation cancellation_;
  const DataPaths paths_;
  bool root_was_missing_ = false;
  bool is_preparing_ = false;            // whether "staging" is this run's, which has moved nothing there
  std::optional<HeldDirectory> root_;    // since it was made private
  std::optional<HeldDirectory> native_;  // the same
  std::unique_ptr<NativeFileLock> setup_lock_;
  std::unique_ptr<NativeFileLock> bootstrap_lock_;
};

template <typename Archive>
void seed_store(const std::filesystem::path& root, std::string_view manifest_json, const Archive& archive,
                const ProgressCallback& progress) {
  LauncherStore(root, LauncherStore::AsItStands()).seed_initial(manifest_json, archive, progress);
}

}  // namespace

NativeInstallStatus NativeInstaller::status(const std::filesystem::path& data_root) {
  return installation_status(DataPaths(data_folder(data_root)));
}

NativeInstallResult NativeInstaller::install(const NativeInstallRequest& request, std::string_view seal,
                                             const NativeSetupCallbacks& callbacks) {
  const Cancellation cancellation(callbacks);
  const auto verifying = [&](std::uint64_t done, std::uint64_t total) {
    if (callbacks.progress) {
      callbacks.progress("verifying", done, total);
    }
  };
  verifying(0, 0);
  const auto progress = [&](std::uint64_t done, std::uint64_t total) {
    verifying(done, total);
    cancellation.check();
    return true;
  };
  const NativePackage package = request.appended ? read_native_package(request.appended, seal, progress)
                                                 : read_native_package(request.package, seal, progress);
  return Installation(request, package, callbacks).run();
}

void NativeInstaller::seed_launcher(const std::filesystem::path& root, std::string_view manifest_json,
                                    const std::filesystem::path& archive, const ProgressCallback& progress) {
  seed_store(root, manifest_json, archive, progress);
}

void NativeInstaller::seed_launcher(const std::filesystem::path& root, std::string_view manifest_json,
                                    const FileRange& archive, const ProgressCallback& progress) {
  seed_store(root, manifest_json, archive, progress);
}

Json NativeInstallResult::to_json() const {
  Json document = {{"schema_version", 1},
                   {"installed", true},
                   {"repaired", repaired},
                   {"data_root", path_utf8(data_root)},
                   {"bootstrap", path_utf8(executable)},
                   {"replaced", replaced},
                   {"shortcuts", paths_json(shortcuts)},
                   {"shortcut_problem", shortcut_problem.empty() ? Json() : Json(shortcut_problem)}};
  if (shortcut_missing) {
    document["shortcut_missing"] = true;
  }
  return document;
}

}  // namespace ravok
