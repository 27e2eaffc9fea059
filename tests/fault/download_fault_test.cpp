// Whatever call is spoilt while a download is recorded or retired, what is left is a record that the next run
// recognises and settles, or bytes that it preserves and names.

#include <csignal>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/download/launcher_downloads.hpp"
#include "fault/fault_runner.hpp"
#include "support/download_builder.hpp"
#include "support/failure.hpp"
#include "support/launcher_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::testing::download_fault_test {
namespace {

using Codes = std::set<std::string>;

// The codes with which a run may refuse when a call of it fails.
const Codes codes_of_telling = {"file_remove", "unsafe_path", "permissions",
                                "file_sync",   "file_read",   "insufficient_space",
                                "tree_read",   "file_write",  "launcher_download_uncertain",
                                "file_system"};
const Codes codes_of_retiring = {"file_system", "unsafe_path", "permissions",
                                 "file_sync",   "file_read",   "tree_read",
                                 "file_remove", "file_digest", "launcher_download_uncertain"};

class DownloadFault : public ::testing::Test {
 protected:
  DownloadFault() : launcher_(root_) {
    plan_.root = root_.path();
    target_ = text_at(launcher_.document.at("archive"), "target");
    archive_ = receipt_of(target_, nonce_of('1'), "prepared", description_of("content"), launcher_.reference());
  }

  std::filesystem::path store() const { return root_ / "store"; }

  ProgramRun sample(const std::vector<std::string>& arguments) const {
    return {RAVOK_SAMPLE_DOWNLOAD, arguments, {{"HOME", "/nowhere"}}, ""};
  }
  ProgramRun telling(const char* phase, const Json& partial) const {
    return sample({"tell", store(), target_, phase, "content", sha256(), partial.get<std::string>()});
  }
  ProgramRun settling() const { return sample({"tell", store(), target_, "complete", "content", sha256()}); }
  ProgramRun retiring() const { return sample({"retire", store(), sha256()}); }

  std::string sha256() const { return text_at(launcher_.reference(), "manifest_sha256"); }

  Json complete(Json receipt) const {
    receipt["phase"] = "complete";
    return receipt;
  }

  void reset() const {
    std::filesystem::remove_all(store());
    for (const char* folder : {"store", "store/downloads/builds", "store/download-intents", "store/manifests"}) {
      root_.directory(folder);
    }
    for (const char* folder : {"store", "store/downloads", "store/downloads/builds", "store/download-intents"}) {
      std::filesystem::permissions(root_ / folder, std::filesystem::perms::owner_all);
    }
  }

  static std::string intent(const Json& receipt, const std::string& ending = "") {
    return "store/download-intents/" + text_at(receipt, "nonce") + ".json" + ending;
  }
  void write(const Json& receipt) const { root_.write(intent(receipt), receipt.dump()); }

  void judge_ending(const FaultOutcome& outcome, const Codes& codes) const {
    if (ends_process(outcome.mode) && !outcome.at_end()) {
      EXPECT_EQ(outcome.result.signal, SIGKILL);
    } else if (outcome.result.exit_code != 0) {
      EXPECT_EQ(outcome.result.exit_code, 1) << outcome.result.errors;
      const std::string code = outcome.result.errors.substr(0, outcome.result.errors.find(':'));
      EXPECT_TRUE(codes.contains(code)) << outcome.result.errors;
    } else {
      EXPECT_EQ(outcome.result.errors, "");
    }
  }

  // Every file among the receipts holds the first bytes of a text that was to be written, and the receipt's own file
  // holds all of one.
  void judge_receipt_bytes(const Json& receipt) const {
    for (const auto& entry : std::filesystem::directory_iterator(root_ / "store/download-intents")) {
      const std::string name = entry.path().filename();
      const std::string text = root_.read("store/download-intents/" + name);
      const bool is_whole = text == receipt.dump() || text == complete(receipt).dump();
      EXPECT_TRUE(is_whole || name.ends_with(".tmp")) << name << ": " << text;
      EXPECT_TRUE(receipt.dump().starts_with(text) || complete(receipt).dump().starts_with(text)) << text;
    }
  }

  // Runs the program again without a fault.
  void expect_again(const ProgramRun& run) const {
    const ProgramResult result = run_with_fault(run, root_.path()).result;
    EXPECT_EQ(result.exit_code, 0) << result.errors;
  }

  Json receipts() const { return launcher_download_receipts(store()); }

  void try_all() const {
    const FaultTable table = run_faults(plan_);
    std::cout << table;
    EXPECT_GT(table.runs, 20u);
  }

  const TemporaryRoot root_;
  const SampleLauncher launcher_;
  std::string target_;
  Json archive_;
  FaultPlan plan_;
};

TEST_F(DownloadFault, FirstReceiptIsThereWholeOrIsPreserved) {
  plan_.run = telling("prepared", archive_.at("temporary"));
  plan_.reset = [&] { reset(); };
  plan_.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_telling);
    judge_receipt_bytes(archive_);
    const bool is_there = std::filesystem::exists(root_ / intent(archive_));
    EXPECT_TRUE(is_there || outcome.result.exit_code != 0);
    const auto before = tree_state(store());
    if (const auto failure = failure_of([&] { receipts(); })) {
      // The start of a write alone has no owner. Only the end of the process can leave one.
      EXPECT_EQ(failure->code, "launcher_download_uncertain");
      EXPECT_STREQ(failure->what(), "Invalid frozen download receipt group");
      EXPECT_TRUE(ends_process(outcome.mode) && !is_there);
      const ProgramResult again = run_with_fault(settling(), root_.path()).result;
      EXPECT_EQ(again.errors, "launcher_download_uncertain: Invalid frozen download receipt group\n");
    } else {
      const Json groups = receipts();
      EXPECT_EQ(groups.size(), before.size() > 4 ? 1u : 0u);
      EXPECT_TRUE(groups.empty() || groups.at(0).at("receipt") == archive_);
      expect_again(groups.empty() ? plan_.run : settling());
    }
    EXPECT_TRUE(same_tree(only(tree_state(store()), "downloads"), only(before, "downloads")));
  };
  try_all();
}

TEST_F(DownloadFault, NewAttemptTakesThePlaceOfOneThatLeftNothing) {
  const auto attempt = [&](char nonce) {
    return receipt_of(target_, nonce_of(nonce), "prepared", description_of("content"), launcher_.reference());
  };
  plan_.run = telling("prepared", attempt('2').at("temporary"));
  plan_.reset = [&] {
    reset();
    write(archive_);
  };
  plan_.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_telling);
    if (const auto failure = failure_of([&] { receipts(); })) {
      EXPECT_STREQ(failure->what(), "Invalid frozen download receipt group");
      EXPECT_TRUE(ends_process(outcome.mode) && !std::filesystem::exists(root_ / intent(archive_)));
      return;
    }
    const Json groups = receipts();
    EXPECT_LE(groups.size(), 1u);
    EXPECT_TRUE(groups.empty() || groups.at(0).at("receipt") == archive_ || groups.at(0).at("receipt") == attempt('2'));
    EXPECT_TRUE(outcome.result.exit_code != 0 || groups.at(0).at("receipt") == attempt('2'));
    expect_again(telling("prepared", attempt('3').at("temporary")));
    ASSERT_EQ(receipts().size(), 1u);
    EXPECT_EQ(receipts().at(0).at("receipt"), attempt('3'));
  };
  try_all();
}

// What a crash leaves between the rename of a file and its receipt, and then what a crash leaves of the repair.
TEST_F(DownloadFault, ReceiptIsCompletedOrSettledByTheNextRun) {
  for (const ProgramRun& run : {telling("complete", archive_.at("temporary")), settling()}) {
    plan_.run = run;
    plan_.reset = [&] {
      reset();
      write(archive_);
      root_.write("store/downloads/" + target_, "content");
    };
    plan_.judge = [&](const FaultOutcome& outcome) {
      judge_ending(outcome, codes_of_telling);
      judge_receipt_bytes(archive_);
      EXPECT_TRUE(std::filesystem::exists(root_ / intent(archive_)));
      const Json groups = receipts();
      ASSERT_EQ(groups.size(), 1u);
      const bool is_complete = groups.at(0).at("receipt") == complete(archive_);
      EXPECT_TRUE(is_complete || groups.at(0).at("receipt") == archive_);
      EXPECT_TRUE(is_complete || outcome.result.exit_code != 0);
      expect_again(settling());
      EXPECT_EQ(receipts().at(0).at("receipt"), complete(archive_));
      EXPECT_EQ(root_.read("store/downloads/" + target_), "content");
    };
    try_all();
  }
}

TEST_F(DownloadFault, RetirementIsFinishedByTheNextRun) {
  const std::string content = root_.read("archive");
  const Json archive = receipt_of(target_, nonce_of('1'), "complete", description_of(content), launcher_.reference());
  const Json descriptor =
      receipt_of(launcher_manifest_target(), nonce_of('2'), "complete", description_of(launcher_.text()), nullptr);
  const std::string resume = "store/downloads/" + text_at(archive, "temporary") + ".resume.json";
  const auto lasting = [&] {
    return without(tree_state(store()), {"download-intents", resume.substr(std::string("store/").size()),
                                         resume.substr(std::string("store/").size()) + write_ending('b')});
  };
  std::optional<TreeState> files;
  plan_.run = retiring();
  plan_.reset = [&] {
    reset();
    write(archive);
    write(descriptor);
    root_.write(intent(archive, write_ending('a')), archive.dump().substr(0, 100));
    root_.write(resume, checkpoint_of(archive, 0).dump());
    root_.write(resume + write_ending('b'), checkpoint_of(archive, 0).dump().substr(0, 100));
    root_.write("store/downloads/" + target_, content);
    root_.write("store/downloads/" + launcher_manifest_target(), launcher_.text());
    root_.write("store/manifests/" + sha256() + ".json", launcher_.text());
    files = lasting();
  };
  plan_.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_retiring);
    // Each group that is left is explained, and each checkpoint has its receipt.
    for (const Json& group : receipts()) {
      EXPECT_TRUE(group.at("receipt") == archive || group.at("receipt") == descriptor);
    }
    const bool has_resume =
        std::filesystem::exists(root_ / resume) || std::filesystem::exists(root_ / (resume + write_ending('b')));
    EXPECT_TRUE(!has_resume || std::filesystem::exists(root_ / intent(archive)));
    EXPECT_TRUE(same_tree(lasting(), *files));
    if (outcome.result.exit_code != 0) {
      expect_again(retiring());
    }
    EXPECT_EQ(receipts(), Json::array());
    EXPECT_TRUE(std::filesystem::is_empty(root_ / "store/download-intents"));
    EXPECT_TRUE(same_tree(tree_state(store()), [&] {
      TreeState state = *files;
      state.merge(only(tree_state(store()), "download-intents"));
      return state;
    }()));
  };
  try_all();
}

}  // namespace
}  // namespace ravok::testing::download_fault_test
