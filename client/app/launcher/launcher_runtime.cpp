#include "app/launcher/launcher_runtime.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <utility>

#include "app/launcher/launcher_image.hpp"
#include "app/launcher/launcher_reference.hpp"
#include "app/launcher/launcher_startup.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"
#include "platform/process/process_operations.hpp"

namespace ravok {
namespace {

constexpr std::array<std::string_view, 3> helper_roles = {"crash-handler", "maintenance", "maintenance-gui"};

// A variable without a value counts as missing: it is what remains where an attempt's variables were cleared.
std::string startup_value(std::string_view name) {
  return process_environment(name, maximum_environment_bytes).value_or(std::string());
}

// Returns the record of the attempt that the environment names.
Json environment_attempt(const std::string& nonce, std::string_view build_id, std::string_view interface,
                         const std::filesystem::path& root) {
  Json attempt = {{"nonce", nonce}};
  nonce_identity(attempt.at("nonce"));
  const std::filesystem::path other_root = path_from_utf8(startup_value(startup_variable::data_root));
  require(startup_value(startup_variable::build) == build_id &&
              startup_value(startup_variable::interface) == interface && !other_root.empty() &&
              is_same_folder(root, other_root),
          "launcher_health", "Launcher startup does not match this build, interface or data root");
  attempt["reference"] = make_reference(startup_value(startup_variable::manifest), std::string(build_id));
  reference_shape(attempt.at("reference"));
  return attempt;
}

void clear_startup_variables() {
  for (const std::string_view variable : startup_variables) {
    require(os::remove_variable(std::string(variable)), "launcher_health", "Cannot clear launcher startup authority");
  }
}

// Holds the lease beyond the end of what has held it.
void retain(const std::unique_ptr<FileLock>& lease) {
  if (lease) {
    lease->retain_until_process_exit();
  }
}

// Returns the reference of the version that the helper says it belongs to.
Json helper_reference(const ManagedVersion& version, std::string_view build_id) {
  const std::filesystem::path path = LauncherPaths(DataPaths(version.root).launcher).manifest(version.manifest_sha256);
  const Json document = parse_json(read_file(path, maximum_manifest_bytes), maximum_manifest_bytes);
  const bool own = document.is_object() && has_text(document, "kind") && has_text(document, "build_id") &&
                   is_text(document.at("kind"), "ravok-launcher-release") && is_text(document.at("build_id"), build_id);
  require(own, "launcher_helper", "Native helper has no bounded launcher identity");
  return make_reference(version.manifest_sha256, std::string(build_id));
}

// Returns the path, in the release, of the helper of this role that is the image.
std::string declared_helper(const LauncherManifest& manifest, const std::filesystem::path& payload,
                            const std::filesystem::path& image, std::string_view role) {
  for (const std::string& path : manifest.helpers(role)) {
    if (safe_join(payload, path, true) == image) {
      return path;
    }
  }
  fail("launcher_helper", "Running helper image differs from its declared native role");
}

}  // namespace

std::unique_ptr<LauncherRuntime> LauncherRuntime::attach(std::string_view build_id, std::string_view interface,
                                                         const std::filesystem::path& data_root) {
  interface_shape(interface);
  validate_identifier(build_id);
  const std::filesystem::path root = ordinary_root(data_root);
  const std::filesystem::path image = current_executable_path();
  reject_staged_image(image);
  const std::string nonce = startup_value(startup_variable::health_nonce);
  if (!nonce.empty()) {
    Json attempt = environment_attempt(nonce, build_id, interface, root);
    Json reference = attempt.at("reference");
    return std::unique_ptr<LauncherRuntime>(
        new LauncherRuntime(root, std::move(reference), std::move(attempt), interface));
  }
  const std::optional<ManagedVersion> version = managed_version(image);
  if (!version) {
    return nullptr;
  }
  return std::unique_ptr<LauncherRuntime>(new LauncherRuntime(
      version->root, make_reference(version->manifest_sha256, std::string(build_id)), nullptr, interface));
}

LauncherRuntime::LauncherRuntime(const std::filesystem::path& data_root, Json reference, Json attempt,
                                 std::string_view interface)
    : data_root_(data_root), reference_(std::move(reference)), attempt_(std::move(attempt)), interface_(interface) {
  const std::unique_ptr<LauncherStore> store = LauncherStore::for_launch(data_root_);
  if (!attempt_.is_null()) {
    attempt_lease_ = std::make_unique<FileLock>(store->startup_lease_path(attempt_), false, LockMode::shared);
  }
  version_lease_ = store->version_guard(reference_, LockMode::shared);
  manifest_ = store->manifest(reference_);
  const std::string& entry = interface_ == "cli" ? manifest_->executable : manifest_->gui_executable;
  require(current_executable_path() == safe_join(store->payload(reference_), entry, true), "launcher_identity",
          "Running launcher image differs from its verified native entry point");
  if (!attempt_.is_null()) {
    acknowledge(*store);
  }
  clear_startup_variables();
}

LauncherRuntime::~LauncherRuntime() {
  retain(attempt_lease_);
  retain(version_lease_);
}

void LauncherRuntime::acknowledge(const LauncherStore& store) const {
  require(store.status().at("attempt") == attempt_, "launcher_health",
          "Launcher startup is no longer pending or cannot protect its content");
  atomic_private_create(store.startup_ack_path(attempt_),
                        lease_document(*manifest_, attempt_, os::process_id(), interface_).dump());
}

void LauncherRuntime::report_health() const {
  require(attempt_lease_ && version_lease_ && !attempt_.is_null(), "launcher_health",
          "Launcher startup health needs its live native leases");
  const LauncherStore store(data_root_);
  require(store.status().at("attempt") == attempt_, "launcher_health", "Launcher startup attempt is no longer pending");
  // It is still the one that was parsed when this process attached.
  store.manifest_text(reference_);
  const Json health =
      manifest_->startup_health(attempt_, os::process_id(), interface_, ConsoleInterrupt::parent_reader_attached());
  atomic_private_create(store.health_path(attempt_), health.dump());
}

void report_launcher_health(const LauncherRuntime* runtime) {
  if (runtime != nullptr) {
    runtime->report_health();
  }
}

bool launcher_startup_pending() { return !startup_value(startup_variable::health_nonce).empty(); }

std::unique_ptr<FileLock> launcher_helper_guard(const std::filesystem::path& image, std::string_view role,
                                                std::string_view build_id) {
  require(std::find(helper_roles.begin(), helper_roles.end(), role) != helper_roles.end(), "launcher_helper",
          "Unsupported native helper role");
  validate_identifier(build_id);
  require(resolve_system_links(image) == image, "launcher_identity",
          "Native helper image must be an ordinary physical path");
  reject_staged_image(image);
  const std::optional<ManagedVersion> version = managed_version(image);
  require(version.has_value(), "launcher_helper", "Native helper has no bounded launcher identity");
  const LauncherStore store(version->root);
  const Json reference = helper_reference(*version, build_id);
  std::unique_ptr<FileLock> lease = store.version_guard(reference, LockMode::shared);
  const LauncherManifest manifest = store.manifest(reference);
  const std::string path = declared_helper(manifest, store.payload(reference), image, role);
  require(digest_file(image, "sha256") == manifest.files.at(path).sha256, "content_mismatch",
          "Native helper image differs from its verified launcher inventory");
  return lease;
}

std::unique_ptr<LauncherHelperRuntime> LauncherHelperRuntime::attach(std::string_view role, std::string_view build_id) {
  return std::unique_ptr<LauncherHelperRuntime>(
      new LauncherHelperRuntime(launcher_helper_guard(current_executable_path(), role, build_id)));
}

LauncherHelperRuntime::LauncherHelperRuntime(std::unique_ptr<FileLock> lease) : lease_(std::move(lease)) {}

LauncherHelperRuntime::~LauncherHelperRuntime() { retain(lease_); }

}  // namespace ravok
