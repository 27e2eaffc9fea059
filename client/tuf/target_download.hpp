// What a download of a signed target is told and tells, and the proof of a file that it has left.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "domain/json.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

// The longest scope of a download, in bytes.
inline constexpr std::size_t maximum_download_scope_bytes = 4096;

// Told of a download as it goes on: the phase, which is "prepared", "resumed" or "complete"; the target's signed
// description; and the name of the partial file relative to the directory, which is empty where the target was there
// already. What it throws ends the download.
using TargetObserver = std::function<void(std::string_view phase, const Json& target, std::string_view temporary)>;

// What is known of a download before its first byte is fetched.
struct DownloadAdmission {
  std::filesystem::path directory;  // the one that the target will lie in
  bool complete = false;            // the target is there already and verified; nothing will be fetched
  bool resumed = false;             // a partial file is continued
  std::uint64_t bytes = 0;          // how many bytes are there already
};

struct TufDownloadOptions {
  // Binds what is kept of an unfinished download to one purpose; at most 4096 bytes. Without one nothing is kept.
  std::string scope;
  // May be empty. What it throws ends the download.
  std::function<void(const DownloadAdmission&)> admission;
};

// One download of one target.
struct TargetDownload {
  std::string path;                   // of the target
  Json target;                        // its signed description
  std::filesystem::path destination;  // where it is to be
  std::string nonce;                  // of a partial file that no file has yet
  const ProgressCallback& progress;
  const TargetObserver& observer;
  const TufDownloadOptions& options;

  std::filesystem::path folder() const { return destination.parent_path(); }

  // Tells the observer, where there is one.
  void tell(std::string_view phase, std::string_view temporary) const;
  // Asks for admission, where there is somebody to ask. `admission` lacks its directory.
  void admit(DownloadAdmission admission) const;
};

// Accepts only an ordinary file of the signed "length" and with every digest of "hashes". Progress, which may be empty,
// is told for each digest as digest_file_progress does. Fails with "unsafe_path", "length_mismatch", "invalid_hashes",
// "hash_mismatch", "unsupported_hash", and as digest_file_progress does ("cancelled", "file_read").
void verify_target_file(const std::filesystem::path& file, const Json& target, const ProgressCallback& progress);

}  // namespace ravok
