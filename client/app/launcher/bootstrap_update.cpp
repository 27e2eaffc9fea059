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

// Whether a download that has failed is begun anew at once, without what earlier ones have left. `admission` is what
// was known of it once all of that was read.
bool begins_anew_at_once(const std::string& code, const std::optional<DownloadAdmission>& admission) {
  // The folder was copied, or its volume got another number when the machine started.
  if (code == "allocation_changed") {
    return true;
  }
  // An older update may take the room. One that goes on keeps what it has.
  if (code == "insufficient_space") {
    return admission && !admission->resumed;
  }
  // The network was asked for nothing yet, so these tell of what is left, and every later download may fail on it.
  constexpr std::array<std::string_view, 9> unreadable = {"file_read",     "tree_read",      "unsafe_path",
                                                          "permissions",   "size_limit",     "invalid_json",
                                                          "duplicate_key", "invalid_number", "depth_limit"};
  return !admission && std::find(unreadable.begin(), unreadable.end(), code) != unreadable.end();
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
      if (is_missing(paths_.update_manifest)) {
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
    return read_file(tuf_.download(name, paths_.downloads, progress_), maximum_manifest_bytes);
  }

  void unpack(const SnapshotManifest& manifest, const std::string& sha256) const {
    require(is_signed_archive(tuf_.target(manifest.target), manifest), "content_mismatch",
            "Bootstrap archive is not authorized with its declared length and hash");
    // An earlier one may have ended before its tree had its manifest. The next needs the room.
    remove_trees();
    const std::filesystem::path archive = download(manifest.target, sha256);
    extract_snapshot(manifest, archive, paths_.partial_tree, progress_, nullptr);
    verify_snapshot_tree(manifest, paths_.partial_tree, progress_);
  }

  std::filesystem::path download(const std::string& archive, const std::string& sha256) const {
    std::optional<DownloadAdmission> admission;
    const TufDownloadOptions options = {.scope = "bootstrap update " + sha256,
                                        .admission = [&](const DownloadAdmission& given) { admission = given; }};
    try {
      return tuf_.download(archive, paths_.downloads, progress_, {}, options);
    } catch (const Error& error) {
      const bool at_once = begins_anew_at_once(error.code, admission);
      if (at_once || error.code.starts_with("download_resume_")) {
        // What an earlier download has left can never be continued, so the next one begins anew.
        remove_leftovers();
      }
      if (!at_once) {
        throw;
      }
    }
    return tuf_.download(archive, paths_.downloads, progress_, {}, options);
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
