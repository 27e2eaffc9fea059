// A download as the launcher makes it: the fetch of a target, told to the store's receipts, and retired in the end.

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "app/download/launcher_downloads.hpp"
#include "app/download/target_downloads.hpp"
#include "platform/file/status.hpp"
#include "support/failure.hpp"
#include "support/launcher_builder.hpp"
#include "support/tree_state.hpp"
#include "support/tuf_place.hpp"
#include "tuf/target_fetch.hpp"

namespace ravok::owned_download_test {
namespace {

class OwnedDownload : public ::testing::Test {
 protected:
  OwnedDownload() {
    place_.repository.targets().add(archive_target(), place_.root.read("archive"));
    place_.repository.targets().add(launcher_manifest_target(), launcher_.text());
    place_.begin();
    place_.root.write("store/manifests/" + text_at(launcher_.reference(), "manifest_sha256") + ".json",
                      launcher_.text());
  }

  std::filesystem::path store() const { return place_.root / "store"; }
  std::string archive_target() const { return text_at(launcher_.document.at("archive"), "target"); }

  void fetch(const std::string& target, const Json& reference) {
    place_.client()->download(target, store() / "downloads", {}, TargetDownloads(store()).observer(target, reference),
                              {.scope = launcher_download_resume_scope(target, reference), .admission = {}});
  }
  void fetch_all() {
    fetch(launcher_manifest_target(), nullptr);
    fetch(archive_target(), launcher_.reference());
  }
  void break_off_archive(std::uint64_t bytes) {
    const Json hashes = place_.repository.targets().targets.at(archive_target()).at("hashes");
    const std::string name = remote_target_name(archive_target(), {{"hashes", hashes}}, true);
    place_.transport.on(name, testing::breaks_after(bytes));
    EXPECT_FAILURE(fetch_all(), "network", "Transferred a partial file");
    place_.transport.on(name, {});
  }

  Json receipts() const { return launcher_download_receipts(store()); }

  testing::TufPlace place_;
  testing::SampleLauncher launcher_{place_.root};
};

TEST_F(OwnedDownload, IsReceiptedFetchedAndRetired) {
  fetch_all();
  ASSERT_EQ(receipts().size(), 2u);
  for (const Json& group : receipts()) {
    EXPECT_EQ(group.at("receipt").at("phase"), "complete");
    EXPECT_TRUE(group.at("resume_files").empty());
  }
  LauncherDownloads(store()).retire(launcher_.reference());
  EXPECT_EQ(receipts(), Json::array());
  EXPECT_EQ(place_.root.read("store/downloads/" + archive_target()), place_.root.read("archive"));
  EXPECT_EQ(place_.root.read("store/downloads/" + launcher_manifest_target()), launcher_.text());
}

TEST_F(OwnedDownload, IsContinuedUnderTheSameReceipt) {
  break_off_archive(50);
  Json prepared;
  for (const Json& group : receipts()) {
    prepared = is_text(group.at("receipt").at("phase"), "prepared") ? group : prepared;
  }
  ASSERT_TRUE(prepared.is_object());
  EXPECT_EQ(prepared.at("resume_files").size(), 1u);
  fetch_all();
  ASSERT_EQ(receipts().size(), 2u);
  for (const Json& group : receipts()) {
    EXPECT_EQ(group.at("receipt").at("phase"), "complete");
    EXPECT_TRUE(group.at("resume_files").empty());
  }
  EXPECT_TRUE(std::filesystem::exists(store() / "download-intents" / (text_at(prepared, "nonce") + ".json")));
  LauncherDownloads(store()).retire(launcher_.reference());
  EXPECT_EQ(receipts(), Json::array());
}

TEST_F(OwnedDownload, IsTriedAgainAfterBytesThatWereNotTheTarget) {
  const Json hashes = place_.repository.targets().targets.at(archive_target()).at("hashes");
  const std::string name = remote_target_name(archive_target(), {{"hashes", hashes}}, true);
  place_.transport.on(name, testing::answers_with(std::string(place_.root.read("archive").size(), 'x')));
  for (int i = 0; i < 2; ++i) {
    EXPECT_FAILURE(fetch(archive_target(), launcher_.reference()), "hash_mismatch",
                   "Target hash does not match signed metadata");
  }
  EXPECT_EQ(receipts().size(), 1u);
  place_.transport.on(name, {});
  fetch_all();
  LauncherDownloads(store()).retire(launcher_.reference());
  EXPECT_EQ(receipts(), Json::array());
}

TEST_F(OwnedDownload, IsNotContinuedUnderAReceiptThatWasEdited) {
  break_off_archive(50);
  for (const Json& group : receipts()) {
    if (is_text(group.at("receipt").at("phase"), "prepared")) {
      const std::string path = "store/download-intents/" + text_at(group, "nonce") + ".json";
      place_.root.write(path, place_.root.read(path) + " ");
    }
  }
  const auto before = testing::tree_state(store());
  EXPECT_FAILURE(fetch(archive_target(), launcher_.reference()), "launcher_download_uncertain",
                 "Resume requires the unchanged prepared receipt and matching checkpoint");
  EXPECT_TRUE(testing::same_tree(testing::tree_state(store()), before));
}

// The end of a process between the rename of a file and its receipt.
TEST_F(OwnedDownload, IsSettledByTheNextRunWithoutTheNetwork) {
  const TargetObserver observer = TargetDownloads(store()).observer(archive_target(), launcher_.reference());
  const auto stops_at_the_end = [&](std::string_view phase, const Json& target, std::string_view temporary) {
    require(phase != "complete", "stopped", "as a process does that ends");
    observer(phase, target, temporary);
  };
  const std::string scope = launcher_download_resume_scope(archive_target(), launcher_.reference());
  EXPECT_FAILURE(place_.client()->download(archive_target(), store() / "downloads", {}, stops_at_the_end,
                                           {.scope = scope, .admission = {}}),
                 "stopped", "as a process does that ends");
  ASSERT_EQ(receipts().size(), 1u);
  EXPECT_EQ(receipts().at(0).at("receipt").at("phase"), "prepared");
  EXPECT_EQ(receipts().at(0).at("resume_files").size(), 1u);
  const std::size_t requests = place_.transport.requests().size();
  fetch(archive_target(), launcher_.reference());
  EXPECT_EQ(place_.transport.requests().size(), requests + 2);  // for a next root and a timestamp
  EXPECT_EQ(receipts().at(0).at("receipt").at("phase"), "complete");
  LauncherDownloads(store()).retire(launcher_.reference());
  EXPECT_EQ(receipts(), Json::array());
  EXPECT_EQ(testing::tree_state(store() / "downloads").size(), 2u);
}

}  // namespace
}  // namespace ravok::owned_download_test
