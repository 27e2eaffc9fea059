// A run of bytes within an open file, for readers that shall see it as if it were a file of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "platform/file/handle.hpp"
#include "platform/file/problem.hpp"

namespace ravok {

// Keeps its file open. Reads at offsets, so any number of ranges of one file can be read at the same time.
class FileRange {
 public:
  // Opens all of an ordinary file, which is as long as it is now. Fails as read_file does, but for the bound.
  static FileRange whole_file(const std::filesystem::path& path);

  // Takes over an open, readable file, which is as long as it is now. Fails with "unsafe_path" unless it is an ordinary
  // one.
  static FileRange of_open(Handle file);

  // Returns a run of bytes within this one. Fails with "file_range" for one that does not lie within it.
  FileRange part(std::uint64_t offset, std::uint64_t length) const;

  // In bytes.
  std::uint64_t length() const { return length_; }

  // Whether the file ends now where this range does. False where that cannot be told.
  bool reaches_end() const;

  // Reads at most `size` bytes at an offset within the range. Returns 0 at the end of the range, and at that of a file
  // which has become too short for it.
  Result<std::size_t> read_at(void* bytes, std::size_t size, std::uint64_t at) const;

 private:
  FileRange(std::shared_ptr<const Handle> file, std::uint64_t offset, std::uint64_t length);

  std::shared_ptr<const Handle> file_;
  std::uint64_t offset_;
  std::uint64_t length_;
};

// Returns the whole of a range of at most `limit` bytes. Fails with "size_limit" beyond the bound, before anything is
// read, and with "file_read" when the file cannot be read or ends before the range does.
std::string read_range(const FileRange& range, std::uint64_t limit);

}  // namespace ravok
