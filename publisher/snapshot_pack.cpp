#include "publisher/snapshot_pack.hpp"

#include <cstddef>
#include <exception>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include <archive.h>
#include <archive_entry.h>
#include <zstd.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {
namespace {

constexpr int minimum_level = 1;
constexpr int maximum_level = 19;

[[noreturn]] void refuse(std::string_view code, std::string_view message, std::string_view path) {
  fail(code, std::string(message) + ": " + std::string(path));
}

// Compresses what it is given into one frame, and digests what comes out.
class Compressor {
 public:
  Compressor(int level, const std::function<void(std::string_view)>& sink)
      : context_(ZSTD_createCCtx()), output_(ZSTD_CStreamOutSize()), sink_(sink) {
    require(context_ && set(ZSTD_c_compressionLevel, level) && set(ZSTD_c_checksumFlag, 1), "archive",
            "Cannot start the archive's compression");
  }

  void write(std::string_view bytes) { compress(bytes, ZSTD_e_continue); }
  PackedArchive finish() {
    compress({}, ZSTD_e_end);
    return {length_, digest_.value()};
  }

 private:
  struct Release {
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
  };

  bool set(ZSTD_cParameter parameter, int value) {
    return ZSTD_isError(ZSTD_CCtx_setParameter(context_.get(), parameter, value)) == 0;
  }

  void compress(std::string_view bytes, ZSTD_EndDirective directive) {
    ZSTD_inBuffer input = {bytes.data(), bytes.size(), 0};
    for (;;) {
      ZSTD_outBuffer output = {output_.data(), output_.size(), 0};
      const std::size_t left = ZSTD_compressStream2(context_.get(), &output, &input, directive);
      require(ZSTD_isError(left) == 0, "archive", "Cannot compress the archive");
      take({output_.data(), output.pos});
      if (directive == ZSTD_e_end ? left == 0 : input.pos == input.size) {
        return;
      }
    }
  }

  void take(std::string_view bytes) {
    require(bytes.size() <= maximum_snapshot_bytes - length_, "size_limit", "Snapshot exceeds archive size bounds");
    length_ += bytes.size();
    digest_.update(bytes);
    sink_(bytes);
  }

  std::unique_ptr<ZSTD_CCtx, Release> context_;
  std::vector<char> output_;
  const std::function<void(std::string_view)>& sink_;
  DigestState digest_{"sha256"};
  std::uint64_t length_ = 0;
};

// Writes a tar archive whose every byte follows from its files: no owner, no time, no directories.
class TarWriter {
 public:
  explicit TarWriter(Compressor& compressor)
      : compressor_(compressor), writer_(archive_write_new()), entry_(archive_entry_new()) {
    const bool opened = writer_ && entry_ && archive_write_set_format_pax_restricted(writer_.get()) == ARCHIVE_OK &&
                        archive_write_add_filter_none(writer_.get()) == ARCHIVE_OK &&
                        archive_write_set_bytes_per_block(writer_.get(), piece_bytes) == ARCHIVE_OK &&
                        archive_write_set_bytes_in_last_block(writer_.get(), 1) == ARCHIVE_OK &&
                        archive_write_open(writer_.get(), this, nullptr, &TarWriter::take, nullptr) == ARCHIVE_OK;
    require_written(opened);
  }
  // Releasing the writer of an unfinished archive must not write its end.
  ~TarWriter() { abandoned_ = true; }
  TarWriter(const TarWriter&) = delete;
  TarWriter& operator=(const TarWriter&) = delete;

  void begin_file(const std::string& path, const SnapshotFile& file) {
    archive_entry_clear(entry_.get());
    archive_entry_set_pathname(entry_.get(), path.c_str());
    archive_entry_set_filetype(entry_.get(), AE_IFREG);
    archive_entry_set_perm(entry_.get(), file.executable ? 0755 : 0644);
    archive_entry_set_size(entry_.get(), static_cast<std::int64_t>(file.length));
    archive_entry_set_mtime(entry_.get(), 0, 0);
    require_written(archive_write_header(writer_.get(), entry_.get()) == ARCHIVE_OK);
  }

  void add_content(std::span<const std::uint8_t> bytes) {
    require_written(archive_write_data(writer_.get(), bytes.data(), bytes.size()) ==
                    static_cast<la_ssize_t>(bytes.size()));
  }

  void finish() { require_written(archive_write_close(writer_.get()) == ARCHIVE_OK); }

 private:
  struct ReleaseWriter {
    void operator()(::archive* writer) const {
      // After a failure, only an explicit close releases what the library holds.
      archive_write_close(writer);
      archive_write_free(writer);
    }
  };
  struct ReleaseEntry {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
  };

  // An exception of the sink must not pass through the library's code. It is kept, and thrown again once the library
  // has returned.
  static la_ssize_t take(::archive*, void* self, const void* bytes, std::size_t size) noexcept {
    auto& writer = *static_cast<TarWriter*>(self);
    if (writer.abandoned_) {
      return -1;
    }
    try {
      writer.compressor_.write({static_cast<const char*>(bytes), size});
      return static_cast<la_ssize_t>(size);
    } catch (...) {
      writer.problem_ = std::current_exception();
      return -1;
    }
  }

  void require_written(bool written) {
    if (problem_) {
      std::rethrow_exception(std::exchange(problem_, nullptr));
    }
    require(written, "archive", "Cannot write the archive");
  }

  Compressor& compressor_;
  std::exception_ptr problem_;
  bool abandoned_ = false;
  std::unique_ptr<::archive, ReleaseWriter> writer_;
  std::unique_ptr<archive_entry, ReleaseEntry> entry_;
};

Handle open_root(const std::filesystem::path& root) {
  Result<Handle> directory = open_tree(root);
  if (!directory) {
    refuse("unsafe_path", "Expected a plain directory", path_utf8(root));
  }
  return *std::move(directory);
}

class Packing {
 public:
  Packing(const std::filesystem::path& root, std::uint64_t total, SnapshotModes modes, const ProgressCallback& progress)
      : files_(open_root(root)), total_(total), modes_(modes), progress_(progress), buffer_(piece_bytes) {}

  // Adds a file to the archive and returns its digest.
  std::string add(const std::string& path, const SnapshotFile& expected, TarWriter& archive) {
    const Handle file = open_as_scanned(path, expected);
    archive.begin_file(path, expected);
    DigestState digest("sha256");
    std::uint64_t read = 0;
    while (const std::size_t size = read_piece(file.get(), path)) {
      if (size > expected.length - read) {
        changed(path);
      }
      read += size;
      digest.update({reinterpret_cast<const char*>(buffer_.data()), size});
      archive.add_content(std::span(buffer_).first(size));
      done_ += size;
      report(progress_, done_, total_);
    }
    if (read != expected.length) {
      changed(path);
    }
    return digest.value();
  }

 private:
  [[noreturn]] static void changed(const std::string& path) {
    refuse("content_mismatch", "The tree changed while it was packed", path);
  }

  Handle open_as_scanned(const std::string& path, const SnapshotFile& expected) {
    Result<Handle> file = files_.open(path, os::OpenAs::file);
    if (!file) {
      refuse("file_read", "Cannot open file", path);
    }
    const auto status = status_of(file->get());
    if (!status || !is_file(*status) || !has_mode(*status, expected) || status->size != expected.length) {
      changed(path);
    }
    return *std::move(file);
  }

  bool has_mode(const Status& status, const SnapshotFile& expected) const {
    if (modes_ == SnapshotModes::by_owner) {
      return ((status.permissions & permissions::owner_executes) != 0) == expected.executable;
    }
    return status.permissions == (expected.executable ? permissions::program : permissions::readable_file);
  }

  std::size_t read_piece(int file, const std::string& path) {
    const Result<std::size_t> count = os::read(file, buffer_.data(), buffer_.size());
    if (!count) {
      refuse("file_read", "Cannot read file", path);
    }
    return *count;
  }

  TreePaths files_;
  std::uint64_t done_ = 0;
  std::uint64_t total_;
  SnapshotModes modes_;
  const ProgressCallback& progress_;
  std::vector<std::uint8_t> buffer_;
};

}  // namespace

PackedArchive pack_snapshot(const std::filesystem::path& root, SnapshotInventory& inventory, int level,
                            const std::function<void(std::string_view bytes)>& sink, const ProgressCallback& progress) {
  return pack_snapshot(root, inventory, level, sink, progress, SnapshotModes::exact);
}

PackedArchive pack_snapshot(const std::filesystem::path& root, SnapshotInventory& inventory, int level,
                            const std::function<void(std::string_view bytes)>& sink, const ProgressCallback& progress,
                            SnapshotModes modes) {
  require(level >= minimum_level && level <= maximum_level, "usage", "The compression level is a number from 1 to 19");
  std::uint64_t total = 0;
  for (const auto& [path, file] : inventory) {
    total += file.length;
  }
  Compressor compressor(level, sink);
  {
    TarWriter archive(compressor);
    Packing packing(root, total, modes, progress);
    report(progress, 0, total);
    for (auto& [path, file] : inventory) {
      file.sha256 = packing.add(path, file, archive);
    }
    archive.finish();
  }
  return compressor.finish();
}

}  // namespace ravok
