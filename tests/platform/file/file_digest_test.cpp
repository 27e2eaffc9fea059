#include "platform/file/file_digest.hpp"

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok::file_digest_test {
namespace {

using Calls = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

// A callback that keeps its calls and lets the work go on.
ProgressCallback recorder(Calls& calls) {
  return [&calls](std::uint64_t done, std::uint64_t total) {
    calls.emplace_back(done, total);
    return true;
  };
}

void append(const std::filesystem::path& path, std::string_view text) {
  std::ofstream(path, std::ios::binary | std::ios::app) << text;
}

TEST(DigestFile, GivesTheDigestOfTheContent) {
  const testing::TemporaryRoot root;
  for (const std::size_t size : {0u, 1u, 65535u, 65536u, 65537u, 200000u}) {
    const std::string content(size, 'x');
    const auto file = root.write("file", content);
    EXPECT_EQ(digest_file(file, "sha256"), digest(content, "sha256")) << size;
    EXPECT_EQ(digest_file(file, "sha512"), digest(content, "sha512")) << size;
  }
}

TEST(DigestFile, ReportsAMissingFileAheadOfABadAlgorithm) {
  const testing::TemporaryRoot root;
  EXPECT_FAILURE(digest_file(root / "missing", "md5"), "file_read",
                 "Could not open file for verification: " + (root / "missing").string());
}

TEST(DigestFile, RefusesAnUnknownAlgorithm) {
  const testing::TemporaryRoot root;
  const auto file = root.write("file", "x");
  EXPECT_FAILURE(digest_file(file, "SHA256"), "unsupported_hash", "Only SHA-256 and SHA-512 hashes are supported");
}

TEST(DigestFile, ReportsAReadThatFails) {
  const testing::TemporaryRoot root;
  EXPECT_FAILURE(digest_file(root.path(), "sha256"), "file_read", "Error reading file during verification");
}

TEST(DigestFileProgress, ReportsTheStartAndEveryPiece) {
  const testing::TemporaryRoot root;
  const auto file = root.write("file", std::string(150000, 'x'));
  Calls calls;
  digest_file_progress(file, "sha256", recorder(calls));
  EXPECT_EQ(calls, (Calls{{0, 150000}, {65536, 150000}, {131072, 150000}, {150000, 150000}}));
}

TEST(DigestFileProgress, ReportsTheEmptyReadAfterAWholePiece) {
  const testing::TemporaryRoot root;
  const auto file = root.write("file", std::string(65536, 'x'));
  Calls calls;
  digest_file_progress(file, "sha256", recorder(calls));
  EXPECT_EQ(calls, (Calls{{0, 65536}, {65536, 65536}, {65536, 65536}}));
}

TEST(DigestFileProgress, ReportsAnEmptyFileTwice) {
  const testing::TemporaryRoot root;
  const auto file = root.write("file", "");
  Calls calls;
  EXPECT_EQ(digest_file_progress(file, "sha256", recorder(calls)), digest("", "sha256"));
  EXPECT_EQ(calls, (Calls{{0, 0}, {0, 0}}));
}

TEST(DigestFileProgress, StopsBeforeAnyByteWhenTheFirstCallSaysSo) {
  const testing::TemporaryRoot root;
  // A directory opens but cannot be read. Reading a byte of it would give another failure.
  int calls = 0;
  const auto stop = [&calls](std::uint64_t, std::uint64_t) {
    ++calls;
    return false;
  };
  EXPECT_FAILURE(digest_file_progress(root.path(), "sha256", stop), "cancelled", "File verification cancelled");
  EXPECT_EQ(calls, 1);
}

TEST(DigestFileProgress, StopsAfterThePieceWhoseCallSaysSo) {
  const testing::TemporaryRoot root;
  const auto file = root.write("file", std::string(200000, 'x'));
  std::vector<std::uint64_t> seen;
  const auto stop = [&seen](std::uint64_t done, std::uint64_t) {
    seen.push_back(done);
    return done == 0;
  };
  EXPECT_FAILURE(digest_file_progress(file, "sha256", stop), "cancelled", "File verification cancelled");
  EXPECT_EQ(seen, (std::vector<std::uint64_t>{0, 65536}));
}

TEST(DigestFileProgress, RefusesAFileThatGrowsBeyondItsSizeAtTheStart) {
  const testing::TemporaryRoot root;
  const auto file = root.write("file", "content");
  const auto grow = [&file](std::uint64_t, std::uint64_t) {
    append(file, "more");
    return true;
  };
  EXPECT_FAILURE(digest_file_progress(file, "sha256", grow), "content_mismatch",
                 "File grew beyond its verification bound");
}

TEST(DigestFileProgress, DigestsAFileThatShrinksAsItIs) {
  const testing::TemporaryRoot root;
  const auto file = root.write("file", "content");
  const auto shrink = [&file](std::uint64_t, std::uint64_t) {
    std::filesystem::resize_file(file, 3);
    return true;
  };
  EXPECT_EQ(digest_file_progress(file, "sha256", shrink), digest("con", "sha256"));
}

}  // namespace
}  // namespace ravok::file_digest_test
