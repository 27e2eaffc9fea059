// Digests of whole files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/digest_context.hpp"
#include "platform/file/file_range.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

// Digests files one after the other, with one context and one buffer for all of them.
class FileDigester {
 public:
  // `algorithm` is "sha256" or "sha512". Fails with "unsupported_hash".
  explicit FileDigester(std::string_view algorithm);

  // Returns the digest text of an open file from its current offset to its end, as
  // digest_file_progress does.
  std::string digest(int file, const ProgressCallback& progress);

  // The same for an ordinary file at its beginning whose size the caller has just asked for. Spares the calls that ask
  // for it again.
  std::string digest(int file, std::uint64_t size, const ProgressCallback& progress);

  // The same for a range of a file.
  std::string digest(const FileRange& range, const ProgressCallback& progress);

 private:
  // `read` fills a part of the buffer with what comes next.
  template <typename Read>
  std::string digest_to_end(Read read, std::optional<std::uint64_t> size, std::uint64_t total,
                            const ProgressCallback& progress);

  const evp_md_st* algorithm_;
  DigestContext context_;
  std::vector<std::uint8_t> buffer_;
};

// Returns the digest text of the file's content by "sha256" or "sha512".
// Fails with "file_read" when the file cannot be opened or read, "unsupported_hash" for another
// algorithm, "crypto_failure" when the library fails.
std::string digest_file(const std::filesystem::path& path, std::string_view algorithm);

// The same, and calls `progress` once before the first byte and after each piece of 65,536
// bytes, with the file's size at the start as the total. Fails also with "cancelled" when
// `progress` says so, and with "content_mismatch" when the file grows beyond that size.
// An empty `progress` asks for no size and sets no bound.
std::string digest_file_progress(const std::filesystem::path& path, std::string_view algorithm,
                                 const ProgressCallback& progress);

// The same for a range of a file. Fails with "file_read" also when the file ends before the range does.
std::string digest_range_progress(const FileRange& range, std::string_view algorithm, const ProgressCallback& progress);

}  // namespace ravok
