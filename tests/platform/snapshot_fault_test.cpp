// Unpacking where the volume cannot hold blocks, and what is flushed in which order. The linker leads
// the system's calls through the wrappers below.

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/reserved_tree.hpp"
#include "platform/snapshot_archive.hpp"
#include "support/failure.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"

namespace {

bool blocks_can_be_held = true;
std::vector<std::string>* flushed = nullptr;

std::string path_of(int descriptor) {
  std::array<char, 4096> path{};
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t size = readlink(link.c_str(), path.data(), path.size());
  return size < 0 ? std::string() : std::string(path.data(), static_cast<std::size_t>(size));
}

}  // namespace

extern "C" {

int __real_fallocate(int descriptor, int mode, off_t offset, off_t length);
int __wrap_fallocate(int descriptor, int mode, off_t offset, off_t length) {
  if (!blocks_can_be_held) {
    errno = EOPNOTSUPP;
    return -1;
  }
  return __real_fallocate(descriptor, mode, offset, length);
}

int __real_fsync(int descriptor);
int __wrap_fsync(int descriptor) {
  if (flushed != nullptr) {
    flushed->push_back(path_of(descriptor));
  }
  return __real_fsync(descriptor);
}

}  // extern "C"

namespace ravok {
namespace {

using testing::noise;
using testing::Sample;
using testing::SampleFile;
using testing::TemporaryRoot;

class SnapshotFaultTest : public ::testing::Test {
 protected:
  ~SnapshotFaultTest() override {
    blocks_can_be_held = true;
    flushed = nullptr;
  }

  const TemporaryRoot root;
  const std::filesystem::path staging = root / "staging";
  const std::vector<SampleFile> files = {
      {"bin/program", "#!program", 0755}, {"data/deep/large", noise(150'000)}, {"data/empty"}, {"readme", "text"}};
  const Sample snapshot = testing::write_tar_sample(root, files, testing::tar_archive(testing::members_of(files)));

  void expect_unpacked() const {
    for (const SampleFile& file : files) {
      EXPECT_TRUE(root.read("staging/" + file.path) == file.content) << file.path;
    }
  }
};

TEST_F(SnapshotFaultTest, UnpacksWhereNoBlocksCanBeHeld) {
  blocks_can_be_held = false;
  extract_snapshot(snapshot.manifest, snapshot.archive, staging, {}, nullptr);
  expect_unpacked();
}

TEST_F(SnapshotFaultTest, UnpacksAgainIntoATreeWithoutBlocksWhereverItWasCancelled) {
  blocks_can_be_held = false;
  for (int point = 1;; ++point) {
    const ReservedTree reserved(snapshot.manifest, staging, {}, {});
    ASSERT_EQ(std::filesystem::file_size(staging / "data/deep/large"), 0u);
    int calls = 0;
    const auto failure = testing::failure_of([&] {
      extract_snapshot(
          snapshot.manifest, snapshot.archive, staging, [&](std::uint64_t, std::uint64_t) { return ++calls < point; },
          &reserved);
    });
    if (!failure) {
      EXPECT_GT(point, 10);
      break;
    }
    ASSERT_EQ(failure->code, "cancelled");
    extract_snapshot(snapshot.manifest, snapshot.archive, staging, {}, &reserved);
    expect_unpacked();
    std::filesystem::remove_all(staging);
  }
  expect_unpacked();
}

// The place at which a path was flushed last.
std::ptrdiff_t last_flush(const std::vector<std::string>& order, const std::string& path) {
  const auto found = std::find(order.rbegin(), order.rend(), path);
  EXPECT_NE(found, order.rend()) << path << " was not flushed";
  return std::distance(found, order.rend());
}

TEST_F(SnapshotFaultTest, FlushesFilesThenEachDirectoryAheadOfTheOneThatHoldsIt) {
  std::vector<std::string> order;
  flushed = &order;
  extract_snapshot(snapshot.manifest, snapshot.archive, staging, {}, nullptr);
  flushed = nullptr;
  const auto at = [&](const std::string& path) { return last_flush(order, staging.native() + path); };
  for (const SampleFile& file : files) {
    EXPECT_LT(at("/" + file.path), at("/bin"));
    EXPECT_LT(at("/" + file.path), at("/data/deep"));
  }
  EXPECT_LT(at("/data/deep"), at("/data"));
  EXPECT_LT(at("/data"), at(""));
  EXPECT_LT(at("/bin"), at(""));
  EXPECT_EQ(order.back(), staging.native());
}

}  // namespace
}  // namespace ravok
