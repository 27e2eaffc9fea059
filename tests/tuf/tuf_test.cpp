#include "tuf/tuf.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/json.hpp"
#include "platform/file/native_lock.hpp"
#include "support/failure.hpp"
#include "support/lock_calls.hpp"
#include "support/signing.hpp"
#include "support/temporary_root.hpp"

namespace ravok::tuf_test {
namespace {

using testing::root_document;
using testing::signed_document;
using testing::signing_authority;
using testing::TemporaryRoot;
using testing::TestKey;

using Names = std::vector<std::string>;

constexpr const char* already = "Trusted root is already initialized";

class Initialize : public ::testing::Test {
 protected:
  std::string good() const { return signed_document(root_document({&key_}), {&key_}); }
  void initialize(const std::string& text) const { TufClient::initialize(root_.path(), text); }

  void expect_refused(const std::string& text, const char* code, const char* message) const {
    EXPECT_FAILURE(initialize(text), code, message);
    EXPECT_EQ(root_.names(), Names{".lock"});
  }

  TemporaryRoot root_;
  TestKey key_ = TestKey::ed25519();
};

TEST_F(Initialize, KeepsTheTextByteForByte) {
  const std::string text = "\n " + Json::parse(good()).dump(3) + "\n\n";
  initialize(text);
  EXPECT_EQ(root_.read("root.json"), text);
  EXPECT_EQ(root_.names(), (Names{".lock", "root.json"}));
  EXPECT_EQ(root_.read(".lock"), "");
}

TEST_F(Initialize, RefusesASecondRootOfAnyText) {
  const std::string first = good();
  initialize(first);
  const TestKey other = TestKey::ed25519();
  for (const std::string& text : {first, signed_document(root_document({&other}, 2), {&other}), std::string("{")}) {
    EXPECT_FAILURE(initialize(text), "already_initialized", already);
    EXPECT_EQ(root_.read("root.json"), first);
    EXPECT_EQ(root_.names(), (Names{".lock", "root.json"}));
  }
}

TEST_F(Initialize, TakesWhateverHasTheNameForARoot) {
  std::filesystem::create_symlink("nowhere", root_ / "root.json");
  EXPECT_FAILURE(initialize(good()), "already_initialized", already);
  EXPECT_EQ(root_.names(), (Names{".lock", "root.json@"}));
  std::filesystem::remove(root_ / "root.json");
  root_.directory("root.json");
  EXPECT_FAILURE(initialize(good()), "already_initialized", already);
  EXPECT_EQ(root_.names(), (Names{".lock", "root.json/"}));
}

TEST_F(Initialize, LetsAnExpiredRootIn) {
  initialize(signed_document(root_document({&key_}, 7, "2001-01-01T00:00:00Z"), {&key_}));
  EXPECT_EQ(root_.names(), (Names{".lock", "root.json"}));
}

TEST_F(Initialize, TakesARootOfTheGreatestSize) {
  std::string text = good();
  text.resize(524'288, ' ');
  expect_refused(text + " ", "size_limit", "JSON exceeds its size limit");
  initialize(text);
  EXPECT_EQ(root_.read("root.json"), text);
}

TEST_F(Initialize, RefusesWhatIsNoStrictDocument) {
  expect_refused(R"({"signed":{},"signed":{}})", "duplicate_key", "JSON contains a duplicate object key");
  expect_refused(R"({"signed":1.5})", "invalid_number", "Floating point numbers are not allowed in protocol data");
  EXPECT_EQ(testing::failure_of([&] { initialize(good() + "x"); }).value().code, "invalid_json");
  EXPECT_EQ(root_.names(), Names{".lock"});
}

TEST_F(Initialize, RefusesADocumentOfAnotherShape) {
  expect_refused("{}", "invalid_metadata", "Metadata must contain a signed object and signature array");
  expect_refused(signed_document(testing::role_body("timestamp"), {&key_}), "metadata_type",
                 "Unexpected metadata type");
  Json body = root_document({&key_});
  body["roles"].erase("snapshot");
  expect_refused(signed_document(body, {&key_}), "invalid_metadata",
                 "Metadata is missing a required field or has an invalid field type");
}

TEST_F(Initialize, RefusesARootThatDoesNotMeetItsOwnThreshold) {
  const TestKey other = TestKey::ed25519();
  expect_refused(signed_document(root_document({&key_}), {}), "signature_threshold",
                 "Metadata does not meet its authorized signature threshold");
  expect_refused(signed_document(root_document({&key_}), {&other}), "signature_threshold",
                 "Metadata does not meet its authorized signature threshold");
  expect_refused(signed_document(root_document({&key_, &other}), {&key_}), "signature_threshold",
                 "Metadata does not meet its authorized signature threshold");
  Json body = root_document({&key_});
  body["roles"]["root"]["threshold"] = 2;
  expect_refused(signed_document(body, {&key_}), "invalid_threshold",
                 "Signing threshold exceeds unique authorized keys");
}

TEST_F(Initialize, CountsOnlyTheKeysOfTheRootRole) {
  const TestKey other = TestKey::ed25519();
  Json body = root_document({&key_, &other});
  body["roles"]["root"] = signing_authority({&key_}, 1);
  expect_refused(signed_document(body, {&other}), "signature_threshold",
                 "Metadata does not meet its authorized signature threshold");
  initialize(signed_document(body, {&key_}));
}

TEST_F(Initialize, RefusesARootThatWasChangedAfterItWasSigned) {
  Json document = Json::parse(good());
  document["signed"]["version"] = 2;
  expect_refused(document.dump(), "signature_threshold", "Metadata does not meet its authorized signature threshold");
}

TEST_F(Initialize, SucceedsAfterARefusal) {
  expect_refused("{}", "invalid_metadata", "Metadata must contain a signed object and signature array");
  const std::string text = good();
  initialize(text);
  EXPECT_EQ(root_.read("root.json"), text);
}

TEST_F(Initialize, RefusesALockThatIsNotPrivate) {
  ASSERT_EQ(chmod(root_.write(".lock", "").c_str(), 0666), 0);
  EXPECT_FAILURE(initialize(good()), "lock_failed", "Operation lock must be an ordinary private owned file");
  EXPECT_EQ(root_.names(), Names{".lock"});
}

TEST_F(Initialize, WaitsForTheLockAndThenSeesWhatItsHolderDid) {
  std::optional<FileLock> lock(std::in_place, root_ / ".lock", false, LockMode::shared);
  const testing::WhenLocked when_locked([&] {
    EXPECT_EQ(root_.names(), Names{".lock"});
    root_.write("root.json", "of the holder");
    lock.reset();
  });
  EXPECT_EQ(testing::failure_of([this] { initialize(good()); }).value().code, "already_initialized");
  EXPECT_EQ(when_locked.count(), 1u);
  EXPECT_EQ(root_.read("root.json"), "of the holder");
}

}  // namespace
}  // namespace ravok::tuf_test
