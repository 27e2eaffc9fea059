#include "platform/file/allocated_file.hpp"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

// How many bytes are brought on their way to storage at once.
constexpr std::uint64_t flush_piece_bytes = 1 << 20;

// Turns a problem into its failure, and no problem into none.
void require_storage(const Problem& problem, std::string_view code, std::string_view message) {
  if (!problem) {
    return;
  }
  if (problem == Cause::no_space) {
    fail("insufficient_space", "Cannot allocate game storage; free space or choose another location");
  }
  fail(code, std::string(message) + " (" + std::to_string(problem.number) + ")");
}

// The system takes a path to end at a NUL, and would make or open another file.
void require_whole_path(const std::filesystem::path& path) {
  require(!has_nul(path_utf8(path)), "unsafe_path", "Native path contains a NUL byte");
}

// Returns an empty path, which every later check refuses, where there is no absolute form.
std::filesystem::path absolute_form(const std::filesystem::path& path) {
  std::error_code ignored;
  return std::filesystem::absolute(path, ignored);
}

bool is_private(const Status& status) {
  return status.is_own && (status.permissions & (permissions::others | permissions::special)) == 0;
}

}  // namespace

struct AllocatedFile::Implementation {
  FileReservation reservation;
  std::uint64_t written = 0;
  std::uint64_t begun = 0;  // how many of these are on their way to storage
  bool owned = false;
  bool identity_known = false;
  bool must_be_private = false;
  Handle parent;     // the directory of a file that is to be written; open since it was checked
  std::string name;  // of the file in `parent`
  Handle file;

  Implementation(std::filesystem::path path, std::uint64_t length) {
    reservation.path = std::move(path);
    reservation.size = length;
  }

  ~Implementation() {
    file.reset();
    if (owned && identity_known) {
      const auto status = link_status_at(parent.get(), name.c_str());
      if (status && is_file(*status) && is_recorded(*status)) {
        os::remove_at(parent.get(), name.c_str());
      }
    }
  }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

  bool is_recorded(const Status& status) const {
    return status.device == reservation.device && status.inode == reservation.inode;
  }

  bool is_same_path() const {
    const auto status = link_status_of(reservation.path);
    return status && is_recorded(*status);
  }

  void open_for_inspection(std::string_view message) {
    require_whole_path(reservation.path);
    Result<Handle> opened = os::open(reservation.path, os::OpenAs::file);
    require(opened.has_value(), "unsafe_path", message);
    file = *std::move(opened);
  }

  // Opens a file that is to be written: one that exists, or a new one.
  void open_for_writing(bool create) {
    require(reservation.size <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()), "size_limit",
            "File allocation exceeds native length bounds");
    require_whole_path(reservation.path);
    reservation.path = absolute_form(reservation.path);
    Result<Handle> directory = os::open(reservation.path.parent_path(), os::OpenAs::passage);
    require(directory.has_value(), "unsafe_path", "Allocation requires an ordinary parent directory");
    parent = *std::move(directory);
    // Made here, because the destructor must not need memory.
    name = path_utf8(reservation.path.filename());
    Result<Handle> opened =
        create ? os::create_at(parent.get(), name.c_str(), os::CreateAs::file_to_change, permissions::private_file)
               : os::open_at(parent.get(), name.c_str(), os::OpenAs::file_to_change);
    require_storage(opened.problem(), "unsafe_path", "Cannot exclusively create or reopen a prepared allocation");
    file = *std::move(opened);
    must_be_private = true;
  }

  void record_identity(const Status& status) {
    require(status.device <= std::numeric_limits<std::uint32_t>::max(), "unsafe_path",
            "Allocation requires a device number of at most 32 bits");
    reservation.device = static_cast<std::uint32_t>(status.device);
    reservation.inode = status.inode;
    identity_known = true;
  }

  // Proves that the open file is still what it must be, and returns its size in bytes.
  std::uint64_t inspect() {
    const auto status = status_of(file.get());
    require(status && is_single_link_file(*status), "unsafe_path", "Allocation requires an ordinary single-link file");
    if (must_be_private) {
      if (!is_private(*status)) {
        fail("permissions", std::string(os::system_name()) + " allocation must remain private and owned");
      }
      posix_files::require_private_acl(file.get());
    }
    if (identity_known) {
      require(is_recorded(*status), "allocation_changed", "Prepared allocation identity changed");
    } else {
      record_identity(*status);
    }
    return status->size;
  }

  void require_same_path(std::string_view message) const { require(is_same_path(), "allocation_changed", message); }

  // Proves that the file has what was written and is not longer than it may be.
  void require_intact(std::string_view message) {
    const std::uint64_t size = inspect();
    require(written <= size && size <= reservation.size && is_same_path(), "allocation_changed", message);
  }

  // The logical size of a file without content.
  std::uint64_t prepared_size() const { return reservation.allocated ? reservation.size : 0; }

  void allocate() {
    if (reservation.size == 0) {
      return;
    }
    const Problem problem = os::reserve(file.get(), reservation.size);
    require(!(problem == Cause::no_space), "insufficient_space",
            "Cannot reserve file data; free space or choose other game storage");
    const bool cannot_claim = problem == Cause::unsupported;
    if (problem && !cannot_claim) {
      fail("space_reservation", "Native file allocation failed (" + std::to_string(problem.number) + ")");
    }
    reservation.allocated = !cannot_claim;
  }

  void seek(std::uint64_t offset) {
    require_storage(os::seek(file.get(), offset), "file_write", "Cannot position staged file data");
  }

  void create(const OwnershipCallback& callback) {
    open_for_writing(true);
    owned = true;
    posix_files::secure_new_private(file.get(), false);
    require(inspect() == 0, "unsafe_path", "A new allocation must begin empty");
    require_same_path("New allocation path changed before recording ownership");
    if (callback) {
      callback(reservation);
    }
    inspect();
    require_same_path("New allocation changed while recording ownership");
    allocate();
    const std::uint64_t size = inspect();
    require(size == prepared_size() && is_same_path(), "allocation_changed",
            "New allocation changed during preparation");
  }

  // Compares the identity itself, since inspect only records it at the first look.
  void reopen(const FileReservation& expected, std::optional<std::uint64_t> resumed) {
    open_for_writing(false);
    const std::uint64_t size = inspect();
    reservation.allocated = expected.allocated;
    const bool same_identity = reservation.device == expected.device && reservation.inode == expected.inode;
    const bool right_size = resumed ? *resumed <= size && size <= reservation.size : size == prepared_size();
    require(same_identity && right_size, "allocation_changed",
            "Prepared file was replaced or changed; reserved content was preserved");
    require_same_path("Prepared allocation path changed");
    written = resumed.value_or(0);
    begun = written;
    seek(written);
  }

  // Brings what was written on its way to storage while more arrives, piece by piece, so that the end need not wait for
  // all of it. What is written over after a restart goes that way again.
  void begin_flush() {
    begun = std::min(begun, written);
    if (written - begun >= flush_piece_bytes) {
      os::begin_flush(file.get(), begun, written - begun);
      begun = written;
    }
  }

  void synchronize() {
    require_intact("Partial file changed before synchronization");
    require(!os::flush(file.get()), "file_sync", "Cannot synchronize reserved file data");
  }
};

std::unique_ptr<AllocatedFile::Implementation> AllocatedFile::reopen(const FileReservation& reservation,
                                                                     std::optional<std::uint64_t> written) {
  auto file = std::make_unique<Implementation>(reservation.path, reservation.size);
  file->reopen(reservation, written);
  return file;
}

AllocatedFile::AllocatedFile(const std::filesystem::path& path, std::uint64_t length, const OwnershipCallback& callback)
    : implementation_(std::make_unique<Implementation>(path, length)) {
  implementation_->create(callback);
}

AllocatedFile::AllocatedFile(const FileReservation& reservation) : implementation_(reopen(reservation, std::nullopt)) {}

AllocatedFile::AllocatedFile(const FileReservation& reservation, std::uint64_t written)
    : implementation_(reopen(reservation, written)) {}

AllocatedFile::~AllocatedFile() = default;

void AllocatedFile::verify_identity(const FileReservation& reservation) {
  Implementation file(reservation.path, reservation.size);
  file.reservation = reservation;
  file.identity_known = true;
  file.open_for_inspection("Cannot inspect owned partial file identity");
  const std::uint64_t size = file.inspect();
  require(size <= reservation.size && file.is_same_path(), "allocation_changed",
          "Owned partial file identity or bounds changed");
}

FileReservation AllocatedFile::inspect_file(const std::filesystem::path& path) {
  Implementation file(absolute_form(path), 0);
  file.open_for_inspection("Cannot inspect cache file identity");
  file.reservation.size = file.inspect();
  file.require_same_path("Cache file changed during inspection");
  return file.reservation;
}

FileReservation AllocatedFile::reservation() const { return implementation_->reservation; }

std::uint64_t AllocatedFile::written() const { return implementation_->written; }

std::uint64_t AllocatedFile::size() const { return implementation_->reservation.size; }

std::uint64_t AllocatedFile::allocated_bytes() const {
  const auto status = status_of(implementation_->file.get());
  require(status.has_value(), "volume_query", "Cannot inspect existing file allocation");
  return status->allocated;
}

void AllocatedFile::reserve_remaining() {
  implementation_->require_intact("Resume allocation changed");
  implementation_->allocate();
  implementation_->seek(implementation_->written);
}

void AllocatedFile::restart() {
  implementation_->require_same_path("Cannot restart a replaced partial file");
  implementation_->seek(0);
  implementation_->written = 0;
}

void AllocatedFile::preserve() {
  implementation_->require_same_path("Cannot preserve a replaced partial file");
  implementation_->owned = false;
}

void AllocatedFile::discard() {
  Implementation& file = *implementation_;
  file.require_same_path("Cannot discard a replaced partial file");
  file.file.reset();
  // Checked again, as closing may take long enough for another file to get the name.
  file.require_same_path("Partial path changed before disposal");
  require(!os::remove_at(file.parent.get(), file.name.c_str()), "file_remove",
          "Cannot remove a discarded partial file");
  // From here on the destructor must not remove a file of that name: it would be somebody else's.
  file.owned = false;
  sync_directory(file.reservation.path.parent_path());
}

void AllocatedFile::synchronize() { implementation_->synchronize(); }

void AllocatedFile::read_prefix(std::uint64_t length, const ContentSink& sink, const ProgressCallback& progress) {
  Implementation& file = *implementation_;
  const std::uint64_t size = file.inspect();
  require(length <= size && file.is_same_path(), "allocation_changed", "Recorded prefix changed");
  const auto report = [&](std::uint64_t done) {
    require(!progress || progress(done, length), "cancelled", "Partial verification cancelled");
  };

  report(0);
  std::vector<char> buffer(piece_bytes);
  std::uint64_t done = 0;
  while (done < length) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(piece_bytes, length - done));
    const Result<std::size_t> count = os::read_at(file.file.get(), buffer.data(), wanted, done);
    require(count && *count > 0, "file_read", "Cannot read recorded partial prefix");
    sink({buffer.data(), *count});
    done += *count;
    report(done);
  }
  file.inspect();
  file.require_same_path("Partial file changed during prefix verification");
}

FileReservation AllocatedFile::retain_reservation() {
  Implementation& file = *implementation_;
  require(file.written == 0 && file.is_same_path(), "allocation_changed", "Cannot retain a changed allocation");
  FileReservation reservation = file.reservation;
  file.file.reset();
  file.owned = false;
  return reservation;
}

void AllocatedFile::write(std::string_view bytes) {
  Implementation& file = *implementation_;
  require(bytes.size() <= file.reservation.size - file.written, "size_limit",
          "Write exceeds the authenticated file length");
  while (!bytes.empty()) {
    const std::string_view piece = bytes.substr(0, piece_bytes);
    const Result<std::size_t> count = os::write(file.file.get(), piece.data(), piece.size());
    require_storage(count.problem(), "file_write", "Cannot write staged file data");
    require(*count != 0, "file_write", "Cannot advance staged file data");
    file.written += *count;
    bytes.remove_prefix(*count);
  }
  file.begin_flush();
}

void AllocatedFile::set_executable(bool executable) {
  Implementation& file = *implementation_;
  const std::uint64_t size = file.inspect();
  require(size <= file.reservation.size && file.is_same_path(), "allocation_changed",
          "Allocated file changed before setting executable permissions");
  const std::uint32_t wanted = executable ? permissions::owner : permissions::private_file;
  require(!os::set_permissions(file.file.get(), wanted), "file_permissions",
          "Cannot set private allocated file permissions");
  const auto status = link_status_of(file.reservation.path);
  require(status && is_file(*status) && file.is_recorded(*status), "allocation_changed",
          "Allocated file changed while setting executable permissions");
}

void AllocatedFile::finish(bool exact) {
  Implementation& file = *implementation_;
  require(!exact || file.written == file.reservation.size, "length_mismatch",
          "File data is shorter than its authenticated length");
  file.require_intact("Allocated file changed before completion");
  require_storage(os::set_size(file.file.get(), file.written), "file_write", "Cannot set allocated file length");
  const std::uint64_t size = file.inspect();
  require(size == file.written && file.is_same_path(), "allocation_changed", "Allocated file changed during writing");
  file.synchronize();
  file.owned = false;
}

}  // namespace ravok
