#include "app/launcher/bootstrap_release.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "domain/bootstrap_contract.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "platform/process/native_platform.hpp"

namespace ravok {
namespace {

constexpr std::string_view incompatible = "launcher_incompatible";
constexpr std::size_t maximum_update_files = 4096;
constexpr std::uint64_t maximum_update_archive_bytes = 1'073'741'824;

bool is_one(const Json& object, const char* key) { return object.contains(key) && is_integer(object.at(key), 1); }

}  // namespace

bool is_replaced_file(std::string_view name) { return name.ends_with(replaced_file_ending); }

bool has_replaced_file(const SnapshotManifest& manifest) {
  return std::any_of(manifest.files.begin(), manifest.files.end(),
                     [](const auto& file) { return is_replaced_file(file.first); });
}

std::string bootstrap_manifest_target() { return "bootstrap-" + std::string(native_platform()) + ".manifest.json"; }

void validate_bootstrap_update(const SnapshotManifest& manifest) {
  validate_bootstrap_contract(manifest);
  const Json& document = manifest.raw;
  require(is_one(document, "runtime_lease_abi"), incompatible,
          "Bootstrap updates require the current native lifetime contract");
  require(document.contains("application_schema") && document.at("application_schema").is_object(), incompatible,
          "Bootstrap update data contract is missing");
  const Json& schema = document.at("application_schema");
  require(is_one(schema, "minimum") && is_one(schema, "maximum"), incompatible,
          "Bootstrap update data contract is unsupported");
  require(manifest.platform == native_platform(), incompatible, "Bootstrap update targets another platform");
  require(manifest.files.size() <= maximum_update_files && manifest.archive_length <= maximum_update_archive_bytes,
          "size_limit", "Bootstrap update exceeds its size limit");
}

SnapshotManifest parse_bootstrap_update(std::string_view text) {
  return refuse_malformed("invalid_manifest", "Bootstrap update manifest has missing or malformed fields", [&] {
    SnapshotManifest manifest = SnapshotManifest::parse(parse_json(text, maximum_manifest_bytes));
    validate_bootstrap_update(manifest);
    require(!has_replaced_file(manifest), incompatible, "Bootstrap update holds a name that is for replaced files");
    return manifest;
  });
}

}  // namespace ravok
