#include "platform/shortcut/shortcut_rules.hpp"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/failure.hpp"
#include "support/shortcut_place.hpp"

namespace ravok::shortcut_rules_test {
namespace {

using shortcut_rules::absolute_path;
using shortcut_rules::absolute_path_below_root;
using shortcut_rules::bounded_text;
using shortcut_rules::is_in_launcher_payload;
using shortcut_rules::is_key_within;
using shortcut_rules::lies_within;
using shortcut_rules::ordinary;
using shortcut_rules::require_new_file;
using shortcut_rules::require_stable_bootstrap;
using testing::ShortcutPlace;
using testing::TemporaryRoot;

constexpr const char* unbounded = "Shortcut text must be bounded and contain no control characters";
constexpr const char* not_utf8 = "Shortcut text must be valid UTF-8";
constexpr const char* not_normal = "Shortcut paths must be absolute and normalized";
constexpr const char* not_below_root = "Shortcut paths must be absolute and normalized below a filesystem root";
constexpr const char* not_ordinary = "Shortcut inputs need existing ordinary files and directories";
constexpr shortcut_rules::FormWords words = {"Pages", "Page"};

TEST(ShortcutText, HasOneByteToItsBound) {
  EXPECT_NO_THROW(bounded_text("a", 512));
  EXPECT_NO_THROW(bounded_text(std::string(512, 'a'), 512));
  EXPECT_FAILURE(bounded_text("", 512), "shortcut_text", unbounded);
  EXPECT_FAILURE(bounded_text(std::string(513, 'a'), 512), "shortcut_text", unbounded);
}

TEST(ShortcutText, HasNoControlCharacterOfOneByte) {
  for (int byte = 0; byte < 128; ++byte) {
    const std::string text = {'a', static_cast<char>(byte), 'b'};
    if (byte < 32 || byte == 127) {
      EXPECT_FAILURE(bounded_text(text, 512), "shortcut_text", unbounded) << byte;
    } else {
      EXPECT_NO_THROW(bounded_text(text, 512)) << byte;
    }
  }
}

TEST(ShortcutText, IsStrictUtf8) {
  EXPECT_NO_THROW(bounded_text("\xc3\xa9\xe2\x82\xac\xf0\x9f\x8e\xae", 512));
  for (const char* const bad : {"\xff", "\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "a\x80"}) {
    EXPECT_FAILURE(bounded_text(bad, 512), "shortcut_text", not_utf8);
  }
}

TEST(ShortcutPath, IsAbsoluteAndNormal) {
  EXPECT_EQ(absolute_path("/a/b c/\xc3\xa9"), "/a/b c/\xc3\xa9");
  for (const char* const bad : {"a", "a/b", "./a", "/a/../b", "/a/./b", "/a//b"}) {
    EXPECT_FAILURE(absolute_path(bad), "shortcut_path", not_normal) << bad;
    EXPECT_FAILURE(absolute_path_below_root(bad), "shortcut_path", not_below_root) << bad;
  }
}

TEST(ShortcutPath, HasAtMost4096BytesOfText) {
  EXPECT_NO_THROW(absolute_path("/" + std::string(4095, 'a')));
  for (const std::string& bad : {std::string(), "/" + std::string(4096, 'a'), std::string("/a\nb")}) {
    EXPECT_FAILURE(absolute_path(bad), "shortcut_text", unbounded);
    EXPECT_FAILURE(absolute_path_below_root(bad), "shortcut_text", unbounded);
  }
  EXPECT_FAILURE(absolute_path("/\xff"), "shortcut_text", not_utf8);
}

TEST(ShortcutPath, MayBeTheRootOnlyWhereNoNameIsNeeded) {
  EXPECT_EQ(absolute_path("/"), "/");
  EXPECT_EQ(absolute_path("/a/"), "/a/");
  for (const char* const bad : {"/", "/a/"}) {
    EXPECT_FAILURE(absolute_path_below_root(bad), "shortcut_path", not_below_root) << bad;
  }
}

TEST(ShortcutInput, IsAFileOrADirectoryAsAskedAndNoLink) {
  const TemporaryRoot root;
  root.write("file", "");
  root.directory("directory");
  std::filesystem::create_symlink("file", root / "file link");
  std::filesystem::create_symlink("directory", root / "directory link");
  ASSERT_EQ(mkfifo((root / "pipe").c_str(), 0600), 0);
  EXPECT_NO_THROW(ordinary(root / "file", false));
  EXPECT_NO_THROW(ordinary(root / "directory", true));
  for (const char* const bad : {"directory", "file link", "directory link", "pipe", "missing"}) {
    EXPECT_FAILURE(ordinary(root / bad, false), "shortcut_path", not_ordinary) << bad;
  }
  for (const char* const bad : {"file", "file link", "directory link", "pipe", "missing"}) {
    EXPECT_FAILURE(ordinary(root / bad, true), "shortcut_path", not_ordinary) << bad;
  }
}

TEST(ShortcutPlaces, LieWithinADirectoryByTheirKeys) {
  const TemporaryRoot root;
  root.directory("a/b");
  root.directory("ab");
  EXPECT_TRUE(lies_within(root / "a", root / "a"));
  EXPECT_TRUE(lies_within(root / "a/b", root / "a"));
  EXPECT_TRUE(lies_within(root / "a/missing/file", root / "a"));
  EXPECT_FALSE(lies_within(root / "ab", root / "a"));
  EXPECT_FALSE(lies_within(root / "ab/missing", root / "a"));
  EXPECT_FALSE(lies_within(root / "a", root / "a/b"));
}

TEST(ShortcutPlaces, LieWithinTheRootOfTheirVolume) {
  EXPECT_TRUE(lies_within("/", "/"));
  EXPECT_TRUE(is_key_within("linux-v1/volume/s/", "linux-v1/volume/s/"));
  EXPECT_TRUE(is_key_within("linux-v1/volume/s/a", "linux-v1/volume/s/"));
  EXPECT_TRUE(is_key_within("linux-v1/volume/s/a/b", "linux-v1/volume/s/a"));
  EXPECT_FALSE(is_key_within("linux-v1/volume/s/ab", "linux-v1/volume/s/a"));
  EXPECT_FALSE(is_key_within("linux-v1/other/s/a", "linux-v1/volume/s/"));
  EXPECT_FALSE(is_key_within("linux-v1/volume/s/", "linux-v1/volume/s/a"));
}

TEST(LauncherPayload, IsWhatLiesInVersionsOrStagingOfALauncher) {
  for (const char* const inside :
       {"/d/launcher/versions", "/d/launcher/versions/1/bin", "/launcher/staging", "/d/launcher/staging/x"}) {
    EXPECT_TRUE(is_in_launcher_payload(inside)) << inside;
  }
  for (const char* const outside : {"/", "/d/launcher", "/d/launcher/other", "/versions", "/d/versions/launcher",
                                    "/d/launcher/x/versions", "/d/launchers/versions", "/d/launcher/versions2"}) {
    EXPECT_FALSE(is_in_launcher_payload(outside)) << outside;
  }
}

TEST(NewShortcutFile, NeedsItsBootstrapItsDataFolderAndItsParent) {
  const ShortcutPlace place;
  const std::filesystem::path file = place.desktop() / "new";
  EXPECT_NO_THROW(require_new_file(place.shortcut(), file, words));
  DesktopShortcut without_bootstrap = place.shortcut();
  without_bootstrap.bootstrap = place.data() / "missing";
  DesktopShortcut without_data = place.shortcut();
  without_data.data_root = place.bootstrap();
  EXPECT_FAILURE(require_new_file(without_bootstrap, file, words), "shortcut_path", not_ordinary);
  EXPECT_FAILURE(require_new_file(without_data, file, words), "shortcut_path", not_ordinary);
  EXPECT_FAILURE(require_new_file(place.shortcut(), place.home() / "missing/new", words), "shortcut_path",
                 not_ordinary);
  std::filesystem::create_directory_symlink(place.desktop(), place.home() / "link");
  EXPECT_FAILURE(require_new_file(place.shortcut(), place.home() / "link/new", words), "shortcut_path", not_ordinary);
}

TEST(NewShortcutFile, LiesOutsideTheDataFolder) {
  const ShortcutPlace place;
  for (const std::filesystem::path& parent : {place.data(), place.data() / "bootstrap"}) {
    EXPECT_FAILURE(require_new_file(place.shortcut(), parent / "new", words), "shortcut_path",
                   "Pages must be outside application data");
  }
}

TEST(NewShortcutFile, LiesOutsideTheLaunchersOfEveryDataFolder) {
  const ShortcutPlace place;
  for (const char* const below : {"other/launcher/versions", "other/launcher/staging/1/bin"}) {
    std::filesystem::create_directories(place.base() / below);
    EXPECT_FAILURE(require_new_file(place.shortcut(), place.base() / below / "new", words), "shortcut_path",
                   "Pages must be outside managed launcher payloads");
  }
}

TEST(NewShortcutFile, TakesNoPlaceThatIsTaken) {
  const ShortcutPlace place;
  place.write(place.desktop() / "file", "mine");
  std::filesystem::create_directory(place.desktop() / "directory");
  std::filesystem::create_symlink("nowhere", place.desktop() / "link");
  ASSERT_EQ(mkfifo((place.desktop() / "pipe").c_str(), 0600), 0);
  for (const char* const taken : {"file", "directory", "link", "pipe"}) {
    EXPECT_FAILURE(require_new_file(place.shortcut(), place.desktop() / taken, words), "already_exists",
                   "Page destination already exists; it was preserved")
        << taken;
  }
  EXPECT_EQ(place.read(place.desktop() / "file"), "mine");
}

TEST(StableBootstrap, IsNamedSoAndLiesInBin) {
  const TemporaryRoot root;
  EXPECT_NO_THROW(require_stable_bootstrap(root.write("bootstrap/bin/ravok-bootstrap", ""), "System"));
  for (const char* const bad : {"bootstrap/bin/ravok-launcher", "launcher/versions/1/ravok-bootstrap"}) {
    EXPECT_FAILURE(require_stable_bootstrap(root.write(bad, ""), "System"), "shortcut_bootstrap",
                   "System shortcuts require the stable native bootstrap")
        << bad;
  }
}

TEST(StableBootstrap, IsAnOrdinaryFile) {
  const TemporaryRoot root;
  root.write("program", "");
  root.directory("a/bin/ravok-bootstrap");
  root.directory("b/bin");
  std::filesystem::create_symlink("../../program", root / "b/bin/ravok-bootstrap");
  for (const char* const bad : {"a", "b", "missing"}) {
    EXPECT_FAILURE(require_stable_bootstrap(root / bad / "bin/ravok-bootstrap", "System"), "shortcut_path",
                   not_ordinary)
        << bad;
  }
}

}  // namespace
}  // namespace ravok::shortcut_rules_test
