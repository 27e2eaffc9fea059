#include "app/launcher/bootstrap_apply.hpp"

#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "app/launcher/bootstrap_moves.hpp"
#include "app/launcher/bootstrap_release.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/status.hpp"

namespace ravok {
namespace {

// Whether a record holds exactly this text. A record that is missing or cannot be read holds another.
bool is_text_of(const std::filesystem::path& record, const std::string& text) {
  try {
    return read_file(record, text.size()) == text;
  } catch (const Error&) {
    return false;
  }
}

// Whether what could not be read looks as it should, so that a later start may read it.
bool looks_like_manifest(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  return status && is_file(*status) && status->size <= maximum_manifest_bytes;
}

std::string read_installed_manifest(const std::filesystem::path& path) {
  try {
    return read_file(path, maximum_manifest_bytes);
  } catch (const Error& error) {
    require(!looks_like_manifest(path), "file_read", error.what());
    throw;
  }
}

// One attempt to bring an update to its end. The caller holds the locks.
class BootstrapApplication {
 public:
  BootstrapApplication(const HeldDirectory& native, const BootstrapPaths& paths, std::string text,
                       const TrialClock& clock)
      : native_(native), paths_(paths), text_(std::move(text)), hash_(digest(text_, "sha256")), clock_(clock) {}

  BootstrapUpdateResult run() {
    // An attempt that has given the update up, and could not end.
    const bool is_rejected = is_text_of(paths_.rejected, hash_);
    if (!is_rejected && is_text_of(paths_.manifest, text_)) {
      clean_up(false);
      return {BootstrapUpdateEnd::applied, {}};
    }
    std::unique_ptr<BootstrapMoves> moves;
    try {
      moves = prepare();
    } catch (const Error& error) {
      if (may_succeed_later(error)) {
        throw;
      }
      // No attempt has moved anything on such a ground, unless it has given up already.
      return reject(error, !is_rejected);
    }
    const bool is_restored = moves->restore();
    if (is_rejected) {
      return reject(Error("bootstrap_rejected", "The update has failed before"), is_restored && moves->undo());
    }
    // That says nothing about the update, so a later start tries again.
    require(is_restored, "file_write", "Cannot restore the old bootstrap");
    return attempt(*moves);
  }

 private:
  std::unique_ptr<BootstrapMoves> prepare() {
    update_ = parse_bootstrap_update(text_);
    installed_ = SnapshotManifest::parse(parse_json(read_installed_manifest(paths_.manifest), maximum_manifest_bytes));
    require(!has_replaced_file(installed_), "launcher_incompatible",
            "The installed bootstrap holds names that are for replaced files");
    return std::make_unique<BootstrapMoves>(paths_, installed_, update_);
  }

  // Whether the failure is one of the system, and says nothing about the update or the installed bootstrap.
  bool may_succeed_later(const Error& error) const {
    return error.code == "too_many_files" || (error.code == "file_read" && !is_missing(paths_.manifest));
  }

  BootstrapUpdateResult attempt(BootstrapMoves& moves) {
    bool is_durable = false;
    try {
      moves.require_update_whole();
      require_bootstrap_starts(paths_.update_tree / update_.executable, clock_);
      // Who prepared the update may have ended before its record was durable, and only that leads back.
      native_.flush();
      moves.keep_old_files();
      moves.put_new_files();
      require_bootstrap_starts(paths_.tree / update_.executable, clock_);
      is_durable = commit();
    } catch (const Error& error) {
      return reject(error, moves.undo());
    } catch (const std::exception& problem) {
      return reject(Error("bootstrap_update", problem.what()), moves.undo());
    }
    clean_up(is_durable);
    return {BootstrapUpdateEnd::applied, {}};
  }

  // From the write of the manifest on, the update is the installed bootstrap. A manifest that has its name but may lose
  // it in a power cut commits as well: the next start finds it and cleans up, or finds the old one and goes back.
  // Returns whether it is durable.
  bool commit() const {
    try {
      native_.write(name_of(paths_.manifest), text_);
      return true;
    } catch (const Error&) {
      if (!is_text_of(paths_.manifest, text_)) {
        throw;
      }
      return false;
    }
  }

  // Removes what the update needed. The update's manifest goes last, since its presence makes the next start go on with
  // this.
  void clean_up(bool is_durable) const {
    try {
      if (!is_durable) {
        native_.flush();
      }
    } catch (const Error&) {
      // The old files may still be needed.
      return;
    }
    native_.remove_tree_quietly(name_of(paths_.update_tree));
    remove_old_files(native_, paths_);
    native_.remove_tree_quietly(name_of(paths_.update_manifest));
  }

  // Remembers that the update has failed. Where the old files could not all be put back, the update's manifest stays,
  // so that the next start tries again.
  BootstrapUpdateResult reject(const Error& error, bool is_restored) const {
    try {
      native_.write(name_of(paths_.rejected), hash_);
    } catch (const Error&) {
      // It may be prepared and fail once more.
    }
    if (is_restored) {
      native_.remove_tree_quietly(name_of(paths_.update_manifest));
    }
    return {BootstrapUpdateEnd::rejected, error};
  }

  const HeldDirectory& native_;
  const BootstrapPaths& paths_;
  const std::string text_;
  const std::string hash_;
  const TrialClock& clock_;
  SnapshotManifest update_;
  SnapshotManifest installed_;
};

bool is_update_waiting(const DataPaths& paths) {
  return !is_there(paths.incomplete_marker) && is_there(paths.bootstrap_update);
}

BootstrapUpdateResult apply_under_locks(const DataPaths& paths, const TrialClock& clock) {
  const BootstrapPaths places(paths.root);
  const NativeFileLock update(places.update_lock, true, NativeLockSharing::others, LockMode::exclusive);
  const NativeFileLock lifetime(paths.bootstrap_lock, true, NativeLockSharing::others, LockMode::exclusive);
  // Another start or a setup may have been first.
  if (!is_update_waiting(paths)) {
    return {};
  }
  const HeldDirectory native = HeldDirectory::open(paths.native);
  std::string text;
  try {
    text = read_file(places.update_manifest, maximum_manifest_bytes);
  } catch (const Error& error) {
    if (error.code == "file_read" || looks_like_manifest(places.update_manifest)) {
      throw;
    }
    // Nobody has prepared an update that has such a manifest.
    native.remove_tree_quietly(name_of(places.update_manifest));
    return {BootstrapUpdateEnd::rejected, error};
  }
  return BootstrapApplication(native, places, std::move(text), clock).run();
}

}  // namespace

BootstrapUpdateResult apply_bootstrap_update(const std::filesystem::path& data_root, const TrialClock& clock) {
  const DataPaths paths(data_root);
  try {
    return is_update_waiting(paths) ? apply_under_locks(paths, clock) : BootstrapUpdateResult();
  } catch (const Error& error) {
    const bool is_busy = error.code == "busy";
    return {BootstrapUpdateEnd::postponed, is_busy ? std::nullopt : std::optional(error)};
  } catch (const std::exception& problem) {
    return {BootstrapUpdateEnd::postponed, Error("bootstrap_update", problem.what())};
  }
}

}  // namespace ravok
