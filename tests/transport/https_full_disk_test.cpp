// Downloads to a volume that is really full.

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/types.h>

#include "support/mounted_volume.hpp"
#include "support/scripted_server.hpp"
#include "transport/scripted_place.hpp"

namespace {

std::atomic<bool> volumes_claim_blocks = true;

}  // namespace

extern "C" {

int __real_fallocate(int file, int mode, off_t offset, off_t length);
int __wrap_fallocate(int file, int mode, off_t offset, off_t length) {
  if (volumes_claim_blocks) {
    return __real_fallocate(file, mode, offset, length);
  }
  errno = EOPNOTSUPP;
  return -1;
}

}  // extern "C"

namespace ravok {
namespace {

using testing::Conversation;
using testing::rest_of;
using testing::ScriptedServer;

class HttpsFullDisk : public testing::ScriptedPlace {
 protected:
  void SetUp() override {
    if (!volume_.mounted()) {
      GTEST_SKIP() << "This system lets the test mount no volume.";
    }
  }
  void TearDown() override { volumes_claim_blocks = true; }

  // Takes all the room that is left.
  void fill() const {
    std::ofstream filling(root_ / "files/filling", std::ios::binary);
    const std::string page(4096, 'f');
    while (filling.write(page.data(), static_cast<std::streamsize>(page.size())).flush()) {
    }
  }

  const std::string content_ = testing::large_content(1'500'007);
  const ScriptedServer server_{authority_.issue(),
                               [this](Conversation& peer) { peer.send(rest_of(content_, peer.read_request())); }};
  HttpsTransport transport_ = client(server_.url());
  const testing::MountedVolume volume_{root_.directory("files"), "tmpfs", "size=1m,mode=0700"};
};

TEST_F(HttpsFullDisk, DownloadsNothingThatHasNoRoom) {
  EXPECT_FAILURE(transport_.download("file", destination(), content_.size(), {}), "insufficient_space",
                 "Cannot reserve file data; free space or choose other game storage");
  EXPECT_EQ(files(), std::vector<std::string>());
  EXPECT_EQ(server_.requests(), std::vector<std::string>());
  ASSERT_TRUE(volume_.remount("size=2m"));
  transport_.download("file", destination(), content_.size(), {});
  EXPECT_TRUE(root_.read("files/file") == content_);
}

TEST_F(HttpsFullDisk, HasRoomForAFileWhoseBlocksAreClaimed) {
  ASSERT_TRUE(volume_.remount("size=2m"));
  testing::PartialFile file(destination(), content_.size(), {});
  fill();
  file.fetch_rest(transport_, "file");
  EXPECT_TRUE(file.content() == content_);
  EXPECT_TRUE(file.told() == content_);
}

TEST_F(HttpsFullDisk, EndsADownloadWhereItsRoomEnds) {
  volumes_claim_blocks = false;
  EXPECT_FAILURE(transport_.download("file", destination(), content_.size(), {}), "insufficient_space",
                 "Cannot allocate game storage; free space or choose another location");
  EXPECT_EQ(files(), std::vector<std::string>());
  EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(HttpsFullDisk, KeepsAPartThatGoesOnOnceThereIsRoom) {
  volumes_claim_blocks = false;
  testing::PartialFile file(destination(), content_.size(), content_.substr(0, 1'000));
  for (int attempts = 1; attempts <= 2; ++attempts) {
    EXPECT_FAILURE(file.fetch_rest(transport_, "file"), "insufficient_space",
                   "Cannot allocate game storage; free space or choose another location");
    EXPECT_EQ(file.content().size(), 1'048'576u);
    EXPECT_TRUE(content_.starts_with(file.content()));
  }
  ASSERT_TRUE(volume_.remount("size=2m"));
  file.fetch_rest(transport_, "file");
  EXPECT_TRUE(file.content() == content_);
  EXPECT_EQ(server_.requests().size(), 3u);
}

}  // namespace
}  // namespace ravok
