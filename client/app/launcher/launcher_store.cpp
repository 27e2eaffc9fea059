#include "app/launcher/launcher_store.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "app/install/data_folder.hpp"
#include "app/launcher/launcher_reference.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/directory_identity.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/status.hpp"
#include "platform/file/storage.hpp"
#include "platform/process/native_platform.hpp"
#include "platform/snapshot/complete_install.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "platform/snapshot/snapshot_tree.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t document_limit = 32'768;
constexpr std::size_t maximum_versions = 64;
constexpr const char* format = "ravok-launcher-store-v1";
constexpr std::string_view state = launcher_state_code;
constexpr std::string_view malformed = malformed_launcher_record;
constexpr std::chrono::milliseconds owner_pause(5);
constexpr std::chrono::seconds owner_patience(2);

void require_document(const Json& document) {
  require(is_integer(document.at("schema_version"), 1) && is_text(document.at("format"), format), "unsupported_schema",
          "Unknown launcher state was preserved");
  positive_version(document.at("generation"));
  for (const char* key : {"active", "rollback", "candidate"}) {
    reference_shape(document.at(key));
  }
  const Json& attempt = document.at("attempt");
  if (!attempt.is_null()) {
    nonce_identity(attempt.at("nonce"));
    reference_shape(attempt.at("reference"));
    require(!attempt.at("reference").is_null() && document.at("candidate").is_null(), state,
            "Launcher candidate/startup state is contradictory");
  }
  const Json& failed = document.at("failed_candidate");
  if (!failed.is_null()) {
    reference_shape(failed.at("reference"));
  }
}

Json fresh_document() {
  return {{"schema_version", 1U}, {"format", format},     {"generation", 0U},   {"active", nullptr},
          {"rollback", nullptr},  {"candidate", nullptr}, {"attempt", nullptr}, {"failed_candidate", nullptr}};
}

std::optional<std::filesystem::file_time_type> write_time(const std::filesystem::path& path) {
  std::error_code problem;
  const auto time = std::filesystem::last_write_time(path, problem);
  return problem ? std::nullopt : std::optional(time);
}

}  // namespace

std::filesystem::path ordinary_root(const std::filesystem::path& path) {
  const std::filesystem::path canonical =
      std::filesystem::weakly_canonical(std::filesystem::absolute(path)).lexically_normal();
  // A separator at the end names the same folder.
  const std::filesystem::path named = canonical.has_filename() ? canonical : canonical.parent_path();
  return safe_join(named.root_path(), path_utf8(named.relative_path()), false);
}

const Json& current_build(const Json& status) {
  return status.at("active").is_null() ? status.at("candidate") : status.at("active");
}

LauncherStore::LauncherStore(const std::filesystem::path& root, LaunchView)
    : root_(ordinary_root(root)), paths_(DataPaths(root_).launcher) {}

LauncherStore::LauncherStore(const std::filesystem::path& root, bool allow_incomplete)
    : LauncherStore(root, LaunchView()) {
  if (!allow_incomplete) {
    require_complete_native_install(root_);
  }
  make_directories();
  load();
}

LauncherStore::LauncherStore(const std::filesystem::path& root, AsItStands)
    : root_(std::filesystem::absolute(root).lexically_normal()), paths_(DataPaths(root_).launcher) {
  make_directories();
  load();
}

void LauncherStore::make_directories() const {
  private_directory(paths_.store);
  for (const std::filesystem::path& directory : paths_.directories()) {
    private_directory(directory);
  }
}

std::unique_ptr<LauncherStore> LauncherStore::existing(const std::filesystem::path& root, bool allow_incomplete) {
  std::unique_ptr<LauncherStore> store(new LauncherStore(root, LaunchView()));
  if (!allow_incomplete) {
    require_complete_native_install(store->root_);
  }
  const LauncherPaths& paths = store->paths_;
  for (const std::filesystem::path& directory :
       {paths.store, paths.manifests, paths.downloads, paths.download_intents, paths.intents}) {
    inspect_storage_directory(directory);
  }
  store->load();
  return store;
}

std::unique_ptr<LauncherStore> LauncherStore::for_launch(const std::filesystem::path& root) {
  std::unique_ptr<LauncherStore> store(new LauncherStore(root, LaunchView()));
  require_complete_native_install(store->root_);
  return store;
}

Json LauncherStore::load() const {
  if (is_missing(paths_.document)) {
    return fresh_document();
  }
  Json document = parse_json(read_file(paths_.document, document_limit), document_limit);
  refuse_malformed(state, malformed, [&] { require_document(document); });
  return document;
}

void LauncherStore::save(Json document) const {
  const std::uint64_t generation = document.at("generation").get<std::uint64_t>();
  require(generation < std::numeric_limits<std::uint64_t>::max(), state, "Launcher state generation is exhausted");
  document["generation"] = generation + 1;
  const std::string text = document.dump();
  require(text.size() <= document_limit, state, "Launcher state exceeds its durable bound");
  atomic_write(paths_.document, text);
}

Json LauncherStore::status() const {
  Json document = load();
  const bool installed = !document.at("active").is_null();
  document["installed"] = installed;
  return document;
}

Json LauncherStore::selection() const {
  try {
    return load();
  } catch (const Error& error) {
    if (error.code != "launcher_state" && error.code != "unsupported_schema" && error.code != "invalid_json") {
      throw;
    }
  } catch (const Json::exception&) {
    // As unusable as a document that is refused by one of these codes.
  }
  return nullptr;
}

std::unique_ptr<FileLock> LauncherStore::owner() const {
  const auto deadline = std::chrono::steady_clock::now() + owner_patience;
  for (;;) {
    try {
      return std::make_unique<FileLock>(paths_.owner_lock, false, LockMode::exclusive);
    } catch (const Error& error) {
      if (error.code != "busy" || std::chrono::steady_clock::now() >= deadline) {
        throw;
      }
    }
    std::this_thread::sleep_for(owner_pause);
  }
}

std::string LauncherStore::manifest_text(const Json& reference) const {
  require(!reference.is_null(), "launcher_missing", "Install a verified launcher first");
  const std::string sha256 = refuse_malformed(state, malformed, [&] {
    reference_shape(reference);
    return text_at(reference, "manifest_sha256");
  });
  std::string text = read_file(paths_.manifest(sha256), maximum_manifest_bytes);
  require(digest(text, "sha256") == sha256, "content_mismatch", "Stored launcher manifest changed");
  return text;
}

LauncherManifest LauncherStore::manifest(const Json& reference) const {
  LauncherManifest manifest = LauncherManifest::parse(parse_json(manifest_text(reference), maximum_manifest_bytes));
  require(manifest.build_id == text_at(reference, "build_id") && manifest.platform == native_platform(), state,
          "Launcher identity/platform differs from its local reference");
  return manifest;
}

std::filesystem::path LauncherStore::payload(const Json& reference) const {
  require(!reference.is_null(), "launcher_missing", "No working launcher is installed");
  return refuse_malformed(state, malformed, [&] {
    reference_shape(reference);
    return paths_.version(text_at(reference, "manifest_sha256"));
  });
}

std::optional<std::vector<std::string>> LauncherStore::names_below(const std::filesystem::path& folder) const {
  try {
    const std::optional<HeldDirectory> found = HeldDirectory::open(paths_.store).find_directory(name_of(folder));
    return found ? std::optional(found->names(maximum_versions + 1)) : std::nullopt;
  } catch (const Error&) {
    return std::nullopt;
  }
}

Json LauncherStore::stored_reference(const std::string& manifest_sha256) const {
  hash_identity(Json(manifest_sha256));
  const Json document =
      parse_json(read_file(paths_.manifest(manifest_sha256), maximum_manifest_bytes), maximum_manifest_bytes);
  return refuse_malformed(state, malformed,
                          [&] { return make_reference(manifest_sha256, text_at(document, "build_id")); });
}

Json LauncherStore::fallback_active() const {
  Json best;
  std::filesystem::file_time_type best_time;
  std::size_t entries = 0;
  for (const std::string& name : names_below(paths_.versions).value_or(std::vector<std::string>())) {
    require(++entries <= maximum_versions, state, "Too many launcher versions to choose a fallback");
    const std::filesystem::path folder = paths_.versions / name;
    const auto status = link_status_of(folder);
    if (!status || !is_directory(*status) || name.size() != sha256_characters) {
      continue;
    }
    try {
      Json reference = stored_reference(name);
      manifest(reference);
      const auto time = write_time(folder);
      if (time && (best.is_null() || *time > best_time)) {
        best = std::move(reference);
        best_time = *time;
      }
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::exception&) {
      // Without a whole manifest, this version could not be started.
    }
  }
  require(!best.is_null(), "launcher_missing", "No installed Ravok version could be started");
  return best;
}

void LauncherStore::require_new() const {
  const Json document = load();
  const auto is_empty = [&](const std::filesystem::path& folder) {
    return names_below(folder) == std::vector<std::string>();
  };
  bool is_new = document.at("generation") == 0 && is_empty(paths_.manifests) && is_empty(paths_.versions);
  for (const char* key : {"active", "candidate", "rollback", "attempt", "failed_candidate"}) {
    is_new = is_new && document.at(key).is_null();
  }
  require(is_new, "already_installed", "Initial launcher seeding requires a new owned profile");
}

template <typename Archive>
Json LauncherStore::seed(std::string_view manifest_text, const Archive& archive,
                         const ProgressCallback& progress) const {
  const std::unique_ptr<FileLock> lock = owner();
  require_new();
  const LauncherManifest manifest = LauncherManifest::parse(parse_json(manifest_text, maximum_manifest_bytes));
  require(manifest.platform == native_platform(), "launcher_incompatible",
          "Initial launcher targets another native platform");
  const std::string sha256 = digest(manifest_text, "sha256");
  Json reference = make_reference(sha256, manifest.build_id);
  const std::filesystem::path folder = payload(reference);
  require_path_room(root_, folder.lexically_relative(root_), manifest.longest_native_path());
  // The archive lies here already, so nothing has to be downloaded.
  const Json plan = plan_install_storage(manifest, inspect_storage_volume(root_), true, 0, false);
  require_install_storage(plan.at("volume"), "launcher");

  atomic_private_create(paths_.manifest(sha256), manifest_text);
  extract_snapshot(manifest, archive, folder, progress, nullptr);
  verify_snapshot_tree(manifest, folder, progress);
  Json document = load();
  document["candidate"] = reference;
  save(std::move(document));
  return reference;
}

Json LauncherStore::seed_initial(std::string_view manifest_text, const std::filesystem::path& archive,
                                 const ProgressCallback& progress) const {
  return seed(manifest_text, archive, progress);
}

Json LauncherStore::seed_initial(std::string_view manifest_text, const FileRange& archive,
                                 const ProgressCallback& progress) const {
  return seed(manifest_text, archive, progress);
}

}  // namespace ravok
