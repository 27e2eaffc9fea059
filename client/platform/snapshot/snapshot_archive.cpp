#include "platform/snapshot/snapshot_archive.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include <archive.h>
#include <archive_entry.h>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/allocated_file.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/status.hpp"
#include "platform/file/tree_walk.hpp"
#include "platform/snapshot/bounded_zstd.hpp"
#include "platform/snapshot/reserved_tree.hpp"
#include "platform/snapshot/snapshot_tree.hpp"

namespace ravok {
namespace {

// The most bytes for the headers and the padding of one file, and for the end of the archive.
constexpr std::uint64_t member_overhead_bytes = 8192;
constexpr std::uint64_t end_overhead_bytes = 10'240;

struct ReleaseReader {
  void operator()(::archive* reader) const { archive_read_free(reader); }
};
using Reader = std::unique_ptr<::archive, ReleaseReader>;

struct ReleaseEntry {
  void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};
using Entry = std::unique_ptr<archive_entry, ReleaseEntry>;

constexpr const char* not_authentic = "Snapshot differs from its verified application manifest";

void require_authentic(const SnapshotManifest& manifest, const std::filesystem::path& archive) {
  const auto status = link_status_of(archive);
  require(status && is_file(*status) && status->size == manifest.archive_length &&
              digest_file(archive, "sha256") == manifest.archive_sha256,
          "content_mismatch", not_authentic);
}

void require_authentic(const SnapshotManifest& manifest, const FileRange& archive) {
  require(archive.length() == manifest.archive_length &&
              digest_range_progress(archive, "sha256", {}) == manifest.archive_sha256,
          "content_mismatch", not_authentic);
}

void prepare_staging(const SnapshotManifest& manifest, const std::filesystem::path& staging,
                     const ReservedTree* reserved) {
  if (reserved != nullptr) {
    reserved->validate(manifest, staging);
    return;
  }
  require(is_missing(staging), "staging_exists", "A fresh staging directory is required");
  private_directory(staging);
}

std::uint64_t decoded_limit(const SnapshotManifest& manifest) {
  return manifest.expanded_length + member_overhead_bytes * manifest.files.size() + end_overhead_bytes;
}

Reader open_reader(BoundedZstd& decoder) {
  Reader reader(archive_read_new());
  require(reader != nullptr, "archive", "Cannot allocate archive decoder");
  // The option would make the reader take some names for another file's metadata. The steps of opening are taken one by
  // one, because archive_read_open does not report a lack of memory for its data.
  const bool opened = archive_read_support_filter_none(reader.get()) == ARCHIVE_OK &&
                      archive_read_support_format_tar(reader.get()) == ARCHIVE_OK &&
                      archive_read_set_format_option(reader.get(), "tar", "mac-ext", nullptr) == ARCHIVE_OK &&
                      archive_read_set_read_callback(reader.get(), BoundedZstd::callback) == ARCHIVE_OK &&
                      archive_read_set_callback_data(reader.get(), &decoder) == ARCHIVE_OK &&
                      archive_read_open1(reader.get()) == ARCHIVE_OK;
  if (!opened) {
    decoder.require_no_error();
    fail("archive", "Cannot open snapshot archive");
  }
  return reader;
}

// Returns the entry's path, without the separator that ends a directory's. require_ordinary refuses directories later.
std::string entry_path(archive_entry* entry) {
  const char* const text = archive_entry_pathname_utf8(entry);
  require(text != nullptr, "archive_path", "Archive path is not valid UTF-8");
  std::string path(text);
  if (archive_entry_filetype(entry) == AE_IFDIR && path.size() > 1 && path.ends_with('/')) {
    path.pop_back();
  }
  return path;
}

void require_ordinary(archive_entry* entry) {
  require(archive_entry_filetype(entry) == AE_IFREG && archive_entry_symlink(entry) == nullptr &&
              archive_entry_hardlink(entry) == nullptr && archive_entry_sparse_count(entry) == 0 &&
              archive_entry_xattr_count(entry) == 0,
          "archive_type", "Only ordinary files are accepted in snapshots");
}

void require_as_declared(archive_entry* entry, const SnapshotFile& expected) {
  const std::int64_t size = archive_entry_size(entry);
  const unsigned mode = expected.executable ? 0755 : 0644;
  require(size >= 0 && static_cast<std::uint64_t>(size) == expected.length && archive_entry_perm(entry) == mode,
          "archive_inventory", "Archive file length or mode differs from manifest");
}

std::unique_ptr<AllocatedFile> open_output(const std::filesystem::path& output, const std::string& path,
                                           std::uint64_t length, const ReservedTree* reserved) {
  if (reserved == nullptr) {
    return std::make_unique<AllocatedFile>(output, length, nullptr);
  }
  const FileReservation& reservation = reserved->file(path, length);
  // Without claimed blocks, an earlier attempt may have left a file of any size, so it is resumed at its first byte.
  return reservation.allocated ? std::make_unique<AllocatedFile>(reservation)
                               : std::make_unique<AllocatedFile>(reservation, 0);
}

class Extraction {
 public:
  Extraction(const SnapshotManifest& manifest, const std::filesystem::path& staging, const ProgressCallback& progress,
             const ReservedTree* reserved)
      : manifest_(manifest), staging_(staging), progress_(progress), reserved_(reserved) {}

  // Unpacks every entry. Fails with "archive" when the archive does not end as it should.
  void unpack(BoundedZstd& decoder) {
    const Reader reader = open_reader(decoder);
    // Made here, because the reader does not report a lack of memory for an entry of its own.
    const Entry entry(archive_entry_new2(reader.get()));
    require(entry != nullptr, "archive", "Cannot allocate archive decoder");
    int answer = ARCHIVE_OK;
    while ((answer = archive_read_next_header2(reader.get(), entry.get())) == ARCHIVE_OK) {
      unpack_entry(reader.get(), entry.get(), decoder);
    }
    decoder.require_no_error();
    require(answer == ARCHIVE_EOF && seen_.size() == manifest_.files.size(), "archive",
            "Snapshot is incomplete or malformed");
    decoder.finish();
  }

 private:
  void unpack_entry(::archive* reader, archive_entry* entry, const BoundedZstd& decoder) {
    report(progress_, done_, manifest_.expanded_length);
    const std::string path = entry_path(entry);
    const std::filesystem::path output = safe_join(staging_, path, true);
    require_ordinary(entry);
    const auto file = manifest_.files.find(path);
    require(file != manifest_.files.end() && seen_.insert(file->first).second, "archive_inventory",
            "Archive contains an unexpected or duplicate file");
    require_as_declared(entry, file->second);
    private_directory(output.parent_path());
    write_file(reader, output, *file, decoder);
    require(digest(output) == file->second.sha256, "content_mismatch", "Extracted file hash differs from manifest");
  }

  void write_file(::archive* reader, const std::filesystem::path& output,
                  const std::pair<const std::string, SnapshotFile>& file, const BoundedZstd& decoder) {
    const std::uint64_t length = file.second.length;
    const auto target = open_output(output, file.first, length, reserved_);
    while (const std::size_t size = read_piece(reader, decoder)) {
      require(size <= length - target->written(), "size_limit", "Archive expands beyond authenticated file length");
      target->write({buffer_.data(), size});
      done_ += size;
      report(progress_, done_, manifest_.expanded_length);
    }
    require(target->written() == length, "archive", "Snapshot file is truncated");
    target->set_executable(file.second.executable);
    target->finish(true);
  }

  std::size_t read_piece(::archive* reader, const BoundedZstd& decoder) {
    const la_ssize_t count = archive_read_data(reader, buffer_.data(), buffer_.size());
    if (count < 0) {
      decoder.require_no_error();
      fail("archive", "Snapshot decompression failed");
    }
    return static_cast<std::size_t>(count);
  }

  // Reads back what was written.
  std::string digest(const std::filesystem::path& path) const { return digest_file(path, "sha256"); }

  const SnapshotManifest& manifest_;
  const std::filesystem::path& staging_;
  const ProgressCallback& progress_;
  const ReservedTree* reserved_;
  std::unordered_set<std::string_view> seen_;  // keys of the manifest's files
  std::uint64_t done_ = 0;
  std::array<char, piece_bytes> buffer_;
};

// Flushes every directory ahead of the one that holds it, and `staging` last.
void synchronize_directories(const std::filesystem::path& staging) {
  TreeVisitor visitor;
  visitor.visit = [](const TreeEntry&) {};
  visitor.leave = [](const TreeEntry&, int self) {
    require(!os::flush(self), "file_sync", "Could not durably synchronize directory");
  };
  walk_tree(open_tree(staging), visitor);
  sync_directory(staging);
}

template <typename Archive>
void extract(const SnapshotManifest& manifest, const Archive& archive, const std::filesystem::path& staging,
             const ProgressCallback& progress, const ReservedTree* reserved) {
  const std::filesystem::path root = without_end_separator(staging);
  require_authentic(manifest, archive);
  prepare_staging(manifest, root, reserved);
  {
    const auto decoder = std::make_unique<BoundedZstd>(archive, decoded_limit(manifest));
    std::make_unique<Extraction>(manifest, root, progress, reserved)->unpack(*decoder);
  }
  verify_snapshot_tree(manifest, root, progress);
  synchronize_directories(root);
}

}  // namespace

void extract_snapshot(const SnapshotManifest& manifest, const std::filesystem::path& archive,
                      const std::filesystem::path& staging, const ProgressCallback& progress,
                      const ReservedTree* reserved) {
  extract(manifest, archive, staging, progress, reserved);
}

void extract_snapshot(const SnapshotManifest& manifest, const FileRange& archive, const std::filesystem::path& staging,
                      const ProgressCallback& progress, const ReservedTree* reserved) {
  extract(manifest, archive, staging, progress, reserved);
}

}  // namespace ravok
