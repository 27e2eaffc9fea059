#include "tuf/target_download.hpp"

#include <cstdint>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::target_download_test {
namespace {

using testing::TemporaryRoot;

Json signed_as(const std::string& content) {
  return {{"length", content.size()},
          {"hashes", {{"sha256", digest(content, "sha256")}, {"sha512", digest(content, "sha512")}}}};
}

class VerifiedTarget : public ::testing::Test {
 protected:
  void expect_refused(const Json& target, const std::string& code, const std::string& message) const {
    const auto before = testing::tree_state(root_.path());
    EXPECT_FAILURE(verify_target_file(file_, target, {}), code, message);
    EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), before));
  }

  const TemporaryRoot root_;
  const std::filesystem::path file_ = root_.write("file", "content");
};

TEST_F(VerifiedTarget, HasItsLengthAndAllItsDigests) {
  EXPECT_NO_THROW(verify_target_file(file_, signed_as("content"), {}));
  EXPECT_NO_THROW(verify_target_file(root_.write("empty", ""), signed_as(""), {}));
}

TEST_F(VerifiedTarget, IsRefusedForAnotherLengthBeforeItIsRead) {
  std::uint64_t calls = 0;
  for (const char* content : {"conten", "contents", ""}) {
    EXPECT_FAILURE(
        verify_target_file(file_, signed_as(content), [&](std::uint64_t, std::uint64_t) { return ++calls > 0; }),
        "length_mismatch", "Target length does not match signed metadata");
  }
  EXPECT_EQ(calls, 0u);
}

TEST_F(VerifiedTarget, IsRefusedForAnyDigestThatDiffers) {
  constexpr const char* message = "Target hash does not match signed metadata";
  for (const char* algorithm : {"sha256", "sha512"}) {
    Json target = signed_as("content");
    target["hashes"][algorithm] = digest("CONTENT", algorithm);
    expect_refused(target, "hash_mismatch", message);
    target["hashes"][algorithm] = 7;
    expect_refused(target, "hash_mismatch", message);
  }
}

TEST_F(VerifiedTarget, IsRefusedWithoutDigests) {
  for (const Json& hashes : {Json::object(), Json::array(), Json(nullptr), Json("sha256")}) {
    Json target = signed_as("content");
    target["hashes"] = hashes;
    expect_refused(target, "invalid_hashes", "Target has no authenticated hashes");
  }
  expect_refused({{"length", 7}}, "invalid_hashes", "Target has no authenticated hashes");
  expect_refused({{"length", 7}, {"hashes", {{"md5", "x"}}}}, "unsupported_hash",
                 "Only SHA-256 and SHA-512 hashes are supported");
}

TEST_F(VerifiedTarget, IsAnOrdinaryFile) {
  constexpr const char* message = "Target is not an ordinary file";
  std::filesystem::create_symlink("file", root_ / "link");
  ASSERT_EQ(mkfifo((root_ / "pipe").c_str(), 0600), 0);
  root_.directory("folder");
  for (const char* name : {"link", "pipe", "folder", "missing"}) {
    EXPECT_FAILURE(verify_target_file(root_ / name, signed_as("content"), {}), "unsafe_path", message) << name;
  }
}

TEST_F(VerifiedTarget, StopsWhenProgressSaysSo) {
  EXPECT_FAILURE(verify_target_file(file_, signed_as("content"), [](std::uint64_t, std::uint64_t) { return false; }),
                 "cancelled", "File verification cancelled");
}

}  // namespace
}  // namespace ravok::target_download_test
