// Whatever call of the making of an installer in one file is spoilt, the file is there whole or not at all; and
// whatever call of its reading is spoilt, nothing of it is taken for good.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "app/install/native_package.hpp"
#include "domain/crypto.hpp"
#include "fault/fault_runner.hpp"
#include "support/package_builder.hpp"
#include "support/single_file.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing::single_file_fault_test {
namespace {

class SingleFileFault : public ::testing::Test {
 protected:
  const TemporaryRoot root_;
  const std::string seal_ = InitialPackage().write(root_ / "package");
  const std::filesystem::path output_ = root_ / "output";
  const std::filesystem::path installer_ = output_ / "installer";
};

TEST_F(SingleFileFault, AnInstallerIsPublishedWholeOrNotAtAll) {
  const std::string slot = "ravok initial package = " + std::string(64, '-');
  root_.write("program", "image " + slot + empty_appended_slot() + " end");
  const ProgramRun publishing = {
      RAVOK_PUBLISH,
      {"installer", root_ / "package", installer_, "--program", root_ / "program", "--single-file"},
      {{"HOME", "/nowhere"}},
      ""};
  const auto reset = [&] {
    std::filesystem::remove_all(output_);
    std::filesystem::create_directory(output_);
  };
  reset();
  ASSERT_EQ(run_program(publishing).exit_code, 0);
  const std::string whole = root_.read("output/installer");

  FaultPlan plan;
  plan.run = publishing;
  plan.root = output_;
  plan.reset = reset;
  plan.judge = [&](const FaultOutcome& outcome) {
    const bool is_published = std::filesystem::exists(installer_);
    if (is_published) {
      EXPECT_EQ(root_.read("output/installer"), whole);
      struct stat status {};
      EXPECT_EQ(stat(installer_.c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 07777, 0755u);
    }
    if (ends_process(outcome.mode)) {
      EXPECT_EQ(outcome.result.signal, SIGKILL);
    } else if (outcome.result.exit_code == 0) {
      EXPECT_TRUE(is_published);
    } else {
      EXPECT_EQ(outcome.result.exit_code, 1);
      EXPECT_NE(outcome.result.errors, "");
      EXPECT_EQ(outcome.result.output, "");
      // A file that the system does not remove stays.
      const bool removes = outcome.call.name == "unlink" || outcome.call.name == "unlinkat";
      EXPECT_TRUE(removes || std::filesystem::is_empty(output_));
    }
  };
  const FaultTable table = run_faults(plan);
  std::cout << table;
  EXPECT_GT(table.runs, 20u);
}

TEST_F(SingleFileFault, APackageIsReadWholeOrRefusedInWords) {
  const AppendedPlace place = write_single_file(root_ / "package", installer_);
  FaultPlan plan;
  plan.run = {RAVOK_SAMPLE_SINGLE_FILE, {installer_, appended_place_text(place), seal_}, {}, ""};
  plan.root = output_;
  plan.modes = {FaultMode::eio};
  plan.every_call = true;
  plan.reset = [] {};
  plan.judge = [&](const FaultOutcome& outcome) {
    // The cryptographic library looks for a file of its own, which need not be there.
    if (outcome.call.path == installer_) {
      EXPECT_EQ(outcome.result.exit_code, 1) << outcome.result.errors;
      EXPECT_NE(outcome.result.errors.find(": "), std::string::npos) << outcome.result.errors;
    }
  };
  const FaultTable table = run_faults(plan);
  std::cout << table;
  EXPECT_GT(std::count_if(table.calls.begin(), table.calls.end(),
                          [&](const FaultCall& call) { return call.path == installer_; }),
            20);
}

}  // namespace
}  // namespace ravok::testing::single_file_fault_test
