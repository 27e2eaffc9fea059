#include "app/command/program_version.hpp"

#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/process/native_platform.hpp"

namespace ravok::program_version_test {
namespace {

using Arguments = std::vector<std::string>;

const std::string version(client_version);
const std::string platform(native_platform());

TEST(ProgramVersion, NamesProgramVersionCommitAndPlatform) {
  const ProgramVersion program = {"ravok-install", "0123456789012345678901234567890123456789"};
  EXPECT_EQ(
      version_text(program),
      "ravok-install " + version + "\nCommit: 0123456789012345678901234567890123456789\nPlatform: " + platform + "\n");
  EXPECT_EQ(version_document(program), Json({{"schema_version", 1},
                                             {"program", "ravok-install"},
                                             {"version", version},
                                             {"commit", "0123456789012345678901234567890123456789"},
                                             {"platform", platform}}));
}

TEST(ProgramVersion, LeavesOutACommitThatNobodyKnows) {
  const ProgramVersion program = {"ravok-install", ""};
  EXPECT_EQ(version_text(program), "ravok-install " + version + "\nPlatform: " + platform + "\n");
  EXPECT_EQ(version_document(program).at("commit"), nullptr);
}

TEST(ProgramVersion, NamesTheBuildOfALauncher) {
  const ProgramVersion launcher = {"ravok", "", "1.2.3"};
  EXPECT_EQ(version_text(launcher), "ravok " + version + "\nBuild: 1.2.3\nPlatform: " + platform + "\n");
  EXPECT_EQ(version_document(launcher).at("build_id"), "1.2.3");
}

TEST(AnswerVersion, AnswersACommandLineThatAsksForNothingElse) {
  for (const Arguments& arguments : {Arguments{"--version"}, {"--version", "--json"}, {"--json", "--version"}}) {
    ::testing::internal::CaptureStdout();
    const std::optional<int> code = answer_version(arguments, {"ravok", "abc"});
    const std::string output = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(code, 0);
    EXPECT_EQ(output, arguments.size() == 1 ? version_text({"ravok", "abc"})
                                            : version_document({"ravok", "abc"}).dump() + "\n");
  }
}

TEST(AnswerVersion, LeavesEveryOtherCommandLineToItsGrammar) {
  for (const Arguments& arguments : {Arguments{},
                                     {"--json"},
                                     {"--version", "--version"},
                                     {"--json", "--json"},
                                     {"status", "--version"},
                                     {"--version", "status"},
                                     {"--data-dir", "--version"},
                                     {"--version", "--json", "--json"},
                                     {"-version"},
                                     {"version"},
                                     {"--version", "--json", "status"},
                                     {"--version", ""},
                                     {"--version="}}) {
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(answer_version(arguments, {"ravok", ""}), std::nullopt);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  }
}

}  // namespace
}  // namespace ravok::program_version_test
