#include "publisher/leftovers.hpp"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/file_operations.hpp"
#include "publisher/publish_files.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using Names = std::vector<std::string>;

class Leftovers : public ::testing::Test {
 protected:
  const testing::TemporaryRoot root;
  const std::string mark = ".0123456789abcdef0123456789abcdef.tmp";

  void sweep() const {
    const Result<Handle> folder = os::open(root.path(), os::OpenAs::directory);
    ASSERT_TRUE(folder.has_value());
    sweep_leftovers(folder->get());
  }
};

TEST_F(Leftovers, AreRemovedWithAllThatTheyHold) {
  root.write("archive.tar.zst" + mark, "half");
  root.write("package" + mark + "/deep/file", "x");
  root.write("kept", "x");
  sweep();
  EXPECT_EQ(root.names(), Names{"kept"});
}

TEST_F(Leftovers, AreOnlyWhatHasTheExactFormOfAName) {
  const Names others = {".0123456789abcdef0123456789abcdef.tmp",  "a.0123456789ABCDEF0123456789abcdef.tmp",
                        "a.0123456789abcdef0123456789abcde.tmp",  "a.0123456789abcdef0123456789abcdef.tmp2",
                        "a.0123456789abcdef0123456789abcdeg.tmp", "a0123456789abcdef0123456789abcdef0.tmp"};
  for (const std::string& name : others) {
    root.write(name, "x");
  }
  sweep();
  EXPECT_EQ(root.names(), others);
}

TEST_F(Leftovers, AreNeitherLinksNorSpecialFilesNorFilesWithOtherNames) {
  root.write("target", "x");
  std::filesystem::create_symlink("target", root / ("link" + mark));
  ASSERT_EQ(mkfifo((root / ("pipe" + mark)).c_str(), 0644), 0);
  std::filesystem::create_hard_link(root / "target", root / ("linked" + mark));
  const Names before = root.names();
  sweep();
  EXPECT_EQ(root.names(), before);
}

// A run that is killed between the two steps that give its file the name leaves it both.
TEST_F(Leftovers, MayHaveTheNameOfTheirOutputBeside) {
  root.write("output", "whole");
  std::filesystem::create_hard_link(root / "output", root / ("output" + mark));
  sweep();
  EXPECT_EQ(root.names(), Names{"output"});
  EXPECT_EQ(root.read("output"), "whole");
}

TEST_F(Leftovers, AreNotWhatAnotherUserMade) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "needs the system's own user";
  }
  const std::string name = "other" + mark;
  root.write(name, "x");
  ASSERT_EQ(chown((root / name).c_str(), 12345, 12345), 0);
  sweep();
  EXPECT_EQ(root.names(), Names{name});
}

TEST_F(Leftovers, AreNotWhatSomebodyIsWriting) {
  {
    OutputFile file(root / "archive");
    const NewFolder folder(root / "package");
    ASSERT_EQ(root.names().size(), 2u);
    sweep();
    EXPECT_EQ(root.names().size(), 2u);
    file.write("whole");
    file.commit();
    file.keep();
  }
  EXPECT_EQ(root.names(), Names{"archive"});
  EXPECT_EQ(root.read("archive"), "whole");
}

TEST_F(Leftovers, AreNoticedAsGoneByWhoeverMadeThem) {
  const Result<Handle> folder = os::open(root.path(), os::OpenAs::directory);
  const std::string name = "new" + mark;
  const Result<Handle> file = os::create_at(folder->get(), name.c_str(), os::CreateAs::output, 0644);
  ASSERT_TRUE(file.has_value());
  sweep();
  EXPECT_EQ(root.names(), Names{});
  EXPECT_FALSE(hold_file(file->get()));

  root.directory(name);
  const Result<Handle> made = os::open_at(folder->get(), name.c_str(), os::OpenAs::directory);
  ASSERT_TRUE(made.has_value());
  sweep();
  EXPECT_EQ(root.names(), Names{});
  EXPECT_FALSE(hold_folder(folder->get(), name, made->get()));
}

TEST_F(Leftovers, AreSweptByWhateverMakesAnOutputInTheirFolder) {
  root.write("old" + mark, "x");
  NewOutput(root / "output", "x").keep();
  EXPECT_EQ(root.names(), Names{"output"});
  root.write("old" + mark, "x");
  NewFolder folder(root / "package");
  folder.commit();
  EXPECT_EQ(root.names(), (Names{"output", "package/"}));
}

TEST_F(Leftovers, StayWhereTheyCannotBeOpenedAndKeepNoRunFromItsWork) {
  const std::string name = "old" + mark;
  ASSERT_EQ(chmod(root.write(name, "x").c_str(), 0), 0);
  {
    const testing::OrdinaryUser user(root);
    NewOutput(root / "output", "x").keep();
  }
  EXPECT_EQ(root.names(), (Names{name, "output"}));
  EXPECT_EQ(root.read("output"), "x");
}

}  // namespace
}  // namespace ravok
