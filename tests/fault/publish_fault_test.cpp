// Whatever call of a publication is spoilt, no manifest is there without the whole archive that it names, a publication
// that fails leaves nothing behind, and the tree stays as it is.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/game_manifest.hpp"
#include "fault/fault_runner.hpp"
#include "platform/file/file_digest.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::testing::publish_fault_test {
namespace {

class PublishFault : public ::testing::Test {
 protected:
  PublishFault() {
    put("bin/program", std::string(70'000, 'p'), 0755);
    put("data/one", "content", 0644);
    tree_before_ = tree_state(root_ / "tree");
  }

  void put(const std::string& path, const std::string& content, mode_t mode) const {
    EXPECT_EQ(chmod(root_.write("tree/" + path, content).c_str(), mode), 0);
  }

  ProgramRun publishing() const {
    return {RAVOK_PUBLISH,
            {"snapshot", root_ / "tree", "--kind", "game", "--build-id", "build-1", "--executable", "bin/program",
             "--platform", "linux-x86_64", "--game-id", "game", "--display-name", "Game", "--level", "1", "--output",
             output_},
            {{"HOME", "/nowhere"}},
            ""};
  }

  void reset() const {
    std::filesystem::remove_all(output_);
    std::filesystem::create_directory(output_);
  }

  void expect_whole() const {
    const GameManifest manifest = GameManifest::parse(Json::parse(root_.read("output/" + name_ + ".manifest.json")));
    ASSERT_TRUE(std::filesystem::exists(archive_));
    EXPECT_EQ(std::filesystem::file_size(archive_), manifest.archive_length);
    EXPECT_EQ(digest_file(archive_, "sha256"), manifest.archive_sha256);
    EXPECT_EQ(manifest.files.size(), 2u);
  }

  void judge(const FaultOutcome& outcome) const {
    EXPECT_TRUE(same_tree(tree_state(root_ / "tree"), tree_before_));
    const bool is_published = std::filesystem::exists(manifest_);
    // A file that the system does not remove stays.
    const bool removes = outcome.call.name == "unlink" || outcome.call.name == "unlinkat";
    if (ends_process(outcome.mode)) {
      EXPECT_EQ(outcome.result.signal, SIGKILL);
    } else if (outcome.result.exit_code == 0) {
      EXPECT_TRUE(is_published);
    } else {
      EXPECT_EQ(outcome.result.exit_code, 1);
      EXPECT_NE(outcome.result.errors, "");
      EXPECT_EQ(outcome.result.output, "");
      EXPECT_TRUE(removes || std::filesystem::is_empty(output_));
    }
    if (is_published && !removes) {
      expect_whole();
    }
  }

  const TemporaryRoot root_;
  const std::filesystem::path output_ = root_ / "output";
  const std::string name_ = "game-linux-x86_64-build-1";
  const std::filesystem::path archive_ = output_ / (name_ + ".tar.zst");
  const std::filesystem::path manifest_ = output_ / (name_ + ".manifest.json");
  TreeState tree_before_;
};

TEST_F(PublishFault, ASnapshotIsPublishedWholeOrNotAtAll) {
  FaultPlan plan;
  plan.run = publishing();
  plan.root = root_.path();
  plan.reset = [&] { reset(); };
  plan.judge = [&](const FaultOutcome& outcome) { judge(outcome); };
  const FaultTable table = run_faults(plan);
  std::cout << table;
  EXPECT_GT(table.runs, 30u);
  // A power cut can take nothing from a finished publication.
  const FaultCall& last = table.calls.back();
  EXPECT_EQ(std::count(last.modes.begin(), last.modes.end(), FaultMode::power), 0);
}

}  // namespace
}  // namespace ravok::testing::publish_fault_test
