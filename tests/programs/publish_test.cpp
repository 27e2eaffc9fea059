// ravok-publish as a publisher meets it, and beside it the archivers of the system, which must read what
// it writes, and write what the client reads.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "domain/bootstrap_contract.hpp"
#include "domain/crypto.hpp"
#include "domain/game_manifest.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/manifest.hpp"
#include "platform/process/native_platform.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "support/companion.hpp"
#include "support/failure.hpp"
#include "support/process.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/with_mask.hpp"

namespace ravok::publish_test {
namespace {

using testing::noise;
using testing::ProgramResult;
using testing::run_program;
using testing::SampleFile;
using testing::TemporaryRoot;

using Arguments = std::vector<std::string>;
using Files = std::vector<SampleFile>;
using Names = std::vector<std::string>;

constexpr const char* see_help = "\nRun with --help for more information.\n";

// The attributes of a file, without its times and its owner.
struct Seen {
  mode_t mode;
  std::string content;
  bool operator==(const Seen&) const = default;
};

class PublishTest : public ::testing::Test {
 protected:
  const TemporaryRoot root;
  const std::filesystem::path tree = root / "tree";
  const std::filesystem::path output = root.directory("output");
  const std::string platform{native_platform()};
  const std::string game = "game-" + platform + "-build-1";

  std::filesystem::path put(const std::string& path, const std::string& content = "x", mode_t mode = 0644) const {
    const std::filesystem::path file = root.write(path, content);
    EXPECT_EQ(chmod(file.c_str(), mode), 0) << path;
    return file;
  }

  void put_tree(const Files& files, const std::string& directory = "tree") const {
    for (const SampleFile& file : files) {
      put(directory + "/" + file.path, file.content, file.mode);
    }
  }

  void put_program() const { put("tree/bin/program", "#!program", 0755); }

  static ProgramResult publisher(const Arguments& arguments, const std::string& output_path = "") {
    return run_program({RAVOK_PUBLISH, arguments, {}, output_path});
  }

  Arguments common(const std::string& kind) const {
    return {"snapshot", tree,           "--kind",      kind,       "--build-id",
            "build-1",  "--executable", "bin/program", "--output", output};
  }

  static Arguments with(Arguments arguments, const Arguments& more) {
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  Arguments of_game(const Arguments& more = {}) const {
    return with(with(common("game"), {"--game-id", "game", "--display-name", "The Game"}), more);
  }

  Names outputs() const {
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(output)) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  void expect_published(const Arguments& arguments) const {
    const ProgramResult result = publisher(arguments);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.errors, "");
  }

  void expect_refused(const Arguments& arguments, int exit_code, const std::string& errors,
                      const Names& left = {}) const {
    const ProgramResult result = publisher(arguments);
    EXPECT_EQ(result.exit_code, exit_code) << errors;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, errors);
    EXPECT_EQ(outputs(), left);
  }

  void expect_tree_refused(const std::string& errors) const { expect_refused(of_game(), 1, errors + "\n"); }
  void expect_tree_refused(const std::string& message, const std::string& measure) const {
    expect_tree_refused(message + "\n" + measure);
  }

  std::string read_output(const std::string& name) const { return root.read("output/" + name); }
  Json document(const std::string& name) const {
    const std::string text = read_output(name);
    return parse_json(text, text.size());
  }

  // Everything below a directory; for directories, only their names.
  std::map<std::string, Seen> seen(const std::filesystem::path& directory) const {
    std::map<std::string, Seen> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
      struct stat status;
      EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
      const std::string path = entry.path().lexically_relative(directory);
      if (S_ISREG(status.st_mode)) {
        found[path] = {status.st_mode, root.read(entry.path().lexically_relative(root.path()).native())};
      } else {
        found[path] = {status.st_mode & S_IFMT, ""};
      }
    }
    return found;
  }
};

// --- What is published ---------------------------------------------------------------------

TEST_F(PublishTest, TellsWhatItWrote) {
  put_program();
  put("tree/data", std::string(1536 - 9, 'x'));
  const ProgramResult result = publisher(of_game());
  const std::filesystem::path archive = output / (game + ".tar.zst");
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output, "Packed 2 files, 1.5 KiB, into " + archive.native() + " (" +
                               std::to_string(std::filesystem::file_size(archive)) +
                               " bytes)\nManifest: " + (output / (game + ".manifest.json")).native() + "\n");
  EXPECT_EQ(outputs(), (Names{game + ".manifest.json", game + ".tar.zst"}));
}

TEST_F(PublishTest, PublishesAGameAsTheClientReadsIt) {
  put_program();
  put("tree/data/level", "some level");
  put("presentation", R"({"tagline":"Play it","monogram":"G"})");
  put("notes", "First\nrelease");
  expect_published(of_game({"--presentation", root / "presentation", "--release-notes", root / "notes",
                            "--sdk-required", "--target", "builds/game/one.tar.zst", "--level", "1"}));
  EXPECT_EQ(outputs(), (Names{game + ".manifest.json", "one.tar.zst"}));
  const GameManifest manifest = GameManifest::parse(document(game + ".manifest.json"));
  EXPECT_EQ(manifest.build_id, "build-1");
  EXPECT_EQ(manifest.platform, platform);
  EXPECT_EQ(manifest.executable, "bin/program");
  EXPECT_EQ(manifest.target, "builds/game/one.tar.zst");
  EXPECT_EQ(manifest.game_id, "game");
  EXPECT_EQ(manifest.display_name, "The Game");
  EXPECT_EQ(manifest.presentation.tagline, "Play it");
  EXPECT_EQ(manifest.presentation.monogram, "G");
  EXPECT_EQ(manifest.release_notes, "First\nrelease");
  EXPECT_TRUE(manifest.sdk_required);
  EXPECT_EQ(manifest.archive_length, std::filesystem::file_size(output / "one.tar.zst"));
  EXPECT_EQ(manifest.archive_sha256, digest(read_output("one.tar.zst"), "sha256"));
  EXPECT_EQ(manifest.expanded_length, 19u);
  ASSERT_EQ(manifest.files.size(), 2u);
  EXPECT_TRUE(manifest.files.at("bin/program").executable);
  EXPECT_EQ(manifest.files.at("bin/program").length, 9u);
  EXPECT_EQ(manifest.files.at("bin/program").sha256, digest("#!program", "sha256"));
  EXPECT_FALSE(manifest.files.at("data/level").executable);
}

TEST_F(PublishTest, PublishesAGameWithNothingThatIsOptional) {
  put_program();
  expect_published(of_game());
  const GameManifest manifest = GameManifest::parse(document(game + ".manifest.json"));
  EXPECT_EQ(manifest.target, game + ".tar.zst");
  EXPECT_EQ(manifest.release_notes, "");
  EXPECT_FALSE(manifest.sdk_required);
  EXPECT_FALSE(manifest.raw.contains("presentation"));
}

TEST_F(PublishTest, PublishesALauncherAsTheClientReadsIt) {
  put_program();
  put("tree/bin/window", "#!window", 0755);
  put("tree/bin/crash", "#!crash", 0755);
  put("tree/bin/maintain", "#!maintain", 0755);
  expect_published(with(common("launcher"), {"--gui-executable", "bin/window", "--helper", "crash-handler=bin/crash",
                                             "--helper", "maintenance=bin/maintain"}));
  const std::string name = launcher_manifest_target(platform);
  EXPECT_EQ(outputs(), (Names{"launcher-" + platform + "-build-1.tar.zst", name}));
  const LauncherManifest manifest = LauncherManifest::parse(document(name));
  EXPECT_EQ(manifest.executable, "bin/program");
  EXPECT_EQ(manifest.gui_executable, "bin/window");
  EXPECT_EQ(manifest.runtime_helpers, (std::set<std::string>{"bin/crash", "bin/maintain"}));
  EXPECT_EQ(manifest.target, "launcher-" + platform + "-build-1.tar.zst");
}

TEST_F(PublishTest, PublishesABootstrapOfEveryPlatformAsTheClientReadsIt) {
  constexpr const char* helper = "bin/RavokShortcut.app/Contents/MacOS/ravok-shortcut";
  put("linux/bin/ravok-bootstrap", "#!", 0755);
  put("macos/bin/ravok-bootstrap", "#!", 0755);
  put(std::string("macos/") + helper, "#!", 0755);
  put("macos/bin/RavokShortcut.app/Contents/Info.plist", "<plist/>");
  put("windows/bin/ravok-bootstrap.exe", "MZ", 0755);
  put("windows/bin/ravok-bootstrap-gui.exe", "MZ", 0755);
  const struct {
    const char* tree;
    const char* platform;
    const char* executable;
    Arguments more;
  } cases[] = {
      {"linux", "linux-x86_64", "bin/ravok-bootstrap", {}},
      {"macos", "macos-aarch64", "bin/ravok-bootstrap", {"--shortcut-executable", helper}},
      {"windows", "windows-x86_64", "bin/ravok-bootstrap.exe", {"--gui-executable", "bin/ravok-bootstrap-gui.exe"}}};
  for (const auto& bootstrap : cases) {
    expect_published(with({"snapshot", root / bootstrap.tree, "--kind", "bootstrap", "--build-id", "build-1",
                           "--executable", bootstrap.executable, "--platform", bootstrap.platform, "--output", output},
                          bootstrap.more));
    const std::string name = std::string("bootstrap-") + bootstrap.platform;
    const SnapshotManifest manifest = SnapshotManifest::parse(document(name + ".manifest.json"));
    EXPECT_NO_THROW(validate_bootstrap_contract(manifest)) << bootstrap.platform;
    EXPECT_EQ(manifest.archive_sha256, digest(read_output(name + "-build-1.tar.zst"), "sha256"));
  }
}

TEST_F(PublishTest, PublishesWhatTheClientUnpacks) {
  put_program();
  put("tree/data/empty", "");
  put("tree/data/large", noise(300'000));
  put("tree/data/a name with blanks, (signs) & 'quotes'", "x");
  put("tree/tool", "#!tool", 0755);
  std::filesystem::create_hard_link(tree / "tool", tree / "same-tool");
  expect_published(of_game());
  const GameManifest manifest = GameManifest::parse(document(game + ".manifest.json"));
  verify_snapshot_tree(manifest, tree, {});
  extract_snapshot(manifest, output / (game + ".tar.zst"), root / "staging", {}, nullptr);
  EXPECT_EQ(manifest.files.size(), 6u);
}

TEST_F(PublishTest, MakesTheSameBytesOfTheSameFiles) {
  const Files files = {{"bin/program", "#!program", 0755}, {"z/y/x", noise(100'000)}, {"a", "a"}, {"b/empty"}};
  put_tree(files);
  Files reversed = files;
  std::reverse(reversed.begin(), reversed.end());
  put_tree(reversed, "another-tree");
  const auto long_ago = std::filesystem::file_time_type::clock::now() - std::chrono::hours(100'000);
  for (const SampleFile& file : files) {
    std::filesystem::last_write_time(root / ("another-tree/" + file.path), long_ago);
  }
  const auto publish_from = [&](const char* directory, const char* level) {
    Arguments arguments = of_game({"--level", level});
    arguments[1] = root / directory;
    expect_published(arguments);
    const std::string bytes = read_output(game + ".manifest.json") + read_output(game + ".tar.zst");
    std::filesystem::remove(output / (game + ".tar.zst"));
    std::filesystem::remove(output / (game + ".manifest.json"));
    return bytes;
  };
  const std::string first = publish_from("tree", "12");
  EXPECT_TRUE(first == publish_from("tree", "12"));
  EXPECT_TRUE(first == publish_from("another-tree", "12"));
  put("another-tree/a", "b");
  EXPECT_FALSE(first == publish_from("another-tree", "12"));
}

TEST_F(PublishTest, WritesWhereItStandsByDefault) {
  put_program();
  Arguments arguments = of_game();
  arguments.erase(arguments.begin() + 8, arguments.begin() + 10);
  arguments.insert(arguments.begin(), {"-c", "cd \"$0\" && exec \"$@\"", output, RAVOK_PUBLISH});
  const ProgramResult result = run_program({"/bin/sh", arguments, {}, ""});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(outputs(), (Names{game + ".manifest.json", game + ".tar.zst"}));
}

TEST_F(PublishTest, TakesADirectoryBesideTheTreeThatItsNameBeginsLike) {
  put_program();
  root.directory("tree-output");
  Arguments arguments = of_game();
  arguments[9] = root / "tree-output";
  expect_published(arguments);
  EXPECT_TRUE(std::filesystem::exists(root / "tree-output" / (game + ".tar.zst")));
}

// --- What is refused of a tree -------------------------------------------------------------

TEST_F(PublishTest, RefusesNamesThatNoSnapshotMayHold) {
  put_program();
  constexpr const char* portable = ", limit: a name that every platform can hold; found: ";
  const struct {
    const char* name;
    const char* message;
    std::string measure;
  } cases[] = {
      {"back\\slash", "Path must be a safe relative path: back\\slash",
       "back\\slash" + std::string(portable) + "back\\slash"},
      {"a:b", "Path contains an unsafe component: a:b", "a:b" + std::string(portable) + "a:b"},
      {"name.", "Path is not portable across supported platforms: name.", "name." + std::string(portable) + "name."},
      {"a?", "Path is not portable across supported platforms: a?", "a?" + std::string(portable) + "a?"},
      {"a\nb", "Path is not portable across supported platforms: a\\x0ab",
       "a\\x0ab" + std::string(portable) + "a\\x0ab"},
      {"a\x1b[2Jb", "Path is not portable across supported platforms: a\\x1b[2Jb",
       "a\\x1b[2Jb" + std::string(portable) + "a\\x1b[2Jb"},
      {"con.txt", "Path uses a reserved platform name: con.txt", "con.txt" + std::string(portable) + "con.txt"},
      {"\xc3\xa4", "The v1 package profile requires ASCII file paths: \xc3\xa4",
       "\xc3\xa4, limit: bytes 0x20 to 0x7e; found: byte 0xc3"},
      {"a\x7f", "The v1 package profile requires ASCII file paths: a\\x7f",
       "a\\x7f, limit: bytes 0x20 to 0x7e; found: byte 0x7f"}};
  for (const auto& refused : cases) {
    put(std::string("tree/") + refused.name);
    expect_tree_refused(refused.message, refused.measure);
    std::filesystem::remove(tree / refused.name);
  }
  put("tree/aux/file");
  expect_tree_refused("Path uses a reserved platform name: aux/file", "aux/file" + std::string(portable) + "aux/file");
  std::filesystem::remove_all(tree / "aux");
  expect_published(of_game());
}

TEST_F(PublishTest, RefusesEveryModeButTwo) {
  put_program();
  const std::pair<mode_t, const char*> modes[] = {{0600, "0600"},  {0700, "0700"}, {0640, "0640"}, {0664, "0664"},
                                                  {0444, "0444"},  {0777, "0777"}, {0, "0000"},    {04755, "4755"},
                                                  {02755, "2755"}, {01644, "1644"}};
  for (const auto& [mode, shown] : modes) {
    put("tree/file", "x", mode);
    expect_tree_refused("Package modes must be 0644 or 0755: file",
                        "file, limit: 0644 or 0755; found: " + std::string(shown));
    std::filesystem::remove(tree / "file");
  }
}

TEST_F(PublishTest, RefusesWhatIsNoFile) {
  constexpr const char* message = "Only ordinary files are accepted in snapshots: thing";
  put_program();
  for (const char* target : {"bin/program", "bin", "missing", "/etc/passwd"}) {
    std::filesystem::create_symlink(target, tree / "thing");
    expect_tree_refused(message, "thing, limit: ordinary files; found: a symbolic link");
    std::filesystem::remove(tree / "thing");
  }
  ASSERT_EQ(mkfifo((tree / "thing").c_str(), 0644), 0);
  expect_tree_refused(message, "thing, limit: ordinary files; found: a special file");
}

TEST_F(PublishTest, RefusesDirectoriesWithoutAFile) {
  put_program();
  root.directory("tree/empty");
  expect_tree_refused("Snapshots hold no empty directories: empty", "empty, limit: 1 file at least; found: none");
  std::filesystem::remove(tree / "empty");
  root.directory("tree/a/b/c");
  expect_tree_refused("Snapshots hold no empty directories: a", "a, limit: 1 file at least; found: none");
  put("tree/a/file");
  expect_tree_refused("Snapshots hold no empty directories: a/b", "a/b, limit: 1 file at least; found: none");
  // A name that begins alike is not below it.
  std::filesystem::remove_all(tree / "a");
  root.directory("tree/dir");
  put("tree/dir0/file");
  expect_tree_refused("Snapshots hold no empty directories: dir", "dir, limit: 1 file at least; found: none");
}

TEST_F(PublishTest, RefusesATreeWithoutFiles) {
  root.directory("tree");
  expect_tree_refused("Package file count exceeds bounds", "limit: 1 file at least; found: none");
}

TEST_F(PublishTest, RefusesNamesThatDifferOnlyInCase) {
  put_program();
  put("tree/README");
  put("tree/readme");
  expect_tree_refused("Package contains duplicate or case-colliding paths: readme",
                      "readme, limit: one spelling, whatever its case; found: README");
  std::filesystem::remove(tree / "README");
  put("tree/Dir/one");
  put("tree/dir/two");
  expect_tree_refused("Package directories differ only in case: dir/two",
                      "dir, limit: one spelling, whatever its case; found: Dir");
  std::filesystem::remove_all(tree / "Dir");
  put("tree/DIR");
  expect_tree_refused("Package file is another file's parent directory: dir",
                      "dir, limit: one spelling, whatever its case; found: DIR");
}

TEST_F(PublishTest, RefusesATreeThatIsNone) {
  expect_tree_refused("Expected a plain directory: " + tree.native());
  put("tree");
  expect_tree_refused("Expected a plain directory: " + tree.native());
  std::filesystem::remove(tree);
  put("real/bin/program", "#!program", 0755);
  std::filesystem::create_directory_symlink("real", tree);
  expect_tree_refused("Expected a plain directory: " + tree.native());
}

TEST_F(PublishTest, RefusesAFileLargerThanAllSnapshots) {
  put_program();
  put("tree/large");
  std::error_code problem;
  std::filesystem::resize_file(tree / "large", (std::uint64_t{1} << 42) + 1, problem);
  if (problem) {
    GTEST_SKIP() << "the volume holds no files of that size";
  }
  expect_tree_refused("Expanded package exceeds size bounds: large",
                      "large, limit: 4398046511104 bytes of all files; found: 4398046511105 bytes after 0 of others");
}

TEST_F(PublishTest, RefusesATreeWithoutItsExecutable) {
  constexpr const char* message = "Declared executable is missing or not executable";
  put("tree/other", "x", 0755);
  expect_tree_refused(message, "bin/program, limit: a file of mode 0755; found: no such file");
  put("tree/bin/program", "x", 0644);
  expect_tree_refused(message, "bin/program, limit: a file of mode 0755; found: a file of mode 0644");
}

// --- What is refused of the output ---------------------------------------------------------

TEST_F(PublishTest, ReplacesNothing) {
  put_program();
  for (const std::string& name : {game + ".tar.zst", game + ".manifest.json"}) {
    put("output/" + name, "mine");
    expect_refused(of_game(), 1, "The output already exists: " + (output / name).native() + "\n", {name});
    EXPECT_EQ(read_output(name), "mine");
    std::filesystem::remove(output / name);
    std::filesystem::create_symlink("missing", output / name);
    expect_refused(of_game(), 1, "The output already exists: " + (output / name).native() + "\n", {name});
    std::filesystem::remove(output / name);
  }
}

TEST_F(PublishTest, NeedsTwoNamesForItsTwoFiles) {
  put_program();
  const std::string name = game + ".manifest.json";
  expect_refused(of_game({"--target", "games/" + name}), 1,
                 "The archive and its manifest need different names: " + (output / name).native() + "\n");
}

TEST_F(PublishTest, WritesNothingIntoTheTree) {
  put_program();
  std::filesystem::create_directory_symlink("tree/bin", root / "link");
  for (const std::filesystem::path& inside : {tree, tree / "bin", root / "link"}) {
    Arguments arguments = of_game();
    arguments[9] = inside;
    expect_refused(arguments, 1, "The output directory must lie outside the tree\n");
  }
  EXPECT_EQ(seen(tree).size(), 2u);
}

TEST_F(PublishTest, NeedsADirectoryToWriteTo) {
  put_program();
  put("file");
  Arguments arguments = of_game();
  arguments[9] = root / "file";
  expect_refused(arguments, 1, "Export parent must be an existing plain directory\n");
  arguments[9] = root / "file/below";
  expect_refused(arguments, 1, "Cannot make the directory " + (root / "file/below").native() + "\n");
  EXPECT_EQ(root.read("file"), "x");
}

TEST_F(PublishTest, MakesTheMissingFoldersOfItsOutput) {
  put_program();
  Arguments arguments = of_game();
  arguments[9] = root / "new/and/deep";
  const testing::WithMask mask(027);
  expect_published(arguments);
  for (const char* folder : {"new", "new/and", "new/and/deep"}) {
    struct stat status;
    ASSERT_EQ(lstat((root / folder).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0750u) << folder;
  }
  EXPECT_TRUE(std::filesystem::exists(root / "new/and/deep" / (game + ".manifest.json")));
}

TEST_F(PublishTest, LeavesNoFolderThatItMadeForNothing) {
  put_program();
  put("tree/bin/second", "x", 0600);
  Arguments arguments = of_game({"--level", "1"});
  arguments[9] = root / "new/deep";
  expect_refused(arguments, 1,
                 "Package modes must be 0644 or 0755: bin/second\nbin/second, limit: 0644 or 0755; found: 0600\n");
  EXPECT_FALSE(std::filesystem::exists(root / "new"));
  std::filesystem::remove(tree / "bin/second");
  put("tree/large");
  std::filesystem::resize_file(tree / "large", std::uint64_t{1} << 36);
  testing::Companion program(RAVOK_PUBLISH, arguments);
  while (!std::filesystem::exists(root / "new/deep") && !program.has_ended()) {
  }
  program.send_signal(SIGTERM);
  EXPECT_EQ(program.wait(), 4);
  EXPECT_FALSE(std::filesystem::exists(root / "new"));
}

TEST_F(PublishTest, SaysSoWhenItsOutputCannotBeWritten) {
  put_program();
  const ProgramResult result = publisher(of_game(), "/dev/full");
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "Cannot write to standard output\n");
}

TEST_F(PublishTest, LeavesNothingBehindWhenItIsInterrupted) {
  put_program();
  put("tree/large");
  // So large that it is not packed before the signal comes.
  std::filesystem::resize_file(tree / "large", std::uint64_t{1} << 36);
  for (const int signal : {SIGINT, SIGTERM}) {
    testing::Companion program(RAVOK_PUBLISH, of_game({"--level", "1"}));
    while (outputs().empty() && !program.has_ended()) {
    }
    program.send_signal(signal);
    EXPECT_EQ(program.wait(), 4);
    EXPECT_EQ(outputs(), Names{});
  }
}

// --- What is refused of the command line ---------------------------------------------------

TEST_F(PublishTest, KnowsThreeKinds) {
  put_program();
  for (const char* kind : {"toy", "Game"}) {
    expect_refused(common(kind), 2, std::string("--kind is bootstrap, launcher or game, not ") + kind + "\n");
  }
  expect_refused(common(""), 2, "--kind needs a value\n");
  for (const char* option : {"--target", "--platform", "--release-notes"}) {
    expect_refused(of_game({option, ""}), 2, std::string(option) + " needs a value\n");
  }
}

TEST_F(PublishTest, NeedsWhatEveryKindNeeds) {
  put_program();
  const Arguments whole = of_game();
  for (const char* name : {"--kind", "--build-id", "--executable"}) {
    Arguments arguments = whole;
    const auto option = std::find(arguments.begin(), arguments.end(), name);
    arguments.erase(option, option + 2);
    expect_refused(arguments, 2, std::string(name) + " is required" + see_help);
  }
  Arguments arguments = whole;
  arguments.erase(arguments.begin() + 1);
  expect_refused(arguments, 2, std::string("TREE is required") + see_help);
}

TEST_F(PublishTest, NeedsWhatItsKindNeeds) {
  put_program();
  expect_refused(with(common("game"), {"--display-name", "The Game"}), 2,
                 "--game-id is required for this kind of snapshot\n");
  expect_refused(with(common("game"), {"--game-id", "game"}), 2,
                 "--display-name is required for this kind of snapshot\n");
  expect_refused(common("launcher"), 2, "--gui-executable is required for this kind of snapshot\n");
}

TEST_F(PublishTest, TakesNoOptionOfAnotherKind) {
  put_program();
  const struct {
    Arguments option;
    Arguments kinds;
    const char* owner;
  } cases[] = {{{"--game-id", "game"}, {"bootstrap", "launcher"}, "a game"},
               {{"--display-name", "x"}, {"bootstrap", "launcher"}, "a game"},
               {{"--presentation", "x"}, {"bootstrap", "launcher"}, "a game"},
               {{"--release-notes", "x"}, {"bootstrap", "launcher"}, "a game"},
               {{"--sdk-required"}, {"bootstrap", "launcher"}, "a game"},
               {{"--helper", "maintenance=bin/x"}, {"bootstrap", "game"}, "a launcher"},
               {{"--shortcut-executable", "bin/x"}, {"launcher", "game"}, "a bootstrap"},
               {{"--gui-executable", "bin/x"}, {"game"}, "a bootstrap or a launcher"}};
  for (const auto& foreign : cases) {
    for (const std::string& kind : foreign.kinds) {
      expect_refused(with(common(kind), foreign.option), 2, foreign.option[0] + " is only for " + foreign.owner + "\n");
    }
  }
}

TEST_F(PublishTest, TakesOnlyWhatItKnows) {
  put_program();
  expect_refused({}, 2, std::string("A subcommand is required") + see_help);
  expect_refused(of_game({"--bogus"}), 2, std::string("The following argument was not expected: --bogus") + see_help);
  expect_refused(of_game({"another"}), 2, std::string("The following argument was not expected: another") + see_help);
  for (const char* level : {"0", "20", "x", "-1"}) {
    expect_refused(of_game({"--level", level}), 2,
                   std::string("--level: Value ") + level + " not in range 1 to 19" + see_help);
  }
}

TEST_F(PublishTest, NeedsARoleForEachHelper) {
  put_program();
  put("tree/bin/window", "x", 0755);
  expect_refused(with(common("launcher"), {"--gui-executable", "bin/window", "--helper", "bin/x"}), 2,
                 "A helper is named as ROLE=PATH: bin/x\n");
}

// Everything that can be seen to be wrong without a look at any file ends with 2, and everything else with 1.
TEST_F(PublishTest, TellsAWrongCommandLineFromEveryOtherFailure) {
  put_program();
  put("tree/bin/window", "x", 0755);
  put("tree/bin/helper", "x", 0755);
  const Arguments launcher = with(common("launcher"), {"--gui-executable", "bin/window"});
  const Arguments owned = with(launcher, {"--helper", "maintenance=bin/helper"});
  put("foreign", R"({"colour":"red"})");
  put("notes", std::string(16'385, 'x'));
  put("binary-notes", "caf\xe9");
  const auto changed = [](Arguments arguments, std::size_t at, const std::string& value) {
    arguments.at(at) = value;
    return arguments;
  };
  constexpr const char* bad_id = "Game and build IDs use lower-case letters, digits, dots and hyphens";
  constexpr const char* unsafe = "Path contains an unsafe component";
  constexpr const char* not_utf8 = "The texts of a manifest must be valid UTF-8";
  const struct {
    Arguments arguments;
    int exit_code;
    std::string message;
  } cases[] = {
      {changed(of_game(), 5, "Build 1"), 2, bad_id},
      {changed(of_game(), 11, "The Game"), 2, bad_id},
      {changed(of_game(), 13, std::string(201, 'x')), 2, "Game display name is missing or too long"},
      {changed(of_game(), 13, "caf\xe9"), 2, not_utf8},
      {changed(of_game(), 7, "../program"), 2, unsafe},
      {of_game({"--platform", "amiga"}), 2, "Unknown snapshot platform"},
      {of_game({"--platform", "../x"}), 2, unsafe},
      {of_game({"--target", "../x"}), 2, unsafe},
      {of_game({"--target", "games/caf\xe9.tar.zst"}), 2, not_utf8},
      {of_game({"--exclude", "/etc"}), 2, "A pattern is a relative path without empty names, \".\" and \"..\": /etc"},
      {of_game({"--exclude", "a**"}), 2, "In a pattern, ** takes the place of a whole name: a**"},
      {with(launcher, {"--helper", "cook=bin/helper"}), 2, "Unsupported native helper ownership contract"},
      {with(launcher, {"--helper", "maintenance=bin/window"}), 2,
       "Native helper is missing, repeated or overlaps a frontend"},
      {with(owned, {"--target", "nested/launcher.tar.zst"}), 2, "Initial package resources need distinct flat names"},
      {with(owned, {"--target", "root.json"}), 2, "Initial package resources overlap"},
      {with(common("launcher"), {"--gui-executable", "bin/program"}), 2,
       "GUI and CLI need separate native entry points"},
      {common("bootstrap"), 2, "Initial bootstrap has a missing or incompatible stable entry point"},
      {of_game({"--presentation", root / "foreign"}), 1, "Unknown game presentation field"},
      {of_game({"--presentation", root / "missing"}), 1, "Cannot open file: " + (root / "missing").native()},
      {of_game({"--release-notes", root / "notes"}), 1, "Release notes exceed 16 KiB"},
      {of_game({"--release-notes", root / "binary-notes"}), 1, not_utf8},
      {launcher, 1,
       "Every native helper needs declared lifetime ownership\n"
       "bin/helper, limit: mode 0755 for programs that are named; found: mode 0755 of a program that is not"},
      {with(owned, {"--helper", "crash-handler=bin/other"}), 1,
       "Native helper is missing, repeated or overlaps a frontend\n"
       "bin/other, limit: a file of mode 0755; found: no such file"},
      {with(common("launcher"), {"--gui-executable", "bin/none", "--helper", "maintenance=bin/helper", "--helper",
                                 "crash-handler=bin/window"}),
       1,
       "GUI launcher executable is missing or not executable\n"
       "bin/none, limit: a file of mode 0755; found: no such file"}};
  for (const auto& refused : cases) {
    expect_refused(refused.arguments, refused.exit_code, refused.message + "\n");
  }
  put("linux/bin/ravok-bootstrap", "#!", 0755);
  put("linux/bin/other", "#!", 0755);
  expect_refused({"snapshot", root / "linux", "--kind", "bootstrap", "--build-id", "build-1", "--executable",
                  "bin/ravok-bootstrap", "--platform", "linux-x86_64", "--output", output},
                 1,
                 "Initial bootstrap snapshot contains an undeclared executable helper\nbin/other, limit: mode 0755 for "
                 "programs that "
                 "are named; found: mode 0755 of a program that is not\n");
}

TEST_F(PublishTest, TakesTextsInUtf8) {
  put_program();
  put("notes", "caf\xc3\xa9");
  Arguments name = of_game({"--release-notes", root / "notes", "--target", "games/caf\xc3\xa9.tar.zst"});
  name[13] = "caf\xc3\xa9";
  expect_published(name);
  EXPECT_EQ(document(game + ".manifest.json").at("display_name"), "caf\xc3\xa9");
}

TEST_F(PublishTest, NeedsTheFilesThatItIsToRead) {
  put_program();
  const std::string missing = root / "missing";
  for (const char* option : {"--presentation", "--release-notes"}) {
    expect_refused(of_game({option, missing}), 1, "Cannot open file: " + missing + "\n");
  }
}

// --- All that is refused of a tree, at once ------------------------------------------------

TEST_F(PublishTest, ListsAllThatItRefusesWithNamesRulesLimitsAndValues) {
  put("tree/bin/program", "#!program", 0700);
  put("tree/a?");
  put("tree/\xc3\xa4");
  put("tree/README");
  put("tree/readme");
  root.directory("tree/empty/inner");
  std::filesystem::create_symlink("readme", tree / "link");
  expect_tree_refused(
      "The snapshot is refused for 6 reasons:\n"
      "a?: Path is not portable across supported platforms (limit: a name that every platform can hold; found: a?)\n"
      "bin/program: Package modes must be 0644 or 0755 (limit: 0644 or 0755; found: 0700)\n"
      "empty: Snapshots hold no empty directories (limit: 1 file at least; found: none)\n"
      "link: Only ordinary files are accepted in snapshots (limit: ordinary files; found: a symbolic link)\n"
      "readme: Package contains duplicate or case-colliding paths (limit: one spelling, whatever its case; found: "
      "README)\n"
      "\xc3\xa4: The v1 package profile requires ASCII file paths (limit: bytes 0x20 to 0x7e; found: byte 0xc3)");
}

TEST_F(PublishTest, ListsTheFirstTwentyAndSaysHowManyMore) {
  put_program();
  std::string lines = "The snapshot is refused for 23 reasons:\n";
  for (int i = 10; i < 33; ++i) {
    const std::string name = "file" + std::to_string(i);
    put("tree/" + name, "x", 0600);
    if (i < 30) {
      lines += name + ": Package modes must be 0644 or 0755 (limit: 0644 or 0755; found: 0600)\n";
    }
  }
  expect_tree_refused(lines + "and 3 more");
}

TEST_F(PublishTest, ListsProgramsThatAreMissingAndThoseWithoutARole) {
  put("tree/bin/other", "x", 0755);
  put("tree/bin/window", "x", 0644);
  const Arguments launcher = with(common("launcher"), {"--gui-executable", "bin/window"});
  expect_refused(launcher, 1,
                 "The snapshot is refused for 3 reasons:\n"
                 "bin/other: Every native helper needs declared lifetime ownership (limit: mode 0755 for programs that "
                 "are named; found: mode 0755 of a program that is not)\n"
                 "bin/program: Declared executable is missing or not executable (limit: a file of mode 0755; found: no "
                 "such file)\n"
                 "bin/window: GUI launcher executable is missing or not executable (limit: a file of mode 0755; found: "
                 "a file of mode 0644)\n");
  put_program();
  put("tree/bin/window", "x", 0755);
  put("tree/bin/second", "x", 0755);
  expect_refused(launcher, 1,
                 "The snapshot is refused for 2 reasons:\n"
                 "bin/other: Every native helper needs declared lifetime ownership (limit: mode 0755 for programs that "
                 "are named; found: mode 0755 of a program that is not)\n"
                 "bin/second: Every native helper needs declared lifetime ownership (limit: mode 0755 for programs "
                 "that are named; found: mode 0755 of a program that is not)\n");
}

TEST_F(PublishTest, RefusesALauncherThatNoPackageCouldHold) {
  put_program();
  put("tree/bin/window", "x", 0755);
  const std::string folder(200, 'd');
  for (int i = 0; i < 2000; ++i) {
    root.write("tree/" + folder + "/" + std::to_string(i), "");
    ASSERT_EQ(chmod((tree / folder / std::to_string(i)).c_str(), 0644), 0);
  }
  const Arguments launcher = with(common("launcher"), {"--gui-executable", "bin/window"});
  const ProgramResult result = publisher(launcher);
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_TRUE(result.errors.starts_with("The manifest has ")) << result.errors;
  EXPECT_TRUE(result.errors.ends_with(" bytes\n")) << result.errors;
  EXPECT_EQ(outputs(), Names{});
  // A game of as many files is no part of a package.
  expect_published(of_game());
}

TEST_F(PublishTest, RefusesALauncherThatIsTooLarge) {
  put_program();
  put("tree/bin/window", "x", 0755);
  put("tree/large");
  std::filesystem::resize_file(tree / "large", (std::uint64_t{1} << 30) - 9);
  expect_refused(with(common("launcher"), {"--gui-executable", "bin/window"}), 1,
                 "Launcher payload exceeds bounded native package limits\n"
                 "limit: 1073741824 bytes; found: 1073741825 bytes\n");
}

// --- What is left out of a tree, and what is changed ---------------------------------------

TEST_F(PublishTest, LeavesOutWhatIsExcluded) {
  put_program();
  put("tree/data/level");
  put("tree/data/level.bak");
  put("tree/notes.bak", "x", 0600);
  put("tree/.git/objects/object", "x", 0444);
  std::filesystem::create_symlink("missing", tree / ".git/link");
  put("tree/only/cache/file");
  put("tree/a/b/c/deep.o");
  put("tree/a/b/kept");
  expect_published(
      of_game({"--exclude", "*.bak", "--exclude", ".git", "--exclude", "only/**", "--exclude", "a/**/*.o"}));
  const GameManifest manifest = GameManifest::parse(document(game + ".manifest.json"));
  std::set<std::string> names;
  for (const auto& entry : manifest.files) {
    names.insert(entry.first);
  }
  EXPECT_EQ(names, (std::set<std::string>{"a/b/kept", "bin/program", "data/level"}));
}

TEST_F(PublishTest, TellsOfAPatternThatMatchesNothing) {
  put_program();
  for (const Arguments& more : {Arguments{}, {"--check"}}) {
    const ProgramResult result = publisher(with(of_game({"--exclude", "*.bak", "--exclude", "no\x1bne"}), more));
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.errors, "--exclude matches nothing: *.bak\n--exclude matches nothing: no\\x1bne\n");
    std::filesystem::remove_all(output);
  }
  EXPECT_EQ(publisher(of_game({"--exclude", "program"})).errors,
            "Package file count exceeds bounds\nlimit: 1 file at least; found: none that is not excluded\n");
}

TEST_F(PublishTest, NormalizesModesInTheArchiveAndLeavesTheTreeAlone) {
  put("tree/bin/program", "#!program", 0700);
  put("tree/group", "x", 0660);
  put("tree/read-only", "x", 0444);
  put("tree/set-user", "x", 04711);
  put("tree/others-execute", "x", 0655);
  const std::map<std::string, Seen> before = seen(tree);
  expect_published(of_game({"--normalize-modes"}));
  EXPECT_TRUE(seen(tree) == before);
  const GameManifest manifest = GameManifest::parse(document(game + ".manifest.json"));
  extract_snapshot(manifest, output / (game + ".tar.zst"), root / "staging", {}, nullptr);
  const std::map<std::string, bool> expected = {
      {"bin/program", true}, {"group", false}, {"others-execute", false}, {"read-only", false}, {"set-user", true}};
  ASSERT_EQ(manifest.files.size(), expected.size());
  for (const auto& [path, executable] : expected) {
    EXPECT_EQ(manifest.files.at(path).executable, executable) << path;
  }
}

TEST_F(PublishTest, WritesNothingWhenItOnlyChecks) {
  put_program();
  Arguments arguments = of_game({"--check"});
  arguments[9] = root / "new/folder";
  const ProgramResult accepted = publisher(arguments);
  EXPECT_EQ(accepted.exit_code, 0);
  EXPECT_EQ(accepted.errors, "");
  EXPECT_EQ(accepted.output, "Nothing is refused of 1 files, 9 bytes; nothing was written\n");
  EXPECT_FALSE(std::filesystem::exists(root / "new"));
  put("tree/file", "x", 0600);
  expect_refused(of_game({"--check"}), 1,
                 "Package modes must be 0644 or 0755: file\nfile, limit: 0644 or 0755; found: 0600\n");
}

// --- What programs read --------------------------------------------------------------------

TEST_F(PublishTest, PrintsItsResultAsADocument) {
  put_program();
  const ProgramResult result = publisher(of_game({"--json", "--exclude", "none"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.errors, "--exclude matches nothing: none\n");
  const std::string archive = output / (game + ".tar.zst");
  const std::string manifest = output / (game + ".manifest.json");
  EXPECT_EQ(Json::parse(result.output), (Json{{"schema_version", 1},
                                              {"checked_only", false},
                                              {"files", 1},
                                              {"expanded_length", 9},
                                              {"unmatched_excludes", {"none"}},
                                              {"archive",
                                               {{"path", archive},
                                                {"length", std::filesystem::file_size(archive)},
                                                {"sha256", digest(read_output(game + ".tar.zst"), "sha256")}}},
                                              {"manifest",
                                               {{"path", manifest},
                                                {"length", std::filesystem::file_size(manifest)},
                                                {"sha256", digest(read_output(game + ".manifest.json"), "sha256")}}}}));
}

TEST_F(PublishTest, PrintsItsProblemsAsADocumentToo) {
  put_program();
  put("tree/a", "x", 0600);
  put("tree/b", "x", 0640);
  const std::string lines =
      "The snapshot is refused for 2 reasons:\n"
      "a: Package modes must be 0644 or 0755 (limit: 0644 or 0755; found: 0600)\n"
      "b: Package modes must be 0644 or 0755 (limit: 0644 or 0755; found: 0640)";
  const auto refusal = [](const char* name, const char* value) {
    return Json{{"code", "invalid_manifest"},
                {"name", name},
                {"rule", "Package modes must be 0644 or 0755"},
                {"limit", "0644 or 0755"},
                {"value", value}};
  };
  const ProgramResult refused = publisher(of_game({"--json"}));
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_EQ(refused.errors, lines + "\n");
  EXPECT_EQ(Json::parse(refused.output), (Json{{"schema_version", 1},
                                               {"problem",
                                                {{"code", "invalid_manifest"},
                                                 {"message", lines},
                                                 {"refused_count", 2},
                                                 {"refused", {refusal("a", "0600"), refusal("b", "0640")}}}}}));
  EXPECT_EQ(outputs(), Names{});

  const struct {
    Arguments arguments;
    int exit_code;
    const char* code;
    const char* message;
  } cases[] = {{of_game({"--json", "--level", "20"}), 2, "usage", "--level: Value 20 not in range 1 to 19"},
               {of_game({"--json", "--platform", "amiga"}), 2, "usage", "Unknown snapshot platform"},
               {{"--json"}, 2, "usage", nullptr},
               {of_game({"--json", "--release-notes", "/missing"}), 1, "file_read", "Cannot open file: /missing"}};
  for (const auto& problem : cases) {
    const ProgramResult result = publisher(problem.arguments);
    EXPECT_EQ(result.exit_code, problem.exit_code) << result.errors;
    const Json document = Json::parse(result.output);
    EXPECT_EQ(document.at("schema_version"), 1);
    EXPECT_EQ(document.at("problem").at("code"), problem.code);
    if (problem.message != nullptr) {
      EXPECT_EQ(document.at("problem").at("message"), problem.message);
      EXPECT_TRUE(result.errors.starts_with(problem.message)) << result.errors;
    }
  }
}

TEST_F(PublishTest, TellsItsExitCodes) {
  for (const Arguments& arguments : {Arguments{"--help"}, {"snapshot", "--help"}, {"key", "--help"}}) {
    const ProgramResult help = publisher(arguments);
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.output.find("Exit codes:\n  0  Done."), std::string::npos) << help.output;
    EXPECT_NE(help.output.find("  2  The command line is wrong"), std::string::npos) << help.output;
  }
}

// --- What killed runs leave ----------------------------------------------------------------

class KilledRunTest : public PublishTest {
 protected:
  KilledRunTest() {
    put_program();
    put("tree/large");
    // So large that it is not packed before the signal comes.
    std::filesystem::resize_file(tree / "large", std::uint64_t{1} << 36);
  }

  // Starts a run and waits for its temporary file, which it returns.
  std::string start(std::optional<testing::Companion>& program) const {
    const Names before = outputs();
    program.emplace(RAVOK_PUBLISH, of_game({"--level", "1"}));
    Names now = outputs();
    while (now.size() == before.size() && !program->has_ended()) {
      now = outputs();
    }
    for (const std::string& name : now) {
      if (std::find(before.begin(), before.end(), name) == before.end()) {
        return name;
      }
    }
    return "";
  }

  // A run into the same folder that has nothing to do with the build of the killed one.
  void run_another() const {
    put("small/program", "#!", 0755);
    expect_published({"snapshot", root / "small", "--kind", "game", "--build-id", "build-2", "--executable", "program",
                      "--game-id", "other", "--display-name", "Other", "--output", output});
  }
};

TEST_F(KilledRunTest, IsSweptByTheNextRunIntoTheSameFolder) {
  std::optional<testing::Companion> killed;
  const std::string left = start(killed);
  killed->send_signal(SIGKILL);
  EXPECT_EQ(killed->wait(), -SIGKILL);
  EXPECT_EQ(outputs(), Names{left});
  EXPECT_TRUE(left.starts_with(game + ".tar.zst.") && left.ends_with(".tmp")) << left;
  run_another();
  const std::string other = "other-" + platform + "-build-2";
  EXPECT_EQ(outputs(), (Names{other + ".manifest.json", other + ".tar.zst"}));
}

TEST_F(KilledRunTest, IsToldFromOneThatIsStillAlive) {
  std::optional<testing::Companion> alive;
  EXPECT_NE(start(alive), "");
  run_another();
  EXPECT_FALSE(alive->has_ended());
  // One whose file is removed before it holds it makes another.
  Names now = outputs();
  while (now.size() < 3 && !alive->has_ended()) {
    now = outputs();
  }
  EXPECT_EQ(now.size(), 3u);
  EXPECT_EQ(std::count_if(now.begin(), now.end(), [](const std::string& name) { return name.ends_with(".tmp"); }), 1);
  alive->send_signal(SIGTERM);
  EXPECT_EQ(alive->wait(), 4);
}

// --- The archivers of the system -----------------------------------------------------------

class ArchiverTest : public PublishTest {
 protected:
  const Files files = {{"bin/program", "#!program", 0755},
                       {"data/deep/er/large", noise(300'000)},
                       {"data/empty"},
                       {"data/name with blanks", "blank"},
                       {std::string(90, 'd') + "/" + std::string(90, 'n'), "long"},
                       {"tool", std::string(512, 't'), 0755}};

  static ProgramResult shell(const std::string& command, const Arguments& arguments) {
    Arguments words = {"-c", "set -e; " + command, "sh"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return run_program({"/bin/sh", words, {{"PATH", "/usr/local/bin:/usr/bin:/bin"}, {"LC_ALL", "C"}}, ""});
  }

  void SetUp() override {
    const ProgramResult versions = shell("tar --version; zstd --version", {});
    if (versions.output.find("GNU tar") == std::string::npos || versions.exit_code != 0) {
      GTEST_SKIP() << "GNU tar and zstd are not installed";
    }
  }

  // Packs the tree's files with the system's archivers.
  std::string packed(const std::string& format, const std::string& compressor) const {
    std::string list;
    for (const SampleFile& file : files) {
      list += file.path + "\n";
    }
    root.write("list", list);
    const ProgramResult result = shell(
        "cd \"$1\"; tar " + format + " --no-recursion -T ../list -cf ../tar; " + compressor + " <../tar >../packed",
        {tree});
    EXPECT_EQ(result.exit_code, 0) << format;
    EXPECT_EQ(result.errors, "") << format;
    return root.read("packed");
  }

  void expect_unpacked(const std::string& archive) const {
    const testing::Sample sample = testing::write_sample(root, files, archive);
    extract_snapshot(sample.manifest, sample.archive, root / "staging", {}, nullptr);
    std::map<std::string, Seen> expected = seen(tree);
    for (auto& [path, file] : expected) {
      if (S_ISREG(file.mode)) {
        file.mode = S_IFREG | (file.mode & S_IRWXU);
      }
    }
    EXPECT_TRUE(seen(root / "staging") == expected);
    std::filesystem::remove_all(root / "staging");
  }
};

TEST_F(ArchiverTest, UnpackWhatIsPublished) {
  put_tree(files);
  expect_published(of_game());
  root.directory("unpacked");
  const ProgramResult result =
      shell("zstd -dcq \"$1\" | tar -xpf - -C \"$2\"", {output / (game + ".tar.zst"), root / "unpacked"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_TRUE(seen(root / "unpacked") == seen(tree));
}

TEST_F(ArchiverTest, ListNothingInWhatIsPublishedThatTellsOfItsMaker) {
  put_tree(files);
  expect_published(of_game());
  const ProgramResult result =
      shell("zstd -dcq \"$1\" | tar -tvf - --numeric-owner --utc | grep -v ' 0/0 .* 1970-01-01 00:00 ' || true",
            {output / (game + ".tar.zst")});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output, "");
}

TEST_F(ArchiverTest, FindThePublishedFrameWhole) {
  put_tree(files);
  expect_published(of_game());
  EXPECT_EQ(shell("zstd -tq \"$1\"", {output / (game + ".tar.zst")}).exit_code, 0);
}

TEST_F(ArchiverTest, PackWhatTheClientUnpacks) {
  put_tree(files);
  expect_unpacked(packed("--format=ustar --owner=0 --group=0 --mtime=@0", "zstd --no-progress -3 -c"));
  expect_unpacked(packed("--format=gnu", "zstd -q -1 -c"));
  expect_unpacked(packed("--format=pax", "zstd -q -19 -c"));
  expect_unpacked(packed("--format=oldgnu --owner=somebody:1234", "zstd -q --no-check -c"));
}

TEST_F(ArchiverTest, PackWhatTheClientUnpacksWithWindowsUpToTheBound) {
  put_tree(files);
  expect_unpacked(packed("--format=ustar", "zstd -q --long=26 -c"));
  const std::string archive = packed("--format=ustar", "zstd -q --long=27 -c");
  const testing::Sample sample = testing::write_sample(root, files, archive);
  EXPECT_FAILURE(extract_snapshot(sample.manifest, sample.archive, root / "staging", {}, nullptr), "archive",
                 "Snapshot decoding failed or exceeds the 64 MiB window limit");
}

TEST_F(ArchiverTest, PackWhatTheClientRefuses) {
  put_tree(files);
  const struct {
    const char* command;
    const char* message;
  } cases[] = {
      {"ln -s bin/program link; tar -cf ../tar link bin/program", "Only ordinary files are accepted in snapshots"},
      {"ln tool hard; tar -cf ../tar tool hard", "Only ordinary files are accepted in snapshots"},
      {"tar -cf ../tar bin", "Only ordinary files are accepted in snapshots"},
      {"truncate -s 1M data/empty; tar -cSf ../tar data/empty", "Only ordinary files are accepted in snapshots"},
      {"truncate -s 1M data/empty; tar --format=pax --sparse-version=1.0 -cSf ../tar data/empty",
       "Only ordinary files are accepted in snapshots"},
      {"tar --owner=0 -cPf ../tar \"$PWD/tool\"", "Path must be a safe relative path"},
      {"cd bin; tar -cPf ../../tar ../tool", "Path contains an unsafe component"},
      {"chmod 0600 tool; tar -cf ../tar tool", "Archive file length or mode differs from manifest"}};
  for (const auto& refused : cases) {
    const ProgramResult result = shell(std::string("cp -pR \"$1\" \"$1-copy\"; cd \"$1-copy\"; ") + refused.command +
                                           "; cd \"$1-copy\"; zstd -q -c <../tar >../packed; rm -r \"$1-copy\"",
                                       {tree});
    ASSERT_EQ(result.exit_code, 0) << refused.command << "\n" << result.errors;
    const testing::Sample sample = testing::write_sample(root, files, root.read("packed"));
    const std::optional<Error> failure =
        testing::failure_of([&] { extract_snapshot(sample.manifest, sample.archive, root / "staging", {}, nullptr); });
    ASSERT_TRUE(failure) << refused.command;
    EXPECT_STREQ(failure->what(), refused.message) << refused.command;
    std::filesystem::remove_all(root / "staging");
  }
}

}  // namespace
}  // namespace ravok::publish_test
