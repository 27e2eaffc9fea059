// Access lists that no kernel at hand stores. One that cannot be understood is refused, whatever it grants.

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/handle.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/posix_files.hpp"
#include "support/access_list.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/temporary_root.hpp"

namespace ravok::access_lists_fault_test {
namespace {

using testing::failing;
using testing::holding;
using testing::Planned;
using testing::stored_access_list;
using testing::TemporaryRoot;
using Entry = testing::AccessEntry;

constexpr const char* unknown_rule = "Unknown Linux private storage ACL rule";
constexpr const char* invalid = "Linux storage ACL exceeds its bound or is invalid";
constexpr const char* unreadable = "Cannot inspect the Linux private storage ACL";
constexpr const char* foreign = "Existing Linux storage grants another identity access; preserve it";

using Tags = std::initializer_list<std::uint16_t>;
using Permissions = std::initializer_list<std::uint16_t>;

constexpr Entry owner = {0x01, 7};

class AccessListFault : public ::testing::Test {
 protected:
  // The first list that is read is the node's access list, the second its default list.
  void expect_refused(const std::string& list, const char* message) const {
    for (const int which : {1, 2}) {
      const Planned set(holding(list, which));
      EXPECT_FAILURE(posix_files::require_private_acl(node_.get()), "permissions", message) << which;
      EXPECT_EQ(set.count("fgetxattr"), which);
      EXPECT_EQ(set.count("fremovexattr") + set.count("fchmod"), 0);
    }
  }

  void expect_accepted(const std::string& list) const {
    for (const int which : {1, 2}) {
      const Planned set(holding(list, which));
      EXPECT_NO_THROW(posix_files::require_private_acl(node_.get())) << which;
      EXPECT_EQ(set.count("fgetxattr"), 2);
    }
  }

  const TemporaryRoot root_;
  const Handle node_{open(root_.directory("node").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
};

TEST_F(AccessListFault, AnEntryOfAnUnknownKindIsRefusedEvenWhenItGrantsNothing) {
  for (const std::uint16_t tag : Tags{0x00, 0x03, 0x11, 0x40, 0x8000, 0xffff}) {
    expect_refused(stored_access_list({owner, {tag, 0}}), unknown_rule);
    expect_refused(stored_access_list({owner, {tag, 7, geteuid()}}), unknown_rule);
  }
}

TEST_F(AccessListFault, AListWithoutAWholeHeadOrWithAPartOfAnEntryIsRefused) {
  const std::string whole = stored_access_list({owner, {0x04, 0}});
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const bool complete = size >= 4 && (size - 4) % 8 == 0;
    complete ? expect_accepted(whole.substr(0, size)) : expect_refused(whole.substr(0, size), invalid);
  }
  expect_refused(whole + "x", invalid);
}

TEST_F(AccessListFault, AListOfAnotherVersionIsRefused) {
  for (const std::uint32_t version : {0u, 1u, 3u, 0x02000000u}) {
    expect_refused(stored_access_list({owner}, version), invalid);
  }
}

TEST_F(AccessListFault, AListOf129EntriesIsRefusedBeforeItsEntriesAreLookedAt) {
  std::vector<Entry> entries(128, owner);
  expect_accepted(stored_access_list(entries));
  entries.push_back({0x40, 7});
  expect_refused(stored_access_list(entries), invalid);
}

TEST_F(AccessListFault, OnlyTheOwnerMayBeGrantedAnything) {
  expect_accepted(stored_access_list({owner, {0x02, 7, geteuid()}, {0x02, 0, geteuid() + 1}, {0x08, 0, 5}, {0x10, 7}}));
  for (const std::uint16_t permissions : Permissions{1, 2, 4}) {
    expect_refused(stored_access_list({owner, {0x02, permissions, geteuid() + 1}}), foreign);
    expect_refused(stored_access_list({owner, {0x04, permissions}}), foreign);
    expect_refused(stored_access_list({owner, {0x08, permissions, getegid()}}), foreign);
    expect_refused(stored_access_list({owner, {0x20, permissions}}), foreign);
    // The mask denies it now, but a later change of mode may widen the mask.
    expect_refused(stored_access_list({owner, {0x02, permissions, geteuid() + 1}, {0x10, 0}}), foreign);
  }
}

TEST_F(AccessListFault, AListThatCannotBeReadIsRefusedAndOneThatIsNotThereIsNot) {
  for (const int which : {1, 2}) {
    for (const int problem : {EIO, EACCES, EPERM, ENOMEM}) {
      const Planned set(failing("fgetxattr", problem, which));
      EXPECT_FAILURE(posix_files::require_private_acl(node_.get()), "permissions", unreadable) << problem;
    }
    for (const int problem : {ENODATA, EOPNOTSUPP}) {
      const Planned set(failing("fgetxattr", problem, which));
      EXPECT_NO_THROW(posix_files::require_private_acl(node_.get())) << problem;
    }
  }
}

TEST_F(AccessListFault, ANodeWhoseListCannotBeUnderstoodKeepsItsMode) {
  ASSERT_EQ(chmod((root_ / "node").c_str(), 0755), 0);
  const Planned set(holding(stored_access_list({owner, {0x40, 0}})));
  EXPECT_FAILURE(private_directory(root_ / "node"), "permissions", unknown_rule);
  EXPECT_EQ(std::filesystem::status(root_ / "node").permissions(), std::filesystem::perms(0755));
}

TEST(LockFault, ALockThatOthersMayOpenByNowIsNoLongerTheOneAtItsPath) {
  const TemporaryRoot root;
  ASSERT_EQ(chmod(root.path().c_str(), 0700), 0);
  const FileLock lock(root / "lock", true, LockMode::exclusive);
  EXPECT_TRUE(lock.matches_path(root / "lock"));
  const Planned set(holding(stored_access_list({owner, {0x02, 7, geteuid() + 1}})));
  EXPECT_FALSE(lock.matches_path(root / "lock"));
}

}  // namespace
}  // namespace ravok::access_lists_fault_test
