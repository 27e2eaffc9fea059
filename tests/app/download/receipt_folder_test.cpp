#include "app/download/receipt_folder.hpp"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "support/download_builder.hpp"
#include "support/failure.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::receipt_folder_test {
namespace {

using testing::archive_receipt;
using testing::checkpoint_of;
using testing::descriptor_receipt;
using testing::nonce_of;
using testing::write_ending;

constexpr const char* code = "launcher_download_uncertain";
constexpr const char* unknown_names = "Unknown download receipt names preserve the target store";
constexpr const char* unknown_resume_names = "Unknown resume metadata names were preserved";
constexpr const char* too_many = "Target download receipt count exceeds its scan bound";
constexpr const char* no_parent = "Download resume parent is not an ordinary directory";
constexpr const char* linked = "Managed path contains a symbolic link";

class ReceiptFolder : public ::testing::Test {
 protected:
  std::filesystem::path store() const { return root_ / "store"; }

  // Returns where the file of a receipt is, below the root.
  static std::string intent(char nonce, const std::string& ending = "") {
    return "store/download-intents/" + nonce_of(nonce) + ".json" + ending;
  }
  static std::string resume(const Json& receipt, const std::string& ending = "") {
    return "store/downloads/" + text_at(receipt, "temporary") + ".resume.json" + ending;
  }

  void write(const Json& receipt) const { root_.write(intent(text_at(receipt, "nonce")[0]), receipt.dump()); }

  // Reads the store and refuses in these words, twice, and nothing changes.
  void expect_refused(const char* refusal_code, const std::string& message) const {
    const auto before = testing::tree_state(root_.path());
    for (int i = 0; i < 2; ++i) {
      EXPECT_FAILURE(target_download_receipts(store()), refusal_code, message);
    }
    EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), before));
  }

  // What the scan says with this one entry of another kind in the place of a file.
  void expect_refused_kinds(const std::string& place) const {
    for (const char* kind : {"link", "dangling", "pipe", "directory"}) {
      const std::string word = kind;
      if (word == "link") {
        std::filesystem::create_symlink(root_.write("elsewhere", archive_receipt().dump()), root_ / place);
      } else if (word == "dangling") {
        std::filesystem::create_symlink("nowhere", root_ / place);
      } else if (word == "pipe") {
        ASSERT_EQ(mkfifo((root_ / place).c_str(), 0600), 0);
      } else {
        root_.directory(place);
      }
      const std::string name = std::filesystem::path(place).filename().native();
      const bool is_link = word == "link" || word == "dangling";
      expect_refused("unsafe_path", (is_link ? "Cannot open file: " : "Expected an ordinary file: ") + name);
      std::filesystem::remove(root_ / place);
    }
  }

  const testing::TemporaryRoot root_;
};

TEST_F(ReceiptFolder, IsEmptyWhereNothingWasEverDownloaded) {
  EXPECT_EQ(target_download_receipts(store()), Json::array());
  root_.directory("store");
  EXPECT_EQ(target_download_receipts(store()), Json::array());
  root_.directory("store/download-intents");
  EXPECT_EQ(target_download_receipts(store()), Json::array());
}

TEST_F(ReceiptFolder, TellsOfEveryReceiptByItsNonce) {
  write(descriptor_receipt('2', "complete"));
  write(archive_receipt('1'));
  root_.write(intent('1', write_ending('a')), archive_receipt('1', "complete").dump().substr(0, 100));
  root_.write(resume(archive_receipt('1')), checkpoint_of(archive_receipt('1')).dump());
  root_.write(resume(archive_receipt('1'), write_ending('b')), "{\"auth");
  root_.write("store/downloads/" + text_at(archive_receipt('1'), "temporary"), "con");
  root_.write("store/downloads/launcher/other", "content");
  const Json groups = target_download_receipts(store());
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(groups.at(0).at("nonce"), nonce_of('1'));
  EXPECT_EQ(groups.at(0).at("receipt"), archive_receipt('1'));
  EXPECT_EQ(groups.at(0).at("files").size(), 2u);
  ASSERT_EQ(groups.at(0).at("resume_files").size(), 2u);
  EXPECT_EQ(groups.at(0).at("resume_files").at(0),
            (Json{{"name", text_at(archive_receipt('1'), "temporary") + ".resume.json"},
                  {"length", checkpoint_of(archive_receipt('1')).dump().size()},
                  {"sha256", digest(checkpoint_of(archive_receipt('1')).dump(), "sha256")},
                  {"kind", "metadata"}}));
  EXPECT_EQ(groups.at(1).at("receipt"), descriptor_receipt('2', "complete"));
  EXPECT_EQ(groups.at(1).at("resume_files"), Json::array());
  EXPECT_EQ(target_download_resume_files(store(), archive_receipt('1')), groups.at(0).at("resume_files"));
}

TEST_F(ReceiptFolder, StopsAtAnyUnknownName) {
  write(archive_receipt('1'));
  for (const std::string& name : {std::string("x"), std::string(".json"), nonce_of('1'), nonce_of('1') + ".json.tmp",
                                  nonce_of('A') + ".json", nonce_of('1') + ".json" + write_ending('A'),
                                  std::string(".") + nonce_of('1') + ".json", std::string("readme\xff")}) {
    const auto path = root_.write("store/download-intents/" + name, archive_receipt('1').dump());
    expect_refused(code, unknown_names);
    std::filesystem::remove(path);
  }
  root_.directory("store/download-intents/folder");
  expect_refused(code, unknown_names);
}

TEST_F(ReceiptFolder, HasAtMost64Files) {
  write(archive_receipt('1'));
  for (std::size_t i = 1; i < 64; ++i) {
    std::string id(32, '0');
    id[0] = "0123456789abcdef"[i / 16];
    id[1] = "0123456789abcdef"[i % 16];
    root_.write(intent('1', "." + id + ".tmp"), "");
  }
  EXPECT_EQ(target_download_receipts(store()).at(0).at("files").size(), 64u);
  root_.write("store/download-intents/unknown", "");
  expect_refused("size_limit", too_many);
}

TEST_F(ReceiptFolder, ReadsBoundedOrdinaryFilesOnly) {
  const std::string text = archive_receipt('1').dump();
  root_.write(intent('1'), text + std::string(16'384 - text.size(), ' '));
  EXPECT_EQ(target_download_receipts(store()).size(), 1u);
  root_.write(intent('1'), text + std::string(16'385 - text.size(), ' '));
  expect_refused("size_limit", "File exceeds read limit");
  std::filesystem::remove(root_ / intent('1'));
  expect_refused_kinds(intent('1'));
}

TEST_F(ReceiptFolder, ReadsBoundedOrdinaryCheckpointsOnly) {
  const Json receipt = archive_receipt('1');
  const std::string text = checkpoint_of(receipt).dump();
  write(receipt);
  root_.write(resume(receipt), text + std::string(16'384 - text.size(), ' '));
  EXPECT_EQ(target_download_receipts(store()).size(), 1u);
  root_.write(resume(receipt), text + std::string(16'385 - text.size(), ' '));
  expect_refused("size_limit", "File exceeds read limit");
  std::filesystem::remove(root_ / resume(receipt));
  expect_refused_kinds(resume(receipt));
  expect_refused_kinds(resume(receipt, write_ending('a')));
}

TEST_F(ReceiptFolder, PreservesUnknownNamesOfCheckpoints) {
  write(archive_receipt('1'));
  for (const std::string& ending : {std::string("x"), std::string(".tmp"), write_ending('A'), std::string(".bak")}) {
    const auto path = root_.write(resume(archive_receipt('1'), ending), "{}");
    expect_refused(code, unknown_resume_names);
    std::filesystem::remove(path);
  }
  root_.write(resume(archive_receipt('2')), "of nobody");
  EXPECT_EQ(target_download_receipts(store()).size(), 1u);
}

TEST_F(ReceiptFolder, LooksAtNoMoreThan64CheckpointFiles) {
  const Json receipt = archive_receipt('1');
  write(receipt);
  for (std::size_t i = 0; i < 65; ++i) {
    std::string id(32, '0');
    id[0] = "0123456789abcdef"[i / 16];
    id[1] = "0123456789abcdef"[i % 16];
    root_.write(resume(receipt, "." + id + ".tmp"), "");
  }
  expect_refused("size_limit", "Frozen resume evidence exceeds its bound");
}

TEST_F(ReceiptFolder, ScansNoMoreThan4096Downloads) {
  write(archive_receipt('1'));
  for (int i = 0; i < 4096; ++i) {
    root_.write("store/downloads/launcher/" + std::to_string(i), "");
  }
  EXPECT_EQ(target_download_receipts(store()).size(), 1u);
  root_.write("store/downloads/launcher/4096", "");
  expect_refused(code, "Target resume metadata scan exceeds its bound");
}

TEST_F(ReceiptFolder, IsReachedThroughNoLink) {
  write(archive_receipt('1'));
  root_.directory("store/downloads/launcher");
  for (const char* name : {"store/download-intents", "store/downloads", "store/downloads/launcher"}) {
    std::filesystem::rename(root_ / name, root_ / "moved");
    std::filesystem::create_symlink(root_ / "moved", root_ / name);
    expect_refused("unsafe_path", linked);
    std::filesystem::remove(root_ / name);
    std::filesystem::rename(root_ / "moved", root_ / name);
  }
}

TEST_F(ReceiptFolder, IsAFolder) {
  root_.write("store/download-intents", "");
  expect_refused("unsafe_path", "Download receipt folder is not an ordinary directory");
  std::filesystem::remove(root_ / "store/download-intents");
  write(archive_receipt('1'));
  root_.write("store/downloads", "");
  expect_refused("unsafe_path", no_parent);
  std::filesystem::remove(root_ / "store/downloads");
  root_.write("store/downloads/launcher", "");
  expect_refused("unsafe_path", no_parent);
}

TEST_F(ReceiptFolder, KeepsDownloadsApart) {
  write(archive_receipt('1'));
  write(archive_receipt('2'));
  expect_refused(code, "Download target and partial ownership overlap; preserve them");
}

TEST_F(ReceiptFolder, IsRefusedForEveryReceiptThatIsRefused) {
  write(archive_receipt('1'));
  Json later = descriptor_receipt('2');
  later["schema_version"] = 2;
  root_.write(intent('2'), later.dump());
  expect_refused(code, "Unknown target download receipt was preserved");
  root_.write(intent('2'), "");
  expect_refused(code, "Unrecognized receipt-write bytes were preserved");
  std::filesystem::remove(root_ / intent('2'));
  root_.write(intent('2', write_ending('0')), descriptor_receipt('2').dump().substr(0, 40));
  expect_refused(code, "Invalid frozen download receipt group");
}

TEST_F(ReceiptFolder, IsRefusedForEveryCheckpointThatIsRefused) {
  write(archive_receipt('1'));
  root_.write(resume(archive_receipt('1')), checkpoint_of(archive_receipt('2')).dump());
  expect_refused(code, "Unowned resume evidence was preserved");
  root_.write(resume(archive_receipt('1')), "\xff");
  expect_refused(code, "Unknown resume-write bytes were preserved");
  root_.write(resume(archive_receipt('1')), R"({"a":1,"a":1})");
  expect_refused("duplicate_key", "JSON contains a duplicate object key");
}

TEST_F(ReceiptFolder, IsReadByWhoMayReadIt) {
  write(archive_receipt('1'));
  std::filesystem::permissions(root_ / intent('1'), std::filesystem::perms::none);
  const testing::OrdinaryUser user(root_);
  EXPECT_FAILURE(target_download_receipts(store()), "file_read", "Cannot open file: " + nonce_of('1') + ".json");
}

}  // namespace
}  // namespace ravok::receipt_folder_test
