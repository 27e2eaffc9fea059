// The commands of ravok-publish that come after the snapshots: keys, the first root, the package.

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "app/install/native_package.hpp"
#include "app/install/package_seal.hpp"
#include "domain/crypto.hpp"
#include "platform/process/native_platform.hpp"
#include "support/package_builder.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"
#include "support/window_program.hpp"

namespace ravok::publish_repository_test {
namespace {

using testing::ProgramResult;
using testing::run_program;
using testing::TemporaryRoot;
using Arguments = std::vector<std::string>;

constexpr const char* see_help = "\nRun with --help for more information.\n";

class PublishRepository : public ::testing::Test {
 protected:
  static ProgramResult publisher(const Arguments& arguments) { return run_program({RAVOK_PUBLISH, arguments, {}, ""}); }

  std::string expect_published(const Arguments& arguments) const {
    const ProgramResult result = publisher(arguments);
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    return result.output;
  }

  void expect_refused(const Arguments& arguments, int exit_code, const std::string& errors) const {
    const std::vector<std::string> before = root.names();
    const ProgramResult result = publisher(arguments);
    EXPECT_EQ(result.exit_code, exit_code);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, errors);
    EXPECT_EQ(root.names(), before);
  }

  void put_program(const std::string& path) const { ASSERT_EQ(chmod(root.write(path, "#!program").c_str(), 0755), 0); }

  Arguments root_arguments() const {
    const std::string key = root / "key";
    return {"root",        root / "root.json", "--expires",  "2050-01-01T00:00:00Z", "--root",    key,
            "--timestamp", key + ".pub",       "--snapshot", key + ".pub",           "--targets", key + ".pub"};
  }

  const TemporaryRoot root;
};

TEST_F(PublishRepository, SaysWhatKeyItMadeAndNeverShowsThePrivateOne) {
  const std::string said = expect_published({"key", root / "key"});
  const Json key = parse_json(root.read("key.pub"), 65'536);
  EXPECT_EQ(said, "Key ID: " + digest(canonical_json(key), "sha256") + "\nPrivate key, which nobody else may see: " +
                      (root / "key").native() + "\nPublic key: " + (root / "key.pub").native() + "\n");
  struct stat status;
  ASSERT_EQ(lstat((root / "key").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(PublishRepository, RefusesAKeyOfNoSchemeAndASecondKeyOfTheSameName) {
  expect_refused({"key", root / "key", "--scheme", "none"}, 2,
                 "There is no scheme none; there are rsassa-pss-sha256, rsassa-pss-sha384, rsassa-pss-sha512, "
                 "ecdsa-sha2-nistp256, ecdsa-sha2-nistp384, ecdsa-sha2-nistp521, ed25519, ml-dsa-44/1, ml-dsa-65/1, "
                 "ml-dsa-87/1\n");
  expect_published({"key", root / "key", "--scheme", "ml-dsa-65/1"});
  expect_refused({"key", root / "key"}, 1, "The output already exists: " + (root / "key").native() + "\n");
  expect_refused({"key"}, 2, std::string("FILE is required") + see_help);
}

TEST_F(PublishRepository, TakesSeveralKeysOfARoleAndSaysHowManySigned) {
  for (const char* name : {"key", "second"}) {
    expect_published({"key", root / name});
  }
  Arguments arguments = root_arguments();
  for (const std::string& more :
       {std::string("--root"), (root / "second").native(), std::string("--root-threshold"), std::string("2")}) {
    arguments.push_back(more);
  }
  EXPECT_EQ(expect_published(arguments), "Root with 2 signatures: " + (root / "root.json").native() + "\n");
}

TEST_F(PublishRepository, RefusesARootThatNobodySigns) {
  expect_published({"key", root / "key"});
  Arguments arguments = root_arguments();
  arguments.at(5) += ".pub";
  expect_refused(arguments, 1, "The threshold of the role root is 1, and the private keys to sign with are 0\n");
  arguments.resize(10);
  expect_refused(arguments, 2, std::string("--targets is required") + see_help);
}

TEST_F(PublishRepository, MakesAPackageOutOfItsOwnSnapshotsAndPrintsTheSeal) {
  put_program("bootstrap/bin/ravok-bootstrap");
  put_program("launcher/bin/console");
  put_program("launcher/bin/window");
  const std::string out = root.directory("out");
  expect_published({"snapshot", root / "bootstrap", "--kind", "bootstrap", "--build-id", "one", "--executable",
                    "bin/ravok-bootstrap", "--output", out});
  expect_published({"snapshot", root / "launcher", "--kind", "launcher", "--build-id", "one", "--executable",
                    "bin/console", "--gui-executable", "bin/window", "--output", out});
  expect_published({"key", root / "key"});
  expect_published(root_arguments());
  const std::string platform(native_platform());
  const std::string package = root / "package";
  const Arguments arguments = {"package",         package,
                               "--bootstrap",     out + "/bootstrap-" + platform + ".manifest.json",
                               "--launcher",      out + "/launcher-" + platform + ".manifest.json",
                               "--root",          root / "root.json",
                               "--origin",        "https://updates.example.com",
                               "--featured-game", "game=The Game"};
  const std::string said = expect_published(arguments);
  const std::size_t seal = said.find("\nSeal: ");
  ASSERT_NE(seal, std::string::npos) << said;
  EXPECT_TRUE(said.starts_with("Package: " + package + " ("));
  const NativePackage read = read_native_package(package, said.substr(seal + 7, 64), {});
  EXPECT_EQ(read.featured_game->name, "The Game");
  EXPECT_TRUE(said.ends_with("\nCan be installed until 2050-01-01T00:00:00Z, when its root document expires\n"))
      << said;

  expect_refused(arguments, 1, "The output already exists: " + package + "\n");
  Arguments unnamed = arguments;
  unnamed.back() = "game";
  unnamed.at(1) += "-2";
  expect_refused(unnamed, 2, "A featured game is named as ID=NAME: game\n");
  Arguments half_branded = arguments;
  half_branded.at(10) = "--brand-name";
  half_branded.at(1) += "-2";
  expect_refused(half_branded, 2, std::string("--brand-name requires --brand-id") + see_help);
}

TEST_F(PublishRepository, MakesAnInstallerOfItsOwnProgramAndSaysWhatItMade) {
  const std::string package = root / "package";
  const std::string folder = root / "installer";
  const std::string seal = testing::InitialPackage().write(package);
  const Arguments arguments = {"installer", package, folder};
  EXPECT_EQ(expect_published(arguments),
            "Installer: " + folder + "/ravok-install\nPackage: " + folder + "/initial-package\nSeal: " + seal +
                "\nCan be installed until 2999-12-31T23:59:59Z, when its root document expires\n");
  expect_refused(arguments, 1, "The output already exists: " + folder + "\n");
  const ProgramResult installed =
      run_program({folder + "/ravok-install", {"--data-dir", root / "data"}, {{"HOME", root.directory("home")}}, ""});
  EXPECT_EQ(installed.exit_code, 0) << installed.errors;
  EXPECT_EQ(installed.output, "Installed Acme Games in " + (root / "data").native() + ".\n");
  EXPECT_EQ(read_native_package(folder + "/initial-package", seal, {}).origin, "https://games.example");
}

// The program with a window is a script here.
TEST_F(PublishRepository, MakesAnInstallerWithAWindowOfTheProgramBesideIt) {
  const std::string package = root / "package";
  const std::string folder = root / "installer";
  const std::string seal = testing::InitialPackage().write(package);
  root.directory("bin");
  for (const char* program : {RAVOK_PUBLISH, RAVOK_INSTALL}) {
    std::filesystem::copy_file(program, root / "bin" / std::filesystem::path(program).filename());
  }
  const Arguments arguments = {"installer", package, folder, "--gui"};
  const ProgramResult without = run_program({root / "bin/ravok-publish", arguments, {}, ""});
  EXPECT_EQ(without.exit_code, 1);
  EXPECT_EQ(without.output, "");
  EXPECT_EQ(without.errors,
            "No ravok-install-gui lies beside this program; build the programs with a window, or name the file with "
            "--gui-program FILE\n");
  EXPECT_FALSE(std::filesystem::exists(folder));

  root.write("bin/ravok-install-gui", testing::window_program("echo \"$0\""));
  const ProgramResult with = run_program({root / "bin/ravok-publish", arguments, {}, ""});
  EXPECT_EQ(with.exit_code, 0) << with.errors;
  EXPECT_EQ(with.output, "Installer: " + folder + "/ravok-install\nInstaller with a window: " + folder +
                             "/ravok-install-gui\nPackage: " + folder + "/initial-package\nDesktop entry: " + folder +
                             "/ravok-install-gui.desktop\nSeal: " + seal +
                             "\nCan be installed until 2999-12-31T23:59:59Z, when its root document expires\n");
  const ProgramResult started = run_program({folder + "/ravok-install-gui", {}, {}, ""});
  EXPECT_EQ(started.output, folder + "/ravok-install-gui\n");
  EXPECT_NE(root.read("installer/ravok-install-gui").find(std::string(package_seal_mark) + seal), std::string::npos);
}

TEST_F(PublishRepository, MakesOneFileOfTheProgramWithAWindow) {
  const std::string package = root / "package";
  const std::string file = root / "installer";
  testing::InitialPackage().write(package);
  const std::string window = root.write("window", testing::window_program("echo \"$0\""));
  const ProgramResult published =
      publisher({"installer", package, file, "--single-file", "--gui", "--gui-program", window, "--json"});
  EXPECT_EQ(published.exit_code, 0) << published.errors;
  const Json made = Json::parse(published.output);
  EXPECT_EQ(made.at("installer").at("path"), file);
  EXPECT_FALSE(made.contains("gui_installer"));
  EXPECT_FALSE(made.contains("desktop_file"));
  const ProgramResult started = run_program({file, {}, {}, ""});
  EXPECT_EQ(started.output, file + "\n") << started.errors;
}

TEST_F(PublishRepository, TellsOfAnInstallerWithAWindowInADocument) {
  const auto described = [&](const std::string& name) {
    const std::string bytes = root.read(name);
    return Json{{"path", (root / name).native()}, {"length", bytes.size()}, {"sha256", digest(bytes, "sha256")}};
  };
  testing::InitialPackage().write(root / "package");
  // The notices beside the program with a window tell of its toolkit too.
  root.write("other/third-party-notices.txt", "Of the window.\n");
  const std::string window = root.write("other/window", testing::window_program(""));
  const Json made = Json::parse(expect_published(
      {"installer", root / "package", root / "installer", "--gui", "--gui-program", window, "--json"}));
  EXPECT_EQ(made.at("installer"), described("installer/ravok-install"));
  EXPECT_EQ(made.at("gui_installer"), described("installer/ravok-install-gui"));
  EXPECT_EQ(made.at("desktop_file"), described("installer/ravok-install-gui.desktop"));
  EXPECT_EQ(made.at("notices"), described("installer/third-party-notices.txt"));
  EXPECT_EQ(root.read("installer/third-party-notices.txt"), "Of the window.\n");
}

TEST_F(PublishRepository, RefusesAWindowThatCannotBeMade) {
  const std::string package = root / "package";
  const std::string folder = root / "installer";
  testing::InitialPackage().write(package);
  const std::string window = root.write("window", "a program");
  expect_refused({"installer", package, folder, "--gui", "--gui-program", window}, 1,
                 window + ": The program has no place for a package seal\n");
  expect_refused({"installer", package, folder, "--gui", "--gui-program", RAVOK_INSTALL}, 1,
                 std::string(RAVOK_INSTALL) + ": The program with a window is the same as the one for the console\n");
  expect_refused({"installer", package, folder, "--gui", "--gui-program", root / "none"}, 1,
                 "Cannot open file: " + (root / "none").native() + "\n");
  expect_refused({"installer", package, folder, "--gui-program", window}, 2, "--gui-program is for --gui\n");
  expect_refused({"installer", package, folder, "--gui", "--single-file", "--program", window}, 2,
                 "With --gui, one file is the program with a window; name that with --gui-program\n");
}

TEST_F(PublishRepository, RefusesAnInstallerOfAnotherProgramOrWithoutAPackage) {
  const std::string package = root / "package";
  const std::string folder = root / "installer";
  testing::InitialPackage().write(package);
  const std::string program = root.write("program", "a program");
  expect_refused({"installer", package, folder, "--program", program}, 1,
                 program + ": The program has no place for a package seal\n");
  expect_refused({"installer", package, folder, "--program", RAVOK_PUBLISH}, 1,
                 std::string(RAVOK_PUBLISH) + ": The program has no place for a package seal\n");
  expect_refused({"installer", package, folder, "--sign", "-"}, 2, "Programs are signed on macOS alone\n");
  expect_refused({"installer"}, 2, std::string("PACKAGE is required") + see_help);
  expect_refused({"installer", package}, 2, std::string("OUTPUT is required") + see_help);
  expect_refused({"installer", root / "none", folder}, 1,
                 "Cannot open file: " + (root / "none/initial-package.json").native() + "\n");
}

// Everything that can be seen to be wrong without a look at any file ends with 2.
TEST_F(PublishRepository, TellsAWrongCommandLineFromEveryOtherFailure) {
  expect_published({"key", root / "key"});
  const auto changed = [](Arguments arguments, std::size_t at, const std::string& value) {
    arguments.at(at) = value;
    return arguments;
  };
  const auto with = [](Arguments arguments, const Arguments& more) {
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  };
  const std::string missing = root / "missing";
  const Arguments package = {"package", root / "package", "--bootstrap", missing,    "--launcher",
                             missing,   "--root",         missing,       "--origin", "https://updates.example.com"};
  const Arguments brand = with(package, {"--brand-name", "Acme", "--brand-id", "acme", "--brand-publisher", "Acme"});
  const struct {
    Arguments arguments;
    int exit_code;
    std::string message;
  } cases[] = {
      {changed(root_arguments(), 3, "tomorrow"), 2, "Expiry must use a UTC ISO-8601 timestamp"},
      {changed(root_arguments(), 3, "2001-01-01T00:00:00Z"), 2, "The root document would have expired already"},
      {with(root_arguments(), {"--targets-threshold", "2"}), 2,
       "The role targets has 1 key, which cannot meet a threshold of 2"},
      {with(root_arguments(), {"--root-threshold", "0"}), 2,
       "The role root has 1 key, which cannot meet a threshold of 0"},
      {changed(root_arguments(), 5, missing), 1, "Cannot open file: " + missing},
      {with(brand, {"--featured-game", "a b=Game"}), 2,
       "Game and build IDs use lower-case letters, digits, dots and hyphens"},
      {with(brand, {"--featured-game", "game="}), 2, "Featured game name must be 1 to 80 bytes"},
      {with(brand, {"--featured-game", "game=a\nb"}), 2, "The name of a featured game must be plain text"},
      {with(package, {"--ca-bundle", ""}), 2, "--ca-bundle needs a value"},
      {changed(package, 9, "https://a:"), 2, "The origin has a colon without a port behind it"},
      {changed(package, 9, "https://a:65536"), 2, "The port of the origin must be a number from 1 to 65535"},
      {changed(package, 9, "https://%"), 2, "The origin must not contain a percent sign"},
      {package, 1, "Cannot open file: " + missing}};
  for (const auto& refused : cases) {
    expect_refused(refused.arguments, refused.exit_code, refused.message + "\n");
  }
  for (const Arguments& refused : {changed(package, 9, "http://updates.example.com"), changed(package, 9, "nonsense"),
                                   changed(brand, 11, "a/b"), changed(brand, 13, "A B")}) {
    const ProgramResult result = publisher(refused);
    EXPECT_EQ(result.exit_code, 2) << result.errors;
    EXPECT_EQ(result.output, "");
    EXPECT_FALSE(std::filesystem::exists(root / "package"));
  }
}

TEST_F(PublishRepository, MakesTheMissingFoldersOfItsOutputs) {
  expect_published({"key", root / "keys/deep/key"});
  const std::string key = root / "keys/deep/key";
  Arguments arguments = root_arguments();
  arguments.at(1) = root / "out/root.json";
  arguments.at(5) = key;
  for (const std::size_t at : {7u, 9u, 11u}) {
    arguments.at(at) = key + ".pub";
  }
  expect_published(arguments);
  EXPECT_TRUE(std::filesystem::exists(root / "out/root.json"));
  const std::string package = root / "package";
  testing::InitialPackage().write(package);
  expect_published({"installer", package, root / "made/for/it"});
  EXPECT_TRUE(std::filesystem::exists(root / "made/for/it/ravok-install"));
}

TEST_F(PublishRepository, PrintsResultsAsDocuments) {
  const auto described = [&](const std::string& name) {
    const std::string bytes = root.read(name);
    return Json{{"path", (root / name).native()}, {"length", bytes.size()}, {"sha256", digest(bytes, "sha256")}};
  };
  const Json key = Json::parse(expect_published({"key", root / "key", "--json"}));
  EXPECT_EQ(key, (Json{{"schema_version", 1},
                       {"key_id", digest(canonical_json(Json::parse(root.read("key.pub"))), "sha256")},
                       {"scheme", "ed25519"},
                       {"private_key", {{"path", (root / "key").native()}}},
                       {"public_key", described("key.pub")}}));
  Arguments arguments = root_arguments();
  arguments.emplace_back("--json");
  const Json root_result = Json::parse(expect_published(arguments));
  EXPECT_EQ(root_result, (Json{{"schema_version", 1}, {"signatures", 1}, {"root", described("root.json")}}));
  const std::string seal = testing::InitialPackage().write(root / "package");
  const Json installer = Json::parse(expect_published({"installer", root / "package", root / "installer", "--json"}));
  EXPECT_EQ(installer.at("seal"), seal);
  EXPECT_EQ(installer.at("root_expires"), "2999-12-31T23:59:59Z");
  EXPECT_EQ(installer.at("installer"), described("installer/ravok-install"));
  const Json& files = installer.at("package").at("files");
  std::size_t seen = 0;
  for (const auto& entry : std::filesystem::directory_iterator(root / "package")) {
    const std::string name = entry.path().filename();
    const std::string bytes = root.read("package/" + name);
    const Json expected = {{"name", name}, {"length", bytes.size()}, {"sha256", digest(bytes, "sha256")}};
    EXPECT_EQ(std::count(files.begin(), files.end(), expected), 1) << name;
    ++seen;
  }
  EXPECT_EQ(files.size(), seen);
  EXPECT_EQ(installer.at("notices"), described("installer/third-party-notices.txt"));
}

TEST_F(PublishRepository, PutsTheLicencesOfItsLibrariesBesideAnInstaller) {
  testing::InitialPackage().write(root / "package");
  expect_published({"installer", root / "package", root / "first"});
  EXPECT_NE(root.read("first/third-party-notices.txt").find("OpenSSL"), std::string::npos);
  expect_published({"installer", root / "package", root / "second", "--notices", root.write("mine", "Mine.\n")});
  EXPECT_EQ(root.read("second/third-party-notices.txt"), "Mine.\n");
}

TEST_F(PublishRepository, TellsOfAnInstallerWithoutLicences) {
  testing::InitialPackage().write(root / "package");
  // Copied away from what lies beside it.
  root.directory("bin");
  for (const char* program : {RAVOK_PUBLISH, RAVOK_INSTALL}) {
    std::filesystem::copy_file(program, root / "bin" / std::filesystem::path(program).filename());
  }
  const ProgramResult result =
      run_program({root / "bin/ravok-publish", {"installer", root / "package", root / "installer"}, {}, ""});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.errors,
            "No third-party-notices.txt is found, so the installer comes without the licences of the libraries in it. "
            "They ask to be passed on: name the file with --notices FILE.\n");
  EXPECT_FALSE(std::filesystem::exists(root / "installer/third-party-notices.txt"));
  // An installation of the programs has them in a folder of its own.
  root.directory("share/doc/ravok");
  root.write("share/doc/ravok/third-party-notices.txt", "Installed.\n");
  EXPECT_EQ(run_program({root / "bin/ravok-publish", {"installer", root / "package", root / "next"}, {}, ""}).errors,
            "");
  EXPECT_EQ(root.read("next/third-party-notices.txt"), "Installed.\n");
}

TEST_F(PublishRepository, TellsOfASingleFileWhoseClientHasNoLicences) {
  testing::InitialPackage package;
  package.write(root / "package");
  const std::string complaint =
      "No third-party-notices.txt is among the files of the package, and one file has no other place for it, so the "
      "installer comes without the licences of the libraries in it. They ask to be passed on: put the file into the "
      "tree of the bootstrap, and make the package again.\n";
  const ProgramResult words = publisher({"installer", root / "package", root / "first", "--single-file"});
  EXPECT_EQ(words.exit_code, 0);
  EXPECT_EQ(words.errors, complaint);
  const ProgramResult document = publisher({"installer", root / "package", root / "second", "--single-file", "--json"});
  EXPECT_EQ(document.exit_code, 0);
  EXPECT_EQ(document.errors, complaint);
  EXPECT_EQ(Json::parse(document.output).at("notices"), nullptr);

  package.bootstrap["files"].push_back(
      {{"path", "third-party-notices.txt"}, {"length", 0}, {"sha256", digest("", "sha256")}, {"mode", 0644}});
  package.write(root / "next");
  const std::string told = expect_published({"installer", root / "next", root / "third", "--single-file", "--json"});
  EXPECT_FALSE(Json::parse(told).contains("notices"));
  expect_refused({"installer", root / "next", root / "fourth", "--single-file", "--notices", root / "mine"}, 2,
                 "One file has no place for the notices; ship them in the client that it installs\n");
}

TEST_F(PublishRepository, NamesItsCommandsWhereNoneIsGiven) {
  expect_refused({}, 2, std::string("A subcommand is required") + see_help);
  const std::string help = expect_published({"--help"});
  for (const char* command : {"snapshot", "key", "root", "package", "installer", "repository"}) {
    EXPECT_NE(help.find(command), std::string::npos) << command;
  }
}

}  // namespace
}  // namespace ravok::publish_repository_test
