#include "platform/file/file_range.hpp"

#include <algorithm>
#include <utility>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/status.hpp"

namespace ravok {

FileRange::FileRange(std::shared_ptr<const Handle> file, std::uint64_t offset, std::uint64_t length)
    : file_(std::move(file)), offset_(offset), length_(length) {}

FileRange FileRange::whole_file(const std::filesystem::path& path) {
  require(!has_nul(path_utf8(path)), "unsafe_path", "Native path contains a NUL byte");
  Result<Handle> file = os::open(path, os::OpenAs::file);
  if (!file) {
    fail(file.problem() == Cause::is_link ? "unsafe_path" : "file_read", "Cannot open file: " + path_utf8(path));
  }
  const auto status = status_of(file->get());
  require(status && is_file(*status), "unsafe_path", "Expected an ordinary file: " + path_utf8(path));
  return {std::make_shared<const Handle>(*std::move(file)), 0, status->size};
}

FileRange FileRange::of_open(Handle file) {
  const auto status = status_of(file.get());
  require(status && is_file(*status), "unsafe_path", "Expected an ordinary file");
  return {std::make_shared<const Handle>(std::move(file)), 0, status->size};
}

FileRange FileRange::part(std::uint64_t offset, std::uint64_t length) const {
  require(offset <= length_ && length <= length_ - offset, "file_range", "A part reaches beyond its file");
  return {file_, offset_ + offset, length};
}

bool FileRange::reaches_end() const {
  const auto status = status_of(file_->get());
  return status && status->size == offset_ + length_;
}

Result<std::size_t> FileRange::read_at(void* bytes, std::size_t size, std::uint64_t at) const {
  if (at >= length_) {
    return std::size_t{0};
  }
  return os::read_at(file_->get(), bytes, static_cast<std::size_t>(std::min<std::uint64_t>(size, length_ - at)),
                     offset_ + at);
}

std::string read_range(const FileRange& range, std::uint64_t limit) {
  require(range.length() <= limit, "size_limit", "File exceeds read limit");
  std::string bytes(static_cast<std::size_t>(range.length()), '\0');
  std::size_t done = 0;
  while (done < bytes.size()) {
    const std::size_t piece = std::min(piece_bytes, bytes.size() - done);
    const Result<std::size_t> got = range.read_at(bytes.data() + done, piece, done);
    require(got.has_value(), "file_read", "Cannot read file");
    require(*got > 0, "file_read", "File changed while reading");
    done += *got;
  }
  return bytes;
}

}  // namespace ravok
