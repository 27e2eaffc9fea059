#include "app/native_install.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <exception>
#include <memory>
#include <system_error>
#include <utility>

#include "app/brand.hpp"
#include "app/data_folder.hpp"
#include "app/json_paths.hpp"
#include "app/launcher_store.hpp"
#include "app/native_package.hpp"
#include "app/setup_marker.hpp"
#include "app/system_failures.hpp"
#include "app/theme_folder.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file_status.hpp"
#include "platform/files.hpp"
#include "platform/managed_paths.hpp"
#include "platform/native_files.hpp"
#include "platform/native_lock.hpp"
#include "platform/posix_files.hpp"
#include "platform/snapshot_archive.hpp"
#include "platform/snapshot_tree.hpp"
#include "platform/tree.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

// What an install or repair has to put in place.
struct InstallPlan {
  bool replace_bootstrap = true;
  bool replace_launcher = true;
  bool replace_trust = true;
};

constexpr const char* default_name = "Ravok";
constexpr std::array<const char*, 4> old_trees = {"old-bootstrap", "old-launcher", "old-trust", "old-theme"};
constexpr std::size_t version_name_characters = 64;
constexpr std::array<const char*, 3> update_trees = {"bootstrap-update", "bootstrap-update.partial",
                                                     "bootstrap-downloads"};
constexpr std::array<const char*, 3> update_records = {"bootstrap-update.json", "bootstrap-update.rejected",
                                                       "bootstrap-old-files"};

void remove_quietly(const std::filesystem::path& path) {
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
}

std::string not_installed_in(const std::filesystem::path& root) {
  return "Ravok is not installed in " + path_utf8(root);
}

// Whether a folder without an installation, whole or interrupted, may take one: it is empty, or an earlier data folder.
bool may_take_installation(const DataPaths& paths) {
  bool empty = true;
  std::error_code problem;
  std::filesystem::directory_iterator entry(paths.root, problem);
  for (; !problem && entry != std::filesystem::directory_iterator(); entry.increment(problem)) {
    const std::string name = entry->path().filename();
    if (std::find(ravok_entries.begin(), ravok_entries.end(), name) != ravok_entries.end()) {
      return true;
    }
    empty = empty && name == paths.setup_lock.filename();
  }
  return empty && !problem;
}

// Gives a prepared tree its place; what is there goes aside.
void put_in_place(const std::filesystem::path& prepared, const std::filesystem::path& place,
                  const std::filesystem::path& aside) {
  if (!is_missing(place)) {
    native_files::rename_replace(place, aside);
  }
  native_files::rename_replace(prepared, place);
}

// Whether the work proves something whole: a failure means that it is not.
template <typename Work>
bool proves_whole(Work work) {
  try {
    work();
    return true;
  } catch (const Error&) {
    return false;
  }
}

// Images that were in use when an update replaced them.
void remove_old_files(const std::filesystem::path& directory) {
  std::error_code problem;
  std::vector<std::filesystem::path> old;
  std::filesystem::recursive_directory_iterator entry(directory, problem);
  for (; !problem && entry != std::filesystem::recursive_directory_iterator(); entry.increment(problem)) {
    if (entry->path().extension() == ".old") {
      old.push_back(entry->path());
    }
  }
  std::for_each(old.begin(), old.end(), remove_quietly);
}

void verify_bootstrap(const DataPaths& paths, const ProgressCallback& progress) {
  const auto status = link_status_of(paths.bootstrap_directory);
  if (status && is_directory(*status)) {
    remove_old_files(paths.bootstrap_directory);
  }
  verify_snapshot_tree(current_bootstrap(paths), paths.bootstrap_directory, progress);
}

void verify_launcher(const DataPaths& paths, const ProgressCallback& progress) {
  const std::unique_ptr<LauncherStore> store = LauncherStore::existing(paths.root, true);
  const Json status = store->status();
  const Json& build = status.at("active").is_null() ? status.at("candidate") : status.at("active");
  verify_snapshot_tree(store->manifest(build), store->payload(build), progress);
}

void verify_trust(const DataPaths& paths) {
  parse_json(read_file(paths.trust / "root.json", tuf_root_limit), tuf_root_limit);
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
    require(is_utf8(path_utf8(paths_.root)), "unsafe_path", "The path of the data folder must be valid UTF-8");
    require_apart();
    require_room();
    root_was_missing_ = is_missing(paths_.root);
    require_state();
    private_directory(paths_.root);
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

  // Tells of a phase, and hears whether the user wants it to stop.
  ProgressCallback progress(std::string_view phase) const {
    return [this, phase](std::uint64_t done, std::uint64_t total) {
      if (callbacks_.progress) {
        callbacks_.progress(phase, done, total);
      }
      cancellation_.check();
      return true;
    };
  }

  void require_apart() const {
    require(!within(paths_.root, package_.directory) && !within(package_.directory, paths_.root), "unsafe_path",
            "The package and data folders overlap");
  }

  void require_room() const {
    const std::filesystem::path version =
        std::filesystem::path("launcher-root/launcher/versions") / std::string(version_name_characters, '0');
    require_path_room(paths_.staging, version, package_.launcher.longest_native_path());
    require_path_room(paths_.native, "bootstrap-update.partial", package_.bootstrap.longest_native_path());
  }

  void require_state() const {
    const InstallationState state = root_was_missing_ ? InstallationState::none : installation_state(paths_);
    if (state == InstallationState::complete) {
      check_installation(paths_);
      require(request_.repair, "already_installed",
              "Ravok is already installed in " + path_utf8(paths_.root) + "; use repair");
    } else if (state == InstallationState::none) {
      require(!request_.repair, "not_installed", not_installed_in(paths_.root));
      require(root_was_missing_ || may_take_installation(paths_), "unsafe_path",
              "Choose an empty folder or an earlier Ravok data folder");
    }
  }

  // What the folder was before the lock was held, another setup may have changed.
  void require_state_still() {
    root_was_missing_ = root_was_missing_ && is_missing(paths_.native);
    require_state();
  }

  NativeInstallResult replace_parts() {
    setup_lock_ =
        std::make_unique<NativeFileLock>(paths_.setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
    require_state_still();
    private_directory(paths_.native);
    bootstrap_lock_ = wait_for_ravok_closed(paths_, std::chrono::milliseconds(0), cancellation_);
    const InstallPlan plan = make_plan();
    remove_path_quietly(paths_.staging);
    private_directory(paths_.staging);
    prepare(plan);
    commit(plan);
    return describe(plan);
  }

  InstallPlan make_plan() const {
    InstallPlan plan;
    if (request_.repair) {
      plan.replace_bootstrap = !proves_whole([&] { verify_bootstrap(paths_, {}); });
      plan.replace_launcher = !proves_whole([&] { verify_launcher(paths_, {}); });
      plan.replace_trust = !proves_whole([&] { verify_trust(paths_); });
    }
    return plan;
  }

  void prepare(const InstallPlan& plan) const {
    if (plan.replace_bootstrap) {
      const std::filesystem::path staged = paths_.staging / "bootstrap";
      extract_snapshot(package_.bootstrap, package_.bootstrap_archive(), staged, progress("installing"), nullptr);
      verify_snapshot_tree(package_.bootstrap, staged, {});
    }
    cancellation_.check();
    if (plan.replace_launcher) {
      NativeInstaller::seed_launcher(paths_.staging / "launcher-root", package_.launcher_manifest_json,
                                     package_.launcher_archive(), progress("installing"));
    }
    cancellation_.check();
    if (plan.replace_trust) {
      private_directory(paths_.staging / "trust");
      TufClient::initialize(paths_.staging / "trust", package_.root_json);
    }
    // From here on, the operation goes through to its end.
    cancellation_.check();
  }

  // The marker is up before the first change; the record comes last, and the marker goes only after staging.
  void commit(const InstallPlan& plan) const {
    write_setup_marker(paths_);
    if (plan.replace_bootstrap) {
      commit_bootstrap();
    }
    if (plan.replace_launcher) {
      put_in_place(paths_.staging / "launcher-root/launcher", paths_.launcher, paths_.staging / "old-launcher");
    }
    if (plan.replace_trust) {
      put_in_place(paths_.staging / "trust", paths_.trust, paths_.staging / "old-trust");
    }
    commit_repository();
    commit_icon();
    commit_theme();
    write_installation(paths_, package_);
    // What did not prove whole may hold anything.
    for (const char* name : old_trees) {
      remove_path_quietly(paths_.staging / name);
    }
    remove_plain_tree(paths_.staging);
    remove_setup_marker(paths_);
  }

  void commit_bootstrap() const {
    put_in_place(paths_.staging / "bootstrap", paths_.bootstrap_directory, paths_.staging / "old-bootstrap");
    atomic_write(paths_.bootstrap_manifest, package_.bootstrap_manifest_json);
    // No update of the former bootstrap applies to this one.
    for (const char* name : update_trees) {
      remove_path_quietly(paths_.native / name);
    }
    for (const char* name : update_records) {
      remove_quietly(paths_.native / name);
    }
  }

  void commit_repository() const {
    std::string ca_bundle;
    if (!package_.ca_bundle.empty()) {
      atomic_write(paths_.repository_ca, package_.ca_bundle);
      ca_bundle = path_utf8(paths_.repository_ca);
    }
    const Json record = {{"schema_version", 1}, {"origin", package_.origin}, {"ca_bundle", ca_bundle}};
    atomic_write(paths_.repository_record, record.dump());
  }

  void commit_icon() const {
    const std::filesystem::path icon = brand_icon_path(paths_.root);
    if (package_.brand_icon.empty()) {
      remove_quietly(icon);
    } else {
      atomic_write(icon, package_.brand_icon);
    }
  }

  void commit_theme() const {
    const std::filesystem::path target = theme_directory(paths_.root);
    const std::filesystem::path staged = paths_.staging / "theme";
    remove_plain_tree(staged);
    if (!package_.theme) {
      remove_plain_tree(target);
      return;
    }
    private_directory(staged);
    atomic_write(staged / "theme.json", package_.theme->definition);
    for (const auto& [name, bytes] : package_.theme->files) {
      atomic_write(staged / name, bytes);
    }
    put_in_place(staged, target, paths_.staging / "old-theme");
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

  void give_up(const Error& error) {
    if (request_.repair) {
      release_locks();
      write_status(paths_, action(), "failed", error.what());
      return;
    }
    // Under the lock still, so that nobody else's beginning is taken for what this run has left.
    discard_failed_install();
    release_locks();
  }

  void discard_failed_install() const {
    if (!setup_lock_) {
      // Of what is in the folder, nothing is this run's; an empty one may be.
      if (root_was_missing_) {
        remove_quietly(paths_.root);
      }
      return;
    }
    if (root_was_missing_) {
      remove_path_quietly(paths_.root);
      return;
    }
    remove_path_quietly(paths_.staging);
    if (installation_state(paths_) == InstallationState::none) {
      remove_path_quietly(paths_.native);
      remove_quietly(paths_.setup_lock);
      remove_quietly(paths_.bootstrap_lock);
    }
  }

  // A shortcut that cannot be made is no reason to take the installation back.
  void make_shortcuts(NativeInstallResult& result) const {
    try {
      result.shortcuts = with_system_failures([&] { return shortcuts(); });
    } catch (const Error& error) {
      result.shortcut_problem = error.what();
    }
  }

  std::vector<std::filesystem::path> shortcuts() const {
    const std::filesystem::path bootstrap = shortcut_bootstrap(paths_);
    if (request_.repair) {
      return restore_owned_native_shortcuts(paths_.root, bootstrap);
    }
    // The front end of a featured game makes that game's own.
    if (!request_.create_shortcut || (package_.brand && package_.featured_game)) {
      return {};
    }
    const std::string name = package_.brand ? package_.brand->name : default_name;
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
    entry.display_name = package_.brand ? package_.brand->name : default_name;
    entry.publisher = package_.brand ? package_.brand->publisher : default_name;
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
  std::unique_ptr<NativeFileLock> setup_lock_;
  std::unique_ptr<NativeFileLock> bootstrap_lock_;
};

DataPaths installed_paths(const std::filesystem::path& data_root) {
  DataPaths paths(data_folder(data_root));
  require(!is_missing(paths.installation_record), "not_installed", not_installed_in(paths.root));
  return paths;
}

}  // namespace

NativeInstallResult NativeInstaller::install(const NativeInstallRequest& request, std::string_view seal,
                                             const NativeSetupCallbacks& callbacks) {
  const Cancellation cancellation(callbacks);
  const auto verifying = [&](std::uint64_t done, std::uint64_t total) {
    if (callbacks.progress) {
      callbacks.progress("verifying", done, total);
    }
  };
  verifying(0, 0);
  const NativePackage package =
      read_native_package(request.package, seal, [&](std::uint64_t done, std::uint64_t total) {
        verifying(done, total);
        cancellation.check();
        return true;
      });
  return Installation(request, package, callbacks).run();
}

void NativeInstaller::seed_launcher(const std::filesystem::path& root, std::string_view manifest_json,
                                    const std::filesystem::path& archive, const ProgressCallback& progress) {
  LauncherStore(root, true).seed_initial(manifest_json, archive, progress);
}

std::filesystem::path NativeInstaller::create_shortcut(const std::filesystem::path& data_root, const std::string& game,
                                                       const std::string& name, const std::filesystem::path& path) {
  const DataPaths paths = installed_paths(data_root);
  std::string display_name = name.empty() ? game : name;
  if (display_name.empty()) {
    display_name = product_name();
  }
  std::filesystem::path place = path.empty() ? native_menu_entry(paths.root, game, display_name)
                                             : std::filesystem::absolute(path).lexically_normal();
  create_owned_native_shortcut({shortcut_bootstrap(paths), paths.root, game, display_name}, place);
  return place;
}

ShortcutRemoval NativeInstaller::remove_shortcuts(const std::filesystem::path& data_root) {
  return remove_owned_native_shortcuts(installed_paths(data_root).root);
}

Json NativeInstallResult::to_json() const {
  return {{"schema_version", 1},
          {"installed", true},
          {"repaired", repaired},
          {"data_root", path_utf8(data_root)},
          {"bootstrap", path_utf8(executable)},
          {"replaced", replaced},
          {"shortcuts", paths_json(shortcuts)},
          {"shortcut_problem", shortcut_problem.empty() ? Json() : Json(shortcut_problem)}};
}

}  // namespace ravok
