#include "app/screen/folder_view.hpp"

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/fast_volume.hpp"
#include "support/ordinary_user.hpp"
#include "support/screen_text.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::folder_view_test {
namespace {

using testing::items_of;
using testing::TemporaryRoot;
using Names = std::vector<std::string>;

TEST(ListFolder, NamesTheFoldersSorted) {
  const TemporaryRoot root;
  for (const char* folder : {"b", "a", ".hidden", "a b"}) {
    root.directory(folder);
  }
  root.write("file", "");
  std::filesystem::create_directory_symlink("a", root / "link");
  const testing::TreeState before = testing::tree_state(root.path());
  const FolderListing listing = list_folder(root.path());
  EXPECT_EQ(listing.folder, root.path());
  EXPECT_EQ(listing.shown, std::filesystem::canonical(root.path()));
  EXPECT_EQ(listing.folders, (Names{"a", "a b", "b"}));
  EXPECT_EQ(listing.problem, "");
  EXPECT_TRUE(testing::same_tree(testing::tree_state(root.path()), before));
}

TEST(ListFolder, ShowsTheNearestFolderThatExistsWithoutLinks) {
  const TemporaryRoot root;
  root.directory("a");
  root.write("file", "");
  std::filesystem::create_directory_symlink("a", root / "link");
  const std::filesystem::path real = std::filesystem::canonical(root.path());
  EXPECT_EQ(list_folder(root / "x/y/z").shown, real);
  EXPECT_EQ(list_folder(root / "file").shown, real);
  EXPECT_EQ(list_folder(root / "link").shown, real / "a");
  EXPECT_EQ(list_folder(root / "link/x").shown, real / "a");
  EXPECT_EQ(list_folder("/").shown, "/");
}

TEST(ListFolder, TellsOfAFolderThatCannotBeRead) {
  const TemporaryRoot root;
  const std::filesystem::path folder = root.directory("closed");
  const testing::OrdinaryUser user(root);
  const testing::WithMode closed(folder, 0);
  const FolderListing listing = list_folder(folder);
  EXPECT_EQ(listing.folders, Names{});
  EXPECT_EQ(listing.problem, "This folder cannot be looked into.");
}

TEST(ListFolder, TellsOfTextThatNamesNothing) {
  const FolderListing listing = list_folder("");
  EXPECT_EQ(listing.shown, "");
  EXPECT_EQ(listing.problem, "This folder cannot be looked into.");
}

TEST(ListFolder, ShowsTwoThousandFolders) {
  const TemporaryRoot root{testing::fast_volume()};
  for (int i = 0; i < 2000; ++i) {
    std::filesystem::create_directory(root / std::to_string(1000 + i));
  }
  FolderListing listing = list_folder(root.path());
  EXPECT_EQ(listing.folders.size(), 2000u);
  EXPECT_EQ(listing.problem, "");
  std::filesystem::create_directory(root / "one-more");
  listing = list_folder(root.path());
  EXPECT_EQ(listing.folders.size(), 2000u);
  EXPECT_EQ(listing.problem, "Not all folders are shown; write the path of yours instead.");
}

// A view, and a user who waits until it knows the folder that it was asked for.
class FolderViewTest : public ::testing::Test {
 protected:
  FolderViewTest() {
    for (const char* folder : {"games/old", "games/new", "empty"}) {
      root.directory(folder);
    }
    root.write("games/new/file", "");
    view.set_wakeup([this] {
      const std::lock_guard lock(mutex);
      ++wakes;
      changed.notify_all();
    });
  }

  // Does what asks for a folder, and waits for the answer.
  void wait_for(const std::function<void()>& question) {
    std::unique_lock lock(mutex);
    const int before = wakes;
    lock.unlock();
    question();
    lock.lock();
    changed.wait(lock, [&] { return wakes > before; });
  }
  void show(const std::filesystem::path& folder) {
    wait_for([&] { view.show(folder); });
  }

  const TemporaryRoot root;
  const std::filesystem::path real = std::filesystem::canonical(root.path());
  std::mutex mutex;
  std::condition_variable changed;
  int wakes = 0;
  std::mutex answering;
  FolderView view;
};

TEST_F(FolderViewTest, ShowsAFolderWithTheOneAboveAtTheTop) {
  show(root / "games");
  EXPECT_EQ(testing::whole_screen(view.screen()),
            "folders: Choose a folder\n"
            "where: " +
                (real / "games").native() +
                "\n"
                "folders:\n"
                "  ..\n"
                "  new\n"
                "  old\n"
                "(use Use this &folder!, back &Back) first folders escape back");
}

TEST_F(FolderViewTest, KnowsNothingAtFirst) {
  EXPECT_EQ(items_of(view.screen()), "where: \nfolders:\n");
  EXPECT_EQ(view.place("Ravok"), std::nullopt);
  view.choose(0);
  view.enter(0);
  EXPECT_EQ(items_of(view.screen()), "where: \nfolders:\n");
}

TEST_F(FolderViewTest, ChoosesAnEntry) {
  show(root / "games");
  view.choose(2);
  EXPECT_EQ(items_of(view.screen()), "where: " + (real / "games/old").native() + "\nfolders 2:\n  ..\n  new\n  old\n");
  view.choose(3);
  EXPECT_EQ(items_of(view.screen()), "where: " + (real / "games/old").native() + "\nfolders 2:\n  ..\n  new\n  old\n");
  view.choose(0);
  EXPECT_EQ(testing::text_of(view.screen(), "where"), real.native());
}

TEST_F(FolderViewTest, EntersAnEntryAndLeavesIt) {
  show(root / "games");
  view.choose(1);
  wait_for([&] { view.enter(2); });
  EXPECT_EQ(items_of(view.screen()), "where: " + (real / "games/old").native() + "\nfolders:\n  ..\n");
  wait_for([&] { view.enter(0); });
  EXPECT_EQ(items_of(view.screen()), "where: " + (real / "games").native() + "\nfolders:\n  ..\n  new\n  old\n");
  view.enter(3);
  EXPECT_EQ(testing::text_of(view.screen(), "where"), (real / "games").native());
}

TEST_F(FolderViewTest, HasNothingAboveTheRoot) {
  show("/");
  const std::string items = items_of(view.screen());
  EXPECT_TRUE(items.starts_with("where: /\nfolders:\n  ")) << items;
  EXPECT_FALSE(items.starts_with("where: /\nfolders:\n  ..\n")) << items;
}

TEST_F(FolderViewTest, PutsTheInstallationIntoAFolderOfItsOwn) {
  show(root / "games");
  EXPECT_EQ(view.place("Ravok"), real / "games/Ravok");
  view.choose(1);
  EXPECT_EQ(view.place("Ravok"), real / "games/new/Ravok");
  view.choose(0);
  EXPECT_EQ(view.place("Ravok"), real / "Ravok");
}

TEST_F(FolderViewTest, PutsTheInstallationIntoAFolderThatHasItsName) {
  show(root / "games");
  view.choose(1);
  EXPECT_EQ(view.place("new"), real / "games/new");
  show(root / "games/new");
  EXPECT_EQ(view.place("new"), real / "games/new");
  EXPECT_EQ(view.place("ne"), real / "games/new/ne");
}

TEST_F(FolderViewTest, PutsTheInstallationIntoAFolderOfItsOwnInAnEmptyOneToo) {
  show(root / "empty");
  EXPECT_EQ(view.place("Ravok"), real / "empty/Ravok");
  show(root / "games");
  view.choose(2);
  EXPECT_EQ(view.place("Ravok"), real / "games/old/Ravok");
}

// What would have to be found out about an entry might take long.
TEST_F(FolderViewTest, AsksNothingAboutAnEntryThatIsOnlyChosen) {
  show(root / "games");
  std::filesystem::remove_all(root / "games");
  const int before = wakes;
  view.choose(1);
  EXPECT_EQ(view.place("Ravok"), real / "games/new/Ravok");
  EXPECT_EQ(wakes, before);
  EXPECT_EQ(testing::actions_of(view.screen()), "use Use this &folder!, back &Back");
}

TEST_F(FolderViewTest, OffersToUseAFolderOnceItIsKnown) {
  EXPECT_EQ(testing::whole_screen(view.screen()),
            "folders: Choose a folder\nwhere: \nfolders:\n(back &Back) first folders escape back");
  show(root / "games");
  EXPECT_EQ(testing::actions_of(view.screen()), "use Use this &folder!, back &Back");
  std::unique_lock unknown(answering);
  view.set_wakeup([this] {
    const std::lock_guard wait(answering);
    const std::lock_guard lock(mutex);
    ++wakes;
    changed.notify_all();
  });
  // The first answer makes the thread wait, so that there is none to the second question yet.
  view.show(root / "empty");
  while (testing::actions_of(view.screen()) == "back &Back") {
    std::this_thread::yield();
  }
  view.show(root / "games");
  EXPECT_EQ(testing::whole_screen(view.screen()), "folders: Choose a folder\nwhere: " + (root / "games").native() +
                                                      "\nfolders:\n(back &Back) first folders escape back");
  EXPECT_EQ(view.place("Ravok"), std::nullopt);
  unknown.unlock();
  {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return wakes == 3; });
  }
  EXPECT_EQ(testing::actions_of(view.screen()), "use Use this &folder!, back &Back");
}

TEST_F(FolderViewTest, DoesNotOfferToUseWhatIsNoFolder) {
  show("");
  EXPECT_EQ(testing::actions_of(view.screen()), "back &Back");
  EXPECT_EQ(view.place("Ravok"), std::nullopt);
}

TEST_F(FolderViewTest, PutsTheInstallationWhereAFolderIsNotThereYet) {
  show(root / "games/later/still");
  EXPECT_EQ(view.place("Ravok"), real / "games/Ravok");
}

TEST_F(FolderViewTest, ShowsNamesEscaped) {
  root.directory("games/a\x1b[2J\xff");
  show(root / "games");
  EXPECT_EQ(items_of(view.screen()),
            "where: " + (real / "games").native() + "\nfolders:\n  ..\n  a\\x1b[2J\\xff\n  new\n  old\n");
  wait_for([&] { view.enter(1); });
  EXPECT_EQ(view.place("Ravok"), real / "games/a\x1b[2J\xff/Ravok");
}

TEST_F(FolderViewTest, TellsOfAFolderThatCannotBeRead) {
  const testing::OrdinaryUser user(root);
  const testing::WithMode closed(root / "games/new", 0);
  show(root / "games/new");
  EXPECT_EQ(items_of(view.screen()), "where: " + (real / "games/new").native() +
                                         "\nfolders:\n  ..\nproblem warning: This folder cannot be looked into.\n");
}

}  // namespace
}  // namespace ravok::folder_view_test
