#include "app/launcher/launcher_startup.hpp"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "app/launcher/launcher_reference.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "platform/snapshot/snapshot_tree.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_problem_characters = 80;

std::string nonce_of(const Json& attempt) {
  return refuse_malformed(launcher_state_code, malformed_launcher_record,
                          [&] { return nonce_identity(attempt.at("nonce")); });
}

Json failed_record(const Json& attempt, std::string_view problem) {
  return {{"reference", attempt.at("reference")}, {"problem", problem}};
}

void require_problem(std::string_view problem) {
  const bool known_form = !problem.empty() && problem.size() <= maximum_problem_characters &&
                          std::all_of(problem.begin(), problem.end(),
                                      [](char c) { return is_lower_letter(c) || is_digit(c) || c == '_' || c == '-'; });
  require(known_form, launcher_state_code, "Launcher startup problem code is invalid");
}

void require_same_attempt(const Json& document, const Json& attempt) {
  require(!attempt.is_null() && document.at("attempt") == attempt, launcher_state_code,
          "Launcher startup ownership changed");
}

void require_acknowledgement(const std::filesystem::path& path, const Json& expected) {
  require(!is_missing(path), "launcher_lease", "Launcher startup did not acknowledge native content ownership");
  const Json found = parse_json(read_file(path, maximum_startup_document_bytes), maximum_startup_document_bytes);
  require(found == expected, "launcher_lease",
          "Launcher lease acknowledgement does not match its build, process, mode and attempt");
}

}  // namespace

void interface_shape(std::string_view interface) {
  require(interface == "cli" || interface == "gui", "launcher_interface", "Choose the CLI or GUI launcher interface");
}

Json lease_document(const LauncherManifest& manifest, const Json& attempt, std::uint64_t pid,
                    std::string_view interface) {
  Json document = manifest.startup_health(attempt, pid, interface, false);
  document.erase("health_abi");
  document["runtime_lease_abi"] = manifest.runtime_lease_abi;
  document["state"] = "leased";
  return document;
}

ProcessEnvironment cleared_startup_environment() {
  ProcessEnvironment environment;
  for (const std::string_view variable : startup_variables) {
    environment.emplace(variable, "");
  }
  return environment;
}

bool is_lack_of_room(const LauncherStore& store, const Error& error) {
  if (error.code != "lock_failed") {
    return error.code == "insufficient_space";
  }
  // A volume that takes no more files has no room for a lease either, and nobody holds one that is missing.
  return is_missing(store.startup_lease_path(store.load().at("attempt")));
}

void LauncherStore::recover_attempt() const {
  Json document = load();
  if (document.at("attempt").is_null()) {
    return;
  }
  std::unique_ptr<FileLock> lease;
  try {
    lease = std::make_unique<FileLock>(startup_lease_path(document.at("attempt")), false, LockMode::exclusive);
  } catch (const Error& error) {
    require(error.code != "busy", "launcher_running",
            "The unfinished launcher is still using its startup attempt; close it before restarting", {"self status"});
    throw;
  }
  document["failed_candidate"] = failed_record(document.at("attempt"), "startup_interrupted");
  document["attempt"] = nullptr;
  save(std::move(document));
}

Json LauncherStore::begin_candidate() const {
  Json document = load();
  require(document.at("attempt").is_null(), "busy", "Another launcher startup needs recovery");
  if (document.at("candidate").is_null()) {
    return nullptr;
  }
  Json attempt = {{"nonce", random_id()}, {"reference", document.at("candidate")}};
  document["candidate"] = nullptr;
  document["attempt"] = attempt;
  save(std::move(document));
  return attempt;
}

std::filesystem::path LauncherStore::startup_lease_path(const Json& attempt) const {
  return paths_.attempt_lease(nonce_of(attempt));
}

std::filesystem::path LauncherStore::health_path(const Json& attempt) const {
  return paths_.attempt_health(nonce_of(attempt));
}

std::filesystem::path LauncherStore::startup_ack_path(const Json& attempt) const {
  return paths_.attempt_acknowledgement(nonce_of(attempt));
}

std::unique_ptr<FileLock> LauncherStore::version_guard(const Json& reference, LockMode mode) const {
  refuse_malformed(launcher_state_code, malformed_launcher_record, [&] { reference_shape(reference); });
  require(!reference.is_null(), "launcher_missing", "No launcher version was selected");
  if (mode == LockMode::exclusive) {
    try {
      manifest(reference);
    } catch (const Error&) {
      fail("launcher_recovery_uncertain", "This launcher version has an unknown contract; preserve its content");
    }
  }
  return std::make_unique<FileLock>(paths_.version_lease(text_at(reference, "manifest_sha256")), false, mode);
}

ProcessEnvironment LauncherStore::health_environment(const Json& attempt, std::string_view interface) const {
  interface_shape(interface);
  const std::string nonce = nonce_of(attempt);
  return refuse_malformed(launcher_state_code, malformed_launcher_record, [&]() -> ProcessEnvironment {
    const Json& reference = attempt.at("reference");
    return {{std::string(startup_variable::health_nonce), nonce},
            {std::string(startup_variable::manifest), hash_identity(reference.at("manifest_sha256"))},
            {std::string(startup_variable::build), text_at(reference, "build_id")},
            {std::string(startup_variable::interface), std::string(interface)},
            {std::string(startup_variable::data_root), path_utf8(root_)}};
  });
}

void LauncherStore::confirm_candidate(const Json& attempt, const Json& health, std::uint64_t pid,
                                      std::string_view interface) const {
  interface_shape(interface);
  require(pid != 0, "launcher_health", "Startup PID is invalid");
  Json document = load();
  require_same_attempt(document, attempt);
  const Json& reference = attempt.at("reference");
  const LauncherManifest proved = manifest(reference);
  require(proved.matches_startup_health(health, attempt, pid, interface, interface == "cli"), "launcher_health",
          "Launcher health does not match its build, process, mode, interrupt contract and attempt");
  require_acknowledgement(startup_ack_path(attempt), lease_document(proved, attempt, pid, interface));
  // It runs; its files must also be whole.
  verify_snapshot_tree(proved, payload(reference), nullptr);
  document["rollback"] = document.at("active");
  document["active"] = reference;
  document["attempt"] = nullptr;
  document["failed_candidate"] = nullptr;
  save(std::move(document));
}

void LauncherStore::reject_candidate(const Json& attempt, std::string_view problem) const {
  require_problem(problem);
  Json document = load();
  require_same_attempt(document, attempt);
  document["failed_candidate"] = failed_record(attempt, problem);
  document["attempt"] = nullptr;
  save(std::move(document));
}

}  // namespace ravok
