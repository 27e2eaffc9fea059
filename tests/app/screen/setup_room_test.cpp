// A setup dialog on a volume that becomes full.

#include <atomic>
#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>

#include "app/screen/setup_dialog.hpp"
#include "platform/file/status.hpp"
#include "support/dialog_user.hpp"
#include "support/install_place.hpp"
#include "support/screen_text.hpp"

namespace ravok::setup_room_test {
namespace {

using testing::text_of;

// Whether the volume is full.
std::atomic<bool> is_full = false;

extern "C" {

int __real_fallocate(int descriptor, int mode, off_t offset, off_t length);
int __wrap_fallocate(int descriptor, int mode, off_t offset, off_t length);

int __wrap_fallocate(int descriptor, int mode, off_t offset, off_t length) {
  if (is_full) {
    errno = ENOSPC;
    return -1;
  }
  return __real_fallocate(descriptor, mode, offset, length);
}
}

class FullVolume : public ::testing::Test {
 protected:
  FullVolume() {
    place.package.brand.reset();
    place.republish();
  }
  ~FullVolume() override { is_full = false; }

  SetupSubject subject() const {
    SetupSubject subject;
    subject.data_root = place.data();
    subject.package_seal = place.seal();
    subject.package = place.package_directory();
    return subject;
  }

  testing::InstallPlace place;
};

TEST_F(FullVolume, EndsAnInstallationThatLeavesNothing) {
  testing::DialogUser user(subject());
  is_full = true;
  const Screen screen = user.press("install");
  EXPECT_EQ(screen.id, "failed");
  EXPECT_EQ(text_of(screen, "advice"), "Free some space, or choose a folder on another disk.");
  EXPECT_EQ(user.dialog.exit_code(), 1);
  EXPECT_TRUE(is_missing(place.data()));
  is_full = false;
  EXPECT_EQ(user.press("retry").id, "done");
}

TEST_F(FullVolume, EndsARepairThatMayBeTriedAgain) {
  place.install();
  place.write("native/bootstrap/data/notes", "damage");
  testing::DialogUser user(subject());
  is_full = true;
  const Screen screen = user.press("repair");
  EXPECT_EQ(screen.heading, "Ravok could not be repaired");
  EXPECT_EQ(text_of(screen, "advice"), "Free some space, and try again.");
  EXPECT_EQ(text_of(screen, "kept"), "Your saves and settings were not touched.");
  is_full = false;
  EXPECT_EQ(user.press("retry").heading, "Ravok is repaired");
}

}  // namespace
}  // namespace ravok::setup_room_test
