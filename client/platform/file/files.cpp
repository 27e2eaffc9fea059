#include "platform/file/files.hpp"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/transaction_name.hpp"

namespace ravok {
namespace {

// The system takes a path to end at a NUL, and would open another file.
void require_no_nul(const std::filesystem::path& path) {
  require(!has_nul(path_utf8(path)), "unsafe_path", "Native path contains a NUL byte");
}

// Returns the status of a file that was just opened for reading, and proves that it is an ordinary one.
Status require_ordinary(const Result<Handle>& file, const std::filesystem::path& path) {
  if (!file) {
    fail(file.problem() == Cause::is_link ? "unsafe_path" : "file_read", "Cannot open file: " + path_utf8(path));
  }
  const auto status = status_of(file->get());
  if (!status || !is_file(*status)) {
    fail("unsafe_path", "Expected an ordinary file: " + path_utf8(path));
  }
  return *status;
}

// Reads `count` bytes and fails unless the file ends there.
std::string read_to_end(int file, std::size_t count) {
  std::string bytes(count, '\0');
  std::size_t done = 0;
  while (done < count) {
    const std::size_t piece = std::min(piece_bytes, count - done);
    const Result<std::size_t> got = os::read(file, bytes.data() + done, piece);
    require(got.has_value(), "file_read", "Cannot read file");
    require(*got > 0, "file_read", "File changed while reading");
    done += *got;
  }
  char beyond = 0;
  const Result<std::size_t> got = os::read(file, &beyond, 1);
  require(got.has_value(), "file_read", "Cannot finish reading file");
  require(*got == 0, "file_read", "File changed while reading");
  return bytes;
}

std::string read_ordinary(const std::filesystem::path& path, std::uint64_t limit, bool tail, std::uint64_t* total) {
  require_no_nul(path);
  const Result<Handle> file = os::open(path, os::OpenAs::file);
  const std::uint64_t size = require_ordinary(file, path).size;
  if (total != nullptr) {
    *total = size;
  }
  std::uint64_t start = 0;
  if (tail && size > limit) {
    start = size - limit;
    require(!os::seek(file->get(), start), "file_read", "Cannot read file");
  }
  require(size - start <= limit, "size_limit", "File exceeds read limit");
  return read_to_end(file->get(), static_cast<std::size_t>(size - start));
}

// Turns the problem of a transaction's step into its failure, and no problem into none.
void require_transaction(const Problem& problem, std::string_view message) {
  if (!problem) {
    return;
  }
  if (problem == Cause::no_space) {
    fail("insufficient_space", "Local storage cannot save data; free space and try again");
  }
  fail("file_write", std::string(message) + " (" + std::to_string(problem.number) + ")");
}

struct Writer {
  bool replace;
  bool is_private;
  bool durable;
};

Handle open_export_parent(const std::filesystem::path& parent) {
  Result<Handle> directory = os::open(parent, os::OpenAs::passage);
  require(directory.has_value(), "unsafe_path", "Export parent must be an existing plain directory");
  return *std::move(directory);
}

// A name in an open directory. Every step uses the open directory, even if the path leads elsewhere later.
struct Destination {
  std::filesystem::path path;
  Handle parent;

  std::string name() const { return path_utf8(path.filename()); }
  bool holds_link() const {
    const auto status = link_status_at(parent.get(), name().c_str());
    return status && is_link(*status);
  }
};

void flush_and_close(Result<Handle> directory) {
  require(directory.has_value(), "file_sync", "Cannot open directory for synchronization");
  const Problem problem = os::flush(directory->get());
  directory->reset();
  require(!problem, "file_sync", "Could not durably synchronize directory");
}

// A transaction file from its creation to its commit. The destructor removes a file that was not committed.
class Transaction {
 public:
  Transaction(const Destination& destination, std::uint32_t permissions)
      : destination_(destination), name_(transaction_name(destination.name())) {
    Result<Handle> file = os::create_at(parent(), name_.c_str(), os::CreateAs::file_to_change, permissions);
    if (!file) {
      require_transaction(file.problem(), "Cannot create transaction file " +
                                              path_utf8(destination.path.parent_path() / path_from_utf8(name_)));
    }
    file_ = *std::move(file);
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
      const Result<std::size_t> count = os::write(file_.get(), bytes.data(), bytes.size());
      const bool stuck = count && *count == 0;
      require_transaction(stuck ? problem_of(Cause::input_output) : count.problem(), "Cannot write transaction file");
      bytes.remove_prefix(*count);
    }
  }

  void close(bool durable) {
    const Problem problem = durable ? os::flush(file_.get()) : Problem();
    file_.reset();
    require_transaction(problem, "Cannot synchronize transaction file");
  }

  // Flushes the file and keeps it open.
  void flush() { require_transaction(os::flush(file_.get()), "Cannot synchronize transaction file"); }

  void replace() {
    constexpr const char* not_committed = "Cannot commit transaction file";
    require_parent_in_place(not_committed);
    require_transaction(os::rename_at(parent(), name_.c_str(), parent(), destination_.name().c_str()), not_committed);
    committed_ = true;
  }

  // A hard link never replaces, so whatever already has the name stays.
  void create() {
    constexpr const char* not_created = "Cannot create export; the destination may already exist";
    require_parent_in_place(not_created);
    require_transaction(os::link_at(parent(), name_.c_str(), parent(), destination_.name().c_str()), not_created);
    require_transaction(remove(), "Cannot finish export transaction");
    committed_ = true;
  }

  int handle() const { return file_.get(); }

  // Removes the destination if it is this file. The file must still be open.
  void remove_created() const {
    const auto made = status_of(file_.get());
    const auto named = link_status_at(parent(), destination_.name().c_str());
    if (made && named && same_file(*made, *named)) {
      os::remove_at(parent(), destination_.name().c_str());
    }
  }

 private:
  int parent() const { return destination_.parent.get(); }
  Problem remove() const { return os::remove_at(parent(), name_.c_str()); }
  // A file in a directory that was moved away would not be found by its path.
  void require_parent_in_place(std::string_view message) const {
    const auto held = status_of(parent());
    require_transaction(held.problem(), message);
    // Follows links, since the path may lead through one of the system's own.
    const auto named = target_status_of(destination_.path.parent_path());
    require_transaction(named.problem(), message);
    require_transaction(same_file(*held, *named) ? Problem() : problem_of(Cause::missing), message);
  }

  const Destination& destination_;
  std::string name_;
  Handle file_;
  bool committed_ = false;
};

void require_no_link(const Destination& destination) {
  require(!destination.holds_link(), "unsafe_path", "Refusing to replace a symbolic link");
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
  Result<Handle> parent = posix_files::open_passage(path.parent_path());
  require(parent.has_value(), "unsafe_path", "Export parent must be an existing plain directory");
  Destination destination{path, *std::move(parent)};
  require_no_link(destination);
  return destination;
}

void write_to(const Destination& destination, std::string_view bytes, const Writer& writer) {
  Transaction transaction(destination, permissions::private_file);
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
  require(!has_nul(name), "unsafe_path", "Native path contains a NUL byte");
  Result<Handle> file = os::open_at(directory, name.c_str(), os::OpenAs::file);
  const Status status = require_ordinary(file, path_from_utf8(name));
  require(status.size <= limit, "size_limit", "File exceeds read limit");
  std::string bytes = read_to_end(file->get(), static_cast<std::size_t>(status.size));
  return {*std::move(file), status, std::move(bytes)};
}

std::string read_file_tail(const std::filesystem::path& path, std::uint64_t limit, std::uint64_t* total) {
  return read_ordinary(path, limit, true, total);
}

void sync_file(const std::filesystem::path& path) {
  require(is_bounded_path(path), "file_sync", "File synchronization requires a bounded path without NUL bytes");
  const Result<Handle> file = os::open(path, os::OpenAs::file);
  const auto opened = file ? status_of(file->get()) : file.problem();
  require(opened && is_single_link_file(*opened), "file_sync", "Synchronization requires an ordinary single-link file");
  require(!os::flush(file->get()), "file_sync", "Could not durably synchronize file");
  const auto named = link_status_of(path);
  require(named && is_single_link_file(*named) && same_file(*named, *opened), "file_sync",
          "Synchronized file path changed");
}

void sync_directory(const std::filesystem::path& path) {
  flush_and_close(os::open(path, os::OpenAs::linked_directory));
}

void sync_open_directory(int directory) { flush_and_close(os::open_at(directory, ".", os::OpenAs::directory)); }

void atomic_write(const std::filesystem::path& path, std::string_view bytes) {
  atomic_file(path, bytes, {.replace = true, .is_private = true, .durable = true});
}

void atomic_write_at(int directory, const std::filesystem::path& path, std::string_view bytes) {
  require_no_nul(path);
  Result<Handle> parent = os::duplicate(directory);
  require_handles(parent.problem());
  require_transaction(parent.problem(), "Cannot create transaction file");
  write_to({path, *std::move(parent)}, bytes, {.replace = true, .is_private = true, .durable = true});
}

void atomic_private_create(const std::filesystem::path& path, std::string_view bytes) {
  atomic_file(path, bytes, {.replace = false, .is_private = true, .durable = true});
}

void atomic_create(const std::filesystem::path& path, std::string_view bytes) {
  atomic_file(path, bytes, {.replace = false, .is_private = false, .durable = true});
}

void atomic_create_or_remove(const std::filesystem::path& path, std::string_view bytes) {
  const Destination destination = open_proved_destination(path);
  Transaction transaction(destination, permissions::private_file);
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
  Implementation(const std::filesystem::path& path, std::uint32_t permissions)
      : destination(open_destination(path, false)), transaction(destination, permissions) {}

  Destination destination;
  Transaction transaction;
};

ExportFile::ExportFile(const std::filesystem::path& path, ExportAccess access)
    : implementation_(std::make_unique<Implementation>(
          path, access == ExportAccess::owner ? permissions::private_file : permissions::readable_file)) {}

ExportFile::~ExportFile() = default;

void ExportFile::write(std::string_view bytes) { implementation_->transaction.write_all(bytes); }

int ExportFile::handle() const { return implementation_->transaction.handle(); }

void ExportFile::remove() noexcept { implementation_->transaction.remove_created(); }

void ExportFile::commit() {
  implementation_->transaction.flush();
  implementation_->transaction.create();
  sync_open_directory(implementation_->destination.parent.get());
}

}  // namespace ravok
