// Turns the phases of a download into durable receipts, so that after any crash the store knows which partial files
// are its own. The caller holds the store's lock.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "domain/json.hpp"
#include "tuf/target_download.hpp"

namespace ravok {

class TargetDownloads {
 public:
  // `store` is the folder of a launcher store.
  explicit TargetDownloads(std::filesystem::path store);

  // Returns what is to be told of the download of a target into the store's "downloads", for a version's reference or
  // null for the launcher's manifest.
  //
  // It writes a receipt at "prepared", proves at "resumed" that the receipt and a checkpoint are there unchanged, and
  // turns the receipt to "complete" at "complete". Each time it first completes the receipts of the same target that a
  // crash has left between the rename of the file and the receipt; "complete" without a partial file's name does only
  // that.
  //
  // A new receipt takes the place of an unfinished one of the same target, of which neither a partial file nor a
  // checkpoint is left, and of a complete one: a download begins only where the target was not found whole. Where a
  // partial file or the checkpoint of an unfinished one is left, "prepared" is refused.
  //
  // It fails with "launcher_download_uncertain" for anything on the disk that it cannot explain, with
  // "launcher_storage_full" beyond 32 retained downloads, and as target_download_receipts, read_file and the writers of
  // records do. What is not its own is then as it was.
  TargetObserver observer(std::string target, Json reference) const;

 private:
  std::filesystem::path store_;
};

}  // namespace ravok
