#include "domain/bootstrap_contract.hpp"

#include <algorithm>
#include <string>
#include <string_view>

namespace ravok {
namespace {

constexpr std::string_view incompatible = "launcher_incompatible";
constexpr std::string_view invalid_package = "invalid_native_package";
constexpr std::string_view windows = "windows-x86_64";
constexpr std::string_view macos = "macos-aarch64";
constexpr const char* windows_gui = "bin/ravok-bootstrap-gui.exe";
const std::string macos_shortcut(bootstrap_shortcut_entry);
constexpr const char* macos_shortcut_metadata = "bin/RavokShortcut.app/Contents/Info.plist";

std::string stable_entry(std::string_view platform) {
  return std::string(bootstrap_entry) + (platform == windows ? ".exe" : "");
}

bool is_file(const SnapshotManifest& snapshot, const std::string& path, bool executable) {
  const auto file = snapshot.files.find(path);
  return file != snapshot.files.end() && file->second.executable == executable;
}

bool has_integer(const Json& document, const char* key, std::int64_t expected) {
  return document.contains(key) && is_integer(document.at(key), expected);
}

// Accepts an entry with windows only on the platform where a program cannot have both a console and windows.
void require_declared_gui(const SnapshotManifest& snapshot) {
  if (snapshot.raw.contains("gui_executable")) {
    require(snapshot.platform == windows && is_text(snapshot.raw.at("gui_executable"), windows_gui) &&
                is_file(snapshot, windows_gui, true),
            invalid_package, "Initial bootstrap GUI entry must be its declared Windows windowed executable");
  }
}

// Accepts a helper that opens launch documents only on the platform that has such documents.
void require_declared_shortcut(const SnapshotManifest& snapshot) {
  if (snapshot.raw.contains("shortcut_executable")) {
    require(snapshot.platform == macos && is_text(snapshot.raw.at("shortcut_executable"), macos_shortcut) &&
                is_file(snapshot, macos_shortcut, true) && is_file(snapshot, macos_shortcut_metadata, false),
            invalid_package, "macOS bootstrap launch documents need their declared native app helper and metadata");
  }
}

bool is_declared(const SnapshotManifest& snapshot, const std::string& path) {
  return path == snapshot.executable || (path == windows_gui && snapshot.raw.contains("gui_executable")) ||
         (path == macos_shortcut && snapshot.raw.contains("shortcut_executable"));
}

}  // namespace

void validate_bootstrap_contract(const SnapshotManifest& snapshot) {
  const Json& document = snapshot.raw;
  require(has_integer(document, "schema_version", 1) && has_integer(document, "bootstrap_abi", 1) &&
              document.contains("kind") && is_text(document.at("kind"), "ravok-bootstrap-release"),
          incompatible, "Initial bootstrap schema or ABI is unsupported");
  require(snapshot.platform == "linux-x86_64" || snapshot.platform == windows || snapshot.platform == macos,
          incompatible, "Initial bootstrap targets an unsupported platform");
  require(snapshot.executable == stable_entry(snapshot.platform) && is_file(snapshot, snapshot.executable, true),
          incompatible, "Initial bootstrap has a missing or incompatible stable entry point");
  require_declared_gui(snapshot);
  require_declared_shortcut(snapshot);
  const bool all_declared = std::all_of(snapshot.files.begin(), snapshot.files.end(), [&](const auto& entry) {
    return !entry.second.executable || is_declared(snapshot, entry.first);
  });
  require(all_declared, invalid_package, "Initial bootstrap snapshot contains an undeclared executable helper");
}

}  // namespace ravok
