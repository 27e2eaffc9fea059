#include "app/install/package_files.hpp"

#include <algorithm>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {

PackageFiles::PackageFiles(std::filesystem::path directory) : place_(std::move(directory)) {}

PackageFiles::PackageFiles(std::shared_ptr<const AppendedPackage> appended)
    : place_(appended->path()), appended_(std::move(appended)) {}

void PackageFiles::require_place() const {
  if (!appended_) {
    const auto status = link_status_of(place_);
    require(status && is_directory(*status), "invalid_native_package", "Choose an initial package directory");
  }
}

FileRange PackageFiles::range(const std::string& name) const {
  const std::optional<FileRange> found = appended_->find(name);
  require(found.has_value(), "file_read", "Cannot open file: " + path_utf8(place_ / path_from_utf8(name)));
  return *found;
}

std::string PackageFiles::read(const std::string& name, std::uint64_t limit) const {
  return appended_ ? read_range(range(name), limit) : read_file(place_ / path_from_utf8(name), limit);
}

std::vector<std::string> PackageFiles::names(std::size_t limit) const {
  if (!appended_) {
    return names_in(place_, limit);
  }
  std::vector<std::string> names = appended_->names();
  names.resize(std::min(names.size(), limit));
  return names;
}

std::optional<std::uint64_t> PackageFiles::size(const std::string& name) const {
  if (appended_) {
    const std::optional<FileRange> found = appended_->find(name);
    return found ? std::optional(found->length()) : std::nullopt;
  }
  const auto status = link_status_of(place_ / path_from_utf8(name));
  return status && is_file(*status) ? std::optional(status->size) : std::nullopt;
}

std::string PackageFiles::sha256(const std::string& name, const ProgressCallback& progress) const {
  return appended_ ? digest_range_progress(range(name), "sha256", progress)
                   : digest_file_progress(place_ / path_from_utf8(name), "sha256", progress);
}

}  // namespace ravok
