#include "tuf/target_fetch.hpp"

#include <cstddef>
#include <filesystem>
#include <string_view>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/native_files.hpp"
#include "platform/file/posix_files.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/resume_state.hpp"
#include "tuf/resumed_target.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

// Whether the destination is the target already. A file that is not is not trusted, whatever the reason; it stays until
// the target replaces it.
bool is_complete(const TargetDownload& download) {
  if (!is_there(download.destination)) {
    return false;
  }
  try {
    verify_target_file(download.destination, download.target, download.progress);
    return true;
  } catch (const Error& error) {
    if (error.code == "cancelled") {
      throw;
    }
    return false;
  }
}

std::filesystem::path staging_path(const TargetDownload& download) {
  return path_from_utf8(partial_name(path_utf8(download.destination), download.nonce));
}

// Removes a file that could not be verified or moved into its place, as nothing could continue it.
void place_or_remove(const std::filesystem::path& staging, const TargetDownload& download) {
  try {
    verify_target_file(staging, download.target, download.progress);
    native_files::rename_replace(staging, download.destination);
  } catch (...) {
    os::remove(staging);
    throw;
  }
}

void whole_target(Transport& transport, const std::string& remote, const TargetDownload& download) {
  const std::string temporary = partial_name(download.path, download.nonce);
  const std::filesystem::path staging = staging_path(download);
  download.admit({});
  download.tell("prepared", temporary);
  transport.download(remote, staging, length(download.target), download.progress);
  place_or_remove(staging, download);
  sync_directory(download.folder());
  download.tell("complete", temporary);
}

}  // namespace

std::string remote_target_name(const std::string& path, const Json& target, bool consistent_snapshot) {
  if (!consistent_snapshot) {
    return path;
  }
  const std::size_t name = path.rfind('/') + 1;
  return path.substr(0, name) + target.at("hashes").front().get<std::string>() + "." + path.substr(name);
}

std::filesystem::path TufClient::download(std::string_view path, const std::filesystem::path& directory,
                                          const ProgressCallback& progress, const TargetObserver& observer,
                                          const TufDownloadOptions& options) {
  require(options.scope.size() <= maximum_download_scope_bytes, "size_limit",
          "Download resume scope exceeds its bounded contract");
  const TargetDownload download = {
      std::string(path), target(path), safe_join(directory, path, false), random_id(), progress, observer, options};
  if (is_complete(download)) {
    download.admit({.directory = {}, .complete = true, .resumed = false, .bytes = length(download.target)});
    download.tell("complete", {});
    return download.destination;
  }
  private_directory(download.folder());
  require(!is_there(staging_path(download)), "unsafe_path", "Target staging path must be unused");
  const std::string remote = remote_target_name(download.path, download.target, trusted_.has_consistent_snapshot());
  if (target_transport_.supports_resumption() && !options.scope.empty()) {
    resumed_target(target_transport_, remote, download);
  } else {
    whole_target(target_transport_, remote, download);
  }
  return download.destination;
}

}  // namespace ravok
