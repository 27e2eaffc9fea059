#include "app/launcher/launcher_staging.hpp"

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "app/download/abandoned_downloads.hpp"
#include "app/download/launcher_downloads.hpp"
#include "app/download/target_downloads.hpp"
#include "app/launcher/launcher_reference.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/storage.hpp"
#include "platform/file/tree.hpp"
#include "platform/process/native_platform.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

constexpr std::string_view storage_full = "launcher_storage_full";

// Returns how many entries a folder has, and counts no further than to `most`.
std::size_t entries_in(const std::filesystem::path& folder, std::size_t most) {
  return HeldDirectory::open(folder).names(most).size();
}

Json skipped(std::string_view reason) { return {{"staged", false}, {"skipped", reason}}; }

Json already_current() { return {{"staged", false}, {"already_current", true}}; }

// Whether the signed description is that of the manifest of this version.
bool is_manifest_of(const Json& description, const Json& reference) {
  return !reference.is_null() && description.at("hashes").value("sha256", "") == text_at(reference, "manifest_sha256");
}

// One staging, under the store's lock. Its steps stand in their order.
class Staging {
 public:
  Staging(const LauncherStore& store, TufClient& tuf, const ProgressCallback& progress, const PhaseCallback& phase)
      : store_(store), tuf_(tuf), progress_(progress), phase_(phase), document_(store.load()) {}

  // Returns what ends a staging in the background before it begins, if anything does.
  std::optional<Json> background_outcome() {
    if (document_.at("active").is_null()) {
      return skipped("not_installed");
    }
    if (is_there(paths_.cleanup)) {
      return skipped("cleanup_pending");
    }
    const std::optional<Json> description = published_manifest();
    if (!description) {
      return skipped("not_published");
    }
    if (is_manifest_of(*description, document_.at("active"))) {
      return already_current();
    }
    if (is_manifest_of(*description, document_.at("candidate"))) {
      return skipped("candidate_pending");
    }
    const Json& failed = document_.at("failed_candidate");
    if (!failed.is_null() && is_manifest_of(*description, failed.at("reference"))) {
      return skipped("failed_before");
    }
    if (!document_.at("attempt").is_null()) {
      return skipped("startup_pending");
    }
    return std::nullopt;
  }

  void require_nothing_pending() const {
    require(!is_there(paths_.cleanup), "launcher_cleanup_pending",
            "Finish the recorded Ravok cleanup before staging another update", {std::string(cleanup_hint)});
    require(document_.at("attempt").is_null(), "busy",
            "A launcher startup must finish before another update is staged");
  }

  Json run() {
    begin();
    download_manifest();
    read_manifest();
    find_archive();
    require_one_content_of_build();
    if (reference_ == document_.at("active")) {
      verify_snapshot_tree(manifest_, payload(), progress_);
      return already_current();
    }
    require_no_other_candidate();
    require_place_for_version();
    download_archive();
    keep_manifest();
    if (is_there(payload())) {
      verify_snapshot_tree(manifest_, payload(), progress_);
      // Who unpacked it may have ended before its name was durable.
      HeldDirectory::open(paths_.versions).flush();
    } else {
      unpack();
    }
    make_candidate();
    return {{"staged", true},
            {"activated", false},
            {"build_id", manifest_.build_id},
            {"manifest_sha256", reference_.at("manifest_sha256")}};
  }

 private:
  std::optional<Json> published_manifest() {
    try {
      return tuf_.target(launcher_manifest_target());
    } catch (const Error& error) {
      if (error.code != "target_not_found") {
        throw;
      }
      return std::nullopt;
    }
  }

  void tell(std::string_view name, bool can_cancel) const {
    if (phase_) {
      phase_(name, can_cancel);
    }
  }

  void begin() const {
    remove_torn_receipts(store_.store());
    launcher_download_receipts(store_.store());
    tell("verifying", true);
    require_launcher_budget(paths_, 0);
  }

  void download_manifest() {
    const Json description = tuf_.target(launcher_manifest_target());
    require(length(description) <= maximum_manifest_bytes, "size_limit", "Launcher descriptor exceeds 512 KiB");
    text_ = read_file(download(launcher_manifest_target(), description, nullptr, 0), maximum_manifest_bytes);
  }

  void read_manifest() {
    manifest_ = LauncherManifest::parse(parse_json(text_, maximum_manifest_bytes));
    require(manifest_.platform == native_platform(), "launcher_incompatible",
            "Launcher payload targets another native platform");
    reference_ = make_reference(digest(text_, "sha256"), manifest_.build_id);
  }

  void find_archive() {
    archive_description_ = tuf_.target(manifest_.target);
    require(length(archive_description_) == manifest_.archive_length &&
                archive_description_.at("hashes").value("sha256", "") == manifest_.archive_sha256,
            "content_mismatch", "Launcher archive is not authorized with its declared length/hash");
  }

  // A build ID names one content for ever.
  void require_one_content_of_build() const {
    for (const char* key : {"active", "rollback", "candidate"}) {
      const Json& other = document_.at(key);
      require(other.is_null() || !is_text(other.at("build_id"), manifest_.build_id) || other == reference_,
              "launcher_build_conflict", "An installed launcher build ID has different signed content");
    }
  }

  void require_no_other_candidate() const {
    const Json& candidate = document_.at("candidate");
    require(candidate.is_null() || candidate == reference_, "launcher_pending",
            "Start the pending launcher candidate before staging a different build");
  }

  void require_place_for_version() const {
    const std::filesystem::path relative = payload().lexically_relative(store_.root());
    require_path_room(store_.root(), relative, manifest_.longest_native_path());
    require(entries_in(paths_.versions, launcher_store_limits::versions) < launcher_store_limits::versions ||
                is_there(payload()),
            storage_full, "Retained launcher versions reached their bounded capacity");
    require_launcher_budget(paths_, 0);
  }

  void download_archive() {
    tell("downloading", true);
    const std::uint64_t unpacked = is_there(payload()) ? 0 : manifest_.expanded_length;
    archive_ = download(manifest_.target, archive_description_, reference_, unpacked);
  }

  // `required` is how many bytes are made from the target once it is here.
  std::filesystem::path download(const std::string& target, const Json& description, const Json& reference,
                                 std::uint64_t required) {
    make_way_for_download(store_.store(), target, description, reference);
    // The receipt of this download is written before admission is asked for, so what was there before is what counts.
    const LauncherDownload admitted = {.required = required,
                                       .signed_length = length(description),
                                       .has_receipt = is_receipted(target, description, reference)};
    const auto admission = [&](const DownloadAdmission& facts) { admit_launcher_download(paths_, admitted, facts); };
    return tuf_.download(target, paths_.downloads, progress_,
                         TargetDownloads(store_.store()).observer(target, reference),
                         {.scope = launcher_download_resume_scope(target, reference), .admission = admission});
  }

  bool is_receipted(const std::string& target, const Json& description, const Json& reference) const {
    for (const Json& group : launcher_download_receipts(store_.store())) {
      if (is_receipt_of(group.at("receipt"), target, description, reference)) {
        return true;
      }
    }
    return false;
  }

  void keep_manifest() const {
    const std::filesystem::path path = paths_.manifest(text_at(reference_, "manifest_sha256"));
    if (is_there(path)) {
      require(read_file(path, maximum_manifest_bytes) == text_, "content_mismatch",
              "Immutable launcher descriptor changed");
      HeldDirectory::open(paths_.manifests).flush();
    } else {
      atomic_private_create(path, text_);
    }
  }

  void unpack() const {
    const std::string nonce = random_id();
    const Json intent = {
        {"schema_version", 1U}, {"kind", staging_intent_kind}, {"nonce", nonce}, {"reference", reference_}};
    atomic_private_create(paths_.staging_intent(nonce), intent.dump());
    const HeldDirectory staging = HeldDirectory::open(paths_.staging);
    const HeldDirectory versions = HeldDirectory::open(paths_.versions);
    const HeldDirectory intents = HeldDirectory::open(paths_.intents);
    const std::string intent_name = name_of(paths_.staging_intent(nonce));
    try {
      extract_snapshot(manifest_, archive_, paths_.staging_work(nonce), progress_, nullptr);
      staging.move(nonce, versions, name_of(payload()));
    } catch (...) {
      // What cannot be removed durably keeps its intent, so that the clean-up knows what it is.
      if (staging.remove_tree_quietly(nonce) && !os::flush(staging.handle())) {
        intents.remove_quietly(intent_name);
      }
      throw;
    }
    staging.flush();
    versions.flush();
    intents.remove(intent_name);
    intents.flush();
  }

  void make_candidate() {
    tell("activating", false);
    document_["candidate"] = reference_;
    document_["failed_candidate"] = nullptr;
    store_.save(document_);
  }

  std::filesystem::path payload() const { return store_.payload(reference_); }

  const LauncherStore& store_;
  const LauncherPaths paths_{store_.store()};
  TufClient& tuf_;
  const ProgressCallback& progress_;
  const PhaseCallback& phase_;
  Json document_;
  std::string text_;  // of the manifest
  LauncherManifest manifest_;
  Json reference_;
  Json archive_description_;
  std::filesystem::path archive_;
};

}  // namespace

void require_launcher_budget(const LauncherPaths& paths, std::uint64_t extra) {
  constexpr std::uint64_t most = launcher_store_limits::bytes;
  const std::uint64_t bytes = tree_bytes(paths.store, maximum_tree_entries);
  require(bytes <= most && extra <= most - bytes, storage_full, "Launcher updates exceed their private storage budget");
  for (const LauncherFolderLimit& limit : launcher_folder_limits) {
    require(entries_in(paths.*limit.folder, limit.entries) < limit.entries, storage_full,
            "Retained launcher records reached their bounded capacity", {std::string(cleanup_hint)});
  }
}

void admit_launcher_download(const LauncherPaths& paths, const LauncherDownload& download,
                             const DownloadAdmission& facts) {
  require(facts.bytes <= download.signed_length, storage_full, "Existing download exceeds its signed budget");
  const std::uint64_t rest = download.has_receipt ? 0 : download.signed_length - facts.bytes;
  require_launcher_budget(paths,
                          storage_add(storage_add(download.required, rest), launcher_store_limits::reserve_bytes));
  constexpr std::size_t most = launcher_store_limits::downloads_before_new;
  require(download.has_receipt || facts.complete || entries_in(paths.downloads, most + 1) <= most, storage_full,
          "A new target needs bounded partial/checkpoint slots", {std::string(cleanup_hint)});
}

Json LauncherStore::stage(TufClient& tuf, const ProgressCallback& progress, const PhaseCallback& phase,
                          bool background) const {
  const std::unique_ptr<FileLock> lock = owner();
  Staging staging(*this, tuf, progress, phase);
  if (background) {
    if (std::optional<Json> outcome = staging.background_outcome()) {
      return *std::move(outcome);
    }
  } else {
    staging.require_nothing_pending();
  }
  return staging.run();
}

}  // namespace ravok
