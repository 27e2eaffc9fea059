// POSIX access lists, read as the kernel stores them in extended attributes.

#include <array>
#include <cerrno>
#include <cstring>
#include <span>

#include <sys/xattr.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "platform/os.hpp"

namespace ravok::os {
namespace {

constexpr const char* access_list = "system.posix_acl_access";
constexpr const char* default_list = "system.posix_acl_default";

// The stored form: a version, then entries, all little-endian, as x86-64 has them in memory.
constexpr std::uint32_t list_version = 2;

struct Entry {
  std::uint16_t tag;
  std::uint16_t permissions;
  std::uint32_t id;
};
static_assert(sizeof(Entry) == 8);

constexpr std::size_t maximum_entries = 128;
constexpr std::size_t maximum_list_bytes = sizeof list_version + maximum_entries * sizeof(Entry);

enum Tag : std::uint16_t {
  owner_tag = 0x01,
  user_tag = 0x02,
  owning_group_tag = 0x04,
  group_tag = 0x08,
  mask_tag = 0x10,
  other_tag = 0x20,
};

bool is_absent(int problem) { return problem == ENODATA || problem == EOPNOTSUPP; }

void require_owner_only(const Entry& entry) {
  constexpr const char* foreign = "Existing Linux storage grants another identity access; preserve it";
  switch (entry.tag) {
    case owner_tag:
    case mask_tag:
      return;
    case user_tag:
      require(entry.permissions == 0 || entry.id == geteuid(), "permissions", foreign);
      return;
    case owning_group_tag:
    case group_tag:
    case other_tag:
      // The mask does not count, since a later change of mode may widen it.
      require(entry.permissions == 0, "permissions", foreign);
      return;
    default:
      fail("permissions", "Unknown Linux private storage ACL rule");
  }
}

void require_owner_only(int descriptor, const char* name) {
  std::array<char, maximum_list_bytes> list;
  const ssize_t size = fgetxattr(descriptor, name, list.data(), list.size());
  if (size < 0 && is_absent(errno)) {
    return;
  }
  constexpr const char* beyond = "Linux storage ACL exceeds its bound or is invalid";
  require(size >= 0 || errno != ERANGE, "permissions", beyond);
  require(size >= 0, "permissions", "Cannot inspect the Linux private storage ACL");

  std::span<const char> rest(list.data(), static_cast<std::size_t>(size));
  std::uint32_t version = 0;
  require(rest.size() >= sizeof version, "permissions", beyond);
  std::memcpy(&version, rest.data(), sizeof version);
  rest = rest.subspan(sizeof version);
  require(version == list_version && rest.size() % sizeof(Entry) == 0, "permissions", beyond);
  for (; !rest.empty(); rest = rest.subspan(sizeof(Entry))) {
    Entry entry;
    std::memcpy(&entry, rest.data(), sizeof entry);
    require_owner_only(entry);
  }
}

bool remove_list(int descriptor, const char* name) { return fremovexattr(descriptor, name) == 0 || is_absent(errno); }

}  // namespace

bool clear_access_lists(int descriptor, bool directory) {
  return remove_list(descriptor, access_list) && (!directory || remove_list(descriptor, default_list));
}

void require_owner_only_access(int descriptor) {
  require_owner_only(descriptor, access_list);
  require_owner_only(descriptor, default_list);
}

}  // namespace ravok::os
