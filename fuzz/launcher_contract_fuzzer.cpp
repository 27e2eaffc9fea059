// A launcher's manifest that is accepted keeps every bound and owns every executable, which a second, naive check
// confirms, and is accepted again, unchanged, when it is written out. A snapshot that passes for a bootstrap has no
// executables other than those that it may declare.

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "domain/bootstrap_contract.hpp"
#include "domain/error.hpp"
#include "domain/launcher_contract.hpp"
#include "property.hpp"

namespace {

using ravok::fuzz::must_hold;

std::set<std::string> executables(const ravok::SnapshotManifest& manifest) {
  std::set<std::string> paths;
  for (const auto& [path, file] : manifest.files) {
    if (file.executable) {
      paths.insert(path);
    }
  }
  return paths;
}

void check(const ravok::LauncherManifest& manifest) {
  constexpr std::uint64_t one_gibibyte = std::uint64_t{1} << 30;
  must_hold(manifest.archive_length <= one_gibibyte && manifest.expanded_length <= one_gibibyte,
            "a launcher is bounded");
  must_hold(manifest.files.size() <= 4096, "the files are counted");
  must_hold(manifest.runtime_helpers.size() <= 16, "the helpers are counted");
  must_hold(manifest.raw.at("runtime_helpers").size() == manifest.runtime_helpers.size(), "no helper is named twice");
  std::set<std::string> owned = manifest.runtime_helpers;
  must_hold(owned.insert(manifest.executable).second, "the entry for the console is its own");
  must_hold(owned.insert(manifest.gui_executable).second, "the entry with windows is its own");
  must_hold(owned == executables(manifest), "every executable is owned, and all that is owned is there");
}

void check_health(const ravok::LauncherManifest& manifest) {
  const ravok::Json attempt = {{"nonce", "n"}, {"reference", {{"manifest_sha256", std::string(64, 'a')}}}};
  const ravok::Json health = manifest.startup_health(attempt, 12, "cli", true);
  must_hold(manifest.matches_startup_health(health, attempt, 12, "cli", true), "a launcher proves itself");
  must_hold(!manifest.matches_startup_health(manifest.raw, attempt, 12, "cli", true), "a manifest is no proof");
}

void read_launcher(const ravok::Json& document) {
  const ravok::LauncherManifest manifest = ravok::LauncherManifest::parse(document);
  try {
    check(manifest);
    check_health(manifest);
    const std::string written = manifest.raw.dump();
    const ravok::LauncherManifest again = ravok::LauncherManifest::parse(ravok::parse_json(written, written.size()));
    must_hold(again.raw == manifest.raw && again.gui_executable == manifest.gui_executable &&
                  again.runtime_helpers == manifest.runtime_helpers,
              "it reads the same again");
  } catch (const ravok::Error& refusal) {
    must_hold(false, refusal.what());
  }
}

void read_bootstrap(const ravok::Json& document) {
  const ravok::SnapshotManifest snapshot = ravok::SnapshotManifest::parse(document);
  ravok::validate_bootstrap_contract(snapshot);
  std::set<std::string> declared = {snapshot.platform == "windows-x86_64" ? "bin/ravok-bootstrap.exe"
                                                                          : "bin/ravok-bootstrap"};
  for (const char* key : {"gui_executable", "shortcut_executable"}) {
    if (snapshot.raw.contains(key)) {
      declared.insert(snapshot.raw.at(key).get<std::string>());
    }
  }
  must_hold(declared == executables(snapshot), "every executable is declared, and all that is declared is there");
}

// A refusal is fine. Every other exception is a defect and ends the run.
template <typename Read>
void refused_or(Read read) {
  try {
    read();
  } catch (const ravok::Error&) {
    return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  refused_or([&] {
    const ravok::Json document = ravok::parse_json(text, 1 << 20);
    refused_or([&] { read_launcher(document); });
    refused_or([&] { read_bootstrap(document); });
  });
  return 0;
}
