#include "app/download/target_downloads.hpp"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "app/download/download_receipt.hpp"
#include "app/download/receipt_folder.hpp"
#include "app/download/receipt_group.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "tuf/resume_state.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_retained_downloads = 32;
constexpr std::string_view changed_ownership = "Download ownership changed before verification completed";

// Returns the group of a nonce among the groups, or null.
const Json* group_of(const Json& groups, std::string_view nonce) {
  const auto found =
      std::find_if(groups.begin(), groups.end(), [&](const Json& group) { return is_text(group.at("nonce"), nonce); });
  return found == groups.end() ? nullptr : &*found;
}

// One call of an observer: one download in one phase, in one store.
class ReceiptStep {
 public:
  ReceiptStep(const std::filesystem::path& store, DownloadSubject subject)
      : store_(store), subject_(std::move(subject)) {}

  // Turns to "complete" each receipt of this target whose partial file is gone while the target is in place.
  void settle(const Json& groups) const {
    for (const Json& group : groups) {
      if (is_settled_by_rename(group)) {
        const Json& receipt = group.at("receipt");
        complete(text_at(group, "nonce"), receipt);
      }
    }
  }

  void prepare() const {
    const Json groups = target_download_receipts(store_);
    require(group_of(groups, subject_.nonce) == nullptr, download_uncertain_code,
            "New download nonce already belongs to retained metadata");
    require(groups.size() < maximum_retained_downloads, "launcher_storage_full",
            "Retained download receipts reached their capacity");
    for (const Json& group : groups) {
      if (is_text(group.at("receipt").at("target"), subject_.target)) {
        supersede(group);
      }
    }
    atomic_private_create(file(subject_.nonce), prepared().dump());
  }

  void resume(const Json& groups) const {
    const Json* group = group_of(groups, subject_.nonce);
    require(group != nullptr && group->at("receipt") == prepared() &&
                group->at("receipt_sha256") == digest(prepared().dump(), "sha256") && has_checkpoint(*group),
            download_uncertain_code, "Resume requires the unchanged prepared receipt and matching checkpoint");
  }

  void complete() const {
    complete(subject_.nonce, prepared());
    target_download_receipts(store_);
  }

  // The receipt that says that this download has begun.
  Json prepared() const { return make_download_receipt(subject_, download_phase::prepared); }

 private:
  std::filesystem::path file(std::string_view nonce) const {
    return safe_join(store_, path_utf8(LauncherPaths({}).download_intents / receipt_file_name(nonce)), true);
  }

  std::filesystem::path download(const std::string& name) const {
    return safe_join(store_, path_utf8(LauncherPaths({}).downloads / path_from_utf8(name)), true);
  }

  bool is_settled_by_rename(const Json& group) const {
    const Json& receipt = group.at("receipt");
    const bool is_unfinished = is_text(receipt.at("phase"), download_phase::prepared);
    const bool has_file = receipt_file_of(group) == receipt_file_name(text_at(group, "nonce"));
    if (!is_unfinished || !has_file || is_text(group.at("nonce"), subject_.nonce) || !is_same_work(receipt)) {
      return false;
    }
    const std::filesystem::path target = download(text_at(receipt, "target"));
    if (is_there(download(text_at(receipt, "temporary"))) || !is_there(target)) {
      return false;
    }
    const auto status = link_status_of(target);
    require(status.has_value(), "file_system", "Cannot look at " + path_utf8(target));
    return is_file(*status);
  }

  // Removes the receipt of an earlier download of this target. That ended before its first byte, its bytes could not
  // become the target, or the target was not found whole, be it only for a failure of the disk while it was read. Two
  // receipts for one target would make every later reading refuse the store. A checkpoint beside a complete receipt is
  // what a crash has left of its removal.
  void supersede(const Json& group) const {
    const Json& receipt = group.at("receipt");
    require(!is_there(download(text_at(receipt, "temporary"))) &&
                (is_text(receipt.at("phase"), download_phase::complete) || group.at("resume_files").empty()),
            download_uncertain_code, overlapping_downloads);
    remove_receipt_files(store_, group);
  }

  bool is_same_work(const Json& receipt) const {
    const Json own = prepared();
    return receipt.at("target") == own.at("target") && receipt.at("authorization") == own.at("authorization") &&
           receipt.at("reference") == own.at("reference");
  }

  bool has_checkpoint(const Json& group) const {
    const Json& entries = group.at("resume_files");
    const std::string name = resume_state_name(text_at(prepared(), "temporary"));
    return std::any_of(entries.begin(), entries.end(),
                       [&](const Json& entry) { return is_text(entry.at("name"), name); });
  }

  // Replaces a receipt that is still exactly this prepared one.
  void complete(std::string_view nonce, const Json& receipt) const {
    const std::filesystem::path path = file(nonce);
    require(read_file(path, maximum_receipt_bytes) == receipt.dump(), download_uncertain_code, changed_ownership);
    atomic_write(path, receipt_in_phase(receipt, download_phase::complete).dump());
  }

  const std::filesystem::path& store_;
  DownloadSubject subject_;
};

void observe(const std::filesystem::path& store, DownloadSubject subject, std::string_view phase,
             std::string_view temporary) {
  const bool is_complete = phase == download_phase::complete;
  require(is_complete || phase == download_phase::prepared || phase == download_phase::resumed, download_uncertain_code,
          "TUF download reported an unknown phase");
  // A target that was there already had no partial file in this run.
  const bool only_settles = is_complete && temporary.empty();
  subject.nonce = partial_nonce(temporary, subject.target);
  require(only_settles || !subject.nonce.empty(), download_uncertain_code,
          "TUF download did not supply its exact owned staging name");
  const ReceiptStep step(store, std::move(subject));
  if (!only_settles) {
    validate_target_download_receipt(step.prepared());
  }
  const Json groups = target_download_receipts(store);
  step.settle(groups);
  if (phase == download_phase::prepared) {
    step.prepare();
  } else if (phase == download_phase::resumed) {
    step.resume(groups);
  } else if (!only_settles) {
    step.complete();
  }
}

}  // namespace

TargetDownloads::TargetDownloads(std::filesystem::path store) : store_(std::move(store)) {}

TargetObserver TargetDownloads::observer(std::string target, Json reference) const {
  return [store = store_, target = std::move(target), reference = std::move(reference)](
             std::string_view phase, const Json& description, std::string_view temporary) {
    const auto [length, hashes] =
        refuse_malformed(download_uncertain_code, "Download authorization exceeds its known bounds",
                         [&] { return std::pair(description.at("length"), description.at("hashes")); });
    observe(store, {target, {}, length, hashes, reference}, phase, temporary);
  };
}

}  // namespace ravok
