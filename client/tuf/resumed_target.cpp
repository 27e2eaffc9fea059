#include "tuf/resumed_target.hpp"

#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <string_view>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/allocated_file.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/native_files.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/resume_scan.hpp"
#include "tuf/resume_state.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t checkpoint_interval = 8'388'608;  // bytes
constexpr std::string_view changed_code = "download_resume_changed";

class ResumedTarget {
 public:
  ResumedTarget(Transport& transport, const std::string& remote, const TargetDownload& download)
      : transport_(transport), remote_(remote), download_(download), length_(length(download.target)) {
    subject_.target = download.path;
    subject_.authorization = {{"length", length_}, {"hashes", download.target.at("hashes")}};
    subject_.scope_sha256 = digest(download.options.scope, "sha256");
  }

  void run() {
    const auto found =
        best_checkpoint(download_.folder(), {subject_.target, subject_.authorization, subject_.scope_sha256});
    if (found) {
      continue_from(*found);
    } else {
      begin();
    }
    try {
      transfer();
      require_hashes();
    } catch (const Error& error) {
      settle_failure(error.code);
      throw;
    } catch (...) {
      settle_failure({});
      throw;
    }
    complete();
  }

 private:
  std::filesystem::path partial() const { return download_.folder() / path_from_utf8(subject_.temporary).filename(); }
  std::filesystem::path checkpoint() const { return path_from_utf8(resume_state_name(path_utf8(partial()))); }

  void begin() {
    subject_.temporary = partial_name(download_.path, download_.nonce);
    download_.tell("prepared", subject_.temporary);
    download_.admit({});
    file_ = std::make_unique<AllocatedFile>(partial(), length_, nullptr);
    subject_.device = file_->reservation().device;
    subject_.inode = file_->reservation().inode;
    write_first_checkpoint();
    // From here on the checkpoint says what the file is.
    file_->preserve();
  }

  void continue_from(const FoundCheckpoint& found) {
    subject_.temporary = text_at(found.state, "temporary");
    subject_.device = found.state.at("identity").at(0).get<std::uint64_t>();
    subject_.inode = found.state.at("identity").at(1).get<std::uint64_t>();
    require(subject_.device <= std::numeric_limits<std::uint32_t>::max(), "allocation_changed",
            "Prepared file was replaced or changed; reserved content was preserved");
    const auto received = found.state.at("received").get<std::uint64_t>();
    const FileReservation reservation = {.path = partial(),
                                         .size = length_,
                                         .device = static_cast<std::uint32_t>(subject_.device),
                                         .inode = subject_.inode,
                                         .allocated = false};
    file_ = std::make_unique<AllocatedFile>(reservation, received);
    // No byte is trusted for being on the disk.
    file_->read_prefix(
        received, [&](std::string_view bytes) { digest_.update(bytes); }, download_.progress);
    require(is_text(found.state.at("prefix_sha256"), digest_.value()), changed_code, "Recorded partial bytes changed");
    received_ = received;
    checkpointed_ = received;
    text_ = found.text;
    download_.tell("resumed", subject_.temporary);
    download_.admit({.directory = {}, .complete = false, .resumed = true, .bytes = received});
    file_->reserve_remaining();
  }

  void transfer() {
    // A run that ended between its last checkpoint and the move has left nothing to fetch.
    if (received_ < length_ || length_ == 0) {
      transport_.download_into(
          remote_, *file_, received_, download_.progress, [this](std::string_view bytes) { take(bytes); },
          [this] { restart(); });
    }
    write_checkpoint();
    require(received_ == length_, "length_mismatch", "Downloaded target is shorter than its signed length");
  }

  void take(std::string_view bytes) {
    digest_.update(bytes);
    received_ += bytes.size();
    if (received_ - checkpointed_ >= checkpoint_interval) {
      write_checkpoint();
    }
  }

  void restart() {
    digest_ = DigestState("sha256");
    received_ = 0;
    // The former checkpoint vouches for bytes that are written over from here on.
    write_checkpoint();
  }

  void write_checkpoint() {
    require(file_->written() == received_, "download_resume_state", "Partial write did not complete a hash checkpoint");
    // A power cut must not take bytes that a checkpoint vouches for.
    file_->synchronize();
    const std::string text = resume_state_text(make_resume_state(subject_, received_, digest_.value()));
    if (text_.empty()) {
      atomic_private_create(checkpoint(), text);
    } else {
      require_own_checkpoint("Resume marker changed before checkpoint");
      atomic_write(checkpoint(), text);
    }
    text_ = text;
    checkpointed_ = received_;
  }

  // Without its checkpoint the new partial file goes. A checkpoint that is in place and could not be flushed goes with
  // it, since it would be counted among those that are kept.
  void write_first_checkpoint() {
    try {
      write_checkpoint();
    } catch (const Error& error) {
      if (error.code == "file_sync") {
        os::remove(checkpoint());
      }
      throw;
    }
  }

  // A checkpoint beyond its bound is somebody else's. That must not pass for a target that is too long, after which the
  // partial file would be removed.
  bool is_own_checkpoint() const {
    try {
      return read_file(checkpoint(), maximum_resume_state_bytes) == text_;
    } catch (const Error& error) {
      if (error.code == "size_limit") {
        return false;
      }
      throw;
    }
  }

  void require_own_checkpoint(std::string_view message) const { require(is_own_checkpoint(), changed_code, message); }

  void require_hashes() const {
    for (const auto& [algorithm, value] : download_.target.at("hashes").items()) {
      const std::string found = algorithm == "sha256" ? digest_.value() : digest_file(partial(), algorithm);
      require(is_text(value, found), "hash_mismatch", "Target hash does not match signed metadata");
    }
  }

  // Keeps what the next run can continue, and nothing that cannot become the target. The failure of the download is the
  // one to tell of, so a failure of this is not told.
  void settle_failure(std::string_view code) noexcept {
    try {
      if (code == "hash_mismatch" || code == "length_mismatch" || code == "size_limit") {
        file_->discard();
        retire_checkpoint();
      } else if (file_->written() == received_) {
        write_checkpoint();
        file_->finish(false);
      }
    } catch (...) {
      // Whatever is there is what the last checkpoint says, or is preserved by the next run.
    }
  }

  void complete() {
    file_->finish(true);
    native_files::rename_replace(partial(), download_.destination);
    sync_directory(download_.folder());
    download_.tell("complete", subject_.temporary);
    retire_checkpoint();
  }

  void retire_checkpoint() const {
    require_own_checkpoint("Resume marker changed before retirement");
    require(!os::remove(checkpoint()), "file_remove", "Cannot remove " + path_utf8(checkpoint()));
    sync_directory(download_.folder());
  }

  Transport& transport_;
  const std::string& remote_;
  const TargetDownload& download_;
  const std::uint64_t length_;
  ResumeSubject subject_;
  std::unique_ptr<AllocatedFile> file_;
  DigestState digest_{"sha256"};  // of the bytes that were received
  std::uint64_t received_ = 0;
  std::uint64_t checkpointed_ = 0;  // how many of them the last checkpoint vouches for
  std::string text_;                // of the last checkpoint; empty before the first
};

}  // namespace

void resumed_target(Transport& transport, const std::string& remote, const TargetDownload& download) {
  ResumedTarget(transport, remote, download).run();
}

}  // namespace ravok
