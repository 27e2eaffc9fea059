// A small program that does with guarded files what the client does with them, and that knows what an earlier run of
// it may have left behind. A refusal is printed as "CODE: MESSAGE" and ends it with code 1.
//
//   sample_files atomic_write PATH TEXT           replaces or makes a private record
//   sample_files atomic_private_create PATH TEXT  makes a private record that must not exist yet
//   sample_files exchange A B                     exchanges two directories, once: the identities of both are recorded
//                                                 beside A before the step
//   sample_files allocated PATH                   writes an executable of 204,800 bytes whose blocks are claimed first;
//                                                 its reservation is recorded in PATH.record
//   sample_files commit SOURCE DESTINATION        gives what is private at SOURCE its name, once
//   sample_files private_directory_new PATH       makes a private directory; an empty one may stand there already
//   sample_files file_lock PATH                   takes the operation lock and proves that it is that of the path
//   sample_files native_lock PATH                 the same with the ownership of an installation
//   sample_files remove PATH                      removes a plain tree
//   sample_files retire ROOT PATH...              retires a snapshot of these files and "bin/program"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/allocated_file.hpp"
#include "platform/file/atomic_commit.hpp"
#include "platform/file/files.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/tree.hpp"
#include "platform/snapshot/snapshot_retirement.hpp"
#include "sample_main.hpp"
#include "support/manifest_builder.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t allocated_bytes = 204800;
constexpr std::uint64_t record_limit = 4096;

std::optional<struct stat> look_at(const std::filesystem::path& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) == 0) {
    return status;
  }
  require(errno == ENOENT, "sample", "Cannot look at a path");
  return std::nullopt;
}

std::string identity(const std::filesystem::path& path) {
  const std::optional<struct stat> status = look_at(path);
  require(status.has_value(), "sample", "A directory is missing");
  return std::to_string(status->st_dev) + ":" + std::to_string(status->st_ino);
}

void exchange_once(const std::filesystem::path& first, const std::filesystem::path& second) {
  const std::filesystem::path record = first.parent_path() / "exchange.record";
  const std::string before = identity(first) + " " + identity(second);
  const std::string after = identity(second) + " " + identity(first);
  if (look_at(record)) {
    const std::string recorded = read_file(record, record_limit);
    require(recorded == before || recorded == after, "sample", "The record names other directories");
    if (recorded == after) {
      sync_directory(first.parent_path());
      return;
    }
  }
  exchange_private_directories(first, second, [&] { atomic_write(record, before); });
}

void commit_once(const std::filesystem::path& source, const std::filesystem::path& destination) {
  // An earlier run may have taken the step without reaching the flush.
  if (look_at(source) || !look_at(destination)) {
    commit_private_path_new(source, destination, {});
  }
  sync_directory(destination.parent_path());
}

void make_private_directory(const std::filesystem::path& path) {
  require(!look_at(path) || rmdir(path.c_str()) == 0, "sample", "The directory of an earlier run cannot be removed");
  private_directory_new(path);
  sync_directory(path.parent_path());
}

template <typename Lock>
void prove(const Lock& lock, const std::filesystem::path& path) {
  require(lock.matches_path(path), "sample", "The lock is not that of its path");
}

void retire(const std::vector<std::string>& arguments) {
  std::vector<testing::ManifestFile> files;
  for (std::size_t i = 2; i < arguments.size(); ++i) {
    files.push_back({arguments[i]});
  }
  retire_snapshot_files(SnapshotManifest::parse(testing::manifest_document(files)), arguments[1], {});
}

std::string reservation_text(const FileReservation& reservation) {
  std::ostringstream text;
  text << reservation.size << ' ' << reservation.device << ' ' << reservation.inode << ' ' << reservation.allocated;
  return text.str();
}

FileReservation parse_reservation(const std::filesystem::path& path, const std::string& text) {
  FileReservation reservation;
  reservation.path = path;
  std::istringstream stream(text);
  stream >> reservation.size >> reservation.device >> reservation.inode >> reservation.allocated;
  require(!stream.fail(), "sample", "The record cannot be understood");
  return reservation;
}

void fill(AllocatedFile& file) {
  std::string bytes(allocated_bytes, ' ');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<char>('a' + i % 23);
  }
  file.write(bytes);
  file.finish(true);
  file.set_executable(true);
}

void write_allocated(const std::filesystem::path& path) {
  const std::filesystem::path record = path.string() + ".record";
  const bool recorded = look_at(record).has_value();
  const std::optional<struct stat> left = look_at(path);
  if (recorded && left) {
    AllocatedFile file(parse_reservation(path, read_file(record, record_limit)), 0);
    file.reserve_remaining();
    fill(file);
    return;
  }
  if (left) {
    require(left->st_size == 0 && unlink(path.c_str()) == 0, "sample", "Content that nobody recorded stands here");
  }
  AllocatedFile file(path, allocated_bytes,
                     [&](const FileReservation& reservation) { atomic_write(record, reservation_text(reservation)); });
  fill(file);
}

int run(const std::vector<std::string>& arguments) {
  const std::string action = arguments.empty() ? "" : arguments[0];
  if (action == "atomic_write" && arguments.size() == 3) {
    atomic_write(arguments[1], arguments[2]);
  } else if (action == "atomic_private_create" && arguments.size() == 3) {
    atomic_private_create(arguments[1], arguments[2]);
  } else if (action == "exchange" && arguments.size() == 3) {
    exchange_once(arguments[1], arguments[2]);
  } else if (action == "allocated" && arguments.size() == 2) {
    write_allocated(arguments[1]);
  } else if (action == "commit" && arguments.size() == 3) {
    commit_once(arguments[1], arguments[2]);
  } else if (action == "private_directory_new" && arguments.size() == 2) {
    make_private_directory(arguments[1]);
  } else if (action == "file_lock" && arguments.size() == 2) {
    prove(FileLock(arguments[1], false, LockMode::exclusive), arguments[1]);
  } else if (action == "native_lock" && arguments.size() == 2) {
    prove(NativeFileLock(arguments[1], true, NativeLockSharing::none, LockMode::exclusive), arguments[1]);
  } else if (action == "remove" && arguments.size() == 2) {
    remove_plain_tree(arguments[1]);
  } else if (action == "retire" && arguments.size() >= 2) {
    retire(arguments);
  } else {
    return 64;
  }
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
