// The operations on files and directories that every system gives, and nothing more. The units above decide in which
// order and under which conditions they are called. An operation that a signal interrupts is repeated here.
//
// A name is one component of a path, relative to an open directory. A link that has the name is never followed. Texts
// are UTF-8 on systems that want an encoding, and plain bytes on all others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/file/handle.hpp"
#include "platform/file/problem.hpp"
#include "platform/file/status.hpp"

namespace ravok::os {

// How something that exists is opened. Only `linked` and `linked_directory` follow a link that has the name, and only
// `linked` waits for the other end of a pipe.
enum class OpenAs {
  file,              // to read
  file_to_change,    // to read and write
  linked,            // to read, through a link
  directory,         // to list, and to act in
  linked_directory,  // the same, through a link
  passage,           // a directory to act in or pass through, without permission to list it
};

Result<Handle> open(const std::filesystem::path& path, OpenAs how);
Result<Handle> open_at(int directory, const char* name, OpenAs how);

// How a file is made that must not exist yet.
enum class CreateAs {
  output,          // to write
  file_to_change,  // to read and write
};

// Makes a file with these permissions, less what the process's mask takes away.
Result<Handle> create_at(int directory, const char* name, CreateAs how, std::uint32_t permissions);

// Makes a directory with these permissions, less what the process's mask takes away.
Problem make_directory_at(int directory, const char* name, std::uint32_t permissions = permissions::private_directory);

// Returns another handle of the same open file or directory.
Result<Handle> duplicate(int handle);

// Read and write at the position of the handle, and move it. Reading returns 0 at the end of a file.
Result<std::size_t> read(int file, void* bytes, std::size_t size);
Result<std::size_t> write(int file, const void* bytes, std::size_t size);
Problem seek(int file, std::uint64_t offset);

// Reads at an offset, and leaves the position of the handle alone.
Result<std::size_t> read_at(int file, void* bytes, std::size_t size, std::uint64_t offset);

// Sets a file's size, in bytes.
Problem set_size(int file, std::uint64_t size);

// Flushes a file or directory to stable storage, through the device's own cache where the system has a call for that.
Problem flush(int handle);

// Begins to bring a part of a file to storage, so that flush() has less left to do. Promises nothing, and does nothing
// where the system has no call for it.
void begin_flush(int file, std::uint64_t offset, std::uint64_t size);

// Claims all blocks of a file of `length` bytes, or none, and sets its size to `length`; a length of 0 changes nothing.
// Refused with Cause::no_space without room, and with Cause::unsupported by a volume that cannot claim blocks.
Problem reserve(int file, std::uint64_t length);

Problem set_permissions(int handle, std::uint32_t permissions);
Problem set_permissions_at(int directory, const char* name, std::uint32_t permissions);

// remove and remove_at remove a file, a link or any other entry that is no directory; the others an empty directory.
Problem remove_at(int directory, const char* name);
Problem remove_directory_at(int directory, const char* name);
Problem remove(const std::filesystem::path& path);
Problem remove_directory(const std::filesystem::path& path);

// Gives an entry another name, in place of a file or an empty directory that has it.
Problem rename_at(int from, const char* name, int to, const char* new_name);

// The same, but never replaces: refused with Cause::exists.
Problem rename_exclusive(int from, const char* name, int to, const char* new_name);

// Exchanges two names in one step.
Problem exchange_names(int first, const char* first_name, int second, const char* second_name);

// Gives a file a second name, which nothing may have yet.
Problem link_at(int from, const char* name, int to, const char* new_name);

// Takes a lock of a file. The lock belongs to this handle and its duplicates until the last of them is closed. Without
// `wait` it is refused with Cause::busy when another has it.
Problem lock(int file, bool exclusive, bool wait);

// Returns the target of a link, cut off after `limit` bytes.
Result<std::string> link_target(const std::filesystem::path& path, std::size_t limit);

// Whether this process acts for the system's own user, for whom permissions do not count.
bool acts_for_system();

// How a volume is divided, as seen from one of its directories.
struct VolumeGeometry {
  std::uint64_t allocation_unit = 0;    // bytes per block
  std::uint64_t entries = 0;            // all file entries; 0 when they are not counted
  std::uint64_t available_entries = 0;  // those that this user can still claim
};

Result<VolumeGeometry> volume_geometry(const std::filesystem::path& directory);

}  // namespace ravok::os
