#include "platform/process/process.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/os.hpp"
#include "support/failure.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"
#include "support/working_directory.hpp"

namespace ravok::process_test {
namespace {

using testing::TemporaryRoot;
using testing::WithEnvironment;
using testing::WorkingDirectory;

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
  for (const int count : {0, -1}) {
    EXPECT_FAILURE(process_arguments(count, table), "argument_encoding", "Native command arguments are missing");
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

// A text without a NUL at its end, after which no byte can be read.
class EndlessText {
 public:
  explicit EndlessText(const std::string& text) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    size_ = (text.size() + page - 1) / page * page + page;
    area_ = static_cast<char*>(mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    EXPECT_EQ(mprotect(area_ + size_ - page, page, PROT_NONE), 0);
    text_ = area_ + size_ - page - text.size();
    std::memcpy(text_, text.data(), text.size());
  }
  ~EndlessText() { munmap(area_, size_); }
  EndlessText(const EndlessText&) = delete;
  EndlessText& operator=(const EndlessText&) = delete;

  char* get() const { return text_; }

 private:
  std::size_t size_ = 0;
  char* area_ = nullptr;
  char* text_ = nullptr;
};

TEST(ProcessArguments, ReadsNothingBehindTheByteBeyondTheBound) {
  const EndlessText endless(std::string(131073, 'a'));
  const char* const table[] = {"program", endless.get()};
  EXPECT_FAILURE(process_arguments(2, table), "argument_encoding", "Native process text exceeds its byte bound");
  const EndlessText rest(std::string(131073 - 1000, 'a'));
  const std::string first(1000, 'a');
  const char* const second[] = {"program", first.c_str(), rest.get()};
  EXPECT_FAILURE(process_arguments(3, second), "argument_encoding", "Native process text exceeds its byte bound");
}

TEST(ProcessArguments, ReadsNothingBehindTheCount) {
  const EndlessText endless(std::string(1, 'a'));
  const char* const table[] = {"program", "a", endless.get()};
  EXPECT_EQ(process_arguments(2, table), (std::vector<std::string>{"a"}));
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

TEST_F(ProcessEnvironment, ReadsNothingBehindTheByteBeyondTheBound) {
  const EndlessText endless(std::string(key) + "=" + std::string(8193, 'x'));
  ASSERT_EQ(putenv(endless.get()), 0);
  EXPECT_FAILURE(process_environment(key, 8192), "environment_limit", "Native process text exceeds its byte bound");
  unsetenv(key);
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
  EXPECT_EQ(path.filename(), "process_test");
  EXPECT_TRUE(std::filesystem::is_regular_file(path));
}

TEST(ExecutablePath, NeedsRoomForTheWholePath) {
  const std::string path = current_executable_path();
  EXPECT_EQ(os::executable_path(path.size()), path);
  EXPECT_FALSE(os::executable_path(path.size() - 1).has_value());
  EXPECT_FALSE(os::executable_path(0).has_value());
}

// --- Replacing the process ---------------------------------------------------------------------

using Replacement = void (*)(const std::filesystem::path&, const std::vector<std::string>&,
                             const std::filesystem::path&, const ravok::ProcessEnvironment&);

// Replaces a process that is made for it, and returns what its successor writes: texts that each end in a NUL.
std::vector<std::string> said_by_successor(Replacement replace, const std::filesystem::path& image,
                                           const std::vector<std::string>& arguments,
                                           const std::filesystem::path& directory,
                                           const ravok::ProcessEnvironment& environment = {}) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
    close(ends[1]);
    try {
      replace(image, arguments, directory, environment);
    } catch (const std::exception& failure) {
      static_cast<void>(write(STDOUT_FILENO, failure.what(), std::strlen(failure.what())) == 0);
    }
    _exit(99);
  }
  close(ends[1]);
  std::string output;
  char buffer[4096];
  for (ssize_t size = 0; (size = read(ends[0], buffer, sizeof buffer)) > 0;) {
    output.append(buffer, static_cast<std::size_t>(size));
  }
  close(ends[0]);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
  std::vector<std::string> texts;
  for (std::size_t at = 0, end = 0; (end = output.find('\0', at)) != std::string::npos; at = end + 1) {
    texts.push_back(output.substr(at, end - at));
  }
  return texts;
}

// The environment that a successor has, in its order.
std::vector<std::string> successor_environment(Replacement replace, const ravok::ProcessEnvironment& environment) {
  return said_by_successor(replace, "/usr/bin/env", {"-0"}, "/", environment);
}

bool has(const std::vector<std::string>& texts, const std::string& text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::size_t count_of_key(const std::vector<std::string>& texts, const std::string& key) {
  return static_cast<std::size_t>(
      std::count_if(texts.begin(), texts.end(), [&](const std::string& text) { return text.starts_with(key + "="); }));
}

class ReplacedProcess : public ::testing::TestWithParam<Replacement> {
 protected:
  // A program that tells its name, its arguments and its directory.
  std::filesystem::path teller() const {
    const std::filesystem::path path = root_.write("teller", "#!/bin/sh\nprintf '%s\\0' \"$0\" \"$@\" \"$(pwd -P)\"\n");
    EXPECT_EQ(chmod(path.c_str(), 0755), 0);
    return path;
  }

  // The attempt has changed nothing in this process.
  void expect_failure(const std::filesystem::path& image, const std::vector<std::string>& arguments,
                      const std::filesystem::path& directory, const ravok::ProcessEnvironment& environment,
                      const std::string& code, const std::string& message) const {
    const std::filesystem::path before = std::filesystem::current_path();
    EXPECT_FAILURE(GetParam()(image, arguments, directory, environment), code, message);
    EXPECT_EQ(std::filesystem::current_path(), before);
    for (const auto& [key, value] : environment) {
      EXPECT_EQ(key.empty() ? nullptr : std::getenv(key.c_str()), nullptr);
    }
  }

  // A file that no system starts, so that an attempt with arguments that are accepted fails at the last step.
  std::filesystem::path inert() const { return root_.write("inert", ""); }
  static constexpr const char* not_started = "Cannot replace this process (native error 13)";

  const TemporaryRoot root_;
};

INSTANTIATE_TEST_SUITE_P(BothForms, ReplacedProcess, ::testing::Values(&replace_process, &exec_process));

TEST_P(ReplacedProcess, HasItsImageItsArgumentsAndItsDirectory) {
  const std::filesystem::path image = teller();
  const std::filesystem::path directory = root_.directory("with space");
  EXPECT_EQ(said_by_successor(GetParam(), image, {"a b", "", "$HOME", "\xff", "--"}, directory),
            (std::vector<std::string>{image, "a b", "", "$HOME", "\xff", "--", directory}));
}

TEST_P(ReplacedProcess, HasTheInheritedEnvironmentInItsOrderAndBehindItTheNewInKeyOrder) {
  const WithEnvironment first("RAVOK_TEST_1", "one");
  const WithEnvironment second("RAVOK_TEST_2", "two");
  const WithEnvironment third("RAVOK_TEST_3", "three=3");
  const std::vector<std::string> inherited = successor_environment(GetParam(), {});
  const std::vector<std::string> overlaid =
      successor_environment(GetParam(), {{"RAVOK_TEST_9", ""}, {"RAVOK_TEST_2", "other"}, {"RAVOK_TEST_0", "a=b"}});
  std::vector<std::string> expected = inherited;
  EXPECT_EQ(std::erase(expected, "RAVOK_TEST_2=two"), 1u);
  EXPECT_TRUE(has(expected, "RAVOK_TEST_3=three=3"));
  expected.insert(expected.end(), {"RAVOK_TEST_0=a=b", "RAVOK_TEST_2=other", "RAVOK_TEST_9="});
  EXPECT_EQ(overlaid, expected);
}

TEST_P(ReplacedProcess, NeverInheritsTheInterruptsOfALauncher) {
  const WithEnvironment reader("RAVOK_LAUNCHER_INTERRUPT_READER", "7");
  const WithEnvironment like_it("RAVOK_LAUNCHER_INTERRUPT_READER_2", "8");
  const std::vector<std::string> environment = successor_environment(GetParam(), {});
  EXPECT_EQ(count_of_key(environment, "RAVOK_LAUNCHER_INTERRUPT_READER"), 0u);
  EXPECT_TRUE(has(environment, "RAVOK_LAUNCHER_INTERRUPT_READER_2=8"));
}

TEST_P(ReplacedProcess, InheritsTheLoadersVariablesOnlyInThePlainForm) {
  const WithEnvironment of_linux("LD_RAVOK_TEST", "1");
  const WithEnvironment of_macos("DYLD_X", "1");
  const WithEnvironment like_them("RAVOK_LD_X", "1");
  const std::vector<std::string> environment = successor_environment(GetParam(), {});
  const std::size_t kept = GetParam() == &exec_process ? 1 : 0;
  EXPECT_EQ(count_of_key(environment, "LD_RAVOK_TEST"), kept);
  EXPECT_EQ(count_of_key(environment, "DYLD_X"), kept);
  EXPECT_EQ(count_of_key(environment, "RAVOK_LD_X"), 1u);
}

TEST_P(ReplacedProcess, HasALoadersVariableThatItIsGiven) {
  EXPECT_TRUE(has(successor_environment(GetParam(), {{"DYLD_X", "given"}}), "DYLD_X=given"));
}

TEST_P(ReplacedProcess, IsStartedFromAFileAndInADirectoryThatAreNoLinks) {
  const char* const message = "Replacement image or directory is unavailable";
  const std::filesystem::path image = teller();
  std::filesystem::create_symlink(image, root_ / "link");
  std::filesystem::create_directory_symlink(root_.path(), root_ / "directory link");
  ASSERT_EQ(mkfifo((root_ / "pipe").c_str(), 0700), 0);
  for (const std::filesystem::path& bad :
       {root_ / "link", root_ / "link/", image / "", root_ / "missing", root_.path(), root_ / "pipe",
        image.lexically_relative(std::filesystem::current_path()), std::filesystem::path()}) {
    expect_failure(bad, {}, root_.path(), {}, "process_start", message);
  }
  for (const std::filesystem::path& bad :
       {root_ / "directory link", root_ / "directory link/", root_ / "directory link//", root_ / "missing", image,
        std::filesystem::path("."), std::filesystem::path()}) {
    expect_failure(image, {}, bad, {}, "process_start", message);
  }
}

TEST_P(ReplacedProcess, IsStartedInADirectoryThatHasASeparatorAtItsEnd) {
  EXPECT_EQ(said_by_successor(GetParam(), teller(), {}, root_.directory("directory") / "").back(), root_ / "directory");
}

TEST_P(ReplacedProcess, IsStartedFromADirectoryThatIsGone) {
  const std::filesystem::path image = teller();
  const WorkingDirectory gone(root_.directory("gone"));
  std::filesystem::remove(root_ / "gone");
  EXPECT_EQ(said_by_successor(GetParam(), image, {}, root_.path()).back(), root_.path());
}

TEST_P(ReplacedProcess, ThatIsNotStartedLeavesThisOneInADirectoryThatIsGone) {
  const std::filesystem::path image = inert();
  const WorkingDirectory gone(root_.directory("gone"));
  std::filesystem::remove(root_ / "gone");
  EXPECT_FAILURE(GetParam()(image, {}, root_.path(), {}), "process_start", not_started);
  std::error_code problem;
  EXPECT_EQ(std::filesystem::current_path(problem), std::filesystem::path());
  EXPECT_EQ(problem, std::errc::no_such_file_or_directory);
}

TEST_P(ReplacedProcess, TakesAtMost64Arguments) {
  expect_failure(inert(), std::vector<std::string>(64, "a"), root_.path(), {}, "process_start", not_started);
  expect_failure(inert(), std::vector<std::string>(65, "a"), root_.path(), {}, "argument_limit",
                 "Too many replacement arguments");
}

TEST_P(ReplacedProcess, TakesArgumentsOfAtMost4096BytesWithoutNul) {
  expect_failure(inert(), {std::string(4096, 'a')}, root_.path(), {}, "process_start", not_started);
  for (const std::string& bad : {std::string(4097, 'a'), std::string("a\0b", 3), std::string(1, '\0')}) {
    expect_failure(inert(), {"a", bad}, root_.path(), {}, "argument_encoding", "Invalid maintenance argument");
  }
}

TEST_P(ReplacedProcess, Takes32768BytesOfArgumentsAndNotOneMore) {
  std::vector<std::string> arguments(8, std::string(4096, 'a'));
  expect_failure(inert(), arguments, root_.path(), {}, "process_start", not_started);
  arguments.push_back("");
  expect_failure(inert(), arguments, root_.path(), {}, "process_start", not_started);
  arguments.push_back("a");
  expect_failure(inert(), arguments, root_.path(), {}, "argument_limit", "Maintenance arguments exceed their bound");
}

TEST_P(ReplacedProcess, TakesNoVariableThatNoEnvironmentCanHold) {
  const std::string nul("a\0b", 3);
  for (const auto& [key, value] : std::map<std::string, std::string>{
           {"", "value"}, {"RAVOK=TEST", "value"}, {"=", "value"}, {nul, "value"}, {"RAVOK_TEST", nul}}) {
    expect_failure(inert(), {}, root_.path(), {{key, value}}, "argument_encoding", "Invalid maintenance environment");
  }
}

TEST_P(ReplacedProcess, IsNeverGivenTheInterruptsOfALauncher) {
  for (const char* const value : {"7", ""}) {
    expect_failure(inert(), {}, root_.path(), {{"RAVOK_LAUNCHER_INTERRUPT_READER", value}}, "argument_encoding",
                   "Maintenance cannot inherit launcher interrupt authority");
  }
}

TEST_P(ReplacedProcess, ThatCannotBeStartedLeavesThisOneWhereItWas) {
  const std::filesystem::path garbage = root_.write("garbage", std::string("\x01\x02\x03", 3));
  ASSERT_EQ(chmod(garbage.c_str(), 0755), 0);
  const WithEnvironment kept("RAVOK_TEST_1", "one");
  const WithEnvironment of_loader("DYLD_X", "1");
  expect_failure(garbage, {}, root_.directory("elsewhere"), {{"RAVOK_TEST_2", "two"}}, "process_start",
                 "Cannot replace this process (native error " + std::to_string(ENOEXEC) + ")");
  EXPECT_STREQ(std::getenv("RAVOK_TEST_1"), "one");
  EXPECT_STREQ(std::getenv("DYLD_X"), "1");
}

TEST_P(ReplacedProcess, IsNotStartedInADirectoryThatMayNotBeEntered) {
  const std::filesystem::path image = teller();
  root_.directory("closed");
  const testing::OrdinaryUser user(root_);
  const testing::WithMode closed(root_ / "closed", 0);
  expect_failure(image, {}, root_ / "closed", {}, "process_start", "Cannot enter the external maintenance runtime");
}

}  // namespace
}  // namespace ravok::process_test
