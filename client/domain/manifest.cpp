#include "domain/manifest.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/limits.hpp"
#include "domain/path_tree.hpp"
#include "domain/paths.hpp"

namespace ravok {
namespace {

constexpr std::string_view malformed_code = "invalid_manifest";
constexpr std::string_view malformed = "Snapshot manifest has missing or malformed fields";
constexpr std::size_t maximum_snapshot_files = 100000;
constexpr std::array<std::string_view, 3> platforms = {"linux-x86_64", "windows-x86_64", "macos-aarch64"};

bool is_printable_ascii(char c) { return c >= 32 && c <= 126; }

bool read_executable_mode(const Json& mode) {
  const bool executable = mode.get<std::int64_t>() == 0755;
  require(mode.is_number_integer() && (executable || mode.get<std::int64_t>() == 0644), "invalid_manifest",
          "Package modes must be 0644 or 0755");
  return executable;
}

void read_files(const Json& list, SnapshotManifest& manifest) {
  require(list.is_array() && !list.empty() && list.size() <= maximum_snapshot_files, "size_limit",
          "Package file count exceeds bounds");
  PathTree paths;
  for (const Json& entry : list) {
    const std::string& path = text_at(entry, "path");
    validate_relative_path(path, true);
    require(std::all_of(path.begin(), path.end(), is_printable_ascii), "invalid_manifest",
            "The v1 package profile requires ASCII file paths");
    paths.add_file(path);
    SnapshotFile file;
    file.length = size_value(entry.at("length"));
    require(file.length <= maximum_snapshot_bytes - manifest.expanded_length, "size_limit",
            "Expanded package exceeds size bounds");
    manifest.expanded_length += file.length;
    file.executable = read_executable_mode(entry.at("mode"));
    file.sha256 = sha256(entry.at("sha256"));
    manifest.files.emplace_hint(manifest.files.end(), path, std::move(file));
  }
  require(!paths.file_above_another(), "path_collision", "Package file is another file's parent directory");
}

void read_archive(const Json& archive, SnapshotManifest& manifest) {
  require(text_at(archive, "format") == "tar.zst-v1", "invalid_manifest", "Unsupported snapshot format");
  manifest.target = text_at(archive, "target");
  validate_relative_path(manifest.target, true);
  manifest.archive_length = size_value(archive.at("length"));
  manifest.archive_sha256 = sha256(archive.at("sha256"));
  require(manifest.archive_length >= 1 && manifest.archive_length <= maximum_snapshot_bytes, "size_limit",
          "Snapshot exceeds archive size bounds");
}

void read_fields(SnapshotManifest& manifest) {
  const Json& document = manifest.raw;
  manifest.build_id = text_at(document, "build_id");
  validate_identifier(manifest.build_id);
  manifest.platform = text_at(document, "platform");
  require(std::find(platforms.begin(), platforms.end(), manifest.platform) != platforms.end(), "invalid_manifest",
          "Unknown snapshot platform");
  manifest.executable = text_at(document, "executable");
  validate_relative_path(manifest.executable, true);
  const Json& archive = document.at("archive");
  read_archive(archive, manifest);
  read_files(document.at("files"), manifest);
  const auto executable = manifest.files.find(manifest.executable);
  require(executable != manifest.files.end() && executable->second.executable, "invalid_manifest",
          "Declared executable is missing or not executable");
  require(size_value(archive.at("expanded_length")) == manifest.expanded_length, "invalid_manifest",
          "Expanded length differs from file inventory");
}

void require_schema(const Json& document) {
  constexpr const char* unsupported = "Unsupported snapshot schema; nothing was rewritten";
  require(document.is_object(), "unsupported_schema", unsupported);
  require(is_integer(document.at("schema_version"), 1), "unsupported_schema", unsupported);
}

}  // namespace

SnapshotManifest SnapshotManifest::parse(const Json& document) {
  // Checked here too, so that a document that is refused is not copied first.
  refuse_malformed(malformed_code, malformed, [&] { require_schema(document); });
  return parse(Json(document));
}

SnapshotManifest SnapshotManifest::parse(Json&& document) {
  return refuse_malformed(malformed_code, malformed, [&] {
    require_schema(document);
    SnapshotManifest manifest;
    manifest.raw = std::move(document);
    read_fields(manifest);
    return manifest;
  });
}

std::size_t SnapshotManifest::longest_native_path() const {
  std::size_t longest = 0;
  for (const auto& [path, file] : files) {
    longest = std::max(longest, native_length(path));
  }
  return longest;
}

std::set<std::string_view> SnapshotManifest::directories(std::size_t most) const {
  std::set<std::string_view> found;
  for (const auto& [path, file] : files) {
    std::string_view directory = path;
    // The directories above a known one are known too.
    for (std::size_t end = directory.rfind('/'); end != std::string_view::npos; end = directory.rfind('/')) {
      directory = directory.substr(0, end);
      if (!found.insert(directory).second) {
        break;
      }
      if (found.size() > most) {
        return found;
      }
    }
  }
  return found;
}

}  // namespace ravok
