// One Zstandard frame out of a file, decoded under a hard limit of the decoder's window and of what
// it may expand to.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>

#include "domain/limits.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/file_range.hpp"

struct archive;
struct ZSTD_DCtx_s;

namespace ravok {

// Allocates nothing while it decodes. An object is too large for the stack, so it should be allocated.
class BoundedZstd {
 public:
  // Hands out at most `limit` decoded bytes. Fails with "archive" when the file cannot be opened or
  // does not begin with an ordinary frame.
  BoundedZstd(const std::filesystem::path& path, std::uint64_t limit);
  // The same for a range of a file, whose end is where the file would end.
  BoundedZstd(const FileRange& range, std::uint64_t limit);
  ~BoundedZstd();
  BoundedZstd(const BoundedZstd&) = delete;
  BoundedZstd& operator=(const BoundedZstd&) = delete;

  // Decodes the next bytes, at most 65,536, into output(), and returns how many they are: 0 at the end
  // of the frame, which is the end of the file. Fails with "archive" for a file that cannot be read, is
  // truncated, needs a window above 64 MiB or goes on behind its first frame, and with "size_limit"
  // beyond the limit.
  std::size_t read();

  // What the last read decoded.
  const std::uint8_t* output() const { return output_.data(); }

  // Reads to the end of the frame. Fails with what a callback has kept, otherwise with "archive" or "size_limit" as
  // read does.
  void finish();

  // Fails when a callback has kept a failure. For an Error the code is "archive", with its message; any other
  // exception, such as a lack of memory, is thrown again.
  void require_no_error() const;

  // The tar reader's way to read; `self` is a BoundedZstd. A failure of any kind is kept, as it must not cross the
  // reader's code, and answered with -1.
  static std::ptrdiff_t callback(::archive* reader, void* self, const void** block) noexcept;

 private:
  struct Release {
    void operator()(ZSTD_DCtx_s* context) const;
  };

  explicit BoundedZstd(std::uint64_t limit);

  void begin();
  Result<std::size_t> read_input(void* bytes, std::size_t size);
  void fill();
  bool at_end_of_file();

  Handle file_;                     // unless a range is read
  std::optional<FileRange> range_;  // the same the other way round
  std::uint64_t range_position_ = 0;
  std::unique_ptr<ZSTD_DCtx_s, Release> context_;
  std::array<std::uint8_t, piece_bytes> input_;
  std::array<std::uint8_t, piece_bytes> output_;
  std::size_t input_position_ = 0;
  std::size_t input_size_ = 0;
  std::uint64_t limit_;
  std::uint64_t decoded_ = 0;
  bool ended_ = false;
  std::exception_ptr failure_;  // of a callback
};

}  // namespace ravok
