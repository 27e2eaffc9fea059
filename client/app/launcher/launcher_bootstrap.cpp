#include "app/launcher/launcher_bootstrap.hpp"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <functional>
#include <new>
#include <optional>
#include <utility>

#include "app/command/cli_entry.hpp"
#include "app/command/console_output.hpp"
#include "app/command/direct_start.hpp"
#include "app/launcher/launcher_attempt.hpp"
#include "app/launcher/launcher_startup.hpp"
#include "app/launcher/launcher_store.hpp"
#include "app/launcher/start_marker.hpp"
#include "app/maintenance/maintenance_command.hpp"
#include "app/maintenance/maintenance_entry.hpp"
#include "app/maintenance/maintenance_runtime.hpp"
#include "domain/error.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"
#include "platform/snapshot/snapshot_tree.hpp"

namespace ravok {
namespace {

constexpr std::string_view damaged_code = "launcher_damaged";
constexpr const char* misplaced_data_folder =
    "Set the data directory on the native bootstrap, before forwarded arguments";

// Whatever asks this process to stop while it is not yet the launcher.
struct ConsoleSignals {
  const ConsoleInterrupt interrupt{false};
  const TerminationSignals termination;
};

std::int64_t seconds_since_epoch() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// What is started runs in another directory. An empty path stays as it is, for the grammar to refuse.
std::filesystem::path absolute_root(const std::filesystem::path& root) {
  return root.empty() ? root : std::filesystem::absolute(root).lexically_normal();
}

// Returns the program of a version for an interface. Fails with "launcher_damaged" unless it has its size.
std::filesystem::path present_entry(const LauncherManifest& manifest, const std::filesystem::path& payload,
                                    std::string_view interface) {
  const std::string& entry = interface == "cli" ? manifest.executable : manifest.gui_executable;
  std::filesystem::path path = safe_join(payload, entry, true);
  const auto status = link_status_of(path);
  require(status && is_file(*status) && status->size == manifest.files.at(entry).length, damaged_code,
          "Ravok's files are damaged. Reinstall Ravok to repair them.");
  return path;
}

// Returns the document of the store, or null where its content cannot be understood, whatever is wrong with it: a start
// does without it. Fails as LauncherStore::selection does where it cannot be read.
Json readable_selection(const LauncherStore& store) {
  try {
    return store.selection();
  } catch (const Error& error) {
    for (const std::string_view fault :
         {"depth_limit", "duplicate_key", "invalid_number", "invalid_version", "size_limit"}) {
      if (error.code == fault) {
        return nullptr;
      }
    }
    throw;
  }
}

class BootstrapRun {
 public:
  BootstrapRun(const std::filesystem::path& data_root, std::string_view interface, std::chrono::milliseconds limit,
               std::unique_ptr<NativeFileLock>* lifetime)
      : data_root_(absolute_root(data_root)), interface_(interface), limit_(limit), lifetime_(lifetime) {
    if (is_console()) {
      signals_.emplace();
    }
  }

  int run_console(const std::vector<std::string>& arguments) {
    const CliEntry entry = parse_cli_entry(with_json_first(arguments), data_root_);
    require(!entry.data_dir_given, "usage", misplaced_data_folder);
    if (entry.help) {
      print_help(entry.json);
      return 0;
    }
    forwarded_ = entry.arguments;
    if (entry.json) {
      forwarded_.insert(forwarded_.begin(), "--json");
    }
    const Json document = native_maintenance_control(data_root_, forwarded_);
    if (!document.is_null()) {
      print_result(document.dump() + "\n");
      return 0;
    }
    const std::vector<std::string> helper_arguments = maintenance_arguments(forwarded_, data_root_);
    if (!helper_arguments.empty()) {
      become_maintenance(helper_arguments);
    }
    return start_launcher();
  }

  int run_window(const std::vector<std::string>& arguments) {
    const auto end = std::find(arguments.begin(), arguments.end(), "--");
    require(std::find(arguments.begin(), end, "--data-dir") == end, "usage", misplaced_data_folder);
    forwarded_ = arguments;
    return start_launcher();
  }

 private:
  bool is_console() const { return interface_ == "cli"; }
  bool user_wants_to_stop() const { return signals_ && signals_->interrupt.requested(); }

  void require_no_wish_to_stop() const { require(!user_wants_to_stop(), "cancelled", start_cancelled); }

  void print_help(bool json) const {
    print_result(json ? Json{{"schema_version", 1}, {"kind", "help"}, {"text", cli_help()}}.dump() + "\n" : cli_help());
  }

  [[noreturn]] void become_maintenance(const std::vector<std::string>& arguments) const {
    const LauncherStore store(data_root_);
    {
      const std::unique_ptr<FileLock> owner = store.owner();
      store.recover_attempt();
    }
    const Json active = store.status().at("active");
    const Json reference = active.is_null() ? store.fallback_active() : active;
    const std::unique_ptr<FileLock> lease = store.version_guard(reference, LockMode::shared);
    const std::unique_ptr<MaintenanceRuntime> runtime = prepare_console_maintenance(
        store, reference, {}, [this] { return user_wants_to_stop(); }, false);
    if (lifetime_ != nullptr) {
      // The program waits for every bootstrap to end, and this one is about to.
      lifetime_->reset();
    }
    runtime->replace(arguments);
  }

  int start_launcher() {
    // No version is to blame for these, and no candidate may be spent on them.
    require_replacement_arguments(launcher_arguments(data_root_, forwarded_));
    const std::unique_ptr<LauncherStore> store = LauncherStore::for_launch(data_root_);
    const Json selection = readable_selection(*store);
    if (!selection.is_null() && (!selection.at("attempt").is_null() || !selection.at("candidate").is_null())) {
      if (const std::optional<int> code = run_candidate()) {
        return *code;
      }
    }
    if (!is_console()) {
      failed_starts_ = failed_launcher_starts(store->root(), seconds_since_epoch());
    }
    start_version(*store);
    if (!is_console() && forwarded_.size() == 2 && forwarded_.front() == "--launch") {
      const std::string& game = forwarded_.back();
      print_notice("ravok: starting " + game + " directly; repair Ravok by running its installer again");
      start_installed_game(data_root_, game, true);
    }
    fail(last_failure_.code, last_failure_.what(), last_failure_.details);
  }

  std::optional<int> run_candidate() {
    const LauncherStore store(data_root_);
    const auto stop = [this] { return user_wants_to_stop(); };
    std::optional<int> code;
    try {
      code = run_launcher_attempt(store, {interface_, forwarded_, limit_, stop, stop});
    } catch (const Error&) {
      require_no_wish_to_stop();
      throw;
    }
    if (!code) {
      // The user did not ask for another version in place of the one on trial.
      require_no_wish_to_stop();
    }
    return code;
  }

  // Becomes the first version that can be started. Returns when there is none.
  void start_version(const LauncherStore& store) {
    std::vector<Json> tried;
    const auto try_once = [&](const Json& reference) {
      const auto is_same = [&](const Json& other) {
        return other.at("manifest_sha256") == reference.at("manifest_sha256");
      };
      if (!reference.is_null() && std::none_of(tried.begin(), tried.end(), is_same)) {
        tried.push_back(reference);
        try_version(store, reference);
      }
    };
    const Json selection = readable_selection(store);
    if (!selection.is_null()) {
      try_once(selection.at("active"));
      try_once(selection.at("rollback"));
    }
    // Only now, since looking for it reads the manifest of every version.
    try_once(newest_version(store));
  }

  static Json newest_version(const LauncherStore& store) {
    try {
      return store.fallback_active();
    } catch (const Error&) {
      return nullptr;
    }
  }

  void try_version(const LauncherStore& store, const Json& reference) {
    try {
      become_version(store, reference);
    } catch (const Error& error) {
      require_no_wish_to_stop();
      print_notice("ravok: launcher version unusable (" + error.code + "): " + error.what());
      last_failure_ = error;
    } catch (const std::exception& problem) {
      print_notice(std::string("ravok: launcher version unusable: ") + problem.what());
    }
  }

  [[noreturn]] void become_version(const LauncherStore& store, const Json& reference) {
    const LauncherManifest manifest = store.manifest(reference);
    const std::filesystem::path payload = store.payload(reference);
    const std::filesystem::path entry = present_entry(manifest, payload, interface_);
    const std::string& sha256 = text_at(reference, "manifest_sha256");
    const std::uint32_t failed = failed_starts_.manifest_sha256 == sha256 ? failed_starts_.attempts : 0;
    require(failed < maximum_failed_starts, damaged_code, "This Ravok version failed to start twice");
    // This asks for the last time at its end.
    verify_snapshot_tree(manifest, payload, [this](std::uint64_t, std::uint64_t) { return !user_wants_to_stop(); });
    if (!is_console()) {
      mark_start(store.root(), sha256, failed + 1, seconds_since_epoch());
    }
    signals_.reset();
    exec_process(entry, launcher_arguments(data_root_, forwarded_), payload, cleared_startup_environment());
  }

  const std::filesystem::path data_root_;
  const std::string interface_;
  const std::chrono::milliseconds limit_;
  std::unique_ptr<NativeFileLock>* const lifetime_;
  std::optional<ConsoleSignals> signals_;  // on the console, until this process becomes a launcher
  std::vector<std::string> forwarded_;
  FailedStarts failed_starts_;  // with windows
  Error last_failure_{std::string(damaged_code), "No installed Ravok version could be started"};
};

}  // namespace

int run_launcher_bootstrap(const std::filesystem::path& data_root, std::string_view interface,
                           const std::vector<std::string>& arguments, std::chrono::milliseconds startup_limit,
                           std::unique_ptr<NativeFileLock>* lifetime) {
  interface_shape(interface);
  require_startup_limit(startup_limit);
  BootstrapRun run(data_root, interface, startup_limit, lifetime);
  return interface == "cli" ? run.run_console(arguments) : run.run_window(arguments);
}

}  // namespace ravok
