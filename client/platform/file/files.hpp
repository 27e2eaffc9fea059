// Whole-file records: bounded reads, and writes that a crash cannot tear.
//
// A write puts its bytes into a transaction file beside the destination, named by the
// destination's path, a dot, 32 random hexadecimal characters and ".tmp", and moves that into
// place. A crash leaves the old file or the new one, and at most a stray transaction file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "platform/file/handle.hpp"
#include "platform/file/status.hpp"

namespace ravok {

// Returns the whole of an ordinary file of at most `limit` bytes. Fails with "unsafe_path" for a
// link or a special file, "size_limit" beyond the bound, before anything is read, and "file_read"
// when the file cannot be read or changes meanwhile.
std::string read_file(const std::filesystem::path& path, std::uint64_t limit);

// Returns the last `limit` bytes of an ordinary file, or all of a smaller one, and stores the
// file's whole size in `total`, which may be null. Fails as read_file does, but for the bound.
std::string read_file_tail(const std::filesystem::path& path, std::uint64_t limit, std::uint64_t* total);

// A file's bytes, and the file itself: while it is open, no other file can have its identity.
struct OpenedFile {
  Handle file;
  Status status;
  std::string bytes;
};

// Reads a file by its name in an open directory, which may be open only to pass through. Fails with "unsafe_path",
// "size_limit" and "file_read" in the same cases.
OpenedFile read_file_at(int directory, const std::string& name, std::uint64_t limit);

// Flushes an ordinary file with one name, which must still be the one at the path afterwards, to
// stable storage. Fails with "file_sync".
void sync_file(const std::filesystem::path& path);

// Flushes a directory's names to stable storage. A link at the end of the path is followed, unlike everywhere else
// here. Fails with "file_sync".
void sync_directory(const std::filesystem::path& path);

// The same for an open directory, which may be open only to pass through.
void sync_open_directory(int directory);

// The writers make a file of mode 0600: a private one whatever the process's mask, any other as limited by it. All
// but atomic_write_at want a path that names its directory: they refuse a bare file name with "unsafe_path", and take
// "./name". They also refuse a destination that is a link with "unsafe_path". All fail with "insufficient_space" on a
// full disk, "file_write" for every other failed step, and "file_sync" when only the last flush, of the directory,
// failed and the new content is in place. After any other failure the destination is as it was.

// Replaces or makes a private record durably. The parent is made private as private_directory
// does it, and its failures pass through.
void atomic_write(const std::filesystem::path& path, std::string_view bytes);

// Replaces or makes a private record in an open private directory, durably. `path` is where the record is. Unlike the
// other writers it replaces a link, or whatever else but a directory, itself.
void atomic_write_at(int directory, const std::filesystem::path& path, std::string_view bytes);

// Makes a private record that must not exist yet, durably. The parent is made private in the same way.
void atomic_private_create(const std::filesystem::path& path, std::string_view bytes);

// Makes a file that must not exist yet in a directory of the user's choice, which must be there
// and no link, durably.
void atomic_create(const std::filesystem::path& path, std::string_view bytes);

// The same, but no link above the file is followed, except the system's own, and a failure leaves nothing: a file that
// is in place, and could not be finished or flushed, is removed again. Only the file that this call has made is ever
// removed, whatever has come to its name meanwhile.
void atomic_create_or_remove(const std::filesystem::path& path, std::string_view bytes);

// Replaces or makes a private file whose last update may be lost in a crash: nothing is flushed.
void replace_private_file(const std::filesystem::path& path, std::string_view bytes);

// Who may read a new file, as limited by the process's mask.
enum class ExportAccess { everybody, owner };

// A file of any size that is written piece by piece and appears whole or not at all, under a name
// that must not exist yet, in a directory of the user's choice. It is made with mode 0644, as limited
// by the process's mask, or 0600. An object that goes before its commit leaves nothing behind.
class ExportFile {
 public:
  // Fails with "unsafe_path" for a link or a parent that is no plain directory, and with "insufficient_space" or
  // "file_write".
  explicit ExportFile(const std::filesystem::path& path, ExportAccess access = ExportAccess::everybody);
  ~ExportFile();
  ExportFile(const ExportFile&) = delete;
  ExportFile& operator=(const ExportFile&) = delete;

  // Adds bytes. Fails with "insufficient_space" or "file_write".
  void write(std::string_view bytes);

  // Flushes the file and gives it its name, durably. Fails with "insufficient_space", with "file_write" also when
  // something has the name, and with "file_sync" when only the flush of the name failed.
  void commit();

  // The open file, to read and write. A lock that it is given lasts as long as the object.
  int handle() const;

  // Removes the committed file, if its name is still its own. Tells nothing when that fails.
  void remove() noexcept;

 private:
  struct Implementation;
  const std::unique_ptr<Implementation> implementation_;
};

}  // namespace ravok
