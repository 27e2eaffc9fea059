#include "publisher/publish_installer.hpp"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "app/install/appended_package.hpp"
#include "app/install/native_package.hpp"
#include "app/install/package_seal.hpp"
#include "publisher/installer_entry.hpp"
#include "publisher/publish_files.hpp"
#include "support/desktop_entry.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/ordinary_user.hpp"
#include "support/package_builder.hpp"
#include "support/single_file.hpp"
#include "support/temporary_root.hpp"
#include "support/with_mask.hpp"
#include "support/working_directory.hpp"

namespace ravok {
namespace {

using testing::InitialPackage;
using testing::TemporaryRoot;
using Names = std::vector<std::string>;

const std::string seal = std::string(32, 'a') + std::string(32, '9');
const std::string mark(package_seal_mark);
const std::string empty_slot = mark + std::string(seal_characters, '-');

TEST(NewFolder, GoesAgainUnlessItsNameLasts) {
  const TemporaryRoot root;
  {
    NewFolder folder(root / "output");
    write_new_file(folder.path() / "file", "content");
    // The second flush is that of the directory that holds the folder.
    const testing::Planned plan(testing::failing("fsync", EIO, 2));
    EXPECT_FAILURE(folder.commit(), "file_sync", "Could not durably synchronize directory");
    EXPECT_TRUE(std::filesystem::exists(root / "output/file"));
  }
  EXPECT_EQ(root.names(), Names());
}

TEST(NewFolder, TakesNothingAwayThatOthersHavePutInItsPlace) {
  const TemporaryRoot root;
  {
    const NewFolder folder(root / "output");
    std::filesystem::rename(folder.path(), root / "moved");
    std::filesystem::create_directory(folder.path());
    root.write(folder.path().filename().native() + "/theirs", "theirs");
  }
  EXPECT_EQ(root.names().size(), 3u);
}

TEST(NewOutput, GoesAgainUnlessItIsKept) {
  const TemporaryRoot root;
  { const NewOutput file(root / "output", "content"); }
  EXPECT_EQ(root.names(), Names());
  NewOutput(root / "output", "content").keep();
  EXPECT_EQ(root.read("output"), "content");
}

TEST(NewOutput, GoesAgainUnlessItIsDurable) {
  const TemporaryRoot root;
  const testing::Planned plan(testing::failing("fsync", EIO, 2));
  EXPECT_FAILURE(write_new_file(root / "output", "content"), "file_sync", "Could not durably synchronize directory");
  EXPECT_EQ(root.names(), Names());
}

TEST(NewOutput, TakesNoOtherFileAwayEvenOneThatHoldsTheSame) {
  const TemporaryRoot root;
  {
    const NewOutput file(root / "output", "content");
    std::filesystem::remove(root / "output");
    root.write("output", "content");
  }
  EXPECT_EQ(root.names(), Names{"output"});
}

TEST(RequireAbsent, SaysWhatItCannotLookFor) {
  const testing::TemporaryRoot root;
  const std::filesystem::path long_name = root / std::string(256, 'x');
  EXPECT_FAILURE(require_absent(long_name), "file_write",
                 "Cannot look for the output " + long_name.native() + ": File name too long");
  EXPECT_NO_THROW(require_absent(root / "missing/below"));
  root.write("there", "x");
  EXPECT_FAILURE(require_absent(root / "there"), "output_exists",
                 "The output already exists: " + (root / "there").native());
}

TEST(IsNamed, TellsAPathFromAPartOfAWord) {
  EXPECT_TRUE(is_named("Cannot open file: th", "th"));
  EXPECT_TRUE(is_named("th: File exceeds read limit", "th"));
  EXPECT_TRUE(is_named("Cannot read a/b (5)", "a/b"));
  EXPECT_FALSE(is_named("Theme needs the colour text", "th"));
  EXPECT_FALSE(is_named("File exceeds read limit", "e"));
  EXPECT_FALSE(is_named("Cannot open file: out/th", "th"));
  EXPECT_FALSE(is_named("", "th"));
}

TEST(ReadSeal, ReturnsTheDigestOfASlot) {
  const volatile PackageSealSlot slot = make_seal_slot(seal);
  EXPECT_EQ(read_seal(slot), seal);
}

TEST(ReadSeal, ReturnsNothingForASlotWithoutADigest) {
  for (const std::string& text :
       {std::string(), std::string("abc"), seal.substr(1), std::string(64, 'A'), std::string(64, 'g'),
        std::string(63, 'a') + "/", std::string(63, 'a') + ":", std::string(63, 'a') + "`"}) {
    const volatile PackageSealSlot slot = make_seal_slot(text);
    EXPECT_EQ(read_seal(slot), "") << text;
  }
}

TEST(WithSeal, ChangesTheSealAlone) {
  const std::string before = std::string("\x7f\0image", 7);
  EXPECT_EQ(with_seal(before + empty_slot + "rest", seal), before + mark + seal + "rest");
  EXPECT_EQ(with_seal(mark + std::string(64, 'b'), seal), mark + seal);
}

TEST(WithSeal, RefusesAnImageWithoutExactlyOneWholeSlot) {
  for (const std::string& image :
       {std::string(), std::string("image"), mark, empty_slot.substr(0, empty_slot.size() - 1), empty_slot + empty_slot,
        empty_slot + mark, mark + empty_slot, empty_slot.substr(1), mark + std::string(63, '-') + '\0',
        mark + std::string(63, 'a') + "A"}) {
    EXPECT_FAILURE(with_seal(image, seal), "invalid_installer", "The program has no place for a package seal") << image;
  }
}

class PublishInstaller : public ::testing::Test {
 protected:
  PublishInstaller() {
    publication.package = root / "package";
    publication.program = root.write("program", "image " + empty_slot + " end");
    publication.output = root / "installer";
    package_seal = package.write(publication.package);
    before = root.names();
  }

  void expect_refused(const std::string& code, const std::string& message) {
    before = root.names();
    EXPECT_FAILURE(publish_installer(publication, {}), code, message);
    EXPECT_EQ(root.names(), before);
  }

  // A stand-in for the system's signer, which gets "--force --sign IDENTITY PROGRAM".
  std::string signer(const std::string& script) {
    const std::filesystem::path path = root.write("signer", "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(path, std::filesystem::perms(0755));
    return path;
  }

  // The headers of a program for macOS with one command, which is that of a signature or another.
  static std::string macos_program(bool is_signed) {
    std::string image("\xcf\xfa\xed\xfe", 4);
    for (const int number : {0, 0, 0, 1, 16, 0, 0, is_signed ? 0x1d : 0x1b, 16, 0, 0}) {
      image += std::string{static_cast<char>(number), '\0', '\0', '\0'};
    }
    return image;
  }

  static unsigned mode_of(const std::filesystem::path& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
  }

  const TemporaryRoot root;
  InitialPackage package;
  std::string package_seal;
  InstallerPublication publication;
  Names before;
};

TEST_F(PublishInstaller, PutsASealedProgramBesideItsPackage) {
  const PublishedInstaller published = publish_installer(publication, {});
  EXPECT_EQ(published.program, root / "installer/ravok-install");
  EXPECT_EQ(published.package, root / "installer/initial-package");
  EXPECT_EQ(published.seal, package_seal);
  EXPECT_EQ(root.read("installer/ravok-install"), "image " + mark + package_seal + " end");
  EXPECT_EQ(read_native_package(published.package, published.seal, {}).origin, "https://games.example");

  Names names = before;
  for (const char* made : {"installer/", "installer/initial-package/", "installer/ravok-install"}) {
    names.emplace_back(made);
  }
  EXPECT_EQ(mode_of(root / "installer"), 0755u);
  EXPECT_EQ(mode_of(root / "installer/initial-package"), 0755u);
  EXPECT_EQ(mode_of(root / "installer/ravok-install"), 0755u);
  for (const auto& entry : std::filesystem::directory_iterator(publication.package)) {
    const std::string name = "installer/initial-package/" + entry.path().filename().native();
    EXPECT_EQ(root.read(name), root.read("package/" + entry.path().filename().native()));
    EXPECT_EQ(mode_of(root / name), 0644u);
    names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(root.names(), names);
  EXPECT_EQ(root.read("program"), "image " + empty_slot + " end");
}

TEST_F(PublishInstaller, PutsTheNoticesBesideTheProgram) {
  publication.notices = root.write("notices", "May be used.\n");
  EXPECT_EQ(publish_installer(publication, {}).notices, root / "installer/third-party-notices.txt");
  EXPECT_EQ(root.read("installer/third-party-notices.txt"), "May be used.\n");
  EXPECT_EQ(mode_of(root / "installer/third-party-notices.txt"), 0644u);
}

TEST_F(PublishInstaller, TellsWhetherTheClientHasNotices) {
  EXPECT_FALSE(publish_installer(publication, {}).notices_in_client);
  const struct {
    Json InitialPackage::*manifest;
    const char* path;
    bool found;
  } cases[] = {{&InitialPackage::bootstrap, "third-party-notices.txt", true},
               {&InitialPackage::bootstrap, "doc/third-party-notices.txt", true},
               {&InitialPackage::launcher, "doc/legal/third-party-notices.txt", true},
               {&InitialPackage::bootstrap, "doc/no-third-party-notices.txt", false},
               {&InitialPackage::bootstrap, "third-party-notices.txt/other", false}};
  for (const auto& [manifest, path, found] : cases) {
    InitialPackage with_file;
    (with_file.*manifest)["files"].push_back(
        {{"path", path}, {"length", 0}, {"sha256", digest("", "sha256")}, {"mode", 0644}});
    publication.package = root / "package with a file";
    std::filesystem::remove_all(publication.package);
    std::filesystem::remove_all(publication.output);
    with_file.write(publication.package);
    EXPECT_EQ(publish_installer(publication, {}).notices_in_client, found) << path;
  }
}

TEST_F(PublishInstaller, RefusesNoticesThatCannotBeRead) {
  publication.notices = root / "notices";
  expect_refused("file_read", "Cannot open file: " + publication.notices.native());
  publication.notices = root.write("notices", std::string(16'777'217, 'x'));
  expect_refused("size_limit", publication.notices.native() + ": File exceeds read limit");
}

TEST_F(PublishInstaller, RefusesAPlaceInItsPackage) {
  const Names names = root.names();
  for (const std::filesystem::path& inside : {publication.package / "installer", publication.package / "a/b"}) {
    publication.output = inside;
    EXPECT_FAILURE(publish_installer(publication, {}), "unsafe_path",
                   "The installer's folder must lie outside the package");
  }
  EXPECT_EQ(root.names(), names);
}

TEST_F(PublishInstaller, ReplacesTheSealOfAnotherPackage) {
  publication.program = root.write("program", mark + seal);
  publish_installer(publication, {});
  EXPECT_EQ(root.read("installer/ravok-install"), mark + package_seal);
}

TEST_F(PublishInstaller, TakesAnOutputWithoutAFolderBeforeIt) {
  const testing::WorkingDirectory working(root.path());
  publication.output = "here";
  const PublishedInstaller published = publish_installer(publication, {});
  EXPECT_EQ(published.program, "./here/ravok-install");
  EXPECT_TRUE(std::filesystem::exists(root / "here/initial-package/initial-package.json"));
}

TEST_F(PublishInstaller, TellsHowFarItIs) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> steps;
  publish_installer(publication, [&](std::uint64_t done, std::uint64_t total) {
    steps.emplace_back(done, total);
    return true;
  });
  ASSERT_FALSE(steps.empty());
  for (std::size_t i = 0; i < steps.size(); ++i) {
    EXPECT_EQ(steps[i].second, steps.front().second);
    EXPECT_LE(i == 0 ? 0 : steps[i - 1].first, steps[i].first);
  }
  EXPECT_EQ(steps.back().first, steps.back().second);
}

TEST_F(PublishInstaller, LeavesNothingWheneverItIsCancelled) {
  std::size_t calls = 0;
  publish_installer(publication, [&](std::uint64_t, std::uint64_t) { return ++calls > 0; });
  std::filesystem::remove_all(root / "installer");
  ASSERT_GT(calls, 3u);
  std::set<std::string> messages;
  for (std::size_t last = 1; last <= calls; ++last) {
    std::size_t call = 0;
    const auto failure = testing::failure_of(
        [&] { publish_installer(publication, [&](std::uint64_t, std::uint64_t) { return ++call < last; }); });
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code, "cancelled");
    messages.insert(failure->what());
    EXPECT_EQ(root.names(), before);
  }
  EXPECT_EQ(messages, (std::set<std::string>{"File verification cancelled", "Operation cancelled at a safe boundary"}));
}

TEST_F(PublishInstaller, RefusesAnOutputThatIsThere) {
  const std::string message = "The output already exists: " + publication.output.native();
  root.write("installer/other", "other");
  expect_refused("output_exists", message);
  std::filesystem::remove_all(publication.output);
  std::filesystem::create_symlink("nowhere", publication.output);
  expect_refused("output_exists", message);
}

TEST_F(PublishInstaller, RefusesAProgramWithoutAPlaceForASeal) {
  root.write("program", "image");
  expect_refused("invalid_installer", publication.program.native() + ": The program has no place for a package seal");
}

TEST_F(PublishInstaller, LeavesAProgramOfAnotherSystemToItself) {
  publication.signer = signer("exit 1");
  publish_installer(publication, {});
  EXPECT_EQ(root.read("installer/ravok-install"), "image " + mark + package_seal + " end");
}

TEST_F(PublishInstaller, SignsAProgramForMacosOnceItsSealIsInIt) {
  for (const std::string& image : {macos_program(true), macos_program(false)}) {
    root.write("program", image + empty_slot);
    publication.signer = signer("printf '%s\n' \"$@\" >&2; printf signature >>\"$4\"");
    ::testing::internal::CaptureStderr();
    publish_installer(publication, {});
    const std::string said = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(said.starts_with("--force\n--sign\n-\n" + root.path().native() + "/")) << said;
    EXPECT_TRUE(said.ends_with("/ravok-install\n")) << said;
    EXPECT_EQ(root.read("installer/ravok-install"), image + mark + package_seal + "signature");
    EXPECT_EQ(mode_of(root / "installer/ravok-install"), 0755u);
    std::filesystem::remove_all(publication.output);
  }
}

TEST_F(PublishInstaller, SignsWithTheIdentityThatIsGivenAndSaysNothingOnStandardOutput) {
  root.write("program", macos_program(true) + empty_slot);
  publication.signing_identity = "Some One";
  publication.signer = signer("test \"$3\" = 'Some One' && echo said");
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  publish_installer(publication, {});
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "said\n");
}

TEST_F(PublishInstaller, LeavesNothingWhenTheProgramCannotBeSigned) {
  root.write("program", macos_program(true) + empty_slot);
  for (const std::string& failing : {signer("exit 1"), signer("kill -9 $$"), (root / "none").native()}) {
    publication.signer = failing;
    expect_refused("program_signature", "Cannot sign the program; what its signer said stands above");
  }
}

TEST_F(PublishInstaller, RefusesASignedProgramWhereNothingCanSignIt) {
  root.write("program", macos_program(true) + empty_slot);
  publication.signer = "";
  expect_refused("invalid_installer",
                 publication.program.native() +
                     ": A package seal breaks the signature of this program for macOS, which can be signed again on "
                     "macOS alone; make the installer there");
}

TEST_F(PublishInstaller, TakesAnUnsignedProgramForMacosWhereNothingCanSignIt) {
  root.write("program", macos_program(false) + empty_slot);
  publication.signer = "";
  publish_installer(publication, {});
  EXPECT_EQ(root.read("installer/ravok-install"), macos_program(false) + mark + package_seal);
}

TEST_F(PublishInstaller, RefusesAnIdentityWhereNothingIsSigned) {
  publication.signing_identity = "Some One";
  publication.signer = "";
  expect_refused("invalid_installer", publication.program.native() + ": Programs are signed on macOS alone");
  publication.signer = signer("exit 0");
  expect_refused("invalid_installer", publication.program.native() + ": Only a program for macOS is signed");
}

TEST_F(PublishInstaller, RefusesAProgramForMacosWithDamagedHeaders) {
  root.write("program", macos_program(true).substr(0, 20) + empty_slot.substr(0, 3));
  expect_refused("invalid_installer", publication.program.native() + ": The program has no place for a package seal");
  root.write("program", std::string("\xcf\xfa\xed\xfe", 4) + std::string(16, '\0') + "\xff\xff\xff\xff" + empty_slot);
  expect_refused("invalid_program",
                 publication.program.native() + ": The headers of this program for macOS are damaged");
}

TEST_F(PublishInstaller, RefusesAProgramThatIsNotThere) {
  std::filesystem::remove(publication.program);
  expect_refused("file_read", "Cannot open file: " + publication.program.native());
}

TEST_F(PublishInstaller, RefusesAPackageThatIsNoneOrNotThere) {
  std::filesystem::remove(publication.package / "initial-package.json");
  const std::string message = "Cannot open file: " + publication.package.native() + "/initial-package.json";
  expect_refused("file_read", message);
  std::filesystem::remove_all(publication.package);
  expect_refused("file_read", message);
}

TEST_F(PublishInstaller, RefusesAPackageThatWasChanged) {
  const std::string name = "package/" + testing::archive_name(package.bootstrap);
  std::string bytes = root.read(name);
  bytes.back() = static_cast<char>(bytes.back() ^ 1);
  root.write(name, bytes);
  expect_refused("content_mismatch", "Initial package resource changed: " + testing::archive_name(package.bootstrap));
}

TEST_F(PublishInstaller, RefusesAPackageWithMoreThanItNames) {
  root.write("package/more", "more");
  expect_refused("invalid_native_package", "Initial package contains an unexpected entry: more");
}

TEST_F(PublishInstaller, ProvesWhatItHasCopied) {
  // The package changes once all of it has been proved.
  const std::string name = testing::archive_name(package.launcher);
  bool changed = false;
  const auto change = [&](std::uint64_t done, std::uint64_t total) {
    if (!changed && done >= total / 3) {
      std::string bytes = root.read("package/" + name);
      bytes.back() = static_cast<char>(bytes.back() ^ 1);
      root.write("package/" + name, bytes);
      changed = true;
    }
    return true;
  };
  EXPECT_FAILURE(publish_installer(publication, change), "content_mismatch",
                 "Initial package resource changed: " + name);
  EXPECT_TRUE(changed);
  EXPECT_EQ(root.names(), before);
}

TEST(WithAppendedPlace, FillsTheOneSlotOfAnImage) {
  const AppendedPlace place = {1, 2, 3, std::string(64, 'a')};
  const std::string slot = testing::empty_appended_slot();
  EXPECT_EQ(with_appended_place("before" + slot + "behind", place),
            "before" + std::string(appended_package_mark) + appended_place_text(place) + "behind");
}

TEST(WithAppendedPlace, RefusesAnImageWithoutExactlyOneWholeSlot) {
  const std::string slot = testing::empty_appended_slot();
  for (const std::string& image :
       {std::string(), std::string(appended_package_mark), slot.substr(1), slot.substr(0, slot.size() - 1), slot + slot,
        std::string(appended_package_mark) + std::string(112, 'A')}) {
    EXPECT_FAILURE(with_appended_place(image, {}), "invalid_installer",
                   "The program has no place for a package of its own")
        << image;
  }
}

TEST_F(PublishInstaller, PutsADesktopEntryBesideTheProgramWhereThatIsAskedFor) {
  publication.desktop_file = true;
  const PublishedInstaller published = publish_installer(publication, {});
  EXPECT_EQ(published.desktop_file, root / "installer/ravok-install.desktop");
  EXPECT_EQ(mode_of(published.desktop_file), 0755u);
  const auto entry = testing::desktop_entry(root.read("installer/ravok-install.desktop"));
  EXPECT_EQ(entry.at("Type"), "Application");
  EXPECT_EQ(entry.at("Name"), "Install " + package.brand->at("name").get<std::string>());
  EXPECT_EQ(entry.at("Terminal"), "true");
}

TEST_F(PublishInstaller, LeavesTheFolderWithoutADesktopEntryOtherwise) {
  EXPECT_EQ(publish_installer(publication, {}).desktop_file, "");
  EXPECT_FALSE(std::filesystem::exists(root / "installer/ravok-install.desktop"));
}

class PublishWindowInstaller : public PublishInstaller {
 protected:
  PublishWindowInstaller() {
    publication.window_program = root.write("window", window + empty_slot);
    publication.desktop_file = true;
    before = root.names();
  }

  const std::string window = "with a window ";
};

TEST_F(PublishWindowInstaller, PutsBothSealedProgramsAndAnEntryThatOpensAWindowBesideThePackage) {
  const PublishedInstaller published = publish_installer(publication, {});
  EXPECT_EQ(published.program, root / "installer/ravok-install");
  EXPECT_EQ(published.window_program, root / "installer/ravok-install-gui");
  EXPECT_EQ(published.desktop_file, root / "installer/ravok-install-gui.desktop");
  EXPECT_EQ(root.read("installer/ravok-install"), "image " + mark + package_seal + " end");
  EXPECT_EQ(root.read("installer/ravok-install-gui"), window + mark + package_seal);
  for (const auto& made : {published.program, published.window_program, published.desktop_file}) {
    EXPECT_EQ(mode_of(made), 0755u) << made;
  }
  const auto entry = testing::desktop_entry(root.read("installer/ravok-install-gui.desktop"));
  EXPECT_EQ(entry.at("Type"), "Application");
  EXPECT_EQ(entry.at("Name"), "Install " + package.brand->at("name").get<std::string>());
  EXPECT_EQ(entry.at("Terminal"), "false");
  EXPECT_EQ(read_native_package(published.package, published.seal, {}).origin, "https://games.example");

  Names names = before;
  for (const char* made : {"", "initial-package/", "ravok-install", "ravok-install-gui", "ravok-install-gui.desktop"}) {
    names.emplace_back(std::string("installer/") + made);
  }
  for (const auto& entry_of_package : std::filesystem::directory_iterator(publication.package)) {
    names.emplace_back("installer/initial-package/" + entry_of_package.path().filename().native());
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(root.names(), names);
}

TEST_F(PublishWindowInstaller, LeavesTheFolderWithoutADesktopEntryWhereNoneIsAskedFor) {
  publication.desktop_file = false;
  EXPECT_EQ(publish_installer(publication, {}).desktop_file, "");
  EXPECT_FALSE(std::filesystem::exists(root / "installer/ravok-install-gui.desktop"));
}

TEST_F(PublishWindowInstaller, RefusesAWindowWithoutAPlaceForASeal) {
  root.write("window", window);
  expect_refused("invalid_installer",
                 publication.window_program.native() + ": The program has no place for a package seal");
}

TEST_F(PublishWindowInstaller, RefusesAWindowThatCarriesAPackage) {
  const AppendedPlace place = {1, 2, 3, std::string(64, 'a')};
  root.write("window", window + empty_slot + with_appended_place(testing::empty_appended_slot(), place));
  expect_refused("invalid_installer", publication.window_program.native() +
                                          ": The program carries a package already; give it as it was built");
}

TEST_F(PublishWindowInstaller, RefusesTheSameProgramTwiceUnderWhateverNameAndSeal) {
  const std::string message = ": The program with a window is the same as the one for the console";
  publication.window_program = publication.program;
  expect_refused("invalid_installer", publication.program.native() + message);
  publication.window_program = root.write("window", "image " + mark + seal + " end");
  expect_refused("invalid_installer", publication.window_program.native() + message);
}

TEST_F(PublishWindowInstaller, RefusesAProgramForMacos) {
  publication.signer = "";
  publication.desktop_file = false;
  root.write("window", macos_program(false) + empty_slot);
  expect_refused("invalid_installer",
                 publication.window_program.native() + ": The program with a window must be one for Linux");
}

TEST_F(PublishWindowInstaller, RefusesAProgramThatIsNotThere) {
  std::filesystem::remove(publication.window_program);
  expect_refused("file_read", "Cannot open file: " + publication.window_program.native());
}

TEST_F(PublishWindowInstaller, LooksAtTheConsoleProgramToo) {
  root.write("program", "image");
  expect_refused("invalid_installer", publication.program.native() + ": The program has no place for a package seal");
}

TEST_F(PublishWindowInstaller, LeavesNothingWhenAFileCannotBeFlushed) {
  int flushes = 0;
  for (;; ++flushes) {
    const testing::Planned plan(testing::failing("fsync", EIO, flushes + 1));
    const auto failure = testing::failure_of([&] { publish_installer(publication, {}); });
    if (!failure) {
      break;
    }
    EXPECT_TRUE(failure->code == "file_sync" || failure->code == "file_write") << failure->code;
    EXPECT_EQ(root.names(), before) << flushes;
  }
  // Two programs, the entry, and at least one file of the package.
  EXPECT_GT(flushes, 4);
}

TEST_F(PublishInstaller, RefusesADesktopEntryForAProgramForMacos) {
  publication.desktop_file = true;
  publication.signer = "";
  root.write("program", macos_program(false) + empty_slot);
  expect_refused("invalid_installer",
                 publication.program.native() + ": Desktop entries start programs for Linux alone");
}

TEST(InstallerDesktopEntry, HoldsANameWithABackslashAsItIs) {
  EXPECT_EQ(testing::desktop_entry(installer_desktop_entry("A\\sB")).at("Name"), "Install A\\sB");
  EXPECT_EQ(testing::desktop_entry(window_installer_desktop_entry("A\\sB")).at("Name"), "Install A\\sB");
}

class PublishSingleFile : public PublishInstaller {
 protected:
  PublishSingleFile() {
    publication.program = root.write("program", image);
    publication.single_file = true;
    before = root.names();
  }

  // The place that a published file's slot states.
  AppendedPlace place_in(const std::string& file) const {
    const std::size_t at = file.find(appended_package_mark) + appended_package_mark.size();
    return parse_appended_place(file.substr(at, appended_place_characters)).value();
  }

  const std::string image = "image " + empty_slot + testing::empty_appended_slot() + " end";
};

TEST_F(PublishSingleFile, PutsThePackageBehindTheProgram) {
  const PublishedInstaller published = publish_installer(publication, {});
  EXPECT_EQ(published.program, root / "installer");
  EXPECT_EQ(published.package, "");
  EXPECT_EQ(published.seal, package_seal);
  const std::string file = root.read("installer");
  const AppendedPlace place = place_in(file);
  EXPECT_EQ(file.substr(0, image.size()), with_appended_place(with_seal(image, package_seal), place));
  EXPECT_EQ(place.program_bytes, image.size());
  EXPECT_EQ(place.file_bytes, file.size());
  EXPECT_EQ(mode_of(root / "installer"), 0755u);
  EXPECT_EQ(read_native_package(AppendedPackage::in_file(published.program, place), package_seal, {}).origin,
            "https://games.example");
  Names names = before;
  names.emplace_back("installer");
  std::sort(names.begin(), names.end());
  EXPECT_EQ(root.names(), names);
}

TEST_F(PublishSingleFile, PutsThePackageBehindTheProgramWithAWindowAndLooksAtNoOther) {
  const std::string window = "window " + image;
  publication.window_program = root.write("window", window);
  publication.program = root / "missing";
  const PublishedInstaller published = publish_installer(publication, {});
  EXPECT_EQ(published.program, root / "installer");
  EXPECT_EQ(published.window_program, "");
  const std::string file = root.read("installer");
  const AppendedPlace place = place_in(file);
  EXPECT_EQ(file.substr(0, window.size()), with_appended_place(with_seal(window, package_seal), place));
  EXPECT_EQ(read_native_package(AppendedPackage::in_file(published.program, place), package_seal, {}).origin,
            "https://games.example");
}

TEST_F(PublishSingleFile, RefusesAWindowWithoutAPlaceForAPackage) {
  publication.window_program = root.write("window", "window " + empty_slot);
  expect_refused("invalid_installer",
                 publication.window_program.native() + ": The program has no place for a package of its own");
}

TEST_F(PublishSingleFile, GivesTheSameBytesForTheSamePackage) {
  publish_installer(publication, {});
  publication.output = root / "again";
  publish_installer(publication, {});
  EXPECT_EQ(root.read("again"), root.read("installer"));
}

TEST_F(PublishSingleFile, MakesAProgramWhateverTheMask) {
  const testing::WithMask mask(0077);
  publish_installer(publication, {});
  EXPECT_EQ(mode_of(root / "installer"), 0755u);
}

TEST_F(PublishSingleFile, TellsHowFarItIs) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> steps;
  publish_installer(publication, [&](std::uint64_t done, std::uint64_t total) {
    steps.emplace_back(done, total);
    return true;
  });
  ASSERT_FALSE(steps.empty());
  for (std::size_t i = 0; i < steps.size(); ++i) {
    EXPECT_EQ(steps[i].second, steps.front().second);
    EXPECT_LE(i == 0 ? 0 : steps[i - 1].first, steps[i].first);
  }
  EXPECT_EQ(steps.back().first, steps.back().second);
}

TEST_F(PublishSingleFile, GivesTheFileItsNameOnlyOnceItIsProved) {
  std::size_t proofs = 0;
  publish_installer(publication, [&](std::uint64_t done, std::uint64_t total) {
    // The third pass proves what the second has written.
    if (done > total / 3 * 2) {
      ++proofs;
      EXPECT_FALSE(std::filesystem::exists(root / "installer")) << done << " of " << total;
    }
    return true;
  });
  EXPECT_GT(proofs, 0u);
  EXPECT_TRUE(std::filesystem::exists(root / "installer"));
}

TEST_F(PublishSingleFile, LeavesNothingWheneverItIsCancelled) {
  std::size_t calls = 0;
  publish_installer(publication, [&](std::uint64_t, std::uint64_t) { return ++calls > 0; });
  std::filesystem::remove(root / "installer");
  ASSERT_GT(calls, 3u);
  for (std::size_t last = 1; last <= calls; ++last) {
    std::size_t call = 0;
    const auto failure = testing::failure_of(
        [&] { publish_installer(publication, [&](std::uint64_t, std::uint64_t) { return ++call < last; }); });
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code, "cancelled");
    EXPECT_EQ(root.names(), before);
  }
}

TEST_F(PublishSingleFile, RefusesAnOutputThatIsThereOrLiesInThePackage) {
  root.write("installer", "other");
  expect_refused("output_exists", "The output already exists: " + publication.output.native());
  publication.output = publication.package / "installer";
  expect_refused("unsafe_path", "The installer must lie outside the package");
}

TEST_F(PublishSingleFile, RefusesAProgramWithoutAPlaceForAPackage) {
  root.write("program", "image " + empty_slot + " end");
  expect_refused("invalid_installer",
                 publication.program.native() + ": The program has no place for a package of its own");
}

TEST_F(PublishSingleFile, RefusesAProgramThatCarriesAPackageAlready) {
  publish_installer(publication, {});
  publication.program = publication.output;
  publication.output = root / "second";
  for (const bool single_file : {true, false}) {
    publication.single_file = single_file;
    expect_refused("invalid_installer",
                   publication.program.native() + ": The program carries a package already; give it as it was built");
  }
}

TEST_F(PublishSingleFile, RefusesAProgramWhoseSlotIsDamaged) {
  for (const char wrong : {'0', 'A', '\0'}) {
    std::string damaged = image;
    damaged[damaged.find(appended_package_mark) + appended_package_mark.size() + 5] = wrong;
    root.write("program", damaged);
    expect_refused("content_mismatch", publication.program.native() + ": This installer was damaged; get it again");
  }
  // A folder is made of no such program either: it would start, and refuse to install anything.
  std::string wiped = image;
  wiped.replace(wiped.find(appended_package_mark) + appended_package_mark.size(), appended_place_characters,
                appended_place_characters, '\0');
  root.write("program", wiped);
  for (const bool single_file : {true, false}) {
    publication.single_file = single_file;
    expect_refused("content_mismatch", publication.program.native() + ": This installer was damaged; get it again");
  }
}

TEST_F(PublishSingleFile, RefusesAProgramForMacos) {
  publication.signer = "";
  root.write("program", macos_program(false) + image);
  expect_refused("invalid_installer",
                 publication.program.native() + ": A program for macOS carries no package; make a folder");
}

TEST_F(PublishSingleFile, ProvesWhatItHasWritten) {
  const std::string name = testing::archive_name(package.launcher);
  bool changed = false;
  const auto change = [&](std::uint64_t done, std::uint64_t total) {
    if (!changed && done >= total / 3) {
      std::string bytes = root.read("package/" + name);
      bytes.back() = static_cast<char>(bytes.back() ^ 1);
      root.write("package/" + name, bytes);
      changed = true;
    }
    return true;
  };
  EXPECT_FAILURE(publish_installer(publication, change), "content_mismatch",
                 "Initial package resource changed: " + name);
  EXPECT_TRUE(changed);
  EXPECT_EQ(root.names(), before);
}

TEST_F(PublishSingleFile, RefusesAFileThatGrowsWhileItIsCopied) {
  const std::string name = testing::archive_name(package.launcher);
  bool grown = false;
  const auto grow = [&](std::uint64_t done, std::uint64_t total) {
    // The first step beyond a third is that of the first file that was copied.
    if (!grown && done > total / 3) {
      root.write("package/" + name, root.read("package/" + name) + "more");
      grown = true;
    }
    return true;
  };
  EXPECT_FAILURE(publish_installer(publication, grow), "content_mismatch", "Initial package resource changed: " + name);
  EXPECT_TRUE(grown);
  EXPECT_EQ(root.names(), before);
}

}  // namespace
}  // namespace ravok
