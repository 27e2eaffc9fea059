#include "app/download/target_downloads.hpp"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/download/receipt_folder.hpp"
#include "platform/file/status.hpp"
#include "support/download_builder.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::target_downloads_test {
namespace {

using testing::archive_receipt;
using testing::archive_reference;
using testing::checkpoint_of;
using testing::description_of;
using testing::nonce_of;
using testing::write_ending;

constexpr const char* code = "launcher_download_uncertain";
constexpr const char* no_staging_name = "TUF download did not supply its exact owned staging name";
constexpr const char* changed = "Download ownership changed before verification completed";
constexpr const char* no_resume = "Resume requires the unchanged prepared receipt and matching checkpoint";
constexpr const char* used_nonce = "New download nonce already belongs to retained metadata";

const std::string target = "launcher/archive.tar.zst";

std::string temporary(char nonce) { return target + "." + nonce_of(nonce) + ".partial"; }

class DownloadObserver : public ::testing::Test {
 protected:
  std::filesystem::path store() const { return root_ / "store"; }

  void tell(std::string_view phase, char nonce) const { tell(phase, temporary(nonce)); }
  void tell(std::string_view phase, const std::string& partial) const {
    TargetDownloads(store()).observer(target, archive_reference())(phase, description_of("content"), partial);
  }

  static std::string intent(char nonce, const std::string& ending = "") {
    return "store/download-intents/" + nonce_of(nonce) + ".json" + ending;
  }
  std::string receipt(char nonce) const { return root_.read(intent(nonce)); }

  std::filesystem::path write_target() const { return root_.write("store/downloads/" + target, "content"); }
  std::filesystem::path write_partial(char nonce) const {
    return root_.write("store/downloads/" + temporary(nonce), "con");
  }
  std::filesystem::path write_checkpoint(char nonce) const {
    return root_.write("store/downloads/" + temporary(nonce) + ".resume.json",
                       checkpoint_of(archive_receipt(nonce)).dump());
  }

  // Telling this is refused in these words, and nothing changes.
  void expect_refused(std::string_view phase, const std::string& partial, const char* refusal_code,
                      const std::string& message) const {
    const auto before = testing::tree_state(root_.path());
    EXPECT_FAILURE(tell(phase, partial), refusal_code, message) << phase;
    EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), before)) << phase;
  }
  void expect_refused(std::string_view phase, char nonce, const std::string& message) const {
    expect_refused(phase, temporary(nonce), code, message);
  }

  const testing::TemporaryRoot root_;
};

TEST_F(DownloadObserver, WritesAReceiptAndCompletesIt) {
  tell("prepared", '1');
  EXPECT_EQ(receipt('1'), archive_receipt('1').dump());
  EXPECT_EQ(link_status_of(root_ / intent('1'))->permissions, permissions::private_file);
  EXPECT_EQ(target_download_receipts(store()).size(), 1u);
  write_target();
  tell("complete", '1');
  EXPECT_EQ(receipt('1'), archive_receipt('1', "complete").dump());
  EXPECT_EQ(root_.names().size(), 6u);
}

TEST_F(DownloadObserver, WritesAReceiptOfTheManifestWithoutAReference) {
  const TargetObserver observer = TargetDownloads(store()).observer(launcher_manifest_target(), nullptr);
  observer("prepared", description_of("content"), launcher_manifest_target() + "." + nonce_of('1') + ".partial");
  EXPECT_EQ(receipt('1'), testing::descriptor_receipt('1').dump());
}

TEST_F(DownloadObserver, ProvesAReceiptAndItsCheckpointWhenItResumes) {
  tell("prepared", '1');
  write_partial('1');
  write_checkpoint('1');
  const auto before = testing::tree_state(root_.path());
  tell("resumed", '1');
  EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), before));
}

TEST_F(DownloadObserver, ResumesOnlyTheUnchangedReceiptWithItsCheckpoint) {
  expect_refused("resumed", '1', no_resume);
  tell("prepared", '1');
  write_partial('1');
  expect_refused("resumed", '1', no_resume);
  const auto torn = root_.write("store/downloads/" + temporary('1') + ".resume.json" + write_ending('a'), "{");
  expect_refused("resumed", '1', no_resume);
  write_checkpoint('1');
  expect_refused("resumed", '2', no_resume);
  tell("resumed", '1');
  root_.write(intent('1'), archive_receipt('1').dump() + " ");
  expect_refused("resumed", '1', no_resume);
  root_.write(intent('1'), archive_receipt('1', "complete").dump());
  expect_refused("resumed", '1', no_resume);
  root_.write(intent('1'), archive_receipt('1').dump());
  root_.write(intent('1', write_ending('a')), archive_receipt('1', "complete").dump());
  expect_refused("resumed", '1', no_resume);
}

TEST_F(DownloadObserver, NeedsTheExactStagingName) {
  for (const std::string& name :
       {target, target + ".partial", "archive.tar.zst." + nonce_of('1') + ".partial",
        target + nonce_of('1') + ".partial", target + "." + std::string(31, '1') + ".partial",
        target + "." + std::string(33, '1') + ".partial", target + "." + std::string(32, 'A') + ".partial",
        target + "." + nonce_of('1') + ".part", "x" + temporary('1'), temporary('1') + "x"}) {
    for (const char* phase : {"prepared", "resumed", "complete"}) {
      expect_refused(phase, name, code, no_staging_name);
    }
  }
  expect_refused("prepared", "", code, no_staging_name);
  expect_refused("resumed", "", code, no_staging_name);
  expect_refused("other", temporary('1'), code, "TUF download reported an unknown phase");
}

TEST_F(DownloadObserver, RefusesADescriptionThatNoReceiptCanCarry) {
  const TargetObserver observer = TargetDownloads(store()).observer(target, archive_reference());
  const auto refused = [&](const Json& description, const char* message) {
    EXPECT_FAILURE(observer("prepared", description, temporary('1')), code, message) << description.dump();
  };
  for (const Json& description :
       std::vector<Json>{nullptr, Json::object(), {{"length", 7}}, {{"length", 7}, {"hashes", 1}}}) {
    refused(description, "Download authorization exceeds its known bounds");
  }
  Json upper = description_of("content");
  upper["hashes"]["sha256"] = std::string(64, 'A');
  refused(upper, "Unknown download hash contract was preserved");
  EXPECT_FAILURE(TargetDownloads(store()).observer(target, nullptr)("prepared", description_of("x"), temporary('1')),
                 code, "Archive download has no known manifest identity");
  EXPECT_FAILURE(TargetDownloads(store()).observer(launcher_manifest_target(), archive_reference())(
                     "prepared", description_of("x"), launcher_manifest_target() + "." + nonce_of('1') + ".partial"),
                 code, "Descriptor download must not invent an installed reference");
  EXPECT_EQ(root_.names(), std::vector<std::string>());
}

TEST_F(DownloadObserver, WritesNoSecondReceiptForANonce) {
  tell("prepared", '1');
  expect_refused("prepared", '1', used_nonce);
  write_target();
  tell("complete", '1');
  expect_refused("prepared", '1', used_nonce);
}

// As it is after bytes that were not the target, a lack of room, or a crash before the first checkpoint.
TEST_F(DownloadObserver, GivesUpAnEarlierAttemptThatLeftNothing) {
  tell("prepared", '1');
  root_.write(intent('1', write_ending('a')), "{\"auth");
  tell("prepared", '2');
  EXPECT_EQ(receipt('2'), archive_receipt('2').dump());
  ASSERT_EQ(target_download_receipts(store()).size(), 1u);
  EXPECT_FALSE(std::filesystem::exists(root_ / intent('1')));
  write_target();
  tell("complete", '2');
  EXPECT_EQ(receipt('2'), archive_receipt('2', "complete").dump());
}

TEST_F(DownloadObserver, GivesUpNoAttemptThatLeftAFile) {
  constexpr const char* overlap = "Download target and partial ownership overlap; preserve them";
  tell("prepared", '1');
  const auto partial = write_partial('1');
  expect_refused("prepared", '2', overlap);
  const auto checkpoint = write_checkpoint('1');
  expect_refused("prepared", '2', overlap);
  std::filesystem::remove(partial);
  expect_refused("prepared", '2', overlap);
  std::filesystem::remove(checkpoint);
  tell("prepared", '2');
  EXPECT_FALSE(std::filesystem::exists(root_ / intent('1')));
}

// As it is when a version is published before the one before it was installed.
TEST_F(DownloadObserver, GivesUpACompleteReceiptForOtherBytesOrAnotherReference) {
  Json newer = archive_reference();
  newer["build_id"] = "build-2";
  const std::vector<std::pair<Json, Json>> others = {{archive_reference(), description_of("CONTENT")},
                                                     {newer, description_of("content")}};
  for (const auto& [reference, description] : others) {
    const TargetObserver other = TargetDownloads(store()).observer(target, reference);
    tell("prepared", '1');
    write_target();
    write_checkpoint('1');
    tell("complete", '1');
    root_.write(intent('1', write_ending('a')), "{\"auth");
    other("prepared", description, temporary('2'));
    EXPECT_FALSE(std::filesystem::exists(root_ / intent('1')));
    EXPECT_EQ(target_download_receipts(store()).size(), 1u);
    other("complete", description, temporary('2'));
    EXPECT_EQ(target_download_receipts(store()).at(0).at("receipt").at("phase"), "complete");
    std::filesystem::remove_all(store());
  }
}

TEST_F(DownloadObserver, GivesUpACompleteReceiptForAFileThatIsGone) {
  tell("prepared", '1');
  const auto file = write_target();
  tell("complete", '1');
  std::filesystem::remove(file);
  tell("prepared", '2');
  EXPECT_FALSE(std::filesystem::exists(root_ / intent('1')));
  EXPECT_EQ(target_download_receipts(store()).size(), 1u);
}

TEST_F(DownloadObserver, GivesUpNoCompleteReceiptWhosePartialFileIsBack) {
  tell("prepared", '1');
  tell("complete", '1');
  write_partial('1');
  expect_refused("prepared", '2', "Download target and partial ownership overlap; preserve them");
}

// As it is when the disk fails while the target is read. A second receipt would block every later download.
TEST_F(DownloadObserver, GivesUpACompleteReceiptForAFileThatWasNotFoundWhole) {
  tell("prepared", '1');
  write_target();
  tell("complete", '1');
  tell("prepared", '2');
  EXPECT_FALSE(std::filesystem::exists(root_ / intent('1')));
  EXPECT_EQ(receipt('2'), archive_receipt('2').dump());
  EXPECT_EQ(target_download_receipts(store()).size(), 1u);
}

// Before a new attempt, one that ended between the move of its file and its receipt is settled, and so can be given up.
TEST_F(DownloadObserver, GivesUpAnEarlierAttemptWhoseTargetIsThere) {
  tell("prepared", '1');
  write_target();
  write_checkpoint('1');
  tell("prepared", '2');
  EXPECT_FALSE(std::filesystem::exists(root_ / intent('1')));
  EXPECT_EQ(target_download_receipts(store()).size(), 1u);
}

TEST_F(DownloadObserver, RetainsAtMost32Downloads) {
  const std::string digits = "0123456789abcdefghijklmnopqrstuvwxyz";
  const auto prepare = [&](int number) {
    const std::string name = "target-" + std::to_string(number);
    std::string nonce(32, '0');
    nonce[0] = digits[static_cast<std::size_t>(number / 16)];
    nonce[1] = digits[static_cast<std::size_t>(number % 16)];
    TargetDownloads(store()).observer(name, archive_reference())("prepared", description_of("content"),
                                                                 name + "." + nonce + ".partial");
  };
  for (int i = 0; i < 32; ++i) {
    prepare(i);
  }
  EXPECT_EQ(target_download_receipts(store()).size(), 32u);
  const auto before = testing::tree_state(root_.path());
  EXPECT_FAILURE(prepare(32), "launcher_storage_full", "Retained download receipts reached their capacity");
  EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), before));
}

TEST_F(DownloadObserver, CompletesOnlyTheUnchangedReceipt) {
  write_target();
  root_.directory("store/download-intents");
  expect_refused("complete", temporary('1'), "file_read", "Cannot open file: " + (root_ / intent('1')).native());
  tell("prepared", '1');
  const std::string text = receipt('1');
  for (const std::string& other : {text + " ", archive_receipt('1', "complete").dump()}) {
    root_.write(intent('1'), other);
    expect_refused("complete", '1', changed);
  }
  // One byte, edited by hand.
  std::string edited = text;
  edited[edited.find("build-1") + 6] = '2';
  root_.write(intent('1'), edited);
  expect_refused("complete", '1', changed);
  edited[edited.find("prepared")] = 'P';
  root_.write(intent('1'), edited);
  expect_refused("complete", '1', "Unknown target download receipt was preserved");
}

TEST_F(DownloadObserver, SettlesWhatACrashLeftBehindTheRename) {
  tell("prepared", '1');
  write_target();
  tell("complete", "");
  EXPECT_EQ(receipt('1'), archive_receipt('1', "complete").dump());
  const auto before = testing::tree_state(root_.path());
  tell("complete", "");
  EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), before));
}

TEST_F(DownloadObserver, SettlesAtEveryPhaseOfAnotherDownload) {
  tell("prepared", '1');
  write_target();
  EXPECT_FAILURE(tell("resumed", '2'), code, no_resume);
  EXPECT_EQ(receipt('1'), archive_receipt('1', "complete").dump());
}

TEST_F(DownloadObserver, SettlesNothingThatMayStillBeOnItsWay) {
  tell("prepared", '1');
  const auto unsettled = [&](const char* why) {
    tell("complete", "");
    EXPECT_EQ(receipt('1'), archive_receipt('1').dump()) << why;
  };
  unsettled("there is no target");
  write_partial('1');
  unsettled("there is no target");
  write_target();
  unsettled("there is a partial file");
  std::filesystem::remove(root_ / ("store/downloads/" + temporary('1')));
  std::filesystem::remove(root_ / ("store/downloads/" + target));
  root_.directory("store/downloads/" + target);
  unsettled("the target is no file");
}

TEST_F(DownloadObserver, SettlesOnlyTheSameDownload) {
  tell("prepared", '1');
  write_target();
  const auto other = [&](const Json& reference, const char* content) {
    TargetDownloads(store()).observer(target, reference)("complete", description_of(content), "");
    EXPECT_EQ(receipt('1'), archive_receipt('1').dump());
  };
  other(archive_reference(), "CONTENT");
  Json reference = archive_reference();
  reference["build_id"] = "build-2";
  other(reference, "content");
  TargetDownloads(store()).observer("launcher/other", archive_reference())("complete", description_of("content"), "");
  EXPECT_EQ(receipt('1'), archive_receipt('1').dump());
}

TEST_F(DownloadObserver, SettlesNoReceiptThatItsFileDoesNotHold) {
  root_.write(intent('1', write_ending('a')), archive_receipt('1').dump());
  write_target();
  const auto before = testing::tree_state(root_.path());
  tell("complete", "");
  EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), before));
  root_.write(intent('1'), archive_receipt('1').dump() + " ");
  expect_refused("complete", "", code, changed);
}

TEST_F(DownloadObserver, StopsAtWhatItCannotExplain) {
  tell("prepared", '1');
  const auto foreign = root_.write("store/download-intents/foreign", "");
  for (const char* phase : {"prepared", "resumed", "complete"}) {
    expect_refused(phase, '1', "Unknown download receipt names preserve the target store");
  }
  std::filesystem::remove(foreign);
  write_checkpoint('1');
  root_.write("store/downloads/" + temporary('1') + ".resume.json.old", "");
  for (const char* phase : {"prepared", "resumed", "complete"}) {
    expect_refused(phase, '1', "Unknown resume metadata names were preserved");
  }
}

TEST_F(DownloadObserver, GoesThroughNoLink) {
  tell("prepared", '1');
  std::filesystem::rename(root_ / "store/download-intents", root_ / "moved");
  std::filesystem::create_symlink(root_ / "moved", root_ / "store/download-intents");
  for (const char* phase : {"prepared", "resumed", "complete"}) {
    expect_refused(phase, temporary('2'), "unsafe_path", "Managed path contains a symbolic link");
  }
}

}  // namespace
}  // namespace ravok::target_downloads_test
