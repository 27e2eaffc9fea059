#include "platform/file/files.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <optional>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/descriptor.hpp"
#include "platform/file/file_status.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

constexpr int read_flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;

// The system would read such a path only as far as the NUL.
void require_no_nul(const std::filesystem::path& path) {
  require(path.native().find('\0') == std::string::npos, "unsafe_path", "Native path contains a NUL byte");
}

Descriptor open_for_reading(const std::filesystem::path& path) {
  return Descriptor(retry_interrupted([&] { return open(path.c_str(), read_flags); }));
}

// Returns the status of a file that was just opened for reading, and proves that it is an ordinary one.
FileStatus require_ordinary(const Descriptor& file, const std::filesystem::path& path) {
  if (!file) {
    fail(errno == ELOOP ? "unsafe_path" : "file_read", "Cannot open file: " + path_utf8(path));
  }
  const auto status = status_of(file.get());
  if (!status || !S_ISREG(status->st_mode) || status->st_size < 0) {
    fail("unsafe_path", "Expected an ordinary file: " + path_utf8(path));
  }
  return *status;
}

// Reads exactly `count` bytes, which must be all that is left.
std::string read_to_end(int file, std::size_t count) {
  std::string bytes(count, '\0');
  std::size_t done = 0;
  while (done < count) {
    const std::size_t piece = std::min(piece_bytes, count - done);
    const ssize_t got = retry_interrupted([&] { return read(file, bytes.data() + done, piece); });
    require(got >= 0, "file_read", "Cannot read file");
    require(got > 0, "file_read", "File changed while reading");
    done += static_cast<std::size_t>(got);
  }
  char beyond = 0;
  const ssize_t got = retry_interrupted([&] { return read(file, &beyond, 1); });
  require(got >= 0, "file_read", "Cannot finish reading file");
  require(got == 0, "file_read", "File changed while reading");
  return bytes;
}

std::string read_ordinary(const std::filesystem::path& path, std::uint64_t limit, bool tail, std::uint64_t* total) {
  require_no_nul(path);
  const Descriptor file = open_for_reading(path);
  const auto size = static_cast<std::uint64_t>(require_ordinary(file, path).st_size);
  if (total != nullptr) {
    *total = size;
  }
  std::uint64_t start = 0;
  if (tail && size > limit) {
    start = size - limit;
    require(lseek(file.get(), static_cast<off_t>(start), SEEK_SET) >= 0, "file_read", "Cannot read file");
  }
  require(size - start <= limit, "size_limit", "File exceeds read limit");
  return read_to_end(file.get(), static_cast<std::size_t>(size - start));
}

[[noreturn]] void transaction_failure(int problem, std::string_view message) {
  if (problem == ENOSPC || problem == EDQUOT) {
    fail("insufficient_space", "Local storage cannot save data; free space and try again");
  }
  fail("file_write", std::string(message) + " (" + std::to_string(problem) + ")");
}

void require_transaction(bool succeeded, std::string_view message) {
  if (!succeeded) {
    transaction_failure(errno, message);
  }
}

struct Writer {
  bool replace;
  bool is_private;
  bool durable;
};

Descriptor open_export_parent(const std::filesystem::path& parent) {
  Descriptor directory(retry_interrupted([&] { return open(parent.c_str(), os::passage_flags()); }));
  require(static_cast<bool>(directory), "unsafe_path", "Export parent must be an existing plain directory");
  return directory;
}

// A name in a directory that is held open: every step happens there, whatever becomes of the path.
struct Destination {
  std::filesystem::path path;
  Descriptor parent;

  std::string name() const { return path.filename(); }
  bool is_link() const {
    const auto status = link_status_at(parent.get(), name().c_str());
    return status && S_ISLNK(status->st_mode);
  }
};

void flush_and_close(Descriptor directory) {
  require(static_cast<bool>(directory), "file_sync", "Cannot open directory for synchronization");
  const bool synchronized = posix_files::sync(directory.get()) == 0;
  directory.reset();
  require(synchronized, "file_sync", "Could not durably synchronize directory");
}

// A transaction file from its creation to its commit; what is not committed is removed.
class Transaction {
 public:
  Transaction(const Destination& destination, mode_t mode)
      : destination_(destination),
        ending_("." + random_id() + ".tmp"),
        name_(destination.name() + ending_),
        file_(retry_interrupted([&] { return openat(parent(), name_.c_str(), create_flags, mode); })) {
    if (!file_) {
      transaction_failure(errno, "Cannot create transaction file " + path_utf8(destination.path.native() + ending_));
    }
  }
  ~Transaction() {
    if (!committed_) {
      file_.reset();
      remove();
    }
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void make_private() { posix_files::secure_new_private(file_.get(), false); }

  void write_all(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = retry_interrupted([&] { return write(file_.get(), bytes.data(), bytes.size()); });
      if (count <= 0) {
        transaction_failure(count == 0 ? EIO : errno, "Cannot write transaction file");
      }
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
  }

  void close(bool durable) {
    const int problem = durable && posix_files::sync(file_.get()) != 0 ? errno : 0;
    file_.reset();
    if (problem != 0) {
      transaction_failure(problem, "Cannot synchronize transaction file");
    }
  }

  // Flushes the file and keeps it open.
  void flush() { require_transaction(posix_files::sync(file_.get()) == 0, "Cannot synchronize transaction file"); }

  void replace() {
    constexpr const char* not_committed = "Cannot commit transaction file";
    require_parent_in_place(not_committed);
    require_transaction(renameat(parent(), name_.c_str(), parent(), destination_.name().c_str()) == 0, not_committed);
    committed_ = true;
  }

  // A link never replaces, so the destination keeps whatever it already holds.
  void create() {
    constexpr const char* not_created = "Cannot create export; the destination may already exist";
    require_parent_in_place(not_created);
    require_transaction(linkat(parent(), name_.c_str(), parent(), destination_.name().c_str(), 0) == 0, not_created);
    require_transaction(remove(), "Cannot finish export transaction");
    committed_ = true;
  }

  // Removes the destination if it is this file, which must still be open.
  void remove_created() const {
    const auto made = status_of(file_.get());
    const auto named = link_status_at(parent(), destination_.name().c_str());
    if (made && named && same_file(*made, *named)) {
      unlinkat(parent(), destination_.name().c_str(), 0);
    }
  }

 private:
  static constexpr int create_flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;

  int parent() const { return destination_.parent.get(); }
  bool remove() const { return unlinkat(parent(), name_.c_str(), 0) == 0; }
  // What would be committed to a directory that was moved away would not be found by its path.
  void require_parent_in_place(std::string_view message) const {
    FileStatus held;
    FileStatus named;
    // By a link of the system, the path may lead there too.
    if (fstat(parent(), &held) != 0 || stat(destination_.path.parent_path().c_str(), &named) != 0) {
      transaction_failure(errno, message);
    }
    if (!same_file(held, named)) {
      transaction_failure(ENOENT, message);
    }
  }

  const Destination& destination_;
  std::string ending_;
  std::string name_;
  Descriptor file_;
  bool committed_ = false;
};

void require_no_link(const Destination& destination) {
  require(!destination.is_link(), "unsafe_path", "Refusing to replace a symbolic link");
}

Destination open_destination(const std::filesystem::path& path, bool is_private) {
  require_no_nul(path);
  const std::filesystem::path parent = path.parent_path();
  Destination destination{path, is_private ? posix_files::open_private_directory(parent) : open_export_parent(parent)};
  require_no_link(destination);
  return destination;
}

Destination open_proved_destination(const std::filesystem::path& path) {
  require_no_nul(path);
  Destination destination{path, posix_files::open_passage(path.parent_path())};
  require(static_cast<bool>(destination.parent), "unsafe_path", "Export parent must be an existing plain directory");
  require_no_link(destination);
  return destination;
}

void write_to(const Destination& destination, std::string_view bytes, const Writer& writer) {
  Transaction transaction(destination, 0600);
  if (writer.is_private) {
    transaction.make_private();
  }
  transaction.write_all(bytes);
  transaction.close(writer.durable);
  if (writer.replace) {
    transaction.replace();
  } else {
    transaction.create();
  }
  if (writer.durable) {
    sync_open_directory(destination.parent.get());
  }
}

void atomic_file(const std::filesystem::path& path, std::string_view bytes, const Writer& writer) {
  write_to(open_destination(path, writer.is_private), bytes, writer);
}

}  // namespace

std::string read_file(const std::filesystem::path& path, std::uint64_t limit) {
  return read_ordinary(path, limit, false, nullptr);
}

OpenedFile read_file_at(int directory, const std::string& name, std::uint64_t limit) {
  require_no_nul(name);
  OpenedFile opened{Descriptor(retry_interrupted([&] { return openat(directory, name.c_str(), read_flags); })), {}, {}};
  opened.status = require_ordinary(opened.file, name);
  const auto size = static_cast<std::uint64_t>(opened.status.st_size);
  require(size <= limit, "size_limit", "File exceeds read limit");
  opened.bytes = read_to_end(opened.file.get(), static_cast<std::size_t>(size));
  return opened;
}

std::string read_file_tail(const std::filesystem::path& path, std::uint64_t limit, std::uint64_t* total) {
  return read_ordinary(path, limit, true, total);
}

void sync_file(const std::filesystem::path& path) {
  const std::string& text = path.native();
  require(!text.empty() && text.size() <= maximum_path_bytes && text.find('\0') == std::string::npos, "file_sync",
          "File synchronization requires a bounded path without NUL bytes");
  const Descriptor file = open_for_reading(path);
  const auto opened = file ? status_of(file.get()) : std::nullopt;
  require(opened && is_single_link_file(*opened), "file_sync", "Synchronization requires an ordinary single-link file");
  require(posix_files::sync(file.get()) == 0, "file_sync", "Could not durably synchronize file");
  const auto named = link_status_of(path);
  require(named && is_single_link_file(*named) && same_file(*named, *opened), "file_sync",
          "Synchronized file path changed");
}

void sync_directory(const std::filesystem::path& path) {
  flush_and_close(
      Descriptor(retry_interrupted([&] { return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); })));
}

void sync_open_directory(int directory) {
  flush_and_close(Descriptor(retry_interrupted([&] { return openat(directory, ".", posix_files::walk_flags); })));
}

void atomic_write(const std::filesystem::path& path, std::string_view bytes) {
  atomic_file(path, bytes, {.replace = true, .is_private = true, .durable = true});
}

void atomic_write_at(int directory, const std::filesystem::path& path, std::string_view bytes) {
  require_no_nul(path);
  Destination destination{path, Descriptor(fcntl(directory, F_DUPFD_CLOEXEC, 0))};
  require_descriptors(destination.parent ? 0 : errno);
  require_transaction(static_cast<bool>(destination.parent), "Cannot create transaction file");
  write_to(destination, bytes, {.replace = true, .is_private = true, .durable = true});
}

void atomic_private_create(const std::filesystem::path& path, std::string_view bytes) {
  atomic_file(path, bytes, {.replace = false, .is_private = true, .durable = true});
}

void atomic_create(const std::filesystem::path& path, std::string_view bytes) {
  atomic_file(path, bytes, {.replace = false, .is_private = false, .durable = true});
}

void atomic_create_or_remove(const std::filesystem::path& path, std::string_view bytes) {
  const Destination destination = open_proved_destination(path);
  Transaction transaction(destination, 0600);
  transaction.write_all(bytes);
  transaction.flush();
  try {
    transaction.create();
    sync_open_directory(destination.parent.get());
  } catch (const Error&) {
    transaction.remove_created();
    throw;
  }
}

void replace_private_file(const std::filesystem::path& path, std::string_view bytes) {
  atomic_file(path, bytes, {.replace = true, .is_private = true, .durable = false});
}

struct ExportFile::Implementation {
  Implementation(const std::filesystem::path& path, mode_t mode)
      : destination(open_destination(path, false)), transaction(destination, mode) {}

  Destination destination;
  Transaction transaction;
};

ExportFile::ExportFile(const std::filesystem::path& path, ExportAccess access)
    : implementation_(std::make_unique<Implementation>(path, access == ExportAccess::owner ? 0600 : 0644)) {}

ExportFile::~ExportFile() = default;

void ExportFile::write(std::string_view bytes) { implementation_->transaction.write_all(bytes); }

void ExportFile::remove() noexcept { implementation_->transaction.remove_created(); }

void ExportFile::commit() {
  implementation_->transaction.flush();
  implementation_->transaction.create();
  sync_open_directory(implementation_->destination.parent.get());
}

}  // namespace ravok
