#include "tuf/target_download.hpp"

#include "domain/error.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/status.hpp"
#include "tuf/metadata_shape.hpp"

namespace ravok {

void TargetDownload::tell(std::string_view phase, std::string_view temporary) const {
  if (observer) {
    observer(phase, target, temporary);
  }
}

void TargetDownload::admit(DownloadAdmission admission) const {
  admission.directory = folder();
  if (options.admission) {
    options.admission(admission);
  }
}

void verify_target_file(const std::filesystem::path& file, const Json& target, const ProgressCallback& progress) {
  const auto status = link_status_of(file);
  require(status && is_file(*status), "unsafe_path", "Target is not an ordinary file");
  require(status->size == length(target), "length_mismatch", "Target length does not match signed metadata");
  require(target.contains("hashes") && target.at("hashes").is_object() && !target.at("hashes").empty(),
          "invalid_hashes", "Target has no authenticated hashes");
  for (const auto& [algorithm, value] : target.at("hashes").items()) {
    require(is_text(value, digest_file_progress(file, algorithm, progress)), "hash_mismatch",
            "Target hash does not match signed metadata");
  }
}

}  // namespace ravok
