// The downloads of a launcher store: their receipts, and their end once the result is durable. `store` is the folder of
// the store, and the caller holds its lock.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

// The same as target_download_resume_scope and target_download_receipts.
std::string launcher_download_resume_scope(std::string_view target, const Json& reference);
Json launcher_download_receipts(const std::filesystem::path& store);

class LauncherDownloads {
 public:
  explicit LauncherDownloads(std::filesystem::path store);

  // Removes the receipts of a version's completed downloads, of its archive and of its manifest, with the checkpoints
  // that were left of them, durably. The downloaded files stay. First proves all of them by the stored manifest, the
  // downloaded files and the receipts themselves. A receipt goes last, so that what a crash leaves of the others is
  // still explained by it.
  //
  // `reference` is an object of "manifest_sha256" and "build_id". Fails with "launcher_download_uncertain", as
  // target_download_receipts, verify_target_file, read_file and parse_json do, and nothing was removed then. A
  // removal that fails half-way ends with "file_remove" or "file_sync", and a later call continues it.
  void retire(const Json& reference) const;

 private:
  std::filesystem::path store_;
};

}  // namespace ravok
