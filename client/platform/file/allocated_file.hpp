// A large file of known length whose blocks are claimed before its first byte arrives, and which
// is recognised again after a crash by its device and inode.
//
// Every step proves again that the file at the path is the one held open, ordinary, private and of
// one name. A file that cannot be proved to be the one recorded is never written to or removed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/snapshot/progress.hpp"

namespace ravok {

// The durable identity of a reserved file.
struct FileReservation {
  std::filesystem::path path;  // absolute
  std::uint64_t size = 0;      // the intended length, in bytes
  std::uint32_t device = 0;
  std::uint64_t inode = 0;
  // Whether the blocks are claimed, and the logical size is `size`. Where the volume cannot claim
  // blocks the file is empty.
  bool allocated = false;

  bool operator==(const FileReservation&) const = default;
};

// One thread at a time may use an object. A new file is removed with the object, unless preserve,
// retain_reservation or finish was called; a reopened one stays. Neither discard nor
// retain_reservation leaves anything to be done with the object but its destruction.
//
// Any member that looks at the file can fail with "unsafe_path" when it is not a regular file with
// one name on a device whose number has at most 32 bits, with "permissions" when it is no longer
// private to this user, and with "allocation_changed" when it is not the file recorded, or not of
// a size that it can have. The file is then left as it is.
class AllocatedFile {
 public:
  // Told of a new file before its blocks are claimed, to record durably that it exists. What it is given has
  // `allocated` false, as nothing is claimed yet: it tells the file again, but is not one to reopen the file
  // with once the blocks are claimed. That is what reservation() returns after the making.
  using OwnershipCallback = std::function<void(const FileReservation&)>;
  // Given the content in order; the text lasts for the call only.
  using ContentSink = std::function<void(std::string_view bytes)>;

  // Makes a file of `length` bytes, at most 2^63 - 1, where nothing may exist yet, in an ordinary
  // directory; a path that ends with a separator or holds a NUL names no file. The mode is 0600 whatever the process's
  // mask. `callback` may be empty; what it throws goes on, and the file is removed.
  // Fails with "size_limit", "unsafe_path", "permissions", "allocation_changed",
  // "insufficient_space" without room, and "space_reservation" when blocks cannot be claimed for
  // another reason than that the volume has no such thing.
  AllocatedFile(const std::filesystem::path& path, std::uint64_t length, const OwnershipCallback& callback);

  // Reopens a reserved file that has no written content. Fails with "size_limit", "unsafe_path",
  // "permissions" or "allocation_changed", and with "insufficient_space" or "file_write" when the
  // system cannot open or position it.
  explicit AllocatedFile(const FileReservation& reservation);

  // Reopens a reserved file with `written` bytes of recorded content; the next write goes behind
  // them. Fails with the same codes; with "allocation_changed" also when the file has fewer bytes than that.
  AllocatedFile(const FileReservation& reservation, std::uint64_t written);

  ~AllocatedFile();
  AllocatedFile(const AllocatedFile&) = delete;
  AllocatedFile& operator=(const AllocatedFile&) = delete;

  // Proves that the reservation's path names the file recorded, of at most the reserved size.
  // Whether it is private is not looked at. Fails with "unsafe_path" or "allocation_changed".
  static void verify_identity(const FileReservation& reservation);

  // Returns the reservation of an existing ordinary file as it stands, its size as the intended
  // length and no blocks taken as claimed. Fails with "unsafe_path" or "allocation_changed".
  static FileReservation inspect_file(const std::filesystem::path& path);

  FileReservation reservation() const;

  // The bytes written so far; the next write goes there.
  std::uint64_t written() const;

  // The intended length, in bytes.
  std::uint64_t size() const;

  // Returns the bytes that the file's blocks take on the volume. Fails with "volume_query".
  std::uint64_t allocated_bytes() const;

  // Claims the blocks up to the intended length again. Fails also with "insufficient_space" without room, with
  // "space_reservation" when the claim fails for another reason, and with "file_write".
  void reserve_remaining();

  // Goes back to the first byte; content and blocks stay until they are written over.
  void restart();

  // Leaves the file where it is when the object goes.
  void preserve();

  // Closes and removes the file, durably. Fails also with "file_remove" or "file_sync".
  void discard();

  // Flushes the file to stable storage. Fails also with "file_sync".
  void synchronize();

  // Hands the first `length` bytes of the file to `sink`, in pieces of at most 65,536, and tells
  // `progress`, which may be empty, before the first and after each. Fails also with "file_read",
  // and with "cancelled" when `progress` says so.
  void read_prefix(std::uint64_t length, const ContentSink& sink, const ProgressCallback& progress);

  // Closes the file, to which nothing may be written yet, and leaves it to the caller.
  FileReservation retain_reservation();

  // Writes behind what is written. Fails with "size_limit" and writes nothing where `bytes` goes
  // beyond the intended length; with "insufficient_space" or "file_write" after some of them may
  // have been written, which written() tells.
  void write(std::string_view bytes);

  // Sets mode 0700, or 0600. Fails also with "file_permissions".
  void set_executable(bool executable);

  // Cuts the file behind what is written, flushes it, and leaves it where it is. With `exact` it
  // must have its intended length. Fails also with "length_mismatch", "insufficient_space",
  // "file_write" or "file_sync".
  void finish(bool exact);

 private:
  struct Implementation;

  static std::unique_ptr<Implementation> reopen(const FileReservation& reservation,
                                                std::optional<std::uint64_t> written);

  const std::unique_ptr<Implementation> implementation_;
};

}  // namespace ravok
