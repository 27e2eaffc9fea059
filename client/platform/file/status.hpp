// What the system says of a file, as the guarded operations compare it.
#pragma once

#include <cstdint>
#include <filesystem>

#include "platform/file/problem.hpp"

namespace ravok {

enum class EntryType { directory, file, link, other };

// The bits of a file's permissions.
namespace permissions {

inline constexpr std::uint32_t all = 07777;            // all of these
inline constexpr std::uint32_t special = 07000;        // set-user, set-group and sticky
inline constexpr std::uint32_t owner = 00700;          // to read, write, and execute or search
inline constexpr std::uint32_t owner_executes = 0100;  // the owner may execute
inline constexpr std::uint32_t others = 00077;         // anything to anybody but the owner
inline constexpr std::uint32_t others_write = 00022;   // write to anybody but the owner
inline constexpr std::uint32_t everybody = 00777;      // anything to anybody
inline constexpr std::uint32_t private_directory = 0700;
inline constexpr std::uint32_t private_file = 0600;
inline constexpr std::uint32_t readable_directory = 0755;
inline constexpr std::uint32_t program = 0755;
inline constexpr std::uint32_t readable_file = 0644;

}  // namespace permissions

struct Status {
  EntryType type = EntryType::other;
  std::uint32_t permissions = 0;  // twelve bits, as above
  std::uint64_t device = 0;       // tells volumes apart while they are mounted
  std::uint64_t inode = 0;        // tells files of a volume apart while they exist
  std::uint64_t links = 0;        // how many names the file has
  std::uint64_t size = 0;         // in bytes
  std::uint64_t allocated = 0;    // what its blocks take on the volume, in bytes
  std::uint64_t owner = 0;        // an opaque number
  bool is_own = false;            // the effective user of this process is the owner
  bool is_of_system = false;      // the system's own user is the owner
};

// Return the status of an open file or directory; of what a path names, a link not followed; and of a name relative to
// an open directory, a link not followed.
Result<Status> status_of(int handle);
Result<Status> link_status_of(const std::filesystem::path& path);
Result<Status> link_status_at(int directory, const char* name);

// The status of what a path leads to, through links.
Result<Status> target_status_of(const std::filesystem::path& path);

// Whether the path is known to name nothing. False for a path that cannot be looked at.
bool is_missing(const std::filesystem::path& path);

// Whether two views are of one file: the same device and inode.
inline bool same_file(const Status& first, const Status& second) {
  return first.device == second.device && first.inode == second.inode;
}

inline bool is_directory(const Status& status) { return status.type == EntryType::directory; }
inline bool is_link(const Status& status) { return status.type == EntryType::link; }

// A regular file.
inline bool is_file(const Status& status) { return status.type == EntryType::file; }

// A regular file with one name.
inline bool is_single_link_file(const Status& status) { return is_file(status) && status.links == 1; }

}  // namespace ravok
