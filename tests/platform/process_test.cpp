#include "platform/process.hpp"

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/os.hpp"
#include "support/failure.hpp"

namespace ravok {
namespace {

// The arguments of a program named "program" that is started with these texts.
std::vector<std::string> arguments_of(const std::vector<std::string>& texts) {
  std::vector<const char*> table = {"program"};
  for (const std::string& text : texts) {
    table.push_back(text.c_str());
  }
  return process_arguments(static_cast<int>(table.size()), table.data());
}

TEST(ProcessArguments, LeavesTheProgramsNameOut) {
  EXPECT_EQ(arguments_of({"a", "", "\xff"}), (std::vector<std::string>{"a", "", "\xff"}));
}

TEST(ProcessArguments, NeverLooksAtTheProgramsName) {
  const char* const table[] = {nullptr};
  EXPECT_TRUE(process_arguments(1, table).empty());
}

TEST(ProcessArguments, RefusesAMissingTable) {
  const char* const table[] = {"program"};
  for (const auto& [argc, argv] : {std::pair(0, &table[0]), std::pair(-1, &table[0])}) {
    EXPECT_FAILURE(process_arguments(argc, argv), "argument_encoding", "Native command arguments are missing");
  }
  EXPECT_FAILURE(process_arguments(1, nullptr), "argument_encoding", "Native command arguments are missing");
}

TEST(ProcessArguments, RefusesAMissingText) {
  const char* const table[] = {"program", nullptr};
  EXPECT_FAILURE(process_arguments(2, table), "argument_encoding", "Native process text is missing");
}

TEST(ProcessArguments, Accepts256ArgumentsAndRefusesOneMore) {
  EXPECT_EQ(arguments_of(std::vector<std::string>(256, "a")).size(), 256u);
  EXPECT_FAILURE(arguments_of(std::vector<std::string>(257, "a")), "argument_limit",
                 "Too many native command arguments");
}

TEST(ProcessArguments, Accepts131072BytesTogetherAndRefusesOneMore) {
  const std::string half(65536, 'a');
  EXPECT_EQ(arguments_of({half, half}).size(), 2u);
  EXPECT_EQ(arguments_of({half, half, ""}).size(), 3u);
  EXPECT_FAILURE(arguments_of({half, half, "a"}), "argument_encoding", "Native process text exceeds its byte bound");
  EXPECT_FAILURE(arguments_of({std::string(131073, 'a')}), "argument_encoding",
                 "Native process text exceeds its byte bound");
}

class ProcessEnvironment : public ::testing::Test {
 protected:
  static constexpr const char* key = "RAVOK_TEST_VARIABLE_1";
  void TearDown() override { unsetenv(key); }
};

TEST_F(ProcessEnvironment, TellsAnEmptyVariableFromAMissingOne) {
  unsetenv(key);
  EXPECT_FALSE(process_environment(key, 8192).has_value());
  setenv(key, "", 1);
  EXPECT_EQ(process_environment(key, 8192), std::string());
  setenv(key, "value", 1);
  EXPECT_EQ(process_environment(key, 8192), "value");
}

TEST_F(ProcessEnvironment, BoundsTheValue) {
  setenv(key, std::string(8192, 'x').c_str(), 1);
  EXPECT_EQ(process_environment(key, 8192), std::string(8192, 'x'));
  setenv(key, std::string(8193, 'x').c_str(), 1);
  EXPECT_FAILURE(process_environment(key, 8192), "environment_limit", "Native process text exceeds its byte bound");
}

TEST_F(ProcessEnvironment, BoundsTheBound) {
  EXPECT_NO_THROW(process_environment(key, 1));
  EXPECT_NO_THROW(process_environment(key, 131072));
  for (const std::size_t bound : {0u, 131073u}) {
    EXPECT_FAILURE(process_environment(key, bound), "environment_limit", "Native environment bound is invalid");
  }
}

TEST_F(ProcessEnvironment, RefusesKeysThatNoVariableOfOursHas) {
  for (const std::string& bad : {std::string(), std::string(128, 'A'), std::string("A=B"), std::string("A B"),
                                 std::string("A-B"), std::string("A\0B", 3), std::string("\xc3\x84")}) {
    EXPECT_FAILURE(process_environment(bad, 8192), "environment_key", "Native environment key is invalid") << bad;
  }
  EXPECT_FALSE(process_environment(std::string(127, 'A'), 8192).has_value());
}

TEST(CurrentExecutablePath, IsThisVeryProgram) {
  const std::filesystem::path path = current_executable_path();
  EXPECT_TRUE(path.is_absolute());
  EXPECT_EQ(path.filename(), "platform_test");
  EXPECT_TRUE(std::filesystem::is_regular_file(path));
}

TEST(ExecutablePath, NeedsRoomForTheWholePath) {
  const std::string path = current_executable_path();
  EXPECT_EQ(os::executable_path(path.size()), path);
  EXPECT_FALSE(os::executable_path(path.size() - 1).has_value());
  EXPECT_FALSE(os::executable_path(0).has_value());
}

}  // namespace
}  // namespace ravok
