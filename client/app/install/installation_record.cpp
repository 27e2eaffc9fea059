#include "app/install/installation_record.hpp"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <new>
#include <system_error>

#include "app/install/json_paths.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "platform/shortcut/shortcuts.hpp"

namespace ravok {
namespace {

constexpr std::string_view unsupported = "unsupported_schema";
constexpr const char* installation_kind = "ravok-installation";
constexpr const char* status_kind = "ravok-setup-status";

std::string present_time() {
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  const auto midnight = std::chrono::floor<std::chrono::days>(now);
  const std::chrono::year_month_day date(midnight);
  const std::chrono::hh_mm_ss time(now - midnight);
  std::array<char, 32> text{};
  const int size = std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ",
                                 static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                                 static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
                                 static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
  return {text.data(), static_cast<std::size_t>(size)};
}

// Reads a small record. Whatever is wrong with its text, the failure has one code and names the file.
template <typename Take>
auto read_record(const std::filesystem::path& path, const std::string& malformed, Take take) {
  try {
    return take(parse_json(read_file(path, maximum_setup_record_bytes), maximum_setup_record_bytes));
  } catch (const Error& error) {
    if (error.code == unsupported) {
      throw;
    }
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    // Fails below, as for an Error.
  }
  fail(unsupported, malformed + path_utf8(path));
}

bool is_record(const Json& document, const char* kind) {
  return is_integer(document.at("schema_version"), 1) && is_text(document.at("kind"), kind);
}

SetupOutcome parse_outcome(const Json& document) {
  require(is_record(document, status_kind), unsupported, "Unsupported setup status record");
  return {text_at(document, "action"), text_at(document, "outcome"), text_at(document, "message"),
          text_at(document, "finished_at")};
}

// Returns the build that is active or waits to be tried, or an empty text where the store cannot tell.
std::string launcher_build(const DataPaths& paths) {
  try {
    const Json status = LauncherStore::existing(paths.root)->status();
    const Json& build = current_build(status);
    return build.is_null() ? "" : text_at(build, "build_id");
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    return "";
  }
}

NativeInstallStatus status_of_folder(const DataPaths& paths) {
  NativeInstallStatus status;
  status.data_root = paths.root;
  const InstallationState state = installation_state(paths);
  status.incomplete = state == InstallationState::interrupted;
  status.installed = state == InstallationState::complete;
  if (!status.installed) {
    return status;
  }
  check_installation(paths);
  status.bootstrap_build = current_bootstrap(paths).build_id;
  status.launcher_build = launcher_build(paths);
  status.bootstrap_update_pending = bootstrap_update_pending(paths.root);
  for (const OwnedShortcut& shortcut : owned_native_shortcuts(paths.root)) {
    status.shortcuts.push_back(shortcut.path);
  }
  if (!is_missing(paths.status_record)) {
    status.last_operation = read_record(paths.status_record, "Setup status record is malformed: ", parse_outcome);
  }
  return status;
}

bool is_recorded(const DataPaths& paths) {
  const auto native = link_status_of(paths.native);
  return (!native || is_directory(*native)) && is_there(paths.installation_record);
}

}  // namespace

InstallationState installation_state(const DataPaths& paths) {
  // Another setup may be running. It has its marker up from before it changes the record until after that. So the
  // marker is looked at after the record, and again after every later look at the record.
  bool recorded = is_recorded(paths);
  while (!is_there(paths.incomplete_marker)) {
    const auto native = link_status_of(paths.native);
    require(!native || !is_link(*native), "unsafe_path",
            path_utf8(paths.native) + " is a symbolic link, which setup does not follow; replace it with the folder");
    if (recorded) {
      return InstallationState::complete;
    }
    recorded = is_recorded(paths);
    if (!recorded) {
      return InstallationState::none;
    }
  }
  return InstallationState::interrupted;
}

void check_installation(const DataPaths& paths) {
  read_record(paths.installation_record, "Installation record is malformed: ", [&](const Json& document) {
    require(is_record(document, installation_kind), unsupported,
            "Unsupported installation record " + path_utf8(paths.installation_record));
  });
}

void write_installation(const HeldDirectory& native, const NativePackage& package) {
  Json document = {{"schema_version", 1},
                   {"kind", installation_kind},
                   {"descriptor_sha256", package.descriptor_sha256},
                   {"origin", package.origin},
                   {"installed_at", present_time()}};
  if (package.brand) {
    document["brand"] = brand_json(*package.brand);
  }
  const DataPaths paths(native.path().parent_path());
  native.write(path_utf8(paths.installation_record.filename()), document.dump());
}

void write_status(const DataPaths& paths, std::string_view action, std::string_view outcome,
                  std::string_view message) noexcept {
  try {
    const auto native = link_status_of(paths.native);
    if (native && is_directory(*native)) {
      const Json document = {{"schema_version", 1}, {"kind", status_kind}, {"action", action},
                             {"outcome", outcome},  {"message", message},  {"finished_at", present_time()}};
      HeldDirectory::open_private(paths.native).write(name_of(paths.status_record), document.dump());
    }
  } catch (const std::exception&) {
    // The setup ended as it did, whether or not that can be recorded.
  }
}

SnapshotManifest current_bootstrap(const DataPaths& paths) {
  return SnapshotManifest::parse(
      parse_json(read_file(paths.bootstrap_manifest, maximum_manifest_bytes), maximum_manifest_bytes));
}

std::filesystem::path shortcut_bootstrap(const DataPaths& paths) {
  const SnapshotManifest manifest = current_bootstrap(paths);
  const Json& document = manifest.raw;
  const std::string& program =
      document.contains("gui_executable") ? text_at(document, "gui_executable") : manifest.executable;
  return safe_join(paths.bootstrap_directory, program, true);
}

bool bootstrap_update_pending(const std::filesystem::path& data_root) {
  return link_status_of(DataPaths(data_root).bootstrap_update).has_value();
}

NativeInstallStatus installation_status(const DataPaths& paths) {
  try {
    return status_of_folder(paths);
  } catch (const Error&) {
    // Another setup may have begun to remove what was complete a moment ago; it may even have ended by now, and a new
    // one may have made the folder complete again.
    return status_of_folder(paths);
  }
}

Json NativeInstallStatus::to_json() const {
  Json document = {{"schema_version", 1},
                   {"data_root", path_utf8(data_root)},
                   {"installed", installed},
                   {"incomplete", incomplete},
                   {"bootstrap_build", bootstrap_build},
                   {"launcher_build", launcher_build},
                   {"bootstrap_update_pending", bootstrap_update_pending},
                   {"shortcuts", paths_json(shortcuts)},
                   {"last_operation", nullptr}};
  if (last_operation) {
    document["last_operation"] = {{"action", last_operation->action},
                                  {"outcome", last_operation->outcome},
                                  {"message", last_operation->message},
                                  {"finished_at", last_operation->finished_at}};
  }
  return document;
}

}  // namespace ravok
