#include "app/download/launcher_downloads.hpp"

#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/download/target_downloads.hpp"
#include "domain/crypto.hpp"
#include "support/download_builder.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/launcher_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::launcher_downloads_test {
namespace {

using testing::checkpoint_of;
using testing::nonce_of;
using testing::write_ending;

constexpr const char* code = "launcher_download_uncertain";
constexpr const char* no_manifest = "Download retirement requires durable matching native manifest authority";
constexpr const char* no_authority = "Download retirement lost its immutable authority";
constexpr const char* reappeared = "A completed download temporary file reappeared";

// A store that has downloaded a version's manifest and its archive.
class DownloadRetirement : public ::testing::Test {
 protected:
  DownloadRetirement() {
    write_manifest(launcher_.text());
    write(archive());
    write(descriptor());
    root_.write("store/downloads/" + archive_target(), root_.read("archive"));
    root_.write("store/downloads/" + launcher_manifest_target(), launcher_.text());
  }

  void retire() const { LauncherDownloads(root_ / "store").retire(launcher_.reference()); }

  std::string archive_target() const { return text_at(launcher_.document.at("archive"), "target"); }
  Json archive() const {
    return testing::receipt_of(archive_target(), nonce_of('1'), "complete",
                               testing::description_of(root_.read("archive")), launcher_.reference());
  }
  Json descriptor() const {
    return testing::receipt_of(launcher_manifest_target(), nonce_of('2'), "complete",
                               testing::description_of(launcher_.text()), nullptr);
  }

  // The text of the archive's receipt in this phase.
  std::string as(const char* phase) const {
    Json receipt = archive();
    receipt["phase"] = phase;
    return receipt.dump();
  }

  static std::string intent(const Json& receipt, const std::string& ending = "") {
    return "store/download-intents/" + text_at(receipt, "nonce") + ".json" + ending;
  }
  void write(const Json& receipt) const { root_.write(intent(receipt), receipt.dump()); }
  void write_manifest(const std::string& text) const {
    root_.write("store/manifests/" + text_at(launcher_.reference(), "manifest_sha256") + ".json", text);
  }

  // Stores another manifest under its digest, and returns the reference to it.
  Json store_manifest(const std::string& text) const {
    const std::string sha256 = digest(text, "sha256");
    root_.write("store/manifests/" + sha256 + ".json", text);
    return {{"manifest_sha256", sha256}, {"build_id", "build-1"}};
  }

  // The retirement is refused in these words, and nothing changes.
  void expect_refused(const std::string& refusal_code, const std::string& message) const {
    expect_refused(launcher_.reference(), refusal_code, message);
  }
  void expect_refused(const Json& reference, const std::string& refusal_code, const std::string& message) const {
    const auto before = testing::tree_state(root_.path());
    EXPECT_FAILURE(LauncherDownloads(root_ / "store").retire(reference), refusal_code, message) << reference.dump();
    EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), before));
  }

  // The retirement removes exactly these receipts and files, and nothing else changes.
  void expect_retired(const std::vector<std::string>& removed) const {
    const auto before = testing::tree_state(root_.path());
    for (const std::string& name : removed) {
      EXPECT_TRUE(before.contains(name)) << name;
    }
    retire();
    EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), testing::without(before, removed)));
    retire();
    EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), testing::without(before, removed)));
  }

  const testing::TemporaryRoot root_;
  const testing::SampleLauncher launcher_{root_};
};

TEST_F(DownloadRetirement, RemovesTheReceiptsOfAVersionAndLeavesItsFiles) {
  expect_retired({intent(archive()), intent(descriptor())});
}

TEST_F(DownloadRetirement, RemovesWhatWasLeftOfWritesAndCheckpoints) {
  const std::string resume = "store/downloads/" + text_at(archive(), "temporary") + ".resume.json";
  root_.write(resume, checkpoint_of(archive(), 0).dump());
  root_.write(resume + write_ending('a'), "{\"auth");
  root_.write(intent(archive(), write_ending('b')), "{\"auth");
  root_.write(intent(archive(), write_ending('c')), as("prepared"));
  expect_retired({intent(archive()), intent(descriptor()), resume, resume + write_ending('a'),
                  intent(archive(), write_ending('b')), intent(archive(), write_ending('c'))});
}

TEST_F(DownloadRetirement, RemovesAReceiptThatIsCompleteInAWriteAlone) {
  root_.write(intent(archive()), as("prepared"));
  root_.write(intent(archive(), write_ending('a')), as("complete"));
  expect_retired({intent(archive()), intent(archive(), write_ending('a')), intent(descriptor())});
}

TEST_F(DownloadRetirement, LeavesWhatIsNotFinishedOrOfAnotherVersion) {
  std::filesystem::remove(root_ / intent(archive()));
  std::filesystem::remove(root_ / intent(descriptor()));
  Json unfinished = archive();
  unfinished["phase"] = "prepared";
  Json other = testing::receipt_of("other", nonce_of('3'), "complete", testing::description_of("x"),
                                   testing::archive_reference());
  Json other_descriptor = descriptor();
  other_descriptor["authorization"] = testing::description_of("another manifest");
  for (const Json& receipt : {unfinished, other, other_descriptor}) {
    write(receipt);
  }
  expect_retired({});
}

TEST_F(DownloadRetirement, NeedsTheStoredManifestOfTheVersion) {
  const Json reference = launcher_.reference();
  for (const char* key : {"manifest_sha256", "build_id"}) {
    for (const Json& value : std::vector<Json>{nullptr, 1, "", "../x"}) {
      Json other = reference;
      other[key] = value;
      expect_refused(other, code, no_manifest);
    }
    Json other = reference;
    other.erase(key);
    expect_refused(other, code, no_manifest);
  }
  for (const Json& other : std::vector<Json>{nullptr, 1, "x", Json::array()}) {
    expect_refused(other, code, no_manifest);
  }
  Json missing = reference;
  missing["manifest_sha256"] = std::string(64, 'b');
  const std::string path = "store/manifests/" + std::string(64, 'b') + ".json";
  expect_refused(missing, "file_read", "Cannot open file: " + (root_ / path).native());
  write_manifest(launcher_.text() + " ");
  expect_refused(code, no_manifest);
  write_manifest("{");
  const auto failure = testing::failure_of([&] { retire(); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "invalid_json");
  write_manifest(std::string(524'289, ' '));
  expect_refused("size_limit", "File exceeds read limit");
}

TEST_F(DownloadRetirement, NeedsAManifestForThisPlatform) {
  for (const Json& platform : std::vector<Json>{"windows-x86_64", "another", "", 1}) {
    Json document = launcher_.document;
    document["platform"] = platform;
    expect_refused(store_manifest(document.dump()), code, no_manifest);
  }
}

TEST_F(DownloadRetirement, NeedsAManifestThatNamesItsArchive) {
  for (const char* text : {"[]", "1", "{}", R"({"build_id":"build-1"})"}) {
    expect_refused(store_manifest(text), code, no_manifest);
  }
  for (const char* pointer : {"/archive", "/archive/target", "/archive/sha256", "/archive/length"}) {
    Json document = launcher_.document;
    document[Json::json_pointer(pointer)] = Json::array();
    expect_refused(store_manifest(document.dump()), code, no_manifest);
  }
}

// A later client may start less than the one that downloaded it.
TEST_F(DownloadRetirement, RetiresAReleaseThatThisClientWouldNotStart) {
  Json document = launcher_.document;
  document["bootstrap_abi"] = 2;
  const Json reference = store_manifest(document.dump());
  write(testing::receipt_of(archive_target(), nonce_of('1'), "complete", archive().at("authorization"), reference));
  const auto before = testing::tree_state(root_.path());
  LauncherDownloads(root_ / "store").retire(reference);
  EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), testing::without(before, {intent(archive())})));
}

TEST_F(DownloadRetirement, NeedsTheManifestsAuthorityForTheArchive) {
  for (const char* pointer : {"/authorization/length", "/authorization/hashes/sha256"}) {
    Json changed = archive();
    changed[Json::json_pointer(pointer)] =
        std::string(pointer).ends_with("length") ? Json(1) : Json(std::string(64, 'b'));
    write(changed);
    expect_refused(code, no_authority);
  }
  Json without_sha256 = archive();
  without_sha256["authorization"]["hashes"] = {{"sha512", digest(root_.read("archive"), "sha512")}};
  write(without_sha256);
  expect_refused(code, no_authority);
  std::filesystem::remove(root_ / intent(archive()));
  write(
      testing::receipt_of("unknown", nonce_of('1'), "complete", archive().at("authorization"), launcher_.reference()));
  expect_refused(code, no_authority);
}

TEST_F(DownloadRetirement, AcceptsASecondDigestThatTheFileHas) {
  Json receipt = archive();
  receipt["authorization"]["hashes"]["sha512"] = digest(root_.read("archive"), "sha512");
  write(receipt);
  expect_retired({intent(archive()), intent(descriptor())});
}

// A repository may sign by SHA-512 alone.
TEST_F(DownloadRetirement, RemovesTheReceiptOfTheManifestByAnyDigestOfIt) {
  Json receipt = descriptor();
  receipt["authorization"]["hashes"]["sha512"] = digest(launcher_.text(), "sha512");
  write(receipt);
  expect_retired({intent(archive()), intent(descriptor())});
  receipt["authorization"]["hashes"].erase("sha256");
  write(receipt);
  expect_retired({intent(descriptor())});
  receipt["authorization"]["hashes"]["sha512"] = digest(std::string(launcher_.text().size(), 'x'), "sha512");
  write(receipt);
  expect_retired({});
}

TEST_F(DownloadRetirement, StopsWhenAPartialFileIsBack) {
  for (const Json& receipt : {archive(), descriptor()}) {
    const auto partial = root_.write("store/downloads/" + text_at(receipt, "temporary"), "");
    expect_refused(code, reappeared);
    std::filesystem::remove(partial);
    std::filesystem::create_symlink("nowhere", partial);
    expect_refused("unsafe_path", "Managed path contains a symbolic link");
    std::filesystem::remove(partial);
  }
}

TEST_F(DownloadRetirement, VerifiesTheDownloadedFiles) {
  for (const std::string& name : {archive_target(), launcher_manifest_target()}) {
    const std::string path = "store/downloads/" + name;
    const std::string content = root_.read(path);
    std::string flipped = content;
    flipped.back() = static_cast<char>(flipped.back() ^ 1);
    root_.write(path, flipped);
    expect_refused("hash_mismatch", "Target hash does not match signed metadata");
    root_.write(path, content + "x");
    expect_refused("length_mismatch", "Target length does not match signed metadata");
    std::filesystem::remove(root_ / path);
    expect_refused("unsafe_path", "Target is not an ordinary file");
    root_.write(path, content);
  }
}

TEST_F(DownloadRetirement, StopsAtAReceiptThatWasEdited) {
  const std::string text = archive().dump();
  std::size_t accepted = 0;
  for (std::size_t place = 0; place < text.size(); ++place) {
    std::string edited = text;
    edited[place] = edited[place] == 'x' ? 'y' : 'x';
    root_.write(intent(archive()), edited);
    const auto before = testing::tree_state(root_.path());
    if (testing::failure_of([&] { retire(); })) {
      EXPECT_TRUE(testing::same_tree(testing::tree_state(root_.path()), before));
      continue;
    }
    // It is the receipt of another version now, and stays; that of the manifest is removed.
    ++accepted;
    EXPECT_EQ(root_.read(intent(archive())), edited);
    EXPECT_NE(Json::parse(edited).at("reference").at("build_id"), "build-1");
    write(descriptor());
  }
  EXPECT_EQ(accepted, std::string("build-1").size());
}

TEST_F(DownloadRetirement, StopsAtAReceiptThatIsNotWrittenAsItWrites) {
  for (const Json& receipt : {archive(), descriptor()}) {
    for (const std::string& text : {receipt.dump() + "\n", " " + receipt.dump(), receipt.dump(1)}) {
      root_.write(intent(receipt), text);
      expect_refused(code, "Download receipt changed before retirement");
    }
    write(receipt);
  }
}

TEST_F(DownloadRetirement, StopsAtWhatItCannotExplain) {
  root_.write("store/download-intents/foreign", "");
  expect_refused(code, "Unknown download receipt names preserve the target store");
}

// Whatever changes between two of its looks is noticed, or came too late to be.
TEST_F(DownloadRetirement, NoticesWhatChangesMeanwhile) {
  const std::string stray = intent(archive(), write_ending('a'));
  std::set<std::string> messages;
  for (const auto& event : std::vector<std::function<void()>>{
           [&] { root_.write(intent(archive()), archive().dump() + " "); }, [&] { root_.write(stray, ""); }}) {
    for (int number = 1; number < 100; ++number) {
      std::filesystem::remove(root_ / stray);
      write(archive());
      write(descriptor());
      const testing::Planned plan(testing::meanwhile("open", event, number));
      const auto failure = testing::failure_of([&] { retire(); });
      if (!plan.happened()) {
        EXPECT_GT(number, 5);
        break;
      }
      if (failure) {
        EXPECT_EQ(failure->code, code);
        messages.insert(failure->what());
        EXPECT_TRUE(std::filesystem::exists(root_ / intent(archive())));
        EXPECT_EQ(root_.read(intent(descriptor())), descriptor().dump());
      }
    }
  }
  EXPECT_EQ(messages, (std::set<std::string>{"Download receipt changed before retirement",
                                             "Download ownership changed before retirement"}));
}

TEST_F(DownloadRetirement, GoesThroughNoLink) {
  for (const char* name : {"store/download-intents", "store/downloads", "store/manifests"}) {
    std::filesystem::rename(root_ / name, root_ / "moved");
    std::filesystem::create_symlink(root_ / "moved", root_ / name);
    expect_refused("unsafe_path", "Managed path contains a symbolic link");
    std::filesystem::remove(root_ / name);
    std::filesystem::rename(root_ / "moved", root_ / name);
  }
}

TEST(LauncherDownloadForwards, AreThoseOfTargets) {
  const testing::TemporaryRoot root;
  EXPECT_EQ(launcher_download_resume_scope("file", nullptr),
            R"({"kind":"ravok-launcher-download","reference":null,"target":"file"})");
  EXPECT_EQ(launcher_download_receipts(root / "store"), Json::array());
  TargetDownloads(root / "store")
      .observer("file", testing::archive_reference())("prepared", testing::description_of("x"),
                                                      "file." + nonce_of('1') + ".partial");
  EXPECT_EQ(launcher_download_receipts(root / "store").size(), 1u);
}

}  // namespace
}  // namespace ravok::launcher_downloads_test
