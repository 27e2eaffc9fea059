#include "app/launcher/bootstrap_update.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <thread>

#include "app/command/console_output.hpp"
#include "app/launcher/bootstrap_apply.hpp"
#include "app/launcher/bootstrap_image.hpp"
#include "app/launcher/bootstrap_moves.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/snapshot/complete_install.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "tuf/resume_state.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t maximum_rejection_bytes = 128;

constexpr std::chrono::seconds lock_patience(15);
constexpr std::chrono::milliseconds lock_pause(20);

NativeFileLock wait_for_update_lock(const std::filesystem::path& path) {
  const auto deadline = std::chrono::steady_clock::now() + lock_patience;
  while (true) {
    try {
      return {path, true, NativeLockSharing::others, LockMode::exclusive};
    } catch (const Error& error) {
      if (error.code != "busy" || std::chrono::steady_clock::now() >= deadline) {
        throw;
      }
    }
    std::this_thread::sleep_for(lock_pause);
  }
}

bool is_signed_archive(const Json& target, const SnapshotManifest& manifest) {
  const Json& hashes = target.at("hashes");
  return size_value(target.at("length")) == manifest.archive_length && hashes.contains("sha256") &&
         is_text(hashes.at("sha256"), manifest.archive_sha256);
}

// Whether a download that has failed is begun anew at once, without what earlier ones have left. It is admitted once
// all of that was read.
bool begins_anew_at_once(const std::string& code, bool is_admitted) {
  // The folder was copied, or its volume got another number when the machine started.
  if (code == "allocation_changed") {
    return true;
  }
  // The network was asked for nothing yet, so these tell of what is left, and every later download may fail on it.
  constexpr std::array<std::string_view, 9> unreadable = {"file_read",     "tree_read",      "unsafe_path",
                                                          "permissions",   "size_limit",     "invalid_json",
                                                          "duplicate_key", "invalid_number", "depth_limit"};
  return !is_admitted && std::find(unreadable.begin(), unreadable.end(), code) != unreadable.end();
}

// One preparation of an update. The caller holds the lock.
class BootstrapStaging {
 public:
  BootstrapStaging(const DataPaths& data, TufClient& tuf, const ProgressCallback& progress)
      : native_(HeldDirectory::open(data.native)), paths_(data.root), tuf_(tuf), progress_(progress) {}

  std::string run() {
    if (is_there(paths_.update_manifest)) {
      // Who prepared it may have ended before that was durable.
      native_.flush();
      return "pending";
    }
    const std::optional<std::string> text = published_manifest();
    if (!text) {
      return "not_published";
    }
    const SnapshotManifest manifest = parse_bootstrap_update(*text);
    const std::string sha256 = digest(*text, "sha256");
    if (read_file(paths_.manifest, maximum_manifest_bytes) == *text) {
      remove_leftovers();
      return "current";
    }
    if (is_there(paths_.rejected) && read_file(paths_.rejected, maximum_rejection_bytes) == sha256) {
      remove_leftovers();
      return "rejected";
    }
    require_path_room(native_.path(), name_of(paths_.partial_tree), manifest.longest_native_path());
    try {
      unpack(manifest, sha256);
      commit(*text);
    } catch (...) {
      // The next one cannot use it, and needs its room. A manifest that is in place, although not durable, wants its
      // tree.
      remove(paths_.partial_tree);
      if (has_no_update_manifest()) {
        remove(paths_.update_tree);
      }
      throw;
    }
    return "staged";
  }

 private:
  std::optional<std::string> published_manifest() const {
    const std::string name = bootstrap_manifest_target();
    Json target;
    try {
      target = tuf_.target(name);
    } catch (const Error& error) {
      if (error.code != "target_not_found") {
        throw;
      }
      return std::nullopt;
    }
    require(size_value(target.at("length")) <= maximum_manifest_bytes, "size_limit",
            "Bootstrap update manifest exceeds 512 KiB");
    return read_file(download(name, {}, {}), maximum_manifest_bytes);
  }

  void unpack(const SnapshotManifest& manifest, const std::string& sha256) const {
    require(is_signed_archive(tuf_.target(manifest.target), manifest), "content_mismatch",
            "Bootstrap archive is not authorized with its declared length and hash");
    // An earlier one may have ended before its tree had its manifest. The next needs the room.
    remove_trees();
    const TargetObserver observer = [this](std::string_view phase, const Json&, std::string_view temporary) {
      if (phase != "complete") {
        remove_other_downloads(path_from_utf8(temporary));
      }
    };
    const std::filesystem::path archive = download(manifest.target, "bootstrap update " + sha256, observer);
    extract_snapshot(manifest, archive, paths_.partial_tree, progress_, nullptr);
    verify_snapshot_tree(manifest, paths_.partial_tree, progress_);
  }

  // Removes all that was fetched but the manifest, and the partial file of the archive that is about to come or to go
  // on. Nothing uses the rest any more, such as a former update's, and its room may be what this one lacks.
  void remove_other_downloads(const std::filesystem::path& partial) const {
    std::filesystem::path folder = paths_.downloads;
    for (const std::filesystem::path& level : partial) {
      const HeldDirectory held = HeldDirectory::open(folder);
      const std::string own = path_utf8(level);
      for (const std::string& name : held.names()) {
        if (name != own && name != resume_state_name(own) && name != bootstrap_manifest_target()) {
          held.remove_tree_quietly(name);
        }
      }
      folder /= level;
    }
  }

  std::filesystem::path download(const std::string& target, const std::string& scope,
                                 const TargetObserver& observer) const {
    bool is_admitted = false;
    const TufDownloadOptions options = {.scope = scope,
                                        .admission = [&](const DownloadAdmission&) { is_admitted = true; }};
    try {
      if (!native_.find_directory(name_of(paths_.downloads))) {
        // A file or a link in the place of the folder.
        remove(paths_.downloads);
      }
      return tuf_.download(target, paths_.downloads, progress_, observer, options);
    } catch (const Error& error) {
      const bool at_once = begins_anew_at_once(error.code, is_admitted);
      if (at_once || error.code.starts_with("download_resume_")) {
        // What an earlier download has left can never be continued, so the next one begins anew.
        remove(paths_.downloads);
      }
      if (!at_once) {
        throw;
      }
    }
    return tuf_.download(target, paths_.downloads, progress_, observer, options);
  }

  // The tree has its name for good before the manifest says that it is there.
  void commit(const std::string& text) const {
    native_.move(name_of(paths_.partial_tree), native_, name_of(paths_.update_tree));
    native_.flush();
    native_.write(name_of(paths_.update_manifest), text);
    remove(paths_.rejected);
    remove(paths_.downloads);
    remove_old_files(native_, paths_);
  }

  // Whether that is known of the folder itself, which may have another path by now.
  bool has_no_update_manifest() const {
    try {
      return !native_.type_of(name_of(paths_.update_manifest));
    } catch (const Error&) {
      return false;
    }
  }

  // Removes what earlier preparations have left. No manifest says that an update waits.
  void remove_leftovers() const {
    remove(paths_.downloads);
    remove_trees();
  }
  void remove_trees() const {
    remove(paths_.partial_tree);
    remove(paths_.update_tree);
  }

  void remove(const std::filesystem::path& place) const { native_.remove_tree_quietly(name_of(place)); }

  const HeldDirectory native_;
  const BootstrapPaths paths_;
  TufClient& tuf_;
  const ProgressCallback& progress_;
};

}  // namespace

std::string stage_bootstrap_update(const std::filesystem::path& data_root, TufClient& tuf,
                                   const ProgressCallback& progress) {
  const DataPaths paths(std::filesystem::absolute(data_root).lexically_normal());
  require(is_there(paths.installation_record), "not_installed", "Bootstrap updates need an installed Ravok");
  require_complete_native_install(paths.root);
  const NativeFileLock lock = wait_for_update_lock(BootstrapPaths(paths.root).update_lock);
  return BootstrapStaging(paths, tuf, progress).run();
}

void apply_pending_bootstrap_update(const std::filesystem::path& image) {
  if (is_bootstrap_start_check()) {
    std::exit(0);
  }
  // A trial that Ctrl+C ends would pass for a bootstrap that does not start.
  const DeferredSignals signals;
  const BootstrapUpdateResult result = apply_bootstrap_update(installed_data_root(image), system_trial_clock());
  if (result.problem) {
    const std::string end = result.end == BootstrapUpdateEnd::rejected ? "rejected" : "not applied";
    print_notice("ravok: bootstrap update " + end + " (" + result.problem->code + "): " + result.problem->what());
  }
}

}  // namespace ravok
