// An installer in one file, from its making with ravok-publish to the end of what it has installed.

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/appended_package.hpp"
#include "app/install/package_seal.hpp"
#include "domain/json.hpp"
#include "platform/file/file_digest.hpp"
#include "programs/installer_place.hpp"
#include "support/bytes_of.hpp"
#include "support/process.hpp"

namespace ravok::single_file_installer_test {
namespace {

using testing::ProgramResult;
using testing::run_program;
using Arguments = std::vector<std::string>;

std::string problem(const std::string& code, const std::string& message) {
  return Json{{"schema_version", 1}, {"problem", {{"code", code}, {"message", message}}}}.dump() + "\n";
}

void expect(const ProgramResult& result, int exit_code, const std::string& output, const std::string& errors) {
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exit_code, exit_code);
  EXPECT_EQ(result.output, output);
  EXPECT_EQ(result.errors, errors);
}

class SingleFileInstaller : public ::testing::Test, protected testing::InstallerPlace {
 protected:
  SingleFileInstaller() {
    const ProgramResult published = publish_file(file, {});
    EXPECT_EQ(published.exit_code, 0) << published.errors;
    size = std::filesystem::file_size(file);
    before = place.root().names();
  }

  ProgramResult publish_file(const std::filesystem::path& output, const Arguments& more) const {
    Arguments arguments = {"installer", place.package_directory(), output, "--program", RAVOK_INSTALL, "--single-file"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run_program({RAVOK_PUBLISH, arguments, {}, ""});
  }
  ProgramResult run_from(const std::filesystem::path& program, const Arguments& arguments) const {
    return run_program({program, arguments, environment(), ""});
  }
  ProgramResult run(const Arguments& arguments) const { return run_from(file, arguments); }
  void expect_refused(const std::string& code, const std::string& message) const {
    expect(run({}), 1, "", message + "\n");
    expect(run({"install", "--json"}), 1, problem(code, message), message + "\n");
    expect_nothing_left();
  }
  void change(std::uint64_t at) const {
    std::fstream bytes(file, std::ios::in | std::ios::out | std::ios::binary);
    bytes.seekg(static_cast<std::streamoff>(at));
    const char byte = static_cast<char>(bytes.get() ^ 0x20);
    bytes.seekp(static_cast<std::streamoff>(at));
    bytes.put(byte);
    ASSERT_TRUE(bytes.flush());
  }

  const std::filesystem::path file = place.root() / "Acme Setup";
  const std::string data = place.home() / ".local/share/Acme Games";
  std::uint64_t size = 0;
};

TEST_F(SingleFileInstaller, LeadsThroughTheLifeOfAnInstallation) {
  const Arguments there = {"--data-dir", data};
  const auto run_there = [&](Arguments arguments) {
    arguments.insert(arguments.end(), there.begin(), there.end());
    return run(arguments);
  };
  expect(run({}), 0, "Installed Acme Games in " + data + ".\n", "Verifying…\nInstalling…\n");
  expect(run_there({"status"}), 0, "Acme Games is installed in " + data + " (bootstrap build-1, launcher build-1).\n",
         "");
  expect(run({"repair"}), 0, "Repaired Acme Games in " + data + ". Everything was already intact.\n", "Verifying…\n");
  const std::filesystem::path notes = data + "/native/bootstrap/data/notes";
  place.root().write("home/.local/share/Acme Games/native/bootstrap/data/notes", "changed");
  std::filesystem::remove_all(data + "/launcher");
  expect(run({"repair"}), 0, "Repaired Acme Games in " + data + ".\n", "Verifying…\nInstalling…\n");
  EXPECT_EQ(place.root().read("home/.local/share/Acme Games/native/bootstrap/data/notes"), "notes");
  expect(run_there({"shortcut", "create", "--game", "first-game"}), 0, "Created 1 shortcut(s).\n", "");
  expect(run_there({"shortcut", "remove"}), 0, "Removed 2 shortcut(s).\n", "");
  place.root().write("home/.local/share/Acme Games/userdata/save", "save");
  expect(run_there({"uninstall"}), 0, "Removed Acme Games from " + data + ". Saves and settings were kept.\n",
         "Removing…\n");
  EXPECT_EQ(place.root().read("home/.local/share/Acme Games/userdata/save"), "save");
}

TEST_F(SingleFileInstaller, InstallsWhatTheOneInAFolderInstalls) {
  ASSERT_EQ(run({"--data-dir", place.root() / "one"}).exit_code, 0);
  ASSERT_EQ(run_from(program(), {"--data-dir", place.root() / "two"}).exit_code, 0);
  const auto installed = [&](const std::string& below_root) {
    std::map<std::string, std::string> files;
    for (const char* part : {"native/bootstrap", "launcher/versions", "launcher/manifests", "tuf"}) {
      const std::filesystem::path below = place.root() / below_root / part;
      if (!std::filesystem::exists(below)) {
        continue;
      }
      for (const auto& entry : std::filesystem::recursive_directory_iterator(below)) {
        const std::string name = entry.path().lexically_relative(place.root() / below_root);
        files[name] = entry.is_regular_file() ? digest_file(entry.path(), "sha256") : "";
      }
    }
    return files;
  };
  EXPECT_GT(installed("one").size(), 5u);
  EXPECT_EQ(installed("one"), installed("two"));
}

TEST_F(SingleFileInstaller, LiesAnywhereUnderAnyNameAndLooksAtNothingBesideIt) {
  // A package beside it that belongs to another installer.
  const std::filesystem::path elsewhere = place.root().directory("else where");
  std::filesystem::rename(file, elsewhere / "ravok-install");
  place.root().write("else where/initial-package/initial-package.json", "{}");
  std::filesystem::permissions(elsewhere / "ravok-install", std::filesystem::perms(0555));
  expect(run_from(elsewhere / "ravok-install", {}), 0, "Installed Acme Games in " + data + ".\n",
         "Verifying…\nInstalling…\n");
}

TEST_F(SingleFileInstaller, TakesAnotherPlaceOfItsPackageThatIsNamed) {
  expect(run({"--package", place.package_directory()}), 0, "Installed Acme Games in " + data + ".\n",
         "Verifying…\nInstalling…\n");
  const std::filesystem::path none = place.root().directory("none");
  expect(run({"repair", "--package", none}), 1, "",
         "Cannot open file: " + (none / "initial-package.json").native() + "\n");
}

TEST_F(SingleFileInstaller, TellsThatItWasCutShort) {
  std::filesystem::resize_file(file, size - 1);
  expect_refused("content_mismatch", "This installer was cut short: it has " + std::to_string(size - 1) + " of its " +
                                         std::to_string(size) + " bytes; get it again");
  // All of the package and of its index is gone, as the tool that strips programs leaves it.
  const std::uint64_t image = std::filesystem::file_size(RAVOK_INSTALL);
  std::filesystem::resize_file(file, image);
  expect_refused("content_mismatch", "This installer was cut short: it has " + std::to_string(image) + " of its " +
                                         std::to_string(size) + " bytes; get it again");
  // What needs no package still works.
  expect(run({"status"}), 0, "Ravok is not installed in " + (place.home() / ".local/share/Ravok").native() + ".\n", "");
}

TEST_F(SingleFileInstaller, TellsWhatDoesNotBelongToIt) {
  std::filesystem::resize_file(file, size + 1);
  expect_refused("content_mismatch", "This installer has bytes behind its end that do not belong to it; get it again");
}

TEST_F(SingleFileInstaller, TellsWhatHasChangedInItsPackage) {
  const std::uint64_t image = std::filesystem::file_size(RAVOK_INSTALL);
  change(image);
  expect_refused("content_mismatch", "This installer was damaged; get it again");
  change(image);
  change(size - 1);
  const ProgramResult result = run({"--json"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(Json::parse(result.output).at("problem").at("code"), "content_mismatch") << result.output;
  expect_nothing_left();
}

TEST_F(SingleFileInstaller, TellsThatThePlaceOfItsPackageIsDamaged) {
  const std::string bytes = testing::bytes_of(file);
  const std::size_t slot = bytes.find(appended_package_mark);
  ASSERT_NE(slot, std::string::npos);
  change(slot + appended_package_mark.size() + 20);
  // A package beside it does not take the place of its own.
  std::filesystem::copy(place.package_directory(), place.root() / "initial-package");
  before = place.root().names();
  expect_refused("content_mismatch", "This installer was damaged; get it again");
  EXPECT_EQ(run({"--help"}).exit_code, 0);
  EXPECT_EQ(run({"--version"}).exit_code, 0);
  expect(run({"status"}), 0, "Ravok is not installed in " + (place.home() / ".local/share/Ravok").native() + ".\n", "");
}

TEST_F(SingleFileInstaller, TellsThatItsSealIsDamaged) {
  const std::string bytes = testing::bytes_of(file);
  const std::size_t slot = bytes.find(package_seal_mark);
  ASSERT_NE(slot, std::string::npos);
  change(slot + package_seal_mark.size() + 7);
  expect_refused("content_mismatch", "This installer was damaged; get it again");
}

TEST_F(SingleFileInstaller, IsTheSameForTheSamePackageAndTellsOfItself) {
  const std::filesystem::path again = place.root() / "again";
  const ProgramResult published = publish_file(again, {"--json"});
  ASSERT_EQ(published.exit_code, 0) << published.errors;
  const Json document = Json::parse(published.output);
  EXPECT_EQ(document.at("installer").at("path"), again.native());
  EXPECT_EQ(document.at("installer").at("length"), size);
  EXPECT_EQ(document.at("installer").at("sha256"), digest_file(file, "sha256"));
  EXPECT_EQ(document.at("seal"), place.seal());
  EXPECT_FALSE(document.contains("package"));
}

TEST_F(SingleFileInstaller, IsNoProgramToMakeAnotherOf) {
  const ProgramResult result = run_program(
      {RAVOK_PUBLISH,
       {"installer", place.package_directory(), place.root() / "second", "--program", file, "--single-file"},
       {},
       ""});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, file.native() + ": The program carries a package already; give it as it was built\n");
  expect_nothing_left();
}

}  // namespace
}  // namespace ravok::single_file_installer_test
