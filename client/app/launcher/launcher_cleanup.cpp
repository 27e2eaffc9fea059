#include "app/launcher/launcher_cleanup.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/download/abandoned_downloads.hpp"
#include "app/download/launcher_downloads.hpp"
#include "app/launcher/launcher_reference.hpp"
#include "app/launcher/launcher_staging.hpp"
#include "app/launcher/launcher_startup.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/transaction_name.hpp"
#include "platform/file/tree.hpp"
#include "platform/snapshot/snapshot_retirement.hpp"
#include "tuf/resume_state.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t small_record_bytes = 4096;
// More than all versions that a staging lets in can hold, so that a store never outgrows its own clean-up.
constexpr std::size_t most_entries = 16 * maximum_tree_entries;
constexpr const char* cleanup_kind = "ravok-launcher-cleanup";
constexpr std::string_view in_use = "in_use";
constexpr std::string_view not_understood = "not_understood";
constexpr std::string_view changed = "changed";
constexpr std::string_view unmanaged = "unmanaged_files";

// Whether a failure says that something could not be done, rather than that it must not be.
bool is_of_system(const Error& error) {
  constexpr std::array<std::string_view, 8> codes = {"file_remove",        "file_sync",   "file_system", "file_write",
                                                     "insufficient_space", "lock_failed", "permissions", "tree_read"};
  return std::find(codes.begin(), codes.end(), error.code) != codes.end();
}

// Returns what stands before the ending, or an empty text for a name without it.
std::string stem_of(const std::string& name, std::string_view ending) {
  return name.ends_with(ending) ? name.substr(0, name.size() - ending.size()) : std::string();
}

// Returns the name of the record that a transaction file was to become, or an empty text for any other name.
std::string record_of_write(const std::string& name) { return std::string(transaction_record(name)); }

// One clean-up, under the store's lock. Its steps stand in their order.
class Cleanup {
 public:
  explicit Cleanup(const LauncherStore& store) : store_(store), document_(store.load()) {}

  Json run() {
    // A document that names nothing may be one that was lost, and then every version is of value.
    require(!current_build(document_).is_null(), "launcher_missing", "No working launcher is installed");
    remove_torn_receipts(paths_.store);
    launcher_download_receipts(paths_.store);
    const std::uint64_t before = tree_bytes(paths_.store, most_entries);
    require_no_other_mark();
    recover_where_there_is_room();
    begin_where_there_is_room();
    remove_downloads();
    remove_versions();
    remove_manifests();
    remove_version_leases();
    remove_stagings();
    remove_attempts();
    remove_writes();
    end();
    const std::uint64_t after = tree_bytes(paths_.store, most_entries);
    return {{"cleaned", true}, {"removed", removed_}, {"bytes", before > after ? before - after : 0}, {"kept", kept_}};
  }

 private:
  // A start that was cut off may have been kept from being recorded by the lack of room that this clean-up is to end.
  void recover_where_there_is_room() {
    try {
      recover();
    } catch (const Error& error) {
      if (!is_lack_of_room(store_, error)) {
        throw;
      }
      make_room();
      recover();
    }
  }

  void recover() {
    try {
      store_.recover_attempt();
    } catch (const Error& error) {
      require(error.code != "launcher_running", "busy", "A launcher startup must finish before its store is cleaned");
      throw;
    }
    document_ = store_.load();
  }

  // On a full disk, what leaves nothing half-way makes the room for the mark. The rest comes after it as ever.
  void begin_where_there_is_room() {
    try {
      begin();
    } catch (const Error& error) {
      if (error.code != "insufficient_space") {
        throw;
      }
      make_room();
      begin();
    }
  }

  void make_room() {
    remove_writes();
    remove_downloads();
    remove_stagings();
    remove_attempts();
    kept_ = Json::array();
  }

  void begin() const {
    if (is_there(paths_.cleanup)) {
      // Whoever made it may have ended before that was durable, and it must outlast every removal.
      HeldDirectory::open(paths_.store).flush();
    } else {
      atomic_private_create(paths_.cleanup, mark());
    }
  }

  static std::string mark() { return Json({{"schema_version", 1U}, {"kind", cleanup_kind}}).dump(); }

  // What another version's clean-up has begun is left to it.
  void require_no_other_mark() const {
    require(!is_there(paths_.cleanup) || read_file(paths_.cleanup, small_record_bytes) == mark(), "unsupported_schema",
            "Unknown launcher cleanup was preserved");
  }

  void end() const {
    const HeldDirectory store = HeldDirectory::open(paths_.store);
    store.remove(name_of(paths_.cleanup));
    store.flush();
  }

  void keep(const std::filesystem::path& path, std::string_view reason) {
    kept_.push_back({{"path", path_utf8(path.lexically_relative(paths_.store))}, {"reason", reason}});
  }
  void count(const char* what) { removed_[what] = removed_.at(what).get<std::uint64_t>() + 1; }

  bool is_named(const std::string& sha256) const {
    const auto is_it = [&](const Json& reference) {
      return !reference.is_null() && is_text(reference.at("manifest_sha256"), sha256);
    };
    const Json& failed = document_.at("failed_candidate");
    return is_it(document_.at("active")) || is_it(document_.at("rollback")) || is_it(document_.at("candidate")) ||
           (!failed.is_null() && is_it(failed.at("reference")));
  }

  // Every version that is named was unpacked from its downloads, and any other download can be made again.
  void remove_downloads() {
    retire_downloads_of_versions();
    std::set<std::string> claimed;
    for (const Json& group : launcher_download_receipts(paths_.store)) {
      const Json& receipt = group.at("receipt");
      try {
        discard_download(paths_.store, group);
        count("downloads");
      } catch (const Error& error) {
        if (is_of_system(error)) {
          throw;
        }
        // Its checkpoint has this name as well, and more behind it.
        const std::filesystem::path partial = path_from_utf8(text_at(receipt, "temporary"));
        claimed.insert(path_utf8(*partial.begin()));
        keep(paths_.downloads / partial, changed);
      }
    }
    const HeldDirectory downloads = HeldDirectory::open(paths_.downloads);
    for (const std::string& name : downloads.names()) {
      const bool is_claimed = std::any_of(claimed.begin(), claimed.end(), [&](const std::string& partial) {
        return name == partial || name.starts_with(partial + ".");
      });
      if (!is_claimed) {
        downloads.remove_tree(name);
      }
    }
    downloads.flush();
  }

  void retire_downloads_of_versions() {
    std::size_t before = launcher_download_receipts(paths_.store).size();
    for (const char* key : {"active", "rollback", "candidate"}) {
      const Json& reference = document_.at(key);
      try {
        if (!reference.is_null()) {
          LauncherDownloads(paths_.store).retire(reference);
        }
      } catch (const Error& error) {
        // A download that is damaged or was lost cannot be proved, and is given up instead.
        if (is_of_system(error)) {
          throw;
        }
      }
    }
    for (const std::size_t left = launcher_download_receipts(paths_.store).size(); before > left; --before) {
      count("downloads");
    }
  }

  void remove_versions() {
    const HeldDirectory versions = HeldDirectory::open(paths_.versions);
    for (const std::string& name : versions.names()) {
      if (!is_sha256_text(name)) {
        keep(paths_.versions / name, not_understood);
      } else if (is_bare(versions, name)) {
        versions.remove(name);
        count("versions");
      } else if (!is_named(name)) {
        remove_version(name);
      }
    }
    // An earlier clean-up may have ended before its removals were durable. A folder that a power cut brings back needs
    // its manifest.
    versions.flush();
  }

  // Whether an empty folder without a manifest is all that there is of a version that nothing names.
  bool is_bare(const HeldDirectory& versions, const std::string& sha256) const {
    if (is_named(sha256) || is_there(paths_.manifest(sha256)) || is_there(paths_.removed_manifest(sha256))) {
      return false;
    }
    const std::optional<HeldDirectory> folder = versions.find_directory(sha256);
    return folder && folder->names(1).empty();
  }

  void remove_version(const std::string& sha256) {
    const std::filesystem::path folder = paths_.version(sha256);
    try {
      const std::unique_ptr<FileLock> guard = exclusive_guard(sha256);
      const LauncherManifest manifest = manifest_of(sha256);
      validate_snapshot_retirement(manifest, folder);
      put_manifest_aside(sha256);
      retire_snapshot_files(manifest, folder, {});
    } catch (const Error& error) {
      if (is_of_system(error)) {
        throw;
      }
      keep(folder, error.code == "busy" ? in_use : error.code == "unsafe_path" ? changed : not_understood);
      return;
    }
    if (is_there(folder)) {
      keep(folder, unmanaged);
      return;
    }
    remove_from(paths_.manifests, {name_of(paths_.removed_manifest(sha256))});
    remove_from(paths_.version_leases, {name_of(paths_.version_lease(sha256))});
    count("versions");
  }

  // A version whose removal has begun has its manifest put aside, and nobody can have started it since.
  std::unique_ptr<FileLock> exclusive_guard(const std::string& sha256) const {
    if (is_there(paths_.removed_manifest(sha256)) && !is_there(paths_.manifest(sha256))) {
      return std::make_unique<FileLock>(paths_.version_lease(sha256), false, LockMode::exclusive);
    }
    return store_.version_guard(store_.stored_reference(sha256), LockMode::exclusive);
  }

  LauncherManifest manifest_of(const std::string& sha256) const {
    const std::filesystem::path path = paths_.manifest(sha256);
    const std::string text = read_file(is_there(path) ? path : paths_.removed_manifest(sha256), maximum_manifest_bytes);
    require(digest(text, "sha256") == sha256, "content_mismatch", "Stored launcher manifest changed");
    return LauncherManifest::parse(parse_json(text, maximum_manifest_bytes));
  }

  void put_manifest_aside(const std::string& sha256) const {
    if (is_there(paths_.manifest(sha256))) {
      const HeldDirectory manifests = HeldDirectory::open(paths_.manifests);
      manifests.move(name_of(paths_.manifest(sha256)), manifests, name_of(paths_.removed_manifest(sha256)));
      manifests.flush();
    }
  }

  static void remove_from(const std::filesystem::path& folder, const std::vector<std::string>& names) {
    const HeldDirectory held = HeldDirectory::open(folder);
    for (const std::string& name : names) {
      held.remove(name);
    }
    held.flush();
  }

  // Those that were stored for a version that was never unpacked, or that is gone.
  void remove_manifests() {
    for (const std::string& name : HeldDirectory::open(paths_.manifests).names()) {
      const std::string stem = stem_of(name, name.ends_with(".removed") ? ".json.removed" : ".json");
      if (!record_of_write(name).empty()) {
        continue;
      }
      if (!is_sha256_text(stem)) {
        keep(paths_.manifests / name, not_understood);
      } else if (!is_named(stem) && !is_there(paths_.version(stem))) {
        remove_from(paths_.manifests, {name});
        count("manifests");
      }
    }
  }

  void remove_version_leases() {
    for (const std::string& name : HeldDirectory::open(paths_.version_leases).names()) {
      const std::string sha256 = stem_of(name, ".lock");
      if (!is_sha256_text(sha256)) {
        keep(paths_.version_leases / name, not_understood);
      } else if (!is_named(sha256) && !is_there(paths_.version(sha256))) {
        remove_free_lease(paths_.version_leases, name);
      }
    }
  }

  // Returns whether the lease was free, and is gone. Nobody takes it again: an attempt is made once, and a version that
  // nothing names is not started.
  bool remove_free_lease(const std::filesystem::path& folder, const std::string& name) {
    try {
      const FileLock lease(folder / name, false, LockMode::exclusive);
      remove_from(folder, {name});
      return true;
    } catch (const Error& error) {
      // What is no lock would keep every later clean-up from its end as well.
      if (error.code == "lock_failed") {
        keep(folder / name, not_understood);
        return false;
      }
      if (error.code != "busy") {
        throw;
      }
      return false;
    }
  }

  void remove_stagings() {
    const HeldDirectory staging = HeldDirectory::open(paths_.staging);
    for (const std::string& nonce : staging.names()) {
      if (is_intended(nonce)) {
        staging.remove_tree(nonce);
        count("stagings");
      } else {
        keep(paths_.staging / nonce, not_understood);
      }
    }
    // An intent goes after what it explains.
    staging.flush();
    for (const std::string& name : HeldDirectory::open(paths_.intents).names()) {
      if (!record_of_write(name).empty()) {
        continue;
      }
      if (is_intended(stem_of(name, ".json"))) {
        remove_from(paths_.intents, {name});
      } else {
        keep(paths_.intents / name, not_understood);
      }
    }
  }

  // Whether an intent tells of the staging.
  bool is_intended(const std::string& nonce) const {
    if (!is_lower_hex(nonce, download_nonce_characters) || !is_there(paths_.staging_intent(nonce))) {
      return false;
    }
    try {
      const Json intent = parse_json(read_file(paths_.staging_intent(nonce), small_record_bytes), small_record_bytes);
      return has_exactly(intent, {"schema_version", "kind", "nonce", "reference"}) &&
             is_integer(intent.at("schema_version"), 1) && is_text(intent.at("kind"), staging_intent_kind) &&
             is_text(intent.at("nonce"), nonce);
    } catch (const Error&) {
      return false;
    }
  }

  void remove_attempts() {
    for (const std::string& nonce : attempt_nonces()) {
      const std::string lease = name_of(paths_.attempt_lease(nonce));
      // The launcher that was started by the attempt holds its lease until it ends.
      if (!is_there(paths_.attempt_lease(nonce)) || remove_free_lease(paths_.attempt_leases, lease)) {
        remove_from(paths_.attempt_leases, {name_of(paths_.attempt_acknowledgement(nonce))});
        remove_from(paths_.health, {name_of(paths_.attempt_health(nonce))});
        count("attempts");
      }
    }
  }

  std::set<std::string> attempt_nonces() {
    std::set<std::string> nonces;
    for (const auto& folder : {paths_.attempt_leases, paths_.health}) {
      for (const std::string& name : HeldDirectory::open(folder).names()) {
        const std::string nonce = stem_of(name, name.ends_with(".lock") ? ".lock" : ".json");
        if (is_lower_hex(nonce, download_nonce_characters)) {
          nonces.insert(nonce);
        } else if (record_of_write(name).empty()) {
          keep(folder / name, not_understood);
        }
      }
    }
    return nonces;
  }

  // All of these are written by those who hold the store's lock, or by a launcher that is being tried under it.
  void remove_writes() const {
    for (const auto& folder : {paths_.manifests, paths_.intents, paths_.attempt_leases, paths_.health}) {
      remove_writes_in(folder, ".json");
    }
    remove_writes_in(paths_.store, name_of(paths_.document));
    remove_writes_in(paths_.store, name_of(paths_.cleanup));
  }

  static void remove_writes_in(const std::filesystem::path& folder, std::string_view record_ending) {
    std::vector<std::string> writes;
    for (const std::string& name : HeldDirectory::open(folder).names()) {
      if (record_of_write(name).ends_with(record_ending)) {
        writes.push_back(name);
      }
    }
    if (!writes.empty()) {
      remove_from(folder, writes);
    }
  }

  const LauncherStore& store_;
  const LauncherPaths paths_{store_.store()};
  Json document_;
  Json removed_ = {{"attempts", 0U}, {"downloads", 0U}, {"manifests", 0U}, {"stagings", 0U}, {"versions", 0U}};
  Json kept_ = Json::array();
};

}  // namespace

Json clean_launcher_store(const LauncherStore& store) {
  const std::unique_ptr<FileLock> lock = store.owner();
  return Cleanup(store).run();
}

}  // namespace ravok
