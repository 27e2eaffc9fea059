#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/working_directory.hpp"

namespace ravok::export_file_test {
namespace {

using testing::TemporaryRoot;

using Names = std::vector<std::string>;

constexpr const char* refused_link = "Refusing to replace a symbolic link";
constexpr const char* refused_parent = "Export parent must be an existing plain directory";

std::string cannot_create(int problem) {
  return "Cannot create export; the destination may already exist (" + std::to_string(problem) + ")";
}

std::uint32_t mode_of(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  return status ? status->permissions : 0;
}

// Sets the process's file mode mask for as long as it lives.
class FileModeMask {
 public:
  explicit FileModeMask(mode_t mask) : before_(umask(mask)) {}
  ~FileModeMask() { umask(before_); }
  FileModeMask(const FileModeMask&) = delete;
  FileModeMask& operator=(const FileModeMask&) = delete;

 private:
  mode_t before_;
};

class ExportFileTest : public ::testing::Test {
 protected:
  const TemporaryRoot root;
  const std::filesystem::path path = root / "export";
};

TEST_F(ExportFileTest, AppearsWholeAtItsCommitAndNotBefore) {
  ExportFile file(path);
  file.write("first ");
  file.write("");
  file.write("second");
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(root.names().size(), 1u);
  file.commit();
  EXPECT_EQ(root.names(), Names{"export"});
  EXPECT_EQ(root.read("export"), "first second");
}

TEST_F(ExportFileTest, TakesContentOfAnySize) {
  std::string expected;
  ExportFile file(path);
  for (int i = 0; i < 40; ++i) {
    const std::string piece(100'000, static_cast<char>('a' + i % 26));
    file.write(piece);
    expected += piece;
  }
  file.commit();
  EXPECT_TRUE(root.read("export") == expected);
}

TEST_F(ExportFileTest, MayBeEmpty) {
  ExportFile(path).commit();
  EXPECT_EQ(root.names(), Names{"export"});
  EXPECT_EQ(root.read("export"), "");
}

TEST_F(ExportFileTest, HasOneNameAndAModeOfTheMask) {
  for (const auto& [mask, mode] : {std::pair<mode_t, mode_t>{022, 0644}, {0, 0644}, {077, 0600}, {027, 0640}}) {
    const FileModeMask set(mask);
    ExportFile(path).commit();
    EXPECT_EQ(mode_of(path), mode);
    EXPECT_EQ(link_status_of(path)->links, 1u);
    std::filesystem::remove(path);
  }
}

TEST_F(ExportFileTest, LeavesItsParentAsItIs) {
  root.directory("exports");
  ASSERT_EQ(chmod((root / "exports").c_str(), 0755), 0);
  ExportFile(root / "exports/export").commit();
  EXPECT_EQ(mode_of(root / "exports"), 0755u);
}

TEST_F(ExportFileTest, TakesThePathOfTheWorkingDirectoryButNoBareName) {
  const testing::WorkingDirectory working(root.path());
  EXPECT_FAILURE(ExportFile("export"), "unsafe_path", "Export parent must be an existing plain directory");
  EXPECT_TRUE(root.names().empty());
  ExportFile file("./export");
  file.write("content");
  file.commit();
  EXPECT_EQ(root.read("export"), "content");
}

TEST_F(ExportFileTest, LeavesNothingBehindWithoutACommit) {
  { const ExportFile file(path); }
  EXPECT_EQ(root.names(), Names{});
  {
    ExportFile file(path);
    file.write("content");
  }
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(ExportFileTest, NeedsAnExistingPlainParent) {
  root.write("real/file", "x");
  std::filesystem::create_directory_symlink("real", root / "link");
  const Names before = root.names();
  for (const char* name : {"missing/export", "real/file/export", "link/export"}) {
    EXPECT_FAILURE(ExportFile{root / name}, "unsafe_path", refused_parent) << name;
  }
  EXPECT_EQ(root.names(), before);
}

TEST_F(ExportFileTest, RefusesALinkBeforeAnythingIsWritten) {
  root.write("target", "old");
  std::filesystem::create_symlink("target", path);
  EXPECT_FAILURE(ExportFile{path}, "unsafe_path", refused_link);
  std::filesystem::create_symlink("nowhere", root / "dangling");
  EXPECT_FAILURE(ExportFile{root / "dangling"}, "unsafe_path", refused_link);
  EXPECT_EQ(root.names(), (Names{"dangling@", "export@", "target"}));
  EXPECT_EQ(root.read("target"), "old");
}

TEST_F(ExportFileTest, NeverReplacesWhatIsThere) {
  root.write("export", "old");
  {
    ExportFile file(path);
    file.write("new");
    EXPECT_FAILURE(file.commit(), "file_write", cannot_create(EEXIST));
  }
  EXPECT_EQ(root.names(), Names{"export"});
  EXPECT_EQ(root.read("export"), "old");
}

TEST_F(ExportFileTest, NeverReplacesWhatAppearsMeanwhile) {
  {
    ExportFile file(path);
    file.write("new");
    std::filesystem::create_symlink("nowhere", path);
    EXPECT_FAILURE(file.commit(), "file_write", cannot_create(EEXIST));
  }
  EXPECT_EQ(root.names(), Names{"export@"});
}

TEST_F(ExportFileTest, IsNotCommittedToADirectoryThatWasMovedAway) {
  root.directory("exports");
  {
    ExportFile file(root / "exports/export");
    file.write("new");
    std::filesystem::rename(root / "exports", root / "moved");
    EXPECT_FAILURE(file.commit(), "file_write", cannot_create(ENOENT));
  }
  EXPECT_EQ(root.names(), Names{"moved/"});
}

TEST_F(ExportFileTest, IsNotCommittedToADirectoryThatWasReplaced) {
  root.directory("exports");
  {
    ExportFile file(root / "exports/export");
    file.write("new");
    std::filesystem::rename(root / "exports", root / "moved");
    root.directory("exports");
    EXPECT_FAILURE(file.commit(), "file_write", cannot_create(ENOENT));
  }
  EXPECT_EQ(root.names(), (Names{"exports/", "moved/"}));
}

TEST_F(ExportFileTest, TwoOfOneNameDoNotDisturbEachOtherAndTheFirstCommittedStays) {
  ExportFile first(path);
  ExportFile second(path);
  first.write("first");
  second.write("second");
  second.commit();
  EXPECT_FAILURE(first.commit(), "file_write", cannot_create(EEXIST));
  EXPECT_EQ(root.read("export"), "second");
}

}  // namespace
}  // namespace ravok::export_file_test
