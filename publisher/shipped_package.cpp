#include "publisher/shipped_package.hpp"

#include <algorithm>
#include <optional>
#include <string_view>

#include "app/install/native_package.hpp"
#include "app/install/package_files.hpp"
#include "app/install/package_seal.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/single_file_installer.hpp"
#include "tuf/trusted_set.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

constexpr const char* shipped_package_name = "initial-package";
constexpr const char* installer_names[] = {"ravok-install", "ravok-install-gui"};
constexpr const char* invalid_package_record = "invalid_native_package";

bool has_descriptor(const std::filesystem::path& directory) {
  const Result<Status> status = link_status_of(directory / package_limits::descriptor_name);
  return status && is_file(*status);
}

std::string read_resource(const PackageFiles& package, const Json& resource, std::uint64_t limit) {
  require(resource.is_object() && has_text(resource, "path") && has_text(resource, "sha256"), invalid_package_record,
          "Initial package record is missing a field");
  const std::string& name = text_at(resource, "path");
  validate_relative_path(name, true);
  require(name.find('/') == std::string::npos, invalid_package_record,
          "Initial package resources need distinct flat names");
  std::string bytes = about(package.place() / path_from_utf8(name), [&] { return package.read(name, limit); });
  require(digest(bytes, "sha256") == text_at(resource, "sha256"), "content_mismatch",
          "Initial package resource changed: " + name);
  return bytes;
}

// Returns the beginning of an installer's file, with all of its program. Empty for anything that is no file.
std::string front_of(const std::filesystem::path& installer) {
  const auto status = link_status_of(installer);
  if (!status || !is_file(*status)) {
    return {};
  }
  const FileRange file = FileRange::whole_file(installer);
  return read_range(file.part(0, std::min(file.length(), maximum_installer_program_bytes)),
                    maximum_installer_program_bytes);
}

// Accepts only an installer's image with this seal in its slot.
void require_seal(std::string_view image, std::string_view seal) {
  require(image.find(std::string(package_seal_mark) + std::string(seal)) != std::string::npos, "native_install_trust",
          "This package is not the one this installer was built for");
}

// Returns the package at a path, wherever it lies there.
PackageFiles find_package(const std::filesystem::path& path) {
  if (const std::optional<AppendedPlace> place = find_appended_place(front_of(path))) {
    return PackageFiles(AppendedPackage::in_file(path, *place));
  }
  return PackageFiles(has_descriptor(path) ? path : path / shipped_package_name);
}

// Proves that the installers beside the package, or the one whose file the package lies in, are sealed for it.
void require_installer(const std::filesystem::path& path, const ShippedPackage& package) {
  if (package.appended) {
    about(path, [&] {
      const std::string front = front_of(path);
      require_seal(front, package.seal);
    });
    return;
  }
  if (package.directory == path) {
    return;
  }
  for (const char* const name : installer_names) {
    const std::filesystem::path installer = path / name;
    if (!is_missing(installer)) {
      about(installer, [&] { require_seal(read_file(installer, maximum_installer_program_bytes), package.seal); });
    }
  }
}

}  // namespace

bool is_shipped_package(const std::filesystem::path& path) {
  return has_descriptor(path) || has_descriptor(path / shipped_package_name) ||
         about(path, [&] { return find_appended_place(front_of(path)); }).has_value();
}

ShippedPackage read_shipped_package(const std::filesystem::path& path) {
  ShippedPackage package;
  const PackageFiles files = about(path, [&] { return find_package(path); });
  package.directory = files.place();
  package.appended = files.appended();
  const std::filesystem::path file = package.directory / package_limits::descriptor_name;
  about(file, [&] {
    const std::string text = files.read(package_limits::descriptor_name, package_limits::descriptor);
    package.seal = digest(text, "sha256");
    const Json descriptor = parse_json(text, package_limits::descriptor);
    require(descriptor.is_object() && descriptor.contains("schema_version") && has_text(descriptor, "kind") &&
                is_integer(descriptor.at("schema_version"), 1) &&
                is_text(descriptor.at("kind"), "ravok-initial-package"),
            "unsupported_schema", "Unsupported initial package schema");
    require(has_text(descriptor, "platform") && has_text(descriptor, "origin") && descriptor.contains("root") &&
                descriptor.contains("ca_bundle"),
            invalid_package_record, "Initial package record is missing a field");
    package.platform = text_at(descriptor, "platform");
    package.origin = text_at(descriptor, "origin");
    package.root_text = read_resource(files, descriptor.at("root"), tuf_root_limit);
    if (!descriptor.at("ca_bundle").is_null()) {
      package.ca_bundle = read_resource(files, descriptor.at("ca_bundle"), package_limits::ca_bundle);
    }
    const TrustedSet trusted(package.root_text);
    const Json& root = trusted.root().at("signed");
    package.root_version = positive_version(root.at("version"));
    package.root_expires = parse_tuf_time(text_at(root, "expires"));
  });
  require_installer(path, package);
  return package;
}

void prove_shipped_package(const ShippedPackage& package, const ProgressCallback& progress) {
  if (package.appended) {
    read_native_package(package.appended, package.seal, progress);
  } else {
    read_native_package(package.directory, package.seal, progress);
  }
}

}  // namespace ravok
