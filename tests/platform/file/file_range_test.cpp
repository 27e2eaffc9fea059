#include "platform/file/file_range.hpp"

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "platform/file/file_digest.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

class FileRangeTest : public ::testing::Test {
 protected:
  FileRange range(std::uint64_t offset, std::uint64_t length) const {
    return FileRange::whole_file(path).part(offset, length);
  }

  const testing::TemporaryRoot root;
  const std::filesystem::path path = root.write("file", "0123456789");
};

TEST_F(FileRangeTest, ShowsItsBytesAndNoOthers) {
  EXPECT_EQ(read_range(range(0, 10), 10), "0123456789");
  EXPECT_EQ(read_range(range(3, 4), 4), "3456");
  EXPECT_EQ(read_range(range(10, 0), 0), "");
  std::string bytes(8, '.');
  const FileRange middle = range(3, 4);
  EXPECT_EQ(*middle.read_at(bytes.data(), bytes.size(), 1), 3u);
  EXPECT_EQ(bytes, "456.....");
  for (const std::uint64_t beyond : {std::uint64_t{4}, std::uint64_t{5}, UINT64_MAX}) {
    EXPECT_EQ(*middle.read_at(bytes.data(), bytes.size(), beyond), 0u) << beyond;
  }
}

TEST_F(FileRangeTest, RefusesOneByteBeyondTheLimitAndReadsNothing) {
  EXPECT_FAILURE(read_range(range(3, 4), 3), "size_limit", "File exceeds read limit");
}

TEST_F(FileRangeTest, TellsAFileThatEndsBeforeTheRangeDoes) {
  const FileRange end = range(8, 2);
  std::filesystem::resize_file(path, 9);
  EXPECT_FAILURE(read_range(end, 2), "file_read", "File changed while reading");
  EXPECT_FAILURE(digest_range_progress(end, "sha256", {}), "file_read", "Error reading file during verification");
}

TEST_F(FileRangeTest, IsOfNothingButAnOrdinaryFile) {
  EXPECT_FAILURE(FileRange::whole_file(root.path()), "unsafe_path",
                 "Expected an ordinary file: " + root.path().native());
  EXPECT_FAILURE(FileRange::whole_file(root / "none"), "file_read", "Cannot open file: " + (root / "none").native());
  std::filesystem::create_symlink("file", root / "link");
  EXPECT_FAILURE(FileRange::whole_file(root / "link"), "unsafe_path", "Cannot open file: " + (root / "link").native());
  EXPECT_FAILURE(FileRange::whole_file(std::string("file\0", 5)), "unsafe_path", "Native path contains a NUL byte");
}

TEST_F(FileRangeTest, HasNoPartThatReachesBeyondIt) {
  const FileRange middle = range(3, 4);
  EXPECT_EQ(read_range(middle.part(1, 2), 2), "45");
  EXPECT_EQ(read_range(middle.part(4, 0), 0), "");
  for (const auto& place : std::vector<std::pair<std::uint64_t, std::uint64_t>>{
           {0, 5}, {1, 4}, {4, 1}, {5, 0}, {1, UINT64_MAX}, {UINT64_MAX, 1}, {UINT64_MAX, UINT64_MAX}}) {
    EXPECT_FAILURE(middle.part(place.first, place.second), "file_range", "A part reaches beyond its file")
        << place.first;
  }
}

TEST_F(FileRangeTest, KeepsItsFileOpen) {
  const FileRange whole = range(0, 10);
  std::filesystem::remove(path);
  EXPECT_EQ(read_range(whole, 10), "0123456789");
}

TEST_F(FileRangeTest, IsDigestedAsAFileOfItsOwn) {
  const std::string content(200'000, 'x');
  root.write("file", "before" + content + "behind");
  EXPECT_EQ(digest_range_progress(range(6, content.size()), "sha256", {}), digest(content, "sha256"));
  // Lengths around the size of a piece, after which the digest looks for the end.
  for (const std::uint64_t length :
       {std::uint64_t{0}, std::uint64_t{65'535}, std::uint64_t{65'536}, std::uint64_t{65'537}}) {
    EXPECT_EQ(digest_range_progress(range(6, length), "sha256", {}), digest(content.substr(0, length), "sha256"))
        << length;
  }
  std::uint64_t last = 0;
  digest_range_progress(range(6, content.size()), "sha256", [&](std::uint64_t done, std::uint64_t total) {
    EXPECT_EQ(total, content.size());
    EXPECT_LE(last, done);
    last = done;
    return true;
  });
  EXPECT_EQ(last, content.size());
  EXPECT_FAILURE(digest_range_progress(range(6, content.size()), "sha256",
                                       [](std::uint64_t done, std::uint64_t) { return done == 0; }),
                 "cancelled", "File verification cancelled");
}

}  // namespace
}  // namespace ravok
