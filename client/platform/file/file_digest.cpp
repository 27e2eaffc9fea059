#include "platform/file/file_digest.hpp"

#include <cstddef>
#include <span>
#include <vector>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"

namespace ravok {
namespace {

struct Piece {
  std::size_t size;
  bool failed;
};

// Fills the buffer from a file by `read`. A buffer that is not full holds the end of the file. `left` is how many bytes
// are left in the file, where that is known: a read of a file ends short only at its end.
template <typename Read>
Piece read_piece(Read& read, std::span<std::uint8_t> buffer, std::optional<std::uint64_t> left) {
  std::size_t size = 0;
  while (size < buffer.size()) {
    const Result<std::size_t> count = read(buffer.data() + size, buffer.size() - size);
    if (!count || *count == 0) {
      return {size, !count};
    }
    size += *count;
    if (size == left) {
      break;
    }
  }
  return {size, false};
}

// The total that is reported, which nobody asks for without a callback.
std::uint64_t total_of(int file, const ProgressCallback& progress) {
  if (!progress) {
    return 0;
  }
  const auto status = status_of(file);
  require(status.has_value(), "file_read", "Error reading file during verification");
  return status->size;
}

}  // namespace

FileDigester::FileDigester(std::string_view algorithm)
    : algorithm_(digest_algorithm(algorithm)), buffer_(piece_bytes) {}

template <typename Read>
std::string FileDigester::digest_to_end(Read read, std::optional<std::uint64_t> size, std::uint64_t total,
                                        const ProgressCallback& progress) {
  const auto report = [&](std::uint64_t done) {
    require(!progress || progress(done, total), "cancelled", "File verification cancelled");
  };
  report(0);

  std::uint64_t done = 0;
  Piece piece{};
  do {
    const bool is_known = size && *size >= done;
    piece = read_piece(read, buffer_, is_known ? std::optional(*size - done) : std::nullopt);
    require(context_.update(std::span(buffer_).first(piece.size)), "crypto_failure", "Could not hash file");
    done += piece.size;
    require(!progress || done <= total, "content_mismatch", "File grew beyond its verification bound");
    report(done);
  } while (piece.size == buffer_.size());
  require(!piece.failed, "file_read", "Error reading file during verification");

  const std::vector<std::uint8_t> value = context_.finish();
  require(!value.empty(), "crypto_failure", "Could not finish file hash");
  return hex(value);
}

std::string FileDigester::digest(int file, const ProgressCallback& progress) {
  require(context_.start(algorithm_), "crypto_failure", "Could not initialize file hash");
  const auto read = [&](void* bytes, std::size_t size) { return os::read(file, bytes, size); };
  return digest_to_end(read, std::nullopt, total_of(file, progress), progress);
}

std::string FileDigester::digest(int file, std::uint64_t size, const ProgressCallback& progress) {
  require(context_.start(algorithm_), "crypto_failure", "Could not initialize file hash");
  const auto read = [&](void* bytes, std::size_t count) { return os::read(file, bytes, count); };
  return digest_to_end(read, size, size, progress);
}

std::string FileDigester::digest(const FileRange& range, const ProgressCallback& progress) {
  require(context_.start(algorithm_), "crypto_failure", "Could not initialize file hash");
  std::uint64_t at = 0;
  const auto read = [&](void* bytes, std::size_t size) {
    const Result<std::size_t> count = range.read_at(bytes, size, at);
    at += count ? *count : 0;
    return count;
  };
  std::string text = digest_to_end(read, range.length(), range.length(), progress);
  require(at == range.length(), "file_read", "Error reading file during verification");
  return text;
}

std::string digest_file(const std::filesystem::path& path, std::string_view algorithm) {
  return digest_file_progress(path, algorithm, {});
}

std::string digest_file_progress(const std::filesystem::path& path, std::string_view algorithm,
                                 const ProgressCallback& progress) {
  const Result<Handle> file = os::open(path, os::OpenAs::linked);
  require(file.has_value(), "file_read", "Could not open file for verification: " + path_utf8(path));
  return FileDigester(algorithm).digest(file->get(), progress);
}

std::string digest_range_progress(const FileRange& range, std::string_view algorithm,
                                  const ProgressCallback& progress) {
  return FileDigester(algorithm).digest(range, progress);
}

}  // namespace ravok
