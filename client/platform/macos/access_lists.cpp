// Extended access lists, read and cleared by descriptor.

#include <cerrno>
#include <cstring>
#include <memory>
#include <type_traits>

#include <membership.h>
#include <sys/acl.h>
#include <sys/types.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include "domain/error.hpp"
#include "platform/os.hpp"

namespace ravok::os {
namespace {

constexpr int maximum_entries = 128;

struct FreeList {
  void operator()(void* value) const { acl_free(value); }
};

using AccessList = std::unique_ptr<std::remove_pointer_t<acl_t>, FreeList>;
using Qualifier = std::unique_ptr<void, FreeList>;

void require_owner_only(acl_entry_t entry, const uuid_t owner) {
  acl_tag_t tag = ACL_UNDEFINED_TAG;
  require(acl_get_tag_type(entry, &tag) == 0 && (tag == ACL_EXTENDED_ALLOW || tag == ACL_EXTENDED_DENY), "permissions",
          "Unknown macOS private storage ACL rule");
  if (tag == ACL_EXTENDED_DENY) {
    return;
  }
  const Qualifier identity(acl_get_qualifier(entry));
  require(identity && std::memcmp(identity.get(), owner, sizeof(uuid_t)) == 0, "permissions",
          "Existing macOS storage grants another identity access; preserve it");
}

}  // namespace

bool clear_access_lists(int descriptor, bool) {
  const AccessList empty(acl_init(0));
  return empty && acl_set_fd_np(descriptor, empty.get(), ACL_TYPE_EXTENDED) == 0;
}

void require_owner_only_access(int descriptor) {
  errno = 0;
  const AccessList list(acl_get_fd_np(descriptor, ACL_TYPE_EXTENDED));
  if (!list && (errno == ENOATTR || errno == ENOENT)) {
    return;
  }
  require(list && acl_valid(list.get()) == 0, "permissions", "Cannot inspect the macOS private storage ACL");
  uuid_t owner;
  require(mbr_uid_to_uuid(geteuid(), owner) == 0, "permissions", "Cannot identify the macOS storage owner");

  int position = ACL_FIRST_ENTRY;
  for (int index = 0;; ++index) {
    acl_entry_t entry = nullptr;
    errno = 0;
    const int result = acl_get_entry(list.get(), position, &entry);
    if (result < 0 && errno == EINVAL) {
      return;
    }
    require(result == 0 && entry != nullptr && index < maximum_entries, "permissions",
            "macOS storage ACL exceeds its bound or is invalid");
    require_owner_only(entry, owner);
    position = ACL_NEXT_ENTRY;
  }
}

}  // namespace ravok::os
